#include <support/TraceRecorder.h>

#include <algorithm>
#include <ostream>

#include <Lumo/Trace.h>

namespace support {

TraceRecorder::TraceRecorder(const std::string& setting) {
  Lumo::traceSettingIs(setting);
  Lumo::traceSinkIs(this);
}

TraceRecorder::~TraceRecorder() {
  Lumo::traceSinkIs(nullptr);
  Lumo::traceSettingIs("");
}

void TraceRecorder::lineIs(const Lumo::TraceLine& line) {
  Lumo::LockAnchor anchor(&lock_);
  lines_.push_back({std::string(line.facility), line.level, line.file, line.line, line.function,
                    std::string(line.text)});
}

std::vector<TraceRecorder::Line> TraceRecorder::lines() const {
  Lumo::LockAnchor anchor(&lock_);
  return lines_;
}

std::vector<std::string> TraceRecorder::texts() const {
  std::vector<std::string> texts;
  for (const Line& line : lines()) texts.push_back(line.text);
  return texts;
}

std::vector<std::string> TraceRecorder::texts(const std::string& facility) const {
  std::vector<std::string> texts;
  for (const Line& line : lines()) {
    if (line.facility == facility) texts.push_back(line.text);
  }
  return texts;
}

std::size_t TraceRecorder::count(const std::string& text) const {
  const std::vector<std::string> all = texts();
  return static_cast<std::size_t>(std::count(all.begin(), all.end(), text));
}

void TraceRecorder::clear() {
  Lumo::LockAnchor anchor(&lock_);
  lines_.clear();
}

std::ostream& operator<<(std::ostream& out, const TraceRecorder::Line& line) {
  return out << line.facility << '/' << line.level << ' ' << line.file << ':' << line.line << ' '
             << line.function << ": " << line.text;
}

}  // namespace support
