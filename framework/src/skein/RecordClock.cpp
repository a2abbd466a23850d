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

// The first reading of both clocks, against which the length of a tick is measured.
struct Calibration {
  bool trusted = false;
  U64 ticks = 0;
  U64 ns = 0;

  Calibration() {
#if defined(__x86_64__)
    // The file is missing where /sys is; a trace point leaves the caller's error number alone.
    const int errnoOfCaller = errno;
    std::ifstream in("/sys/devices/system/clocksource/clocksource0/current_clocksource");
    std::string source;
    trusted = (in >> source) && source == "tsc";
    errno = errnoOfCaller;
#endif
    ticks = readTicks();
    ns = kernelNs();
  }
  void measure(U64 nowTicks, U64 nowNs) const {
    if (!trusted || nowNs < ns + calibrationNeeds || nowTicks <= ticks) return;
    const double nsPerTick =
        static_cast<double>(nowNs - ns) / static_cast<double>(nowTicks - ticks);
    tickLength.store(static_cast<U64>(nsPerTick * 4294967296.0), std::memory_order_relaxed);
    ticksCarried.store(static_cast<U64>(static_cast<double>(longestCarry) / nsPerTick),
                       std::memory_order_relaxed);
  }
};

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
  static const Calibration calibration;
  const U64 ns = kernelNs();
  if (tickLength.load(std::memory_order_relaxed) == 0) calibration.measure(ticks, ns);
  anchorTicks_ = ticks;
  anchorNs_ = ns;
  return ns;
}

}  // namespace Skein
