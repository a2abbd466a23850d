#pragma once

#include <chrono>
#include <cstddef>

namespace Norvctl {

// "[=====     ] 120/3000  2000/s" on the last line of standard error, from half a second on.
class ProgressBar {
 public:
  // `total` 0: not known, and only counted.
  ProgressBar(bool on, std::size_t total) : on_(on), total_(total) {}
  void step() { ++done_; }
  // Shows it anew when it is time; called every few milliseconds.
  void show();
  // Takes it off the line before anything else is written.
  void clear();

 private:
  void draw(std::chrono::steady_clock::time_point now);

  const bool on_;
  const std::size_t total_;
  std::size_t done_ = 0;
  bool shown_ = false;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point drawnAt_{};
};

}  // namespace Norvctl
