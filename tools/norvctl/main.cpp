#include <Standin/Server.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <sstream>

#include "CommandFile.h"
#include "Report.h"
#include "Requests.h"
#include "Session.h"

using namespace Norvctl;

namespace {

struct Arguments {
  SessionOptions session;
  bool standin = false;
  bool json = false;
  bool quiet = false;
  bool allowAbort = false;
  double timeoutSeconds = 0;
  std::string onFailure = "stop";
  std::vector<std::string> files;
  std::string type;
  std::string body = "{}";
};

// Runs the commands and reports them; the exit status.
int runSteps(Arguments& arguments, const std::vector<Step>& steps, bool showResponse) {
  if (std::getenv("SIMULATION_NORV")) {
    std::cerr << "norvctl: SIMULATION_NORV is set, so nothing would be sent; unset it\n";
    return 1;
  }
  std::unique_ptr<Standin::Server> standin;
  if (arguments.standin) {
    Standin::Options options;
    options.listen = "127.0.0.1:0";
    standin = std::make_unique<Standin::Server>(options);
    arguments.session.host = "127.0.0.1";
    arguments.session.port = static_cast<U16>(standin->port());
  }
  arguments.session.timeout = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(arguments.timeoutSeconds));
  if (arguments.onFailure == "continue") {
    arguments.session.failurePolicy = {Norv::Agent::FailurePolicy::Action::clearAndGoOn,
                                       std::chrono::milliseconds(100)};
  }

  ReportOptions options;
  options.json = arguments.json;
  options.quiet = arguments.quiet;
  options.colour = isatty(STDOUT_FILENO);
  options.progress = isatty(STDERR_FILENO) && !arguments.json;
  options.total = static_cast<std::size_t>(std::count_if(
      steps.begin(), steps.end(), [](const Step& step) { return !step.announcement(); }));
  options.showResponse = showResponse;
  Report report(options);
  interruptOnSigint();
  Session session(arguments.session, steps, report);
  const SessionEnd end = session.run();
  report.summary(session.elapsed(), end);
  Norv::Agent::Kit::leaveProcess(report.exitStatus(end));
}

int badInput(const CommandFile& file) {
  constexpr std::size_t shown = 20;
  for (std::size_t i = 0; i < std::min(file.complaints.size(), shown); ++i) {
    std::cerr << file.complaints[i] << '\n';
  }
  if (file.complaints.size() > shown) {
    std::cerr << "... and " << file.complaints.size() - shown << " more\n";
  }
  std::cerr << "norvctl: nothing was sent\n";
  return 1;
}

int run(Arguments& arguments) {
  CommandFile file;
  for (const std::string& name : arguments.files) {
    if (name == "-") {
      file.read(std::cin, "standard input", {arguments.allowAbort});
      continue;
    }
    std::ifstream in(name);
    if (!in) {
      file.complaints.push_back(name + ": " + std::strerror(errno));
      continue;
    }
    file.read(in, name, {arguments.allowAbort});
  }
  if (!file.complaints.empty()) return badInput(file);
  return runSteps(arguments, file.steps, false);
}

int call(Arguments& arguments) {
  const RequestInfo* info = requestInfo(arguments.type);
  if (!info) {
    std::cerr << "norvctl: " << unknownType(arguments.type) << '\n';
    return 1;
  }
  if (info->type == Norv::getPortConf && !arguments.allowAbort) {
    std::cerr << "norvctl: " << getPortConfReason << '\n';
    return 1;
  }
  std::vector<Step> steps(1);
  steps[0] = {"main", info->type, newRequest(info->type), 1};
  const std::string error = parseRequest(arguments.body, steps[0].request.get());
  if (!error.empty()) {
    std::cerr << "norvctl: request of " << info->name << " (" << info->requestMessage
              << "): " << error << "\n`norvctl template " << info->name << "` shows its fields\n";
    return 1;
  }
  return runSteps(arguments, steps, true);
}

int types() {
  std::printf("%3s  %-27s %-25s %s\n", "", "type", "request", "response");
  for (const RequestInfo& info : requestInfos()) {
    std::printf("%3u  %-27s %-25s %s\n", static_cast<unsigned>(info.type), info.name.data(),
                info.requestMessage.data(), info.responseMessage.data());
  }
  return 0;
}

int showTemplate(const Arguments& arguments) {
  const RequestInfo* info = requestInfo(arguments.type);
  if (!info) {
    std::cerr << "norvctl: " << unknownType(arguments.type) << '\n';
    return 1;
  }
  std::cout << requestTemplate(info->type);
  return 0;
}

// A time limit that the clock can count: what is wrong with it, or the empty text.
std::string checkTimeout(const std::string& text) {
  constexpr double longest = 1e8;
  const double seconds = std::strtod(text.c_str(), nullptr);
  const bool good = seconds >= 0 && seconds <= longest;
  return good ? std::string() : "'" + text + "' is no time limit; give 0 to 100000000 seconds";
}

void addSessionOptions(CLI::App* command, Arguments& arguments) {
  command->add_option("--host", arguments.session.host, "the daemon's host")->capture_default_str();
  command->add_option("--port", arguments.session.port, "the daemon's port")->capture_default_str();
  command->add_flag("--standin", arguments.standin,
                    "drive a stand-in daemon inside this process instead");
  command
      ->add_option("--timeout", arguments.timeoutSeconds,
                   "give up after so many SECONDS; 0 is for ever")
      ->check(CLI::Validator(checkTimeout, "SECONDS"))
      ->capture_default_str();
  command->add_flag("--json", arguments.json, "one JSON object per command, and a summary object");
  command->add_flag("--quiet", arguments.quiet, "only what did not end ok, and the summary");
  command->add_flag("--allow-abort", arguments.allowAbort,
                    "send getPortConf too, which ends this process");
  command
      ->add_option("--on-failure", arguments.onFailure,
                   "after a failed RPC: stop, or clear the error flag and continue")
      ->check(CLI::IsMember({"stop", "continue"}))
      ->capture_default_str();
  CLI::Option* recorder = command->add_option(
      "--flight-recorder", arguments.session.flightRecorder,
      "keep the last trace records in this FILE, and freeze them when an RPC fails; an older "
      "trace file becomes FILE.previous, anything else of that name is refused; read it with "
      "skein");
  command
      ->add_option("--flight-recorder-size", arguments.session.flightRecorderSize,
                   "BYTES of that file, 16KiB to 2GiB; kb, mb and gb count in 1024")
      ->transform(CLI::AsSizeValue(false))
      ->needs(recorder)
      ->capture_default_str();
  command
      ->add_option("--flight-recorder-copies", arguments.session.flightRecorderCopies,
                   "freeze the records of so many failures, then no more")
      ->needs(recorder)
      ->capture_default_str();
  command->add_option("--trace", arguments.session.trace,
                      "trace setting, as LUMO_TRACE: FACILITY/LEVELS[,...]");
  command->add_flag("--trace-first-batch", arguments.session.traceFirstBatch,
                    "show the manager's trace until its first batch is under way");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Drives a switch daemon through named queues, manager and client.", "norvctl");
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 all ok; 1 bad usage or bad input, nothing sent; 2 a command was refused;\n"
      "3 one failed, was undecodable or dropped, or the time ran out; 130 interrupted.");
  Arguments arguments;

  CLI::App* runCommand = app.add_subcommand("run", "run files of commands, one JSON object a line");
  runCommand->add_option("FILE", arguments.files, "- is standard input")->required();
  addSessionOptions(runCommand, arguments);

  CLI::App* callCommand = app.add_subcommand("call", "send one command and print the response");
  callCommand->add_option("TYPE", arguments.type, "as `norvctl types` lists them")->required();
  callCommand->add_option("JSON", arguments.body, "the request, in proto3 JSON");
  addSessionOptions(callCommand, arguments);

  app.add_subcommand("types", "list the request types with their messages");
  CLI::App* templateCommand = app.add_subcommand("template", "print a request body to fill in");
  templateCommand->add_option("TYPE", arguments.type, "a request type")->required();

  try {
    app.parse(argc, argv);
    if (app.got_subcommand("run")) return run(arguments);
    if (app.got_subcommand("call")) return call(arguments);
    if (app.got_subcommand("types")) return types();
    return showTemplate(arguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << "norvctl: " << error.what() << '\n';
    return 1;
  }
}
