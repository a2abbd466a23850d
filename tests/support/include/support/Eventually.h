#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace support {

// How long a test waits for an effect before it gives up; generous, as a loaded machine is slow.
inline constexpr std::chrono::seconds patience{30};

// Whether `condition` comes to hold. `between` runs between two looks, for fixtures that signal
// again until the effect shows.
inline bool eventually(const std::function<bool()>& condition,
                       const std::function<void()>& between = nullptr) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    if (between) between();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace support
