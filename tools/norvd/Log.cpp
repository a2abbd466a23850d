#include "Log.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "text/Text.h"

namespace Norvd {

std::string text(WallTime time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return buffer;
}

std::string duration(std::chrono::duration<double> time) {
  const double seconds = time.count();
  char buffer[32];
  if (seconds < 120) {
    std::snprintf(buffer, sizeof buffer, "%.1f s", seconds);
  } else if (seconds < 7200) {
    std::snprintf(buffer, sizeof buffer, "%.0f min", seconds / 60);
  } else {
    std::snprintf(buffer, sizeof buffer, "%.0f h", seconds / 3600);
  }
  return buffer;
}

void log(Level level, const std::string& line) {
  static const bool journal = std::getenv("JOURNAL_STREAM") != nullptr;
  const std::string head = journal ? "<" + std::to_string(static_cast<int>(level)) + ">"
                                   : text(std::chrono::system_clock::now()) + " norvd: ";
  const std::string whole = head + Norvctl::escaped(line) + "\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, whole.data(), whole.size());
}

}  // namespace Norvd
