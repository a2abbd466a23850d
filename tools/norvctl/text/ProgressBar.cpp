#include "ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "Terminal.h"

namespace Norvctl {

void ProgressBar::show() {
  using namespace std::chrono_literals;
  const auto now = std::chrono::steady_clock::now();
  if (on_ && now - start_ >= 500ms && now - drawnAt_ >= 100ms) draw(now);
}

void ProgressBar::draw(std::chrono::steady_clock::time_point now) {
  drawnAt_ = now;
  const double rate =
      static_cast<double>(done_) / std::chrono::duration<double>(now - start_).count();
  char numbers[96];
  if (total_ == 0) {
    std::snprintf(numbers, sizeof numbers, "%zu  %.0f/s ", done_, rate);
  } else {
    std::snprintf(numbers, sizeof numbers, "%zu/%zu  %.0f/s ", done_, total_, rate);
  }
  const std::size_t columns = columnsAt(STDERR_FILENO);
  const std::size_t taken = std::string(numbers).size() + 3;
  std::string bar;
  if (total_ != 0 && columns > taken + 5) {
    const std::size_t width = std::min<std::size_t>(40, columns - taken - 1);
    const std::size_t filled = width * std::min(done_, total_) / total_;
    bar = "[" + std::string(filled, '=') + std::string(width - filled, ' ') + "] ";
  }
  const std::string line = (bar + numbers).substr(0, columns > 1 ? columns - 1 : 0);
  std::fprintf(stderr, "\r%s", line.c_str());
  shown_ = true;
}

void ProgressBar::clear() {
  if (shown_) std::fprintf(stderr, "\r\033[K");
  shown_ = false;
}

}  // namespace Norvctl
