// The verbs run and check.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "../Verb.h"
#include "../text/Terminal.h"
#include "../text/Text.h"
#include "Fleet.h"
#include "Recording.h"
#include "RunOptions.h"

namespace Norvctl {

namespace {

struct ScriptArguments : RunOptions {
  std::vector<std::string> files;
  bool stream = false;
  bool quiet = false;
  std::string record;
};

// Writes what was wrong with the input, not all if it is much.
int tellComplaints(const std::vector<std::string>& complaints, const char* end) {
  constexpr std::size_t shown = 20;
  for (std::size_t i = 0; i < std::min(complaints.size(), shown); ++i) {
    std::cerr << escaped(complaints[i]) << '\n';
  }
  if (complaints.size() > shown) {
    std::cerr << "... and " << complaints.size() - shown << " more\n";
  }
  std::cerr << "norvctl: " << end << '\n';
  return badInput;
}

// Reports, and records what was sent.
class RecordingReport : public Report {
 public:
  RecordingReport(const ReportOptions& options, RecordingWriter* recording)
      : Report(options), recording_(recording) {}
  void ended(const Norv::Agent::CommandReport& report, const Entry& entry) override {
    if (recording_) recording_->add(report, entry);
    Report::ended(report, entry);
  }

 private:
  RecordingWriter* const recording_;
};

int play(const ScriptArguments& arguments, StepSource& source, std::size_t total) {
  const Target target(arguments.target);
  SessionOptions session = sessionOptions(arguments, target);
  session.stream = !source.bounded();
  session.keepRequests = !arguments.record.empty();
  session.keepResponses = arguments.json || session.keepRequests;
  std::unique_ptr<RecordingWriter> recording;
  if (session.keepRequests) {
    recording = std::make_unique<RecordingWriter>(arguments.record, arguments.files);
  }
  ReportOptions options;
  options.json = arguments.json;
  options.quiet = arguments.quiet;
  options.colour = coloursAt(STDOUT_FILENO);
  options.progress = isatty(STDERR_FILENO) && !arguments.json;
  options.total = total;
  options.host = target.host();
  options.port = target.port();
  RecordingReport report(options, recording.get());
  endOnSignals();
  Session running(session, source, report);
  const SessionEnd end = running.run();
  report.summary(running.elapsed(), end, running.complaint());
  const bool recorded = !recording || recording->close();
  leave(recorded ? report.exitStatus(end) : badInput);
}

int run(const ScriptArguments& arguments) {
  if (const std::string reason = simulationReason(); !reason.empty()) {
    std::cerr << "norvctl: " << reason << '\n';
    return badInput;
  }
  const bool writes = !arguments.record.empty() || !arguments.session.flightRecorder.empty();
  if (arguments.target.hosts.size() > 1 && writes) {
    std::cerr
        << "norvctl: --record and --flight-recorder write a file of one host; give one host\n";
    return badInput;
  }
  const bool several = arguments.target.hosts.size() > 1;
  if (several && refusedForSeveral(arguments.files)) return badInput;
  const InputOptions input{arguments.allowAbort, arguments.stream};
  if (arguments.stream || !readableTwice(arguments.files)) {
    if (several) return runOnEach(arguments.target.hosts, arguments.json);
    StreamedFiles source(arguments.files, input);
    return play(arguments, source, 0);
  }
  std::vector<std::string> complaints;
  CheckedFiles source(arguments.files, input, complaints);
  if (!complaints.empty()) return tellComplaints(complaints, "nothing was sent");
  if (several) return runOnEach(arguments.target.hosts, arguments.json);
  return play(arguments, source, source.commands());
}

Action defineRun(CLI::App& command) {
  const auto arguments = std::make_shared<ScriptArguments>();
  command
      .add_option("FILE", arguments->files,
                  "files of commands, one JSON object a line; - is standard input")
      ->required();
  command.add_flag("--stream", arguments->stream,
                   "send a file's commands as they are read, instead of checking all of it before "
                   "anything is sent");
  command
      .add_option("--record", arguments->record,
                  "write what crosses the wire into this FILE, which it replaces")
      ->type_name("FILE");
  addRunOptions(command, *arguments);
  command.add_flag("--quiet", arguments->quiet, "only what did not end ok, and the summary");
  return [arguments] { return run(*arguments); };
}

int check(const ScriptArguments& arguments) {
  std::vector<std::string> complaints;
  if (!readableTwice(arguments.files)) {
    StreamedFiles source(arguments.files, {arguments.allowAbort, true});
    std::size_t commands = 0;
    try {
      while (const auto step = source.next()) commands += !step->announcement();
    } catch (const InputError& error) {
      return tellComplaints({error.what()}, "the rest was not looked at");
    }
    std::printf("%zu commands, all good\n", commands);
    return allOk;
  }
  const CheckedFiles source(arguments.files, {arguments.allowAbort, false}, complaints);
  if (!complaints.empty()) {
    return tellComplaints(complaints, (std::to_string(complaints.size()) + " wrong").c_str());
  }
  std::printf("%zu commands and %zu announcements, all good\n", source.commands(),
              source.announcements());
  return allOk;
}

Action defineCheck(CLI::App& command) {
  const auto arguments = std::make_shared<ScriptArguments>();
  command.add_option("FILE", arguments->files, "files of commands; - is standard input")
      ->required();
  command.add_flag("--allow-abort", arguments->allowAbort, "take getPortConf too");
  return [arguments] { return check(*arguments); };
}

}  // namespace

Verb runVerb() {
  return {
      "run",
      "run files of commands, one JSON object a line",
      {"Plays command files through named queues, connection manager and client, and tells how "
       "each command ended: ok; refused, with the daemon's error; failed, as its RPC failed; "
       "undecodable, as the reply does not decode here and what the daemon did is not known; "
       "dropped, never sent. `norvctl help files` has the grammar.",
       "Files are read through and checked before anything is sent. Standard input, pipes and, "
       "with --stream, files are taken as they come: the first commands are under way before the "
       "last are read, and a bad line ends the run there.",
       "Two thousand commands are under way at a time, and any number of them takes the same "
       "memory where they are for one queue or come as a stream. Of a file that is checked, each "
       "place where the next line is for another queue takes about a hundred bytes.",
       "With --json, each command is an object {seq, queue, type, outcome, latency_us, response "
       "or reason, line}, dropped ones after each other are one with --quiet, and the last line "
       "is {\"summary\": {sent, ok, refused, failed, undecodable, dropped, unanswered, seconds, "
       "rate, "
       "ended, target, failure}}, where `ended` is complete, failed, timed out, interrupted, bad "
       "input or output lost.",
       "A command that was under way when the run ended has failed and is counted as unanswered, "
       "not as sent: whether it reached the daemon is not known. It has no latency.",
       "With several hosts, each gets all commands from a process of its own, so they must stand "
       "in files, not come from standard input or a pipe. A line tells how it went with each, also "
       "after ^C, SIGTERM or SIGHUP, which all of them get."},
      {{"norvctl run --standin examples/first-light.jsonl", "needs no daemon"},
       {"norvctl run --host switch1 --timeout 60 commands.jsonl", "a minute at most"},
       {"tail -f commands.jsonl | norvctl run -", "commands as they are written"},
       {"norvctl run --record talk.jsonl commands.jsonl", "keeps requests and responses"}},
      &defineRun};
}

Verb checkVerb() {
  return {
      "check",
      "check files of commands, and send nothing",
      {"Reads the files as `norvctl run` does and tells everything that is wrong with them, with "
       "file, line and column. Needs no daemon."},
      {{"norvctl check examples/first-light.jsonl", "says how many commands there are"}},
      &defineCheck};
}

}  // namespace Norvctl
