#include "Log.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
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

namespace {

// The variable is inherited also by what writes elsewhere: it names the journal's end.
bool writesToJournal() {
  const char* named = std::getenv("JOURNAL_STREAM");
  struct stat found {};
  if (named == nullptr || fstat(STDERR_FILENO, &found) != 0) return false;
  return named == std::to_string(found.st_dev) + ":" + std::to_string(found.st_ino);
}

}  // namespace

bool logHasRoom() {
  pollfd error{STDERR_FILENO, POLLOUT, 0};
  return poll(&error, 1, 0) != 0;
}

void log(Level level, const std::string& line) {
  static const bool journal = writesToJournal();
  static std::atomic<unsigned> lost{0};
  if (!logHasRoom()) {
    ++lost;
    return;
  }
  const std::string head = journal ? "<" + std::to_string(static_cast<int>(level)) + ">"
                                   : text(std::chrono::system_clock::now()) + " norvd: ";
  std::string whole;
  if (const unsigned count = lost.exchange(0); count != 0) {
    whole = head + "log: " + std::to_string(count) + " lines are lost that nobody made room for\n";
  }
  whole += head + Norvctl::escaped(line) + "\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, whole.data(), whole.size());
}

}  // namespace Norvd
