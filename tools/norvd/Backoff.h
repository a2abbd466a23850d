#pragma once

#include <chrono>
#include <random>

namespace Norvd {

// The pauses of a supervisor between the end of its child and the next start: short after one that
// went well or lived long, else each up to twice as long as the one before. For one thread.
class Backoff {
 public:
  explicit Backoff(unsigned seed) : random_(seed) {}

  // The next one. `exitStatus`: how the child ended, negative where a signal ended it; `lived`: for
  // how long it ran. Between half of the pause and all of it, so that many do not come at once.
  std::chrono::milliseconds pauseAfter(int exitStatus, std::chrono::milliseconds lived);

  static constexpr std::chrono::milliseconds shortest{50}, longest{5000};
  // After a connection that was lost early: the daemon may be back within a second.
  static constexpr std::chrono::milliseconds longestAfterLoss{800};

 private:
  std::chrono::milliseconds pause_ = shortest;
  std::minstd_rand random_;
};

}  // namespace Norvd
