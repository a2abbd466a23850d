#include "CommandLine.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include <Bess/Text.h>

#include "../protocol/Requests.h"
#include "../text/Text.h"

namespace Norvctl {

const char* const getPortConfReason =
    "getPortConf ends the process of whoever sends it: the client goes on to getPortStats with the "
    "same request and aborts. Use listPorts instead, `norvctl call getPortConf`, which asks beside "
    "the library, or give --allow-abort to see it happen";

namespace {

using nlohmann::json;

// Those of a command; the others are a recording's, and say nothing about what to send.
constexpr std::array<const char*, 9> keys{"type",     "queue",        "request",
                                          "announce", "request_raw",  "response",
                                          "status",   "response_raw", "situation"};
constexpr const char* timeKey = "time";

std::string text(const json& object, const std::string& line, const std::string& key) {
  const json& value = object.at(key);
  if (!value.is_string()) {
    throw Complaint{columnOf(line, key),
                    "\"" + key + "\" must be a text, not " + std::string(value.type_name())};
  }
  const auto& found = value.get_ref<const std::string&>();
  if (found.find('\0') != std::string::npos) {
    throw Complaint{columnOf(line, key), "\"" + key + "\" has a NUL character in it"};
  }
  return found;
}

void refuseUnknownKeys(const json& object, const std::string& line) {
  for (const auto& [key, value] : object.items()) {
    if (key == timeKey || std::find(keys.begin(), keys.end(), key) != keys.end()) continue;
    throw Complaint{columnOf(line, key), "unknown key \"" + key + "\"; the nearest is \"" +
                                             nearest(key, {keys.begin(), keys.end()}) +
                                             "\" (`norvctl help files` lists all)"};
  }
}

// The bytes of a recording, which carry also what JSON cannot show.
void fillFromRaw(const json& object, const std::string& line, const RequestInfo& info,
                 google::protobuf::Message* request) {
  const std::string coded = text(object, line, "request_raw");
  const auto bytes = Bess::fromBase64(coded);
  if (!bytes || Bess::base64(*bytes) != coded) {  // as a recording has it, and nothing like it
    throw Complaint{columnOf(line, "request_raw"), "\"request_raw\" is no base64"};
  }
  if (!request->ParseFromString(*bytes)) {
    throw Complaint{columnOf(line, "request_raw"),
                    "the bytes of \"request_raw\" are no " + std::string(info.requestMessage)};
  }
}

void fillFromJson(const json& object, const std::string& line, const RequestInfo& info,
                  google::protobuf::Message* request) {
  const json& given = object.at("request");
  const std::string body = given.dump();
  std::string error = parseRequest(body, request);
  if (error.empty()) error = fieldNamedTwice(given, *request->GetDescriptor());
  if (!error.empty()) {
    throw Complaint{columnOf(line, "request"), badRequest(info, body, error)};
  }
}

Step command(const json& object, const std::string& line, const CommandLineOptions& options) {
  Step step;
  step.queueGiven = object.contains("queue");
  step.queue = step.queueGiven ? text(object, line, "queue") : "main";
  const std::string name = text(object, line, "type");
  const RequestInfo* info = requestInfo(name);
  if (!info) throw Complaint{columnOf(line, "type"), unknownType(name)};
  step.type = info->type;
  if (step.type == Norv::getPortConf && !options.allowAbort) {
    throw Complaint{columnOf(line, "type"), getPortConfReason};
  }
  if (options.withoutRequest) return step;
  step.request = newRequest(step.type);
  if (object.contains("request")) fillFromJson(object, line, *info, step.request.get());
  if (object.contains("request_raw")) {
    const std::string shown = messageJson(*step.request);
    fillFromRaw(object, line, *info, step.request.get());
    if (object.contains("request") && messageJson(*step.request) != shown) {
      throw Complaint{columnOf(line, "request_raw"),
                      "\"request\" and \"request_raw\" say different things; leave one out"};
    }
  }
  return step;
}

}  // namespace

bool blankLine(std::string_view line) {
  return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

Step parseCommandLine(const std::string& line, const CommandLineOptions& options) {
  const json object = parseStrictly(line);
  if (!object.is_object()) throw Complaint{1, "a line is a JSON object"};
  refuseUnknownKeys(object, line);
  Step step;
  if (object.contains("announce")) {
    if (object.contains("type")) {
      throw Complaint{columnOf(line, "announce"),
                      "a line is a command (\"type\") or an announcement (\"announce\"), not both"};
    }
    if (object.size() != 1) {
      throw Complaint{1, "an announcement has no other key than \"announce\""};
    }
    step.queue = text(object, line, "announce");
    step.queueGiven = true;
  } else if (!object.contains("type")) {
    throw Complaint{1, "neither \"type\" (a command) nor \"announce\" (a queue's name) is given"};
  } else {
    step = command(object, line, options);
  }
  step.bytes = line.size();
  return step;
}

}  // namespace Norvctl
