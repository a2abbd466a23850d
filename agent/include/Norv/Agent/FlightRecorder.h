#pragma once

#include <string>

#include <Norv/Agent/Ledger.h>
#include <Skein/TraceHandle.h>

namespace Norv::Agent {

// Keeps the ring-buffer trace of the process in a file of bounded size, and freezes a copy beside
// it when something has gone wrong: PATH.failure-N with the last records, and PATH.failure-N.json
// with what is known of the command. Read both the file and the copies with `skein`.
//
// Made and destroyed on the main thread; it is the process's default trace file meanwhile. `freeze`
// may be called from any thread.
class FlightRecorder {
 public:
  // Throws as Skein::TraceHandle does when the file cannot be made. `size` in bytes.
  explicit FlightRecorder(const std::string& path, U64 size = 4 * 1024 * 1024);
  ~FlightRecorder();
  FlightRecorder(const FlightRecorder&) = delete;
  FlightRecorder& operator=(const FlightRecorder&) = delete;

  // Writes the two files; reports on standard error if it cannot, and raises nothing.
  void freeze(const CommandReport& failure);

 private:
  const std::string path_;
  Skein::TraceHandle handle_;
  std::atomic<unsigned> frozen_{0};
};

}  // namespace Norv::Agent
