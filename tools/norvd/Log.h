#pragma once

#include <chrono>
#include <string>

namespace Norvd {

using WallTime = std::chrono::system_clock::time_point;
inline WallTime wallNow() {
  return std::chrono::system_clock::now();
}

// "2026-03-01T12:00:00Z", in UTC.
std::string text(WallTime time);
// "12.1 s", "3 min", "2 h".
std::string duration(std::chrono::duration<double> time);

// One line to standard error for each thing that happens, with the time, or with the journal's
// level where standard error is the journal. What a switch or a document told is escaped. A line
// that finds no room, as nobody reads the others, is lost; the next one says how many were. Any
// thread.
enum class Level { error = 3, warning = 4, notice = 5, info = 6 };
void log(Level level, const std::string& line);
// Whether standard error has room for a line. Safe in a signal handler.
bool logHasRoom();

}  // namespace Norvd
