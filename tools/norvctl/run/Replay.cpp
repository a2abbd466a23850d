// The verb replay.

#include <errno.h>
#include <string.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include <Bess/Text.h>
#include <Lumo/PrivateFile.h>
#include <bess/pb/service.pb.h>

#include "../Verb.h"
#include "../look/Direct.h"
#include "../protocol/Requests.h"
#include "../text/Table.h"
#include "../text/Terminal.h"
#include "../text/Text.h"
#include "Fleet.h"
#include "Recording.h"
#include "Report.h"
#include "RunOptions.h"
#include "Volatile.h"

namespace Norvctl {

namespace {

using google::protobuf::Message;
using nlohmann::json;
using nlohmann::ordered_json;

struct ReplayArguments {
  TargetOptions target;
  double timeoutSeconds = 10;
  std::vector<std::string> files;
  bool update = false;
  bool asJson = false;
  bool quiet = false;
};

// What one call came to, in the form in which recordings have it.
struct Answer {
  int status = 0;
  std::string message;
  json response;            // null: there is none, or it is bytes
  std::string responseRaw;  // base64; empty: there is none, or it is JSON
};

// A reply of a daemon of today to configureGateHook carries a name where ours has data: of the two
// forms the error alone is the same.
std::unique_ptr<Message> replyMessage(Norv::GrpcRequestType type) {
  if (type == Norv::configureGateHook) return std::make_unique<bess::pb::EmptyResponse>();
  return newResponse(type);
}

void readReply(Norv::GrpcRequestType type, const std::string& bytes, Answer& answer) {
  const std::unique_ptr<Message> message = replyMessage(type);
  if (!message->ParseFromString(bytes)) {
    answer.responseRaw = Bess::base64(bytes);
    return;
  }
  message->DiscardUnknownFields();
  const std::string text = messageJson(*message);
  answer.response = json::parse(text);
  if (!answer.response.is_object()) {
    answer.response = nullptr;
    answer.responseRaw = Bess::base64(bytes);
  }
}

Answer recordedAnswer(const json& line, Norv::GrpcRequestType type) {
  Answer answer;
  const json status = line.value("status", json::object());
  answer.status = status.value("code", 0);
  answer.message = status.value("message", "");
  if (line.contains("response")) {
    answer.response = line["response"];
  } else if (line.contains("response_raw")) {
    const std::string bytes =
        Bess::fromBase64(line["response_raw"].get<std::string>()).value_or("");
    readReply(type, bytes, answer);
  }
  return answer;
}

// Where two values differ: the paths with both.
void compare(const json& before, const json& now, const std::string& path,
             std::vector<std::string>& differences) {
  if (before == now) return;
  if (before.is_object() && now.is_object()) {
    for (const auto& [key, value] : before.items()) {
      compare(value, now.contains(key) ? now[key] : json(), path + "." + escaped(key), differences);
    }
    for (const auto& [key, value] : now.items()) {
      if (!before.contains(key)) compare(json(), value, path + "." + escaped(key), differences);
    }
    return;
  }
  if (before.is_array() && now.is_array() && before.size() == now.size()) {
    for (std::size_t i = 0; i < before.size(); ++i) {
      compare(before[i], now[i], path + "[" + std::to_string(i) + "]", differences);
    }
    return;
  }
  const auto shown = [](const json& value) {
    if (value.is_null()) return std::string("nothing");
    std::string text = oneLineJson(value);
    constexpr std::size_t most = 200;
    if (text.size() <= most) return text;
    std::size_t end = most;
    while ((text[end] & 0xc0) == 0x80) --end;  // between two characters
    return text.substr(0, end) + "...";
  };
  differences.push_back(path + ": recorded " + shown(before) + ", now " + shown(now));
}

std::vector<std::string> differencesOf(std::string_view type, const json& line, const Answer& was,
                                       const Answer& is) {
  std::vector<std::string> differences;
  if (was.status != is.status) {
    differences.push_back("status: recorded " + statusName(was.status) + ", now " +
                          statusName(is.status) +
                          (is.message.empty() ? "" : ": " + escaped(is.message)));
    return differences;
  }
  if (was.responseRaw != is.responseRaw) {
    differences.push_back("response: one of the two does not decode here");
    return differences;
  }
  json before = was.response;
  json now = is.response;
  const json request = line.value("request", json::object());
  // An error that is there and empty says the same as none.
  for (json* one : {&before, &now}) {
    if (one->is_object() && one->value("error", json(nullptr)) == json::object()) {
      one->erase("error");
    }
    removeVolatile(type, request, *one);
  }
  compare(before, now, "response", differences);
  return differences;
}

class Replay {
 public:
  Replay(const ReplayArguments& arguments, Direct& direct)
      : arguments_(arguments), direct_(direct) {}

  void file(const std::string& name) {
    LineReader reader(name);
    std::string line;
    std::string updated;
    const std::size_t differentBefore = different_;
    reader.endOn(&endingSignal);
    while (reader.next(line) && !endingSignal()) {
      if (!blankLine(line)) replayLine(reader, line);
      updated += line + "\n";
    }
    if (endingSignal() || different_ == differentBefore) return;
    if (arguments_.update) rewrite(name, updated);
  }

  int finish() const {
    const Colours colours(coloursAt(STDOUT_FILENO));
    if (arguments_.asJson) {
      std::printf(
          "{\"summary\":{\"calls\":%zu,\"as_recorded\":%zu,\"different\":%zu,"
          "\"left_out\":%zu,\"ended\":\"%s\",\"target\":%s}}\n",
          calls_, calls_ - different_, different_, leftOut_,
          endingSignal() ? "interrupted" : "complete", jsonText(direct_.address()).c_str());
    } else {
      std::printf("%zu calls: %zu as recorded, %s%zu different%s; %zu left out\n", calls_,
                  calls_ - different_, different_ ? colours.warning() : "", different_,
                  different_ ? colours.end() : "", leftOut_);
    }
    if (endingSignal()) return 128 + endingSignal();
    if (calls_ == 0 && leftOut_ != 0) {
      tellEvent(arguments_.asJson, "nothing to compare",
                "no line has an answer to compare (\"status\" or \"response\"); `norvctl run "
                "--record FILE` writes lines that have");
    }
    return different_ ? refused : allOk;
  }

 private:
  // Replaces the answer in `line` when it is to be updated.
  void replayLine(const LineReader& reader, std::string& line) {
    Step step;
    json recorded;
    Answer was;
    try {
      step = parseCommandLine(line, {true});
      recorded = json::parse(line);
      was = recordedAnswer(recorded, step.type);
    } catch (const Complaint& complaint) {
      throw InputError(reader.complaint(complaint));
    } catch (const json::type_error&) {
      throw InputError(reader.complaint(
          {0,
           "no line of a recording: \"status\" is {\"code\": a number, \"message\": a text}, "
           "and \"response_raw\" a text"}));
    }
    const bool answered = recorded.contains("status") || recorded.contains("response");
    if (step.announcement() || !answered || was.status == grpc::StatusCode::UNAVAILABLE) {
      ++leftOut_;
      return;
    }
    const RequestInfo& info = requestInfos()[step.type - 1];
    const Direct::Reply reply = direct_.call(info.rpc, step.request->SerializeAsString());
    if (endingSignal()) return;
    ++calls_;
    Answer is;
    is.status = reply.status;
    is.message = reply.message;
    if (reply.status == grpc::StatusCode::OK) readReply(info.type, reply.bytes, is);
    if (reply.status == grpc::StatusCode::UNAVAILABLE) {
      throw DirectError(reply.status, "no answer from " + direct_.address() + " to line " +
                                          std::to_string(reader.number()) + ": " +
                                          direct_.whyNoAnswer());
    }
    const auto differences = differencesOf(info.name, recorded, was, is);
    if (differences.empty()) return;
    ++different_;
    tell(reader, info, differences);
    if (arguments_.update) line = withAnswer(line, is);
  }

  void tell(const LineReader& reader, const RequestInfo& info,
            const std::vector<std::string>& differences) const {
    if (arguments_.asJson) {
      ordered_json object = {{"file", reader.name()},
                             {"line", reader.number()},
                             {"type", std::string(info.name)},
                             {"differences", differences}};
      std::printf("%s\n", oneLineJson(object).c_str());
      flushOutput();
      return;
    }
    if (arguments_.quiet) return;
    std::printf("%s:%zu: %s\n", escaped(reader.name()).c_str(), reader.number(), info.name.data());
    for (const std::string& one : differences) std::printf("    %s\n", one.c_str());
    flushOutput();
  }

  static std::string withAnswer(const std::string& line, const Answer& answer) {
    ordered_json object = ordered_json::parse(line);
    object.erase("response");
    object.erase("response_raw");
    if (!answer.response.is_null()) object["response"] = answer.response;
    if (!answer.responseRaw.empty()) object["response_raw"] = answer.responseRaw;
    object["status"] = {{"code", answer.status}, {"message", answer.message}};
    return oneLineJson(object);
  }

  static void rewrite(const std::string& name, const std::string& text) {
    try {
      Lumo::replacePrivately(name, [&](int descriptor) {
        std::FILE* file = fdopen(descriptor, "w");
        const bool written = file && std::fwrite(text.data(), 1, text.size(), file) == text.size();
        const bool closed = file && std::fclose(file) == 0;
        if (!written || !closed) throw Lumo::PathError(errno, strerror(errno));
      });
    } catch (const Lumo::PathError& error) {
      throw InputError("cannot update " + name + ": " + error.what());
    }
  }

  const ReplayArguments& arguments_;
  Direct& direct_;
  std::size_t calls_ = 0;
  std::size_t different_ = 0;
  std::size_t leftOut_ = 0;
};

int replay(const ReplayArguments& arguments) {
  if (arguments.update && !readableTwice(arguments.files)) {
    std::cerr << "norvctl: --update writes into the files that it reads; give files, not standard "
                 "input or a pipe\n";
    return badInput;
  }
  if (arguments.target.hosts.size() > 1) {
    if (arguments.update) {
      std::cerr << "norvctl: --update takes over the answers of one host; give one\n";
      return badInput;
    }
    if (refusedForSeveral(arguments.files)) return badInput;
    return replayOnEach(arguments.target.hosts, arguments.asJson);
  }
  const Target target(arguments.target);
  const auto patience = durationOf(arguments.timeoutSeconds);
  Direct direct(target.host(), target.port(),
                patience.count() ? std::chrono::ceil<std::chrono::milliseconds>(patience)
                                 : std::chrono::hours(24));
  endOnSignals();
  direct.endOn(&endingSignal);
  Replay replay(arguments, direct);
  for (const std::string& file : arguments.files) {
    if (!endingSignal()) replay.file(file);
  }
  return replay.finish();
}

Action defineReplay(CLI::App& command) {
  const auto arguments = std::make_shared<ReplayArguments>();
  command.add_option("FILE", arguments->files, "recordings, as `norvctl run --record` writes them")
      ->required();
  command.add_flag("--update", arguments->update,
                   "put the answers of now into the files where they differ");
  command.add_flag("--json", arguments->asJson, "one JSON object per difference, and a summary");
  command.add_flag("--quiet", arguments->quiet, "the summary alone");
  addTarget(command, arguments->target, true);
  addTimeout(command, arguments->timeoutSeconds, "SECONDS to wait for each answer; 0 is for ever");
  return [arguments] { return replay(*arguments); };
}

}  // namespace

Verb replayVerb() {
  return {
      "replay",
      "send a recording and show where the replies differ",
      {"Sends the requests of a recording one after the other, beside the library, and compares "
       "each status and response with the recorded one. Counters, times, random addresses and "
       "the daemon's version are not compared. Lines without an answer, and those that the "
       "daemon did not live to answer, are not sent.",
       "With several hosts, each is asked by a process of its own, and a line tells how many of "
       "its replies differ.",
       "--update writes a file anew only where replies differ, and leaves it as it was where the "
       "replay is interrupted.",
       "Exit status 0: all as recorded; 2: some replies differ."},
      {{"norvctl replay --standin talk.jsonl", "against a fresh stand-in daemon"},
       {"norvctl replay --update talk.jsonl", "takes over what has changed"}},
      &defineReplay};
}

}  // namespace Norvctl
