#include <atomic>
#include <cerrno>
#include <ctime>
#include <fstream>
#include <string>

#include <Skein/RecordClock.h>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace Skein {

namespace {

constexpr U64 longestCarry = 1000000;       // ns
constexpr U64 calibrationNeeds = 10000000;  // ns
constexpr U64 longestReading = 5000;        // ticks: of both clocks, one after the other

U64 kernelNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<U64>(now.tv_sec) * 1000000000ULL + static_cast<U64>(now.tv_nsec);
}

U64 readTicks() {
#if defined(__x86_64__)
  return __rdtsc();
#else
  return 0;
#endif
}

// How long a tick lasts, in units of 2^-32 ns, and how many make up the longest carry. Both are 0
// until 10 ms have passed since the first record, and for good where the kernel itself does not
// trust the counter. Relaxed: a thread that sees an old value asks the kernel.
constinit std::atomic<U64> tickLength{0};
constinit std::atomic<U64> ticksCarried{0};

// Whether the kernel itself goes by the counter.
bool trusted() {
#if defined(__x86_64__)
  // The file is missing where /sys is; a trace point leaves the caller's error number alone.
  const int errnoOfCaller = errno;
  std::ifstream in("/sys/devices/system/clocksource/clocksource0/current_clocksource");
  std::string source;
  const bool steady = (in >> source) && source == "tsc";
  errno = errnoOfCaller;
  return steady;
#else
  return false;
#endif
}

// The first reading of both clocks, against which the length of a tick is measured. No local
// static: a child that is forked while another thread reads would wait for ever; like this it has
// the kernel's clock alone.
class Calibration {
 public:
  void measure(U64 nowTicks, U64 nowNs) {
    if (!begun_.exchange(true, std::memory_order_relaxed)) {
      trusted_ = trusted();
      ticks_ = nowTicks;
      ns_ = nowNs;
      read_.store(true, std::memory_order_release);
    }
    if (!read_.load(std::memory_order_acquire) || !trusted_) return;
    if (nowNs < ns_ + calibrationNeeds || nowTicks <= ticks_) return;
    const double nsPerTick =
        static_cast<double>(nowNs - ns_) / static_cast<double>(nowTicks - ticks_);
    tickLength.store(static_cast<U64>(nsPerTick * 4294967296.0), std::memory_order_relaxed);
    ticksCarried.store(static_cast<U64>(static_cast<double>(longestCarry) / nsPerTick),
                       std::memory_order_relaxed);
  }

 private:
  std::atomic<bool> begun_{false}, read_{false};
  bool trusted_ = false;  // with the others, written once before read_
  U64 ticks_ = 0;
  U64 ns_ = 0;
};

constinit Calibration calibration;

}  // namespace

U64 RecordClock::now() {
  const U64 ticks = readTicks();
  const U64 passed = ticks - anchorTicks_;  // huge when the counter went backwards
  U64 ns;
  if (passed < ticksCarried.load(std::memory_order_relaxed)) {
    ns = anchorNs_ + (passed * tickLength.load(std::memory_order_relaxed) >> 32);
  } else {
    ns = fromKernel(ticks);
  }
  if (ns < lastNs_) ns = lastNs_;
  lastNs_ = ns;
  return ns;
}

U64 RecordClock::fromKernel(U64 ticks) {
  const U64 ns = kernelNs();
  // Where the thread was interrupted between the two clocks, their readings do not belong together.
  if (readTicks() - ticks > longestReading) return ns;
  if (tickLength.load(std::memory_order_relaxed) == 0) calibration.measure(ticks, ns);
  anchorTicks_ = ticks;
  anchorNs_ = ns;
  return ns;
}

}  // namespace Skein
