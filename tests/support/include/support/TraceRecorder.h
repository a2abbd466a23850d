#pragma once

#include <string>
#include <vector>

#include <Lumo/Lock.h>
#include <Lumo/TraceSink.h>

namespace support {

// Collects text trace lines while it lives, with the setting given turned on; afterwards everything
// is off again. Any thread.
class TraceRecorder : public Lumo::TraceSink {
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

  // As LUMO_TRACE; "*/*" is everything.
  explicit TraceRecorder(const std::string& setting = "*/*");
  ~TraceRecorder() override;
  void lineIs(const Lumo::TraceLine& line) override;

  std::vector<Line> lines() const;
  std::vector<std::string> texts() const;
  // The texts of one facility; in tests of one module, what it traced and in which order.
  std::vector<std::string> texts(const std::string& facility) const;
  std::size_t count(const std::string& text) const;
  void clear();

 private:
  mutable Lumo::Lock lock_;
  std::vector<Line> lines_ LUMO_GUARDED_BY(lock_);
};

std::ostream& operator<<(std::ostream& out, const TraceRecorder::Line& line);

}  // namespace support
