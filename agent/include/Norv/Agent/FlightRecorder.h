#pragma once

#include <mutex>
#include <optional>
#include <string>

#include <Norv/Agent/Ledger.h>
#include <Skein/TraceHandle.h>

namespace Norv::Agent {

// Keeps the ring-buffer trace of the process in a file of bounded size, and freezes a copy beside
// it when something has gone wrong: PATH.failure-N with the last records, and PATH.failure-N.json
// with what is known of it. N goes on after the highest that is there, so that nothing of an
// earlier run is overwritten; after 4294967295 no copies are made. The first failures of a run tell
// most: after `mostCopies` of them no more copies are made. Read both the file and the copies with
// `skein`.
//
// The trace file of an earlier run is kept as PATH.previous. Where PATH is a symbolic link, all of
// this is about the file that it leads to.
//
// Made and destroyed on the main thread. From its construction on it is the process's default trace
// file, until it is destroyed or another one takes its place; that one's end leaves none. `freeze`
// may be called from any thread.
class FlightRecorder {
 public:
  static constexpr U64 usualSize = 4 * 1024 * 1024;
  static constexpr unsigned usualCopies = 8;

  // Throws as Skein::TraceHandle does when the file cannot be made, also where PATH is something
  // else than a trace file or somebody writes it. `size` in bytes.
  explicit FlightRecorder(const std::string& path, U64 size = usualSize,
                          unsigned mostCopies = usualCopies);
  ~FlightRecorder();
  FlightRecorder(const FlightRecorder&) = delete;
  FlightRecorder& operator=(const FlightRecorder&) = delete;

  // Writes the two files before it returns: the calling thread copies the whole trace file. The
  // `command` that failed is none when what happened is no command's; `reason` says what did, or is
  // empty for what the client traced on this thread when the command's RPC failed, or else the
  // command's errorText, if it has an rpcCode. `request` is the command's as JSON, or a text
  // instead.
  // Reports on standard error if it cannot, and, once, when there are enough; raises nothing.
  void freeze(const std::optional<CommandReport>& command, const std::string& reason,
              const std::string& request = {});

 private:
  Skein::TraceHandle handle_;
  const unsigned mostCopies_;
  std::mutex freezing_;
  unsigned copies_ = 0;  // of this run
};

}  // namespace Norv::Agent
