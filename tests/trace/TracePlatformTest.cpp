// What the traces make of the platform: clocks that are read, and reads and writes that do not go
// as they mostly do.

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <optional>

#include <Skein/RecordClock.h>

#include "TraceFixture.h"

namespace {

int clockReads = 0;
// What stands for the time of day.
std::optional<timespec> timeOfDay;

// Asked before a read; a result stands for that of the read.
std::function<std::optional<ssize_t>(int file, void* bytes, std::size_t size, off_t offset)> onRead;

// How much is written at once at most, and how many writes before take nothing.
std::size_t mostAtOnce = ~std::size_t{0};
int idleWrites = 0;

U64 kernelNs() {
  timespec time;
  ::syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &time);
  return static_cast<U64>(time.tv_sec) * 1'000'000'000 + static_cast<U64>(time.tv_nsec);
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  ++clockReads;
  if (clock == CLOCK_REALTIME && timeOfDay) {
    *time = *timeOfDay;
    return 0;
  }
  return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
}

extern "C" ssize_t pread(int file, void* bytes, std::size_t size, off_t offset) {
  if (onRead) {
    if (const auto result = onRead(file, bytes, size, offset)) return *result;
  }
  return ::syscall(SYS_pread64, file, bytes, size, offset);
}

extern "C" ssize_t write(int file, const void* bytes, std::size_t size) {
  if (idleWrites > 0) {
    --idleWrites;
    return 0;
  }
  return ::syscall(SYS_write, file, bytes, std::min(size, mostAtOnce));
}

namespace {

class TraceOnThePlatform : public TraceTest {
 protected:
  ~TraceOnThePlatform() override {
    onRead = nullptr;
    mostAtOnce = ~std::size_t{0};
    idleWrites = 0;
    timeOfDay.reset();
  }
};

TEST_F(TraceOnThePlatform, TimesKeepToTheKernelsClock) {
  Skein::RecordClock clock;
  constexpr U64 near = 100'000;  // ns: of 1 ms that is carried at most
  U64 last = 0;
  for (const U64 end = kernelNs() + 100'000'000; last < end;) {
    const U64 before = kernelNs();
    const U64 time = clock.now();
    ASSERT_GE(time + near, before);
    ASSERT_LE(time, kernelNs() + near);
    ASSERT_GE(time, last);
    last = time;
  }
}

TEST_F(TraceOnThePlatform, TheKernelIsAskedForFewTimesWhereTheCounterIsSteady) {
  std::string source;
  std::ifstream("/sys/devices/system/clocksource/clocksource0/current_clocksource") >> source;
#if !defined(__x86_64__)
  source = "no counter";
#endif
  if (source != "tsc") GTEST_SKIP() << "the kernel goes by " << source;
  Skein::RecordClock clock;
  for (const U64 end = kernelNs() + 50'000'000; clock.now() < end;) {
  }
  clockReads = 0;
  for (int i = 0; i < 10000; ++i) clock.now();
  EXPECT_LT(clockReads, 1000);
}

TEST_F(TraceOnThePlatform, ALineCarriesTheTimeOfDay) {
  textIsOn();
  timeOfDay = timespec{1769860800, 123456789};
  Twine::trace<Sample::textOnly>();
  const auto lines = recorder.lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].timeNs, 1769860800123456789ULL);
}

TEST_F(TraceOnThePlatform, ALineIsWrittenInAsManyPiecesAsItTakes) {
  textIsOn();
  Lumo::traceSinkIs(nullptr);
  testing::internal::CaptureStderr();
  mostAtOnce = 7;
  idleWrites = 1;
  errno = EBADF;  // of an earlier call: a write that takes nothing has not failed
  Twine::trace<Sample::textOnly>();
  mostAtOnce = ~std::size_t{0};
  const std::string written = testing::internal::GetCapturedStderr();
  Lumo::traceSinkIs(&recorder);
  EXPECT_TRUE(written.ends_with(" Sample/5 Sample.lumo:77 work: Nothing to do\n")) << written;
}

TEST_F(TraceOnThePlatform, AReadThatIsInterruptedGoesOn) {
  ringIsOn();
  Twine::trace<Sample::numbered>(1);
  bool interrupted = false;
  onRead = [&](int file, void* bytes, std::size_t size, off_t offset) -> std::optional<ssize_t> {
    interrupted = !interrupted;
    if (!interrupted)
      return ::syscall(SYS_pread64, file, bytes, std::min<std::size_t>(size, 100), offset);
    errno = EINTR;
    return -1;
  };
  EXPECT_EQ(textsIn(path), std::vector<std::string>{"n=1"});
}

TEST_F(TraceOnThePlatform, ASnapshotIsWrittenInAsManyPiecesAsItTakes) {
  ringIsOn();
  for (int i = 0; i < 100; ++i) Twine::trace<Sample::numbered>(i);
  mostAtOnce = 1000;
  Skein::snapshot(*skein->traceFile(), folder.file("frozen"));
  EXPECT_EQ(textsIn(folder.file("frozen")), textsIn(path));
  EXPECT_EQ(std::filesystem::file_size(folder.file("frozen")), std::filesystem::file_size(path));
}

// A writer clears what was left behind its last record, before it commits that one.
TEST_F(TraceOnThePlatform, WhatIsClearedBetweenTwoLooksIsNoDamage) {
  ringIsOn();
  Twine::trace<Sample::numbered>(1);
  const Skein::FileHeader header = headerOf(path);
  const off_t first = header.blocksOffset + sizeof(Skein::BlockHeader);
  U64 commit = 0;
  std::ifstream(path, std::ios::binary)
      .seekg(first)
      .read(reinterpret_cast<char*>(&commit), sizeof commit);
  const off_t behind = first + Skein::committedLength(commit);
  const U64 leftover = Skein::commitWord(77, 1, 24);
  const auto problem = [&](bool cleared) {
    onRead = [&, cleared](int file, void* bytes, std::size_t size,
                          off_t offset) -> std::optional<ssize_t> {
      if (offset > behind || offset + static_cast<off_t>(size) <= behind) return std::nullopt;
      const ssize_t count = ::syscall(SYS_pread64, file, bytes, size, offset);
      if (size > sizeof leftover || !cleared) {
        std::memcpy(static_cast<char*>(bytes) + (behind - offset), &leftover, sizeof leftover);
      }
      return count;
    };
    Skein::Reader reader(path);
    recordsOf(reader);
    onRead = nullptr;
    return reader.problem();
  };
  EXPECT_EQ(problem(true), "");
  EXPECT_NE(problem(false), "");
}

}  // namespace
