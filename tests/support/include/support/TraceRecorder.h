#pragma once

#include <string>
#include <vector>

#include <Lumo/TraceRecorder.h>

namespace support {

// The framework's recorder with a setting of its own while it lives, and lines that a test
// compares: without time and thread. Afterwards everything is off again. Any thread.
class TraceRecorder {
 public:
  struct Line {
    std::string facility;
    unsigned level;
    std::string file;
    int line;
    std::string function;
    std::string text;
    bool operator==(const Line&) const = default;
  };

  static constexpr int anyThread = 0;

  // As LUMO_TRACE; "*/*" is everything.
  explicit TraceRecorder(const std::string& setting = "*/*");
  ~TraceRecorder();
  TraceRecorder(const TraceRecorder&) = delete;
  TraceRecorder& operator=(const TraceRecorder&) = delete;

  // All lines, or those of one thread, by the kernel's number: a worker that an earlier test of the
  // process has left behind may trace as well.
  std::vector<Line> lines(int thread = anyThread) const;
  std::vector<std::string> texts() const { return recorder_.texts(); }
  // The texts of one facility; in tests of one module, what it traced and in which order.
  std::vector<std::string> texts(const std::string& facility) const;
  std::size_t count(const std::string& text, int thread = anyThread) const;
  void clear() { recorder_.clear(); }

 private:
  Lumo::TraceRecorder recorder_;
};

std::ostream& operator<<(std::ostream& out, const TraceRecorder::Line& line);

}  // namespace support
