#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <thread>

#include "TraceFixture.h"

using SkeinThreads = TraceTest;

namespace {

void count(int writer, int records) {
  for (int i = 0; i < records; ++i) Twine::trace<Sample::pair>(writer, i);
}

// Threads that trace until the test is over.
class Writers {
 public:
  Writers(int count, std::function<void(int)> trace) {
    for (int writer = 0; writer < count; ++writer) {
      threads_.emplace_back([this, trace] {
        for (int i = 0; !stop_; ++i) trace(i);
      });
    }
  }
  ~Writers() {
    stop_ = true;
    for (std::thread& thread : threads_) thread.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

}  // namespace

// Of those that were dropped none has begun a block, though each has asked for one.
TEST_F(SkeinThreads, ASnapshotOfARingWhoseBlocksAreAllHeldHasTheirRecords) {
  ringIsOn({.size = 16 * 1024});
  const int blocks = static_cast<int>(headerOf(path).blockCount);
  std::barrier step(blocks + 1);
  std::vector<std::thread> holders;
  for (int i = 0; i < blocks; ++i) {
    holders.emplace_back([&step, i] {
      Twine::trace<Sample::numbered>(i);
      step.arrive_and_wait();
      step.arrive_and_wait();
    });
  }
  step.arrive_and_wait();
  for (int i = 0; i < 100; ++i) Twine::trace<Sample::plain>();
  Skein::snapshot(*skein->traceFile(), folder.file("frozen"));
  step.arrive_and_wait();
  for (std::thread& holder : holders) holder.join();
  Skein::Reader frozen(folder.file("frozen"));
  EXPECT_EQ(recordsOf(frozen).size(), static_cast<std::size_t>(blocks));
  EXPECT_EQ(frozen.counters().dropped, 100U);
}

TEST_F(SkeinThreads, EachThreadsRecordsComeCompleteAndInOrder) {
  ringIsOn({.size = 8 << 20});
  std::vector<std::thread> threads;
  for (int writer = 0; writer < 4; ++writer) threads.emplace_back(count, writer, 5000);
  for (std::thread& thread : threads) thread.join();
  std::map<int, std::vector<std::string>> byThread;
  U64 last = 0;
  for (const Seen& record : recordsIn(path)) {
    byThread[record.thread].push_back(record.text);
    EXPECT_GE(record.monotonicNs, last);
    last = record.monotonicNs;
  }
  ASSERT_EQ(byThread.size(), 4U);
  for (const auto& [thread, texts] : byThread) {
    ASSERT_EQ(texts.size(), 5000U);
    const std::string writer = texts[0].substr(0, texts[0].find(' '));
    for (int i = 0; i < 5000; ++i) {
      ASSERT_EQ(texts[static_cast<std::size_t>(i)], writer + " b=" + std::to_string(i));
    }
  }
  EXPECT_EQ(sitesIn(path), 1U) << "first traces at the same time describe the point once";
}

TEST_F(SkeinThreads, ManyShortThreadsDoNotWasteTheRing) {
  ringIsOn({.size = 64 * 1024});
  for (int i = 0; i < 1000; ++i) {
    std::thread([i] { Twine::trace<Sample::numbered>(i); }).join();
  }
  const auto texts = textsIn(path);
  ASSERT_EQ(texts.size(), 1000U);
  EXPECT_EQ(texts[0], "n=0");
  EXPECT_EQ(texts[999], "n=999");
}

TEST_F(SkeinThreads, TwoAtATimeTakeOverFromTheTwoBefore) {
  ringIsOn({.size = 64 * 1024});
  for (int round = 0; round < 3; ++round) {
    std::barrier traced(2);
    const auto trace = [&traced, round] {
      Twine::trace<Sample::numbered>(round);
      traced.arrive_and_wait();
    };
    std::thread one(trace), two(trace);
    one.join();
    two.join();
  }
  EXPECT_EQ(textsIn(path).size(), 6U);
  EXPECT_EQ(headerOf(path).writersWanted, 2U);
}

// Its block is handed on once more.
TEST_F(SkeinThreads, AThreadMayTraceAfterItsBlockWasHandedOn) {
  ringIsOn({.size = 64 * 1024});
  Twine::trace<Sample::numbered>(-1);
  // Keys come to their end in the order in which they were made; the library has made its own.
  pthread_key_t later;
  ASSERT_EQ(::pthread_key_create(&later, [](void*) { Twine::trace<Sample::plain>(); }), 0);
  for (int i = 0; i < 3; ++i) {
    std::thread([&later, i] {
      Twine::trace<Sample::numbered>(i);
      ::pthread_setspecific(later, &later);
    }).join();
  }
  ::pthread_key_delete(later);
  EXPECT_EQ(textsIn(path),
            (std::vector<std::string>{"n=-1", "n=0", "Entry", "n=1", "Entry", "n=2", "Entry"}));
  EXPECT_EQ(headerOf(path).writersWanted, 2U);
}

TEST_F(SkeinThreads, MoreWritersThanBlocksDropAndCount) {
  ringIsOn({.size = 16 * 1024});
  constexpr int writers = 20;
  std::vector<std::thread> threads;
  std::atomic<int> ready{0};
  for (int writer = 0; writer < writers; ++writer) {
    threads.emplace_back([&] {
      Twine::trace<Sample::numbered>(1);
      ++ready;
      while (ready < writers) std::this_thread::yield();
    });
  }
  for (std::thread& thread : threads) thread.join();
  Skein::Reader reader(path);
  const auto seen = recordsOf(reader).size();
  EXPECT_GE(seen, 1U);
  EXPECT_EQ(seen + reader.counters().dropped + reader.counters().overwritten,
            static_cast<std::size_t>(writers));
}

namespace {

void filesComeAndGoWhileThreadsTrace() {
  const TemporaryFolder folder;
  const Writers writers(3, [](int i) { Twine::trace<Sample::pair>(i, i); });
  for (int round = 0; round < 40; ++round) {
    const std::string name = folder.file("trace" + std::to_string(round % 3));
    Skein::TraceHandle handle(name, {.size = 64 * 1024});
    Skein::defaultSkeinHandleIs(&handle);
    Skein::Reader reader(name);
    std::size_t inThisFile = 0;
    while (inThisFile == 0) {
      for (const Seen& record : recordsOf(reader)) {
        ++inThisFile;
        const auto b = record.text.find(" b=");
        ASSERT_EQ(record.text.substr(2, b - 2), record.text.substr(b + 3));
      }
    }
    EXPECT_EQ(reader.problem(), "");
  }
}

// Whether the kernel has its barrier on all threads no more.
bool barrierIsGone() {
  sock_filter steps[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_membarrier, 0, 1),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program{static_cast<unsigned short>(std::size(steps)), steps};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace

TEST_F(SkeinThreads, FilesComeAndGoWhileThreadsTrace) {
  filesComeAndGoWhileThreadsTrace();
}

// Where filters of system calls are not allowed it is the same once more.
TEST(SkeinThreadsDeathTest, FilesComeAndGoAlsoWhereTheKernelHasNoBarrier) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process that has asked for none yet
  EXPECT_EXIT(
      {
        if (!barrierIsGone()) std::perror("no filter");
        filesComeAndGoWhileThreadsTrace();
        std::_Exit(testing::Test::HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

// What they would disturb of each other is seen by the thread sanitizer.
TEST_F(SkeinThreads, SeveralMayMakeFilesAtOnce) {
  std::barrier together(4);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      const std::string own = folder.file("own" + std::to_string(i));
      together.arrive_and_wait();
      for (int round = 0; round < 20; ++round) Skein::TraceHandle(own, {.size = 16 * 1024});
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(folder.names(), (std::vector<std::string>{"own0", "own1", "own2", "own3"}));
}

TEST_F(SkeinThreads, AReaderBesideWritersSeesOnlyWholeRecords) {
  ringIsOn({.size = 32 * 1024});
  const Writers writers(2, [](int i) {
    Twine::trace<Sample::pair>(std::to_string(i) + std::string(i % 50, 'z'), i);
  });
  Skein::Reader reader(path);
  for (int round = 0; round < 300; ++round) {
    for (const Seen& record : recordsOf(reader)) {
      const auto z = record.text.find_first_of("z ");
      ASSERT_EQ(record.text.substr(2, z - 2), record.text.substr(record.text.find(" b=") + 3));
    }
    ASSERT_EQ(reader.problem(), "");
  }
}

namespace {

// The numbers of the records that each writer has committed.
struct Progress {
  std::atomic<int> last[2] = {-1, -1};

  int sum() const { return last[0] + last[1]; }
};

// Interrupts the thread that makes it, until others have committed so many records: as the
// scheduler does where the machine is busy.
class Interruption {
 public:
  explicit Interruption(const Progress& progress) {
    counted = &progress;
    struct sigaction action {};
    action.sa_handler = [](int) {
      const int until = counted->sum() + length;
      while (counted->sum() < until) ::sched_yield();
    };
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR1, &action, &before_);
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGUSR1;
    event._sigev_un._tid = ::gettid();
    if (::timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0) ADD_FAILURE() << "no timer";
  }
  ~Interruption() {
    ::timer_delete(timer_);
    ::sigaction(SIGUSR1, &before_, nullptr);
  }
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  void isDue(std::chrono::nanoseconds in, int records) {
    length = records;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(in);
    const itimerspec when{{}, {seconds.count(), (in - seconds).count() + 1}};
    ::timer_settime(timer_, 0, &when, nullptr);
  }

 private:
  static inline const Progress* counted;
  static inline std::atomic<int> length;

  struct sigaction before_ {};
  timer_t timer_;
};

// What a copy has of each writer, in which the numbers follow each other.
std::map<int, std::vector<int>> numbersByWriter(const std::vector<Seen>& records) {
  std::map<int, std::vector<int>> numbers;
  for (const Seen& record : records) {
    const auto b = record.text.find(" b=");
    numbers[std::stoi(record.text.substr(2, b - 2))].push_back(
        std::stoi(record.text.substr(b + 3)));
  }
  return numbers;
}

}  // namespace

// Whoever copies is interrupted, for up to two rounds of the ring.
TEST_F(SkeinThreads, ASnapshotBesideWritersHasNoGapAndCountsWhatItLacks) {
  constexpr int round = 1700;  // records
  ringIsOn({.size = 64 * 1024});
  Progress progress;
  std::atomic<int> nextWriter{0};
  const Writers writers(2, [&](int i) {
    static thread_local const int self = nextWriter++;
    Twine::trace<Sample::pair>(self, i);
    progress.last[self] = i;
  });
  while (progress.last[0] < round || progress.last[1] < round) std::this_thread::yield();
  const std::string frozen = folder.file("frozen.skein");
  const auto began = std::chrono::steady_clock::now();
  Skein::snapshot(*skein->traceFile(), frozen);
  const std::chrono::nanoseconds duration = std::chrono::steady_clock::now() - began;
  Interruption interruption(progress);
  std::mt19937 random(4712);
  int lacking = 0;
  for (int copy = 0; copy < 200; ++copy) {
    const int before[] = {progress.last[0], progress.last[1]};
    // Every other time before there is a single block of the copy.
    interruption.isDue(duration * (random() % 1000) / (copy % 2 == 0 ? 1000 : 50000),
                       static_cast<int>(random() % (2 * round)));
    Skein::snapshot(*skein->traceFile(), frozen);
    Skein::Reader reader(frozen);
    const auto records = recordsOf(reader);
    ASSERT_EQ(reader.problem(), "");
    ASSERT_FALSE(records.empty());
    bool upToThisMoment = false;
    std::size_t written = 0;
    for (const auto& [writer, numbers] : numbersByWriter(records)) {
      for (std::size_t i = 1; i < numbers.size(); ++i) {
        ASSERT_EQ(numbers[i], numbers[i - 1] + 1) << "copy " << copy;
      }
      upToThisMoment = upToThisMoment || numbers.back() >= before[writer];
      written += static_cast<std::size_t>(numbers.back()) + 1;
    }
    EXPECT_TRUE(upToThisMoment) << "copy " << copy;
    const auto& counters = reader.counters();
    EXPECT_GE(records.size() + counters.overwritten + counters.behindGaps, written)
        << "copy " << copy;
    if (records.size() < round / 2) ++lacking;
  }
  EXPECT_GT(lacking, 0) << "nothing was written while it was copied";
}

TEST_F(SkeinThreads, ASnapshotBesideWritersHasOnlyWholeRecords) {
  ringIsOn({.size = 4 << 20});
  const Writers writers(2, [](int i) { Twine::trace<Sample::pair>(i, i); });
  Skein::Reader reader(path);
  while (reader.read([](const Skein::Record&) {}) == 0) {
  }
  const std::string frozen = folder.file("frozen.skein");
  for (int round = 0; round < 5; ++round) {
    Skein::snapshot(*skein->traceFile(), frozen);
    const auto records = recordsIn(frozen);
    ASSERT_FALSE(records.empty());
    for (const Seen& record : records) {
      const auto b = record.text.find(" b=");
      ASSERT_EQ(record.text.substr(2, b - 2), record.text.substr(b + 3));
    }
  }
}
