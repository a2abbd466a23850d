// What the traces make of the platform: clocks that are read, and reads, writes and locks that do
// not go as they mostly do.

#include <dlfcn.h>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <support/Platform.h>
#include <support/ThisProcess.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <optional>
#include <semaphore>
#include <string_view>
#include <thread>
#include <utility>

#include <Skein/RecordClock.h>

#include "Process.h"
#include "TraceFixture.h"

namespace {

int clockReads = 0;
U64 clockReadTakes = 0;    // ns
bool clockStands = false;  // the clock says the same all the time
time_t clockIsBehind = 0;  // seconds
std::string clockSource;   // the file that is read for the kernel's, unless empty
// What stands for the time of day.
std::optional<timespec> timeOfDay;

// Asked before a read; a result stands for that of the read.
std::function<std::optional<ssize_t>(int file, void* bytes, std::size_t size, off_t offset)> onRead;

// Asked before a file is locked; a result stands for that of the lock.
std::function<std::optional<int>(int file)> onLock;

// How often space was reserved while a signal could have come between, and while none could.
int reservationsInTheOpen = 0;
int reservations = 0;

// Asked after a file is closed; stands for the result.
std::function<int()> onClose;

// How often a thread has given way to others, where it counts that.
thread_local std::atomic<int>* yields = nullptr;

// How often the kernel's barrier was made known to it, and asked for.
std::atomic<int> barriersRegistered{0};
std::atomic<int> barriers{0};

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
  if (clockReadTakes != 0) {
    for (const U64 end = kernelNs() + clockReadTakes; kernelNs() < end;) {
    }
  }
  const int result = static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  if (clockStands) *time = {1000, 0};
  time->tv_sec -= clockIsBehind;
  return result;
}

extern "C" std::FILE* fopen64(const char* name, const char* mode) {
  using Open = std::FILE* (*)(const char*, const char*);
  static const auto real = reinterpret_cast<Open>(::dlsym(RTLD_NEXT, "fopen64"));
  const bool ofClock = std::string_view(name).ends_with("/current_clocksource");
  return real(ofClock && !clockSource.empty() ? clockSource.c_str() : name, mode);
}

extern "C" long syscall(long number, ...) noexcept {
  using Call = long (*)(long, ...);
  static const auto real = reinterpret_cast<Call>(::dlsym(RTLD_NEXT, "syscall"));
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  if (number == SYS_membarrier) {
    const auto command = static_cast<int>(arguments[0]);
    if (command == MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) ++barriersRegistered;
    if (command == MEMBARRIER_CMD_PRIVATE_EXPEDITED) ++barriers;
  }
  return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
              arguments[5]);
}

extern "C" int sched_yield() noexcept {
  if (yields) ++*yields;
  return static_cast<int>(::syscall(SYS_sched_yield));
}

extern "C" int close(int file) {
  const int result = static_cast<int>(::syscall(SYS_close, file));
  return onClose ? onClose() : result;
}

extern "C" int flock(int file, int operation) noexcept {
  if (onLock) {
    if (const auto result = onLock(file)) return *result;
  }
  return static_cast<int>(::syscall(SYS_flock, file, operation));
}

extern "C" int posix_fallocate64(int file, off64_t offset, off64_t length) {
  using Reserve = int (*)(int, off64_t, off64_t);
  static const auto real = reinterpret_cast<Reserve>(::dlsym(RTLD_NEXT, "posix_fallocate64"));
  sigset_t blocked;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  ++(::sigismember(&blocked, SIGALRM) == 1 ? reservations : reservationsInTheOpen);
  return real(file, offset, length);
}

extern "C" int posix_fallocate(int file, off_t offset, off_t length) {
  return ::posix_fallocate64(file, offset, length);
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
    onLock = nullptr;
    onClose = nullptr;
    mostAtOnce = ~std::size_t{0};
    idleWrites = 0;
    timeOfDay.reset();
    clockReadTakes = 0;
    clockIsBehind = 0;
  }

  // Goes on until the length of a tick is known, where it ever is.
  static void tickIsMeasured() {
    Skein::RecordClock clock;
    for (const U64 end = kernelNs() + 50'000'000; clock.now() < end;) {
    }
  }

  // While writers go round the ring between its first block and its second one.
  void takeSnapshotOvertaken() {
    const std::size_t blockSize = headerOf(path).blockSize;
    int blocks = 0;
    onRead = [&](int, void*, std::size_t size, off_t) -> std::optional<ssize_t> {
      if (size == blockSize && ++blocks == 2) goRound();
      return std::nullopt;
    };
    Skein::snapshot(*skein->traceFile(), folder.file("frozen"));
    onRead = nullptr;
  }

  // Traces until every block of the ring that is free has been taken once more.
  void goRound() const {
    const Skein::FileHeader before = headerOf(path);
    while (headerOf(path).blocksWanted < before.blocksWanted + before.blockCount) {
      Twine::trace<Sample::plain>();
    }
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
  tickIsMeasured();
  Skein::RecordClock clock;
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

// For a process that has read no clock for records yet: whether each of their times is the
// kernel's, for so many nanoseconds, where the kernel says to have its own from that source.
bool eachTimeIsTheKernels(std::string_view source, U64 length) {
  const int file = ::memfd_create("source", MFD_CLOEXEC);
  if (::write(file, source.data(), source.size()) < 0) return false;
  clockSource = "/proc/self/fd/" + std::to_string(file);
  Skein::RecordClock clock;
  for (const U64 end = kernelNs() + length; kernelNs() < end;) {
    const int before = clockReads;
    clock.now();
    if (clockReads != before + 1) return false;
  }
  return true;
}

TEST(RecordClockDeathTest, TheKernelIsAskedForEachTimeWhereItDoesNotTrustTheCounter) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process of its own, started anew
  EXPECT_EXIT(std::_Exit(eachTimeIsTheKernels("hpet", 30'000'000) ? 0 : 1),
              testing::ExitedWithCode(0), "");
}

TEST(RecordClockDeathTest, TheKernelIsAskedForEachTimeUntilItsClockHasMoved) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        clockStands = true;
        std::_Exit(eachTimeIsTheKernels("tsc", 30'000'000) ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(RecordClockDeathTest, TheKernelIsAskedForEachTimeUntilATickCanBeMeasured) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::_Exit(eachTimeIsTheKernels("tsc", 9'000'000) ? 0 : 1),
              testing::ExitedWithCode(0), "");
}

TEST_F(TraceOnThePlatform, ATimeIsNeverBeforeTheLastOne) {
  tickIsMeasured();
  Skein::RecordClock clock;
  U64 last = clock.now();
  clockIsBehind = 1;
  const int before = clockReads;
  while (clockReads == before) {
    const U64 time = clock.now();
    ASSERT_GE(time, last);
    last = time;
  }
}

// By less than a reading of the kernel's clock is carried on for.
TEST_F(TraceOnThePlatform, AnInterruptionBetweenTheTwoClocksShiftsNoTime) {
  constexpr U64 near = 100'000;  // ns
  tickIsMeasured();
  for (int round = 0; round < 20; ++round) {
    Skein::RecordClock clock;
    const U64 before = kernelNs();
    clockReadTakes = 500'000;
    const U64 interrupted = clock.now();
    clockReadTakes = 0;
    ASSERT_GE(interrupted, before);
    ASSERT_LE(interrupted, kernelNs());
    const U64 next = clock.now();
    ASSERT_LE(next, kernelNs() + near);
  }
}

TEST_F(TraceOnThePlatform, NoSignalInterruptsTheMakingOfAFile) {
  reservations = reservationsInTheOpen = 0;
  ringIsOn();
  EXPECT_EQ(reservations, 1);
  EXPECT_EQ(reservationsInTheOpen, 0);
  sigset_t blocked;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_EQ(::sigismember(&blocked, SIGALRM), 0);
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
  idleWrites = 1;
  errno = EBADF;  // of an earlier call: a write that takes nothing has not failed
  Skein::snapshot(*skein->traceFile(), folder.file("frozen"));
  EXPECT_EQ(textsIn(folder.file("frozen")), textsIn(path));
  EXPECT_EQ(std::filesystem::file_size(folder.file("frozen")), std::filesystem::file_size(path));
}

TEST_F(TraceOnThePlatform, NothingBehindTheEndOfACutFileIsAskedFor) {
  ringIsOn({.size = 16 * 1024});
  for (int i = 0; i < 200; ++i) Twine::trace<Sample::numbered>(i);
  skein.reset();
  const Skein::FileHeader header = headerOf(path);
  ASSERT_GT(header.blocksWanted, 3U);
  ASSERT_LE(header.blocksWanted, header.blockCount);
  // Two blocks and a half are left.
  const U64 left = header.blocksOffset + header.blockSize * 5 / 2;
  std::filesystem::resize_file(path, left);
  bool behind = false;
  onRead = [&](int, void*, std::size_t size, off_t offset) -> std::optional<ssize_t> {
    behind = behind || static_cast<U64>(offset) + size > left;
    return std::nullopt;
  };
  Skein::Reader reader(path);
  EXPECT_EQ(recordsOf(reader).back().text, "n=61");
  EXPECT_FALSE(behind);
}

TEST_F(TraceOnThePlatform, OnlyBlocksWithNewsAreReadAgain) {
  ringIsOn({.size = 16 * 1024});
  for (int i = 0; i < 100; ++i) Twine::trace<Sample::numbered>(i);
  Skein::Reader reader(path);
  EXPECT_EQ(recordsOf(reader).size(), 100U);
  const std::size_t blockSize = headerOf(path).blockSize;
  int blocks = 0;
  onRead = [&](int, void*, std::size_t size, off_t) -> std::optional<ssize_t> {
    if (size == blockSize) ++blocks;
    return std::nullopt;
  };
  EXPECT_TRUE(recordsOf(reader).empty());
  EXPECT_EQ(blocks, 0);
  Twine::trace<Sample::numbered>(100);
  EXPECT_EQ(recordsOf(reader).size(), 1U);
  EXPECT_EQ(blocks, 1);
}

// Writers go round the ring while a reader, or a snapshot, is between the first block and the
// second one: it has what the newest one held.
TEST_F(TraceOnThePlatform, TheNewestBlockIsCopiedFirst) {
  ringIsOn({.size = 16 * 1024});
  const std::string frozen = folder.file("frozen");
  const std::size_t blockSize = headerOf(path).blockSize;
  for (const bool ofSnapshot : {false, true}) {
    constexpr int count = 1000;
    goRound();
    for (int i = 0; i < count; ++i) Twine::trace<Sample::numbered>(i);
    Skein::Reader reader(path);
    int blocks = 0;
    onRead = [&](int, void*, std::size_t size, off_t) -> std::optional<ssize_t> {
      if (size == blockSize && ++blocks == 2) goRound();
      return std::nullopt;
    };
    if (ofSnapshot) Skein::snapshot(*skein->traceFile(), frozen);
    const auto records = ofSnapshot ? recordsIn(frozen) : recordsOf(reader);
    onRead = nullptr;
    ASSERT_FALSE(records.empty());
    EXPECT_LT(records.size(), 31U) << "no more than the newest, which is not full";
    for (std::size_t i = 0; i < records.size(); ++i) {
      EXPECT_EQ(records[i].text, "n=" + std::to_string(count - records.size() + i));
    }
  }
}

TEST_F(TraceOnThePlatform, ASnapshotThatIsOvertakenStartsAnew) {
  ringIsOn({.size = 16 * 1024});
  for (int i = 0; i < 100; ++i) Twine::trace<Sample::numbered>(i);
  const std::size_t blockSize = headerOf(path).blockSize;
  bool overtaken = false;
  onRead = [&](int, void*, std::size_t size, off_t) -> std::optional<ssize_t> {
    if (size == blockSize && !std::exchange(overtaken, true)) goRound();
    return std::nullopt;
  };
  Skein::snapshot(*skein->traceFile(), folder.file("frozen"));
  onRead = nullptr;
  EXPECT_TRUE(overtaken);
  EXPECT_EQ(textsIn(folder.file("frozen")), textsIn(path));
}

// It could be copied all the while.
TEST_F(TraceOnThePlatform, ASnapshotIsNotOfOneBlockThatWasLeftAlone) {
  ringIsOn({.size = 16 * 1024});
  std::barrier step(2);
  std::thread holder([&] {
    Twine::trace<Sample::numbered>(-1);
    step.arrive_and_wait();
    step.arrive_and_wait();
  });
  step.arrive_and_wait();
  for (int i = 0; i < 10; ++i) Twine::trace<Sample::numbered>(i);
  const Skein::FileHeader begun = headerOf(path);
  bool overtaken = false;
  onRead = [&](int, void*, std::size_t size, off_t) -> std::optional<ssize_t> {
    if (size == begun.blockSize && !std::exchange(overtaken, true)) goRound();
    return std::nullopt;
  };
  Skein::snapshot(*skein->traceFile(), folder.file("frozen"));
  onRead = nullptr;
  EXPECT_EQ(headerOf(path).blocksWanted, begun.blocksWanted + begun.blockCount);
  EXPECT_EQ(textsIn(folder.file("frozen")), textsIn(path));
  step.arrive_and_wait();
  holder.join();
}

TEST_F(TraceOnThePlatform, ASnapshotThatIsOvertakenEachTimeComesToAnEnd) {
  ringIsOn({.size = 16 * 1024});
  for (int i = 0; i < 100; ++i) Twine::trace<Sample::numbered>(i);
  const std::size_t blockSize = headerOf(path).blockSize;
  constexpr int most = 100;
  bool begins = false;
  int rounds = 0;
  onRead = [&](int, void*, std::size_t size, off_t offset) -> std::optional<ssize_t> {
    if (static_cast<std::size_t>(offset) == offsetof(Skein::FileHeader, blocksWanted)) {
      begins = true;
    } else if (begins && size == blockSize && rounds < most) {
      begins = false;
      ++rounds;
      goRound();
    }
    return std::nullopt;
  };
  Skein::snapshot(*skein->traceFile(), folder.file("frozen"));
  EXPECT_GT(rounds, 1);
  EXPECT_LT(rounds, most);
}

TEST_F(TraceOnThePlatform, ASnapshotOfWhatNobodyWritesIsMadeAtOnce) {
  for (const int records : {0, 100, 1000}) {
    ringIsOn({.size = 16 * 1024});
    for (int i = 0; i < records; ++i) Twine::trace<Sample::numbered>(i);
    const Skein::FileHeader header = headerOf(path);
    const U64 newest = header.blocksWanted == 0 ? 0 : (header.blocksWanted - 1) % header.blockCount;
    int copies = 0;
    onRead = [&](int, void*, std::size_t size, off_t offset) -> std::optional<ssize_t> {
      if (size == header.blockSize &&
          static_cast<U64>(offset) == header.blocksOffset + newest * header.blockSize) {
        ++copies;
      }
      return std::nullopt;
    };
    Skein::snapshot(*skein->traceFile(), folder.file("frozen"));
    onRead = nullptr;
    EXPECT_EQ(copies, 1) << records;
    EXPECT_EQ(textsIn(folder.file("frozen")), textsIn(path));
    skein.reset();
  }
}

// The newest block may have been begun and nothing more, by a writer that goes on later.
TEST_F(TraceOnThePlatform, ASnapshotIsNotOfABlockThatHasNoRecordYet) {
  ringIsOn({.size = 16 * 1024});
  for (int i = 0; i < 40; ++i) Twine::trace<Sample::numbered>(i);
  Skein::TraceFile* const file = skein->traceFile();
  int id = 0;
  Skein::MsgDesc(file, &id, "hand.cpp", 12, true).finish();
  std::thread([&] { file->log(4).startMsg(file, id); }).join();
  takeSnapshotOvertaken();
  EXPECT_EQ(textsIn(folder.file("frozen")), textsIn(path));
}

// Or not even that: the writer has taken its number, and the block is still that of the lap before.
TEST_F(TraceOnThePlatform, ASnapshotIsNotOfABlockThatSomebodyIsAboutToTake) {
  ringIsOn({.size = 16 * 1024});
  for (int i = 0; i < 10; ++i) Twine::trace<Sample::numbered>(i);
  const Skein::FileHeader header = headerOf(path);
  const U64 wanted = header.blocksWanted + header.blockCount;
  const int file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(::pwrite(file, &wanted, sizeof wanted, offsetof(Skein::FileHeader, blocksWanted)),
            static_cast<ssize_t>(sizeof wanted));
  ::close(file);
  takeSnapshotOvertaken();
  EXPECT_EQ(textsIn(folder.file("frozen")), textsIn(path));
}

TEST_F(TraceOnThePlatform, ASnapshotWhoseFileFailsToCloseSaysSo) {
  ringIsOn();
  int error = 0;
  onClose = [] {
    errno = EDQUOT;
    return -1;
  };
  try {
    Skein::snapshot(*skein->traceFile(), folder.file("frozen"));
  } catch (const Lumo::ErrnoException& raised) {
    error = raised.errnoValue();
  }
  onClose = nullptr;
  EXPECT_EQ(error, EDQUOT);
}

TEST_F(TraceOnThePlatform, ClearingUpDoesNotHideWhyAFileCannotBeMade) {
  std::filesystem::create_directory(path);
  int error = 0;
  onClose = [] {
    errno = EDQUOT;
    return 0;
  };
  try {
    const Skein::TraceHandle handle(path);
  } catch (const Lumo::ErrnoException& raised) {
    error = raised.errnoValue();
  }
  onClose = nullptr;
  EXPECT_EQ(error, EISDIR);
}

// Of two that replace the sink at once.
TEST_F(TraceOnThePlatform, AReplacementOfTheSinkWaitsForTheOneBefore) {
  struct Slow : Lumo::TraceSink {
    void lineIs(const Lumo::TraceLine&) override {
      inside.release();
      goOn.acquire();
    }
    std::binary_semaphore inside{0}, goOn{0};
  } old, first, second;  // nobody traces into the last two
  textIsOn();
  Lumo::traceSinkIs(&old);
  std::thread tracing([] { Twine::trace<Sample::textOnly>(); });
  old.inside.acquire();
  std::atomic<int> waits[2]{};
  const auto replace = [](Lumo::TraceSink* by, std::atomic<int>* count) {
    std::thread replacing([=] {
      yields = count;
      Lumo::traceSinkIs(by);
      yields = nullptr;
    });
    while (*count == 0) ::sched_yield();
    return replacing;
  };
  std::thread one = replace(&first, &waits[0]);
  std::thread two = replace(&second, &waits[1]);
  EXPECT_EQ(Lumo::traceSink(), &first);
  old.goOn.release();
  for (std::thread* thread : {&tracing, &one, &two}) thread->join();
  EXPECT_EQ(Lumo::traceSink(), &second);
  Lumo::traceSinkIs(&recorder);
}

TEST_F(TraceOnThePlatform, TheKernelsBarrierIsAskedForWhereThereIsOne) {
  const long offers = ::syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
  if (offers < 0 || (offers & MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) {
    GTEST_SKIP() << "the kernel has none";
  }
  ringIsOn();
  Twine::trace<Sample::plain>();
  const int before = barriersRegistered;
  const pid_t child = ::fork();
  if (child == 0) ::_exit(barriersRegistered - before);
  EXPECT_EQ(ended(child), 1);
  barriers = 0;
  skein.reset();
  EXPECT_EQ(barriers, 1);
}

TEST_F(TraceOnThePlatform, ThreadsComeAndGoUnderTheLockOfTheFiles) {
  ringIsOn();
  Twine::trace<Sample::plain>();
  std::atomic<int> taken{0};
  const support::Platform platform([&](const char* called, const void*, int) -> std::optional<int> {
    if (called == std::string_view("pthread_mutex_lock")) ++taken;
    return std::nullopt;
  });
  std::thread([] { Twine::trace<Sample::plain>(); }).join();
  EXPECT_EQ(taken, 3) << "to be known, for its ring, and at its end";
  taken = 0;
  skein.reset();
  EXPECT_EQ(taken, 2) << "to see who is inside, and at the end of the file";
}

// Between the look at an abandoned file and its lock, somebody else removes it, and a new process
// makes its own of that name.
TEST_F(TraceOnThePlatform, AFileThatHasTakenTheNameOfAnAbandonedOneStays) {
  const std::string name = path + ".new-1-1";
  const auto make = [&] { std::ofstream(name) << "SKEIN\r\n\x1a"; };
  make();
  bool replaced = false;
  onLock = [&](int) -> std::optional<int> {
    if (!std::exchange(replaced, true)) {
      std::filesystem::rename(name, folder.file("aside"));
      make();
    }
    return std::nullopt;
  };
  ringIsOn();
  EXPECT_TRUE(replaced);
  EXPECT_TRUE(std::filesystem::exists(name));
}

TEST_F(TraceOnThePlatform, WhereThereAreNoLocksFilesAreMadeAllTheSame) {
  ringIsOn();
  skein.reset();
  onLock = [](int) -> std::optional<int> {
    errno = ENOLCK;
    return -1;
  };
  EXPECT_NO_THROW(Skein::TraceHandle(path, {.keepPrevious = true}));
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"trace.skein", "trace.skein.previous"}));
}

TEST_F(TraceOnThePlatform, ALockThatIsInterruptedIsAskedForAgain) {
  int interruptions = 2;
  int locks = 0;
  onLock = [&](int) -> std::optional<int> {
    if (interruptions == 0) {
      ++locks;
      return std::nullopt;
    }
    --interruptions;
    errno = EINTR;
    return -1;
  };
  ringIsOn();
  EXPECT_EQ(interruptions, 0);
  EXPECT_EQ(locks, 1);
}

// Somebody takes it for abandoned before it is locked.
TEST_F(TraceOnThePlatform, AFileThatLosesItsNameInTheMakingIsMadeAnew) {
  const auto before = support::openDescriptors();
  int lost = 0;
  onLock = [&](int) -> std::optional<int> {
    if (lost == 3) return std::nullopt;
    ++lost;
    for (const std::string& name : folder.names()) std::filesystem::remove(folder.file(name));
    return std::nullopt;
  };
  ringIsOn();
  EXPECT_EQ(lost, 3);
  EXPECT_EQ(folder.names(), std::vector<std::string>{"trace.skein"});
  skein.reset();
  EXPECT_EQ(support::openDescriptors(), before);
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
