#include <cstdio>
#include <fstream>
#include <sstream>

#include <Norv/Agent/FlightRecorder.h>

namespace Norv::Agent {

namespace {

Skein::TraceOptions multiThreaded(U64 size) {
  Skein::TraceOptions options;
  options.size = size;
  options.multiThreaded = true;
  return options;
}

// A JSON string: quotes and control characters escaped, the rest as it is.
std::string quoted(const std::string& text) {
  std::ostringstream out;
  out << '"';
  for (const unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out << '\\' << c;
    } else if (c < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      out << escape;
    } else {
      out << c;
    }
  }
  out << '"';
  return out.str();
}

double microseconds(Time::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

void writeDetails(const std::string& path, const CommandReport& failure) {
  std::ofstream out(path);
  out << "{\"seq\":" << failure.seq << ",\"type\":" << quoted(stringValue(failure.type).charPtr())
      << ",\"queue\":" << quoted(failure.queue.charPtr())
      << ",\"outcome\":" << quoted(outcomeName(failure.outcome))
      << ",\"reason\":" << quoted(failure.errorText)
      << ",\"waited_us\":" << microseconds(failure.started - failure.announced)
      << ",\"service_us\":" << microseconds(failure.ended - failure.started) << "}\n";
  out.close();
  if (!out) throw std::runtime_error(path + ": cannot be written");
}

}  // namespace

FlightRecorder::FlightRecorder(const std::string& path, U64 size)
    : path_(path), handle_(path, multiThreaded(size)) {
  Skein::defaultSkeinHandleIs(&handle_);
}

// The handle stops being the process's default by itself, if it still is.
FlightRecorder::~FlightRecorder() = default;

void FlightRecorder::freeze(const CommandReport& failure) {
  const std::string copy = path_ + ".failure-" + std::to_string(++frozen_);
  try {
    Skein::snapshot(*handle_.traceFile(), copy);
    writeDetails(copy + ".json", failure);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "flight recorder: %s\n", error.what());
  }
}

}  // namespace Norv::Agent
