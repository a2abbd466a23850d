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
// earlier run is overwritten. Read both the file and the copies with `skein`.
//
// Made and destroyed on the main thread. From its construction on it is the process's default trace
// file, until it is destroyed or another one takes its place; that one's end leaves none. `freeze`
// may be called from any thread.
class FlightRecorder {
 public:
  // Throws as Skein::TraceHandle does when the file cannot be made. `size` in bytes.
  explicit FlightRecorder(const std::string& path, U64 size = 4 * 1024 * 1024);
  ~FlightRecorder();
  FlightRecorder(const FlightRecorder&) = delete;
  FlightRecorder& operator=(const FlightRecorder&) = delete;

  // Writes the two files before it returns: the calling thread copies the whole trace file. The
  // `command` that failed is none when what happened is no command's; `reason` says what did.
  // Reports on standard error if it cannot, and raises nothing.
  void freeze(const std::optional<CommandReport>& command, const std::string& reason);

 private:
  const std::string path_;
  Skein::TraceHandle handle_;
  std::mutex freezing_;
};

}  // namespace Norv::Agent
