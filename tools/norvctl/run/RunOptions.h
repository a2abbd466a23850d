#pragma once

#include <memory>
#include <string>

#include "../Options.h"
#include "Report.h"
#include "Session.h"

namespace CLI {
class App;
}

namespace Norvctl {

// What the verbs that send commands through the library share.
struct RunOptions {
  TargetOptions target;
  SessionOptions session;
  double timeoutSeconds = 0;
  std::string onFailure = "stop";
  bool json = false;
  bool allowAbort = false;
};
void addRunOptions(CLI::App& command, RunOptions& options);

// What makes the library unusable for sending, for a person; empty: nothing.
std::string simulationReason();

// The session's own options, with the target and what has been parsed.
SessionOptions sessionOptions(const RunOptions& options, const Target& target);

// Ends the process, as a connected manager cannot be destroyed; with `status` unless the output was
// lost.
[[noreturn]] void leave(int status);

}  // namespace Norvctl
