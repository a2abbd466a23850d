#pragma once

#include <semaphore.h>

#include <cerrno>
#include <chrono>
#include <ctime>

namespace bench {

// One thread tells another that something is done, and when. Who waits wakes at once; what waits
// for a limited time in the standard library sleeps in steps that grow with the wait.
class Signal {
 public:
  using Clock = std::chrono::steady_clock;

  Signal() { sem_init(&semaphore_, 0, 0); }
  ~Signal() { sem_destroy(&semaphore_); }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  void release() {
    releasedAt_ = Clock::now();
    sem_post(&semaphore_);
  }
  // False when it was not released in that time.
  bool tryAcquireFor(std::chrono::milliseconds limit) {
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const auto end =
        std::chrono::seconds(until.tv_sec) + std::chrono::nanoseconds(until.tv_nsec) + limit;
    const auto seconds = std::chrono::floor<std::chrono::seconds>(end);
    until = {static_cast<time_t>(seconds.count()), static_cast<long>((end - seconds).count())};
    while (sem_clockwait(&semaphore_, CLOCK_MONOTONIC, &until) != 0) {
      if (errno != EINTR) return false;
    }
    return true;
  }
  // For who has acquired it.
  Clock::time_point releasedAt() const { return releasedAt_; }

 private:
  sem_t semaphore_;
  Clock::time_point releasedAt_;
};

}  // namespace bench
