#pragma once

#include <mutex>
#include <vector>

#include <Lumo/TraceSink.h>

namespace Lumo {

// A sink that keeps the lines, for tests and for agents that show recent lines. While it lives it
// is the process's sink; the previous one returns with its destruction.
class TraceRecorder : public TraceSink {
 public:
  struct Line {
    String facility;
    unsigned level;
    std::string file;
    int line;
    std::string function;
    std::string text;
    U64 timeNs;
    int thread;
  };

  TraceRecorder();
  ~TraceRecorder() override;
  TraceRecorder(const TraceRecorder&) = delete;
  TraceRecorder& operator=(const TraceRecorder&) = delete;

  void lineIs(const TraceLine& line) override;
  // A copy, in the order of arrival. Any thread.
  std::vector<Line> lines() const;
  std::vector<std::string> texts() const;
  void clear();

 private:
  TraceSink* const previous_;
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

}  // namespace Lumo
