#include <support/TraceRecorder.h>

#include <algorithm>
#include <ostream>

#include <Lumo/Trace.h>

namespace support {

TraceRecorder::TraceRecorder(const std::string& setting) {
  Lumo::traceSettingIs(setting);
}

TraceRecorder::~TraceRecorder() {
  Lumo::traceSettingIs("");
}

std::vector<TraceRecorder::Line> TraceRecorder::lines(int thread) const {
  std::vector<Line> lines;
  for (const Lumo::TraceRecorder::Line& line : recorder_.lines()) {
    if (thread != anyThread && line.thread != thread) continue;
    lines.push_back(
        {line.facility.stdString(), line.level, line.file, line.line, line.function, line.text});
  }
  return lines;
}

std::vector<std::string> TraceRecorder::texts(const std::string& facility) const {
  std::vector<std::string> texts;
  for (const Line& line : lines()) {
    if (line.facility == facility) texts.push_back(line.text);
  }
  return texts;
}

std::size_t TraceRecorder::count(const std::string& text, int thread) const {
  const std::vector<Line> all = lines(thread);
  return static_cast<std::size_t>(
      std::count_if(all.begin(), all.end(), [&](const Line& line) { return line.text == text; }));
}

std::ostream& operator<<(std::ostream& out, const TraceRecorder::Line& line) {
  return out << line.facility << '/' << line.level << ' ' << line.file << ':' << line.line << ' '
             << line.function << ": " << line.text;
}

}  // namespace support
