#include "RunOptions.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "../Verb.h"
#include "../text/Terminal.h"

namespace Norvctl {

void addRunOptions(CLI::App& command, RunOptions& options) {
  addTarget(command, options.target, true);
  addTimeout(command, options.timeoutSeconds, "give up after so many SECONDS; 0 is for ever");
  command.add_flag("--json", options.json,
                   "one JSON object per command, and a summary object; words about the connection "
                   "as JSON on standard error");
  command.add_flag("--allow-abort", options.allowAbort,
                   "send getPortConf too, which ends this process");
  completes(command.add_option("--on-failure", options.onFailure,
                               "after a failed RPC: stop, or clear the error flag and continue"),
            {"stop", "continue"})
      ->check(CLI::IsMember({"stop", "continue"}))
      ->type_name("ACTION")
      ->capture_default_str();
  CLI::Option* recorder = command.add_option(
      "--flight-recorder", options.session.flightRecorder,
      "keep the last trace records in this FILE, and freeze them when an RPC fails; an older "
      "trace file becomes FILE.previous, anything else of that name is refused; read it with "
      "skein");
  recorder->type_name("FILE");
  command
      .add_option("--flight-recorder-size", options.session.flightRecorderSize,
                  "BYTES of that file, 16KiB to 2GiB; kb, mb and gb count in 1024")
      ->transform(CLI::AsSizeValue(false))
      ->needs(recorder)
      ->type_name("BYTES")
      ->capture_default_str();
  command
      .add_option("--flight-recorder-copies", options.session.flightRecorderCopies,
                  "freeze the records of so many failures, then no more")
      ->needs(recorder)
      ->type_name("NUMBER")
      ->capture_default_str();
  command
      .add_option("--trace", options.session.trace,
                  "trace setting, as LUMO_TRACE: FACILITY/LEVELS[,...]")
      ->type_name("SETTING");
  command.add_flag("--trace-first-batch", options.session.traceFirstBatch,
                   "show the manager's trace until its first batch is under way");
}

std::string simulationReason() {
  const bool set = std::getenv("SIMULATION_NORV") != nullptr;
  return set ? "SIMULATION_NORV is set, so nothing would be sent; unset it" : "";
}

SessionOptions sessionOptions(const RunOptions& options, const Target& target) {
  SessionOptions session = options.session;
  session.host = target.host();
  session.port = target.port();
  session.timeout = durationOf(options.timeoutSeconds);
  if (options.onFailure == "continue") {
    session.failurePolicy = {Norv::Agent::FailurePolicy::Action::clearAndGoOn,
                             std::chrono::milliseconds(100)};
  }
  return session;
}

void leave(int status) {
  const bool written = flushOutput();
  Norv::Agent::Kit::leaveProcess(written ? status : badInput);
}

}  // namespace Norvctl
