// The verb call.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "../Verb.h"
#include "../look/Direct.h"
#include "../protocol/Requests.h"
#include "../protocol/StrictJson.h"
#include "../text/Terminal.h"
#include "../text/Text.h"
#include "Fleet.h"
#include "RunOptions.h"

namespace Norvctl {

namespace {

using google::protobuf::Message;
using Norv::Agent::CommandReport;

struct CallArguments : RunOptions {
  std::string type;
  std::string body = "{}";
  bool yaml = false;
  bool emitDefaults = false;
};

// One command.
class OneStep : public StepSource {
 public:
  explicit OneStep(Step step) : step_(std::move(step)) {}
  std::optional<Step> next() override { return std::exchange(step_, std::nullopt); }
  bool bounded() const override { return true; }

 private:
  std::optional<Step> step_;
};

// Keeps how the one command ended, and tells while it is waited for.
class OneReport : public SessionListener {
 public:
  OneReport(const Target& target, bool json) : noAnswer_(target.host(), target.port(), json) {}
  void ended(const CommandReport& report, const Entry& entry) override {
    report_ = report;
    if (!entry.response) return;
    response_.reset(entry.response->New());
    response_->CopyFrom(*entry.response);
  }
  bool told() override { return true; }
  bool wantsUnread() const override { return false; }
  void progress(const Norv::Agent::Kit& kit) override {
    const auto oldest = kit.ledger()->oldestOpen();
    if (!oldest || kit.ledger()->now() - oldest->started < std::chrono::seconds(1)) return;
    waiting_ = true;
    noAnswer_.waiting();
  }
  const CommandReport& report() const { return report_; }
  const Message* response() const { return response_.get(); }
  // What there is to say about an answer that did not come.
  void tellWhyNoAnswer(SessionEnd end) const {
    if (waiting_ || end == SessionEnd::timedOut) noAnswer_.tell(noAnswer_.atTheEnd());
  }

 private:
  CommandReport report_;
  std::unique_ptr<Message> response_;
  NoAnswer noAnswer_;
  bool waiting_ = false;
};

void print(const Message& response, const CallArguments& arguments) {
  if (arguments.json) {
    Norvctl::print(messageJson(response, arguments.emitDefaults) + "\n");
  } else if (arguments.yaml) {
    Norvctl::print(messageYaml(response, arguments.emitDefaults));
  } else {
    Norvctl::print(indentedJson(response, arguments.emitDefaults));
  }
}

// The body from the command line, a file or standard input.
std::string bodyText(const std::string& given) {
  if (given != "-" && !given.starts_with('@')) return given;
  LineReader reader(given == "-" ? given : given.substr(1));
  std::string body;
  std::string line;
  while (reader.next(line)) body += line + "\n";
  return body;
}

// "line 2, column 5: ", of a place in the body.
std::string placeText(const std::string& body, std::size_t column) {
  if (column == 0) return {};
  const std::size_t at = std::min(column - 1, body.size());
  const auto line = std::count(body.begin(), body.begin() + static_cast<std::ptrdiff_t>(at), '\n');
  const std::size_t lineEnd = at == 0 ? std::string::npos : body.rfind('\n', at - 1);
  const std::size_t begin = lineEnd == std::string::npos ? 0 : lineEnd + 1;
  return "line " + std::to_string(line + 1) + ", column " + std::to_string(at - begin + 1) + ": ";
}

// Fills the request as strictly as from the line of a file; the empty text, or what is wrong.
std::string fill(Message* request, const std::string& body) {
  try {
    const nlohmann::json given = parseStrictly(body);
    const std::string error = parseRequest(body, request);
    return error.empty() ? fieldNamedTwice(given, *request->GetDescriptor()) : error;
  } catch (const Complaint& complaint) {
    return placeText(body, complaint.column) + complaint.reason;
  }
}

int tellRefusal(int code, const std::string& text) {
  std::cerr << "norvctl: refused: " << escaped(refusalText(code, text)) << '\n';
  return refused;
}

int askDirectly(const RequestInfo& info, const Message& request, const CallArguments& arguments) {
  const Target target(arguments.target);
  const auto patience = durationOf(arguments.timeoutSeconds);
  Direct direct(target.host(), target.port(),
                patience.count() ? std::chrono::ceil<std::chrono::milliseconds>(patience)
                                 : Direct::usualPatience);
  std::cerr << "norvctl: asked beside the library, whose client ends the process on " << info.name
            << '\n';
  const std::unique_ptr<Message> response = newResponse(info.type);
  direct.ask(info.type, request, response.get());
  print(*response, arguments);
  const Norv::Agent::ResponseError error = Norv::Agent::responseError(*response);
  return error.code ? tellRefusal(error.code, error.text) : static_cast<int>(allOk);
}

[[noreturn]] void send(Step step, const CallArguments& arguments) {
  const Target target(arguments.target);
  SessionOptions session = sessionOptions(arguments, target);
  session.keepResponses = true;
  OneStep source(std::move(step));
  OneReport told(target, arguments.json);
  endOnSignals();
  Session running(session, source, told);
  const SessionEnd end = running.run();
  const CommandReport& report = told.report();
  if (told.response()) {
    print(*told.response(), arguments);
    if (report.outcome == Norv::Agent::Outcome::refused) {
      leave(tellRefusal(report.errorCode, report.errorText));
    }
    leave(allOk);
  }
  told.tellWhyNoAnswer(end);
  const std::string outcome = outcomeName(report.outcome);
  tellEvent(arguments.json, outcome,
            outcome + " at " + escaped(target.address()) + ": " + reasonOf(report));
  leave(end == SessionEnd::interrupted ? 128 + endingSignal() : static_cast<int>(lost));
}

int call(const CallArguments& arguments) {
  const RequestInfo* info = requestInfo(arguments.type);
  if (!info) {
    std::cerr << "norvctl: " << escaped(unknownType(arguments.type)) << '\n';
    return badInput;
  }
  const bool several = arguments.target.hosts.size() > 1;
  if (several && (arguments.yaml || !arguments.session.flightRecorder.empty())) {
    std::cerr
        << "norvctl: --yaml and --flight-recorder are for one host; give one, or --json for a "
           "line per host\n";
    return badInput;
  }
  Step step;
  step.queue = "main";
  step.type = info->type;
  step.request = newRequest(info->type);
  step.line = 1;
  const std::string body = bodyText(arguments.body);
  const std::string error = fill(step.request.get(), body);
  if (!error.empty()) {
    std::cerr << "norvctl: " << escaped(badRequest(*info, body, error)) << '\n';
    return badInput;
  }
  if (several) {
    return callOnEach(arguments.target.hosts, arguments.json, arguments.body, body);
  }
  if (info->type == Norv::getPortConf && !arguments.allowAbort) {
    return askDirectly(*info, *step.request, arguments);
  }
  if (const std::string reason = simulationReason(); !reason.empty()) {
    std::cerr << "norvctl: " << reason << '\n';
    return badInput;
  }
  send(std::move(step), arguments);
}

Action defineCall(CLI::App& command) {
  const auto arguments = std::make_shared<CallArguments>();
  completes(command.add_option("TYPE", arguments->type, "as `norvctl types` lists them"),
            requestNames())
      ->required();
  command.add_option(
      "JSON", arguments->body,
      "the request in proto3 JSON; @FILE reads it from a file, - from standard input");
  CLI::Option* yaml = command.add_flag("--yaml", arguments->yaml, "print the response as YAML");
  command.add_flag("--emit-defaults", arguments->emitDefaults,
                   "print the fields that have their usual value, too");
  addRunOptions(command, *arguments);
  CLI::Option* json = command.get_option("--json");
  json->description(
      "print the response on one line; words about the connection as JSON on standard error");
  yaml->excludes(json);
  return [arguments] { return call(*arguments); };
}

}  // namespace

Verb callVerb() {
  return {
      "call",
      "send one command and print the response",
      {"Sends a command through queue, manager and client, and prints the response alone on "
       "standard output, as indented JSON, with --json on one line, or as YAML; all else goes to "
       "standard error.",
       "The body is read as strictly as a line of a file: a key that comes twice, and a field "
       "under both its names, is an error. With several hosts, each gets the same body, and its "
       "line has the response.",
       "getPortConf, which ends the process of whoever sends it through the library, is asked "
       "beside it. `norvctl template TYPE` prints a body to fill in."},
      {{"norvctl call --standin getVersion", "a request without fields"},
       {"norvctl call --standin --yaml listMclass", "as YAML"},
       {"norvctl call --standin getDriverInfo '{\"driverName\":\"PMDPort\"}'", "with a request"}},
      &defineCall};
}

}  // namespace Norvctl
