#include "CommandFile.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "Requests.h"

namespace Norvctl {

const char* const getPortConfReason =
    "getPortConf ends the process of whoever sends it: the client goes on to getPortStats with the "
    "same request and aborts. Use listPorts instead, or give --allow-abort to see it happen";

namespace {

using nlohmann::json;

// What is wrong with a line; column 0 when the place in the line is not known.
struct Complaint {
  std::size_t column;
  std::string reason;
};

// No message nests as deeply, and what does would exhaust the stack of those who walk through it.
constexpr int deepestNesting = 100;

json parseLine(const std::string& line) {
  const auto checkDepth = [](int depth, json::parse_event_t, json&) {
    if (depth > deepestNesting) {
      throw Complaint{0, "nested more than " + std::to_string(deepestNesting) + " levels deep"};
    }
    return true;
  };
  try {
    return json::parse(line, checkDepth);
  } catch (const json::out_of_range& error) {
    // "[json.exception.out_of_range.406] number overflow parsing '1e999'"
    const std::string reason = error.what();
    throw Complaint{0, "malformed JSON: " + reason.substr(reason.find("] ") + 2)};
  } catch (const json::parse_error& error) {
    std::string reason = error.what();
    // "[json.exception.parse_error.101] parse error at line 1, column 8: REASON"
    if (const auto colon = reason.find(": "); colon != std::string::npos) {
      reason.erase(0, colon + 2);
    }
    throw Complaint{error.byte, "malformed JSON: " + reason};
  }
}

// Where `key` stands in the line, for the reader's eye.
std::size_t columnOf(const std::string& line, const std::string& key) {
  const std::size_t at = line.find('"' + key + '"');
  return at == std::string::npos ? 0 : at + 1;
}

std::string text(const json& object, const std::string& line, const std::string& key) {
  const json& value = object.at(key);
  if (!value.is_string()) {
    throw Complaint{columnOf(line, key),
                    "\"" + key + "\" must be a text, not " + std::string(value.type_name())};
  }
  return value.get<std::string>();
}

Norv::GrpcRequestType requestType(const std::string& name, std::size_t column) {
  const RequestInfo* info = requestInfo(name);
  if (!info) throw Complaint{column, unknownType(name)};
  return info->type;
}

Step command(const json& object, const std::string& line, const CommandFileOptions& options) {
  Step step;
  step.queue = object.contains("queue") ? text(object, line, "queue") : "main";
  step.type = requestType(text(object, line, "type"), columnOf(line, "type"));
  if (step.type == Norv::getPortConf && !options.allowAbort) {
    throw Complaint{columnOf(line, "type"), getPortConfReason};
  }
  step.request = newRequest(step.type);
  if (!object.contains("request")) return step;
  const std::string error = parseRequest(object.at("request").dump(), step.request.get());
  if (!error.empty()) {
    throw Complaint{columnOf(line, "request"),
                    "request of " + std::string(requestInfos()[step.type - 1].name) + " (" +
                        std::string(requestInfos()[step.type - 1].requestMessage) + "): " + error};
  }
  return step;
}

Step parseStep(const std::string& line, const CommandFileOptions& options) {
  const json object = parseLine(line);
  if (!object.is_object()) throw Complaint{1, "a line is a JSON object"};
  if (object.contains("announce")) {
    if (object.contains("type")) {
      throw Complaint{columnOf(line, "announce"),
                      "a line is a command (\"type\") or an announcement (\"announce\"), not both"};
    }
    Step step;
    step.queue = text(object, line, "announce");
    return step;
  }
  if (!object.contains("type")) {
    throw Complaint{1, "neither \"type\" (a command) nor \"announce\" (a queue's name) is given"};
  }
  return command(object, line, options);
}

}  // namespace

void CommandFile::read(std::istream& in, const std::string& fileName,
                       const CommandFileOptions& options) {
  std::string line;
  for (std::size_t number = 1; std::getline(in, line); ++number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    try {
      steps.push_back(parseStep(line, options));
      steps.back().line = number;
    } catch (const Complaint& complaint) {
      std::string place = fileName + ":" + std::to_string(number) + ":";
      if (complaint.column != 0) place += std::to_string(complaint.column) + ":";
      complaints.push_back(place + " " + complaint.reason);
    }
  }
  if (in.bad()) complaints.push_back(fileName + ": cannot be read to its end");
}

}  // namespace Norvctl
