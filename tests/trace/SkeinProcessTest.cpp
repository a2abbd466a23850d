#include <barrier>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <thread>

#include "Process.h"
#include "TraceFixture.h"

using SkeinProcess = TraceTest;

namespace {

// Reads what a killed writer left and checks that each thread's records are a gapless run, that
// every record is whole, and that nothing is damaged. Returns the number of records.
std::size_t checkRun(const std::string& path) {
  Skein::Reader reader(path);
  std::map<int, unsigned> next;
  std::size_t count = 0;
  reader.read([&](const Skein::Record& record) {
    const auto values = record.arguments();
    const int thread = std::get<int>(values.at(0));
    const unsigned i = std::get<unsigned int>(values.at(1));
    EXPECT_EQ(std::get<std::string_view>(values.at(2)), std::to_string(i));
    EXPECT_EQ(std::get<std::string_view>(values.at(3)), std::string(i % 40, 'x'));
    const auto expected = next.find(thread);
    if (expected != next.end()) {
      EXPECT_EQ(i, expected->second) << "thread " << thread;
    }
    next[thread] = i + 1;
    ++count;
  });
  EXPECT_EQ(reader.problem(), "");
  return count;
}

bool waitForRecords(const std::string& path) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    if (std::filesystem::exists(path)) {
      Skein::Reader reader(path);
      if (reader.read([](const Skein::Record&) {}) > 0) return true;
    }
    std::this_thread::yield();
  }
  return false;
}

}  // namespace

TEST_F(SkeinProcess, AWriterKilledAtAnyInstructionLeavesEverythingCommitted) {
  std::mt19937 random(20260131);
  for (int round = 0; round < 60; ++round) {
    const std::string file = folder.file("killed" + std::to_string(round));
    const char* threads = round % 2 ? "3" : "1";
    const char* size = round / 2 % 2 ? "1048576" : "32768";
    const pid_t child = start({TRACE_PROGRAM, "ring", file, size, threads}, nullptr, -1, -1);
    ASSERT_TRUE(waitForRecords(file));
    // Any instruction: a busy loop of random length, no clock.
    std::atomic<unsigned> spin{0};
    for (const unsigned turns = random() % 300000; spin < turns;) ++spin;
    ::kill(child, SIGKILL);
    EXPECT_EQ(ended(child), -SIGKILL);
    EXPECT_GT(checkRun(file), 0U);
    std::filesystem::remove(file);
  }
}

TEST_F(SkeinProcess, TheRecordLastCommittedBeforeAKillIsThere) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    Skein::TraceHandle handle(path);
    Skein::defaultSkeinHandleIs(&handle);
    for (int i = 0;; ++i) {
      Twine::trace<Sample::numbered>(i);
      if (::write(ends[1], &i, sizeof i) < 0) ::_exit(1);
    }
  }
  int last = -1;
  while (last < 2000) ASSERT_EQ(::read(ends[0], &last, sizeof last), ssize_t{sizeof last});
  ::kill(child, SIGKILL);
  ended(child);
  ::close(ends[1]);
  for (int i; ::read(ends[0], &i, sizeof i) == sizeof i;) last = i;
  ::close(ends[0]);
  const auto texts = textsIn(path);
  ASSERT_GE(texts.size(), static_cast<std::size_t>(last) + 1);
  EXPECT_EQ(texts[static_cast<std::size_t>(last)], "n=" + std::to_string(last));
}

TEST_F(SkeinProcess, AForkedChildWritesBesideItsParent) {
  for (bool multiThreaded : {false, true}) {
    ringIsOn({.size = 1 << 20, .multiThreaded = multiThreaded});
    Twine::trace<Sample::numbered>(0);
    const pid_t child = ::fork();
    if (child == 0) {
      for (int i = 1; i <= 3000; ++i) Twine::trace<Sample::pair>(i, i);
      Twine::trace<Sample::plain>();
      ::_exit(0);
    }
    for (int i = 1; i <= 3000; ++i) Twine::trace<Sample::numbered>(i);
    Twine::trace<Sample::other>(1);
    EXPECT_EQ(ended(child), 0);
    int mine = 0;
    int theirs = 0;
    for (const Seen& record : recordsIn(path)) {
      if (record.thread == child) {
        ++theirs;
        EXPECT_EQ(record.text, theirs <= 3000
                                   ? "a=" + std::to_string(theirs) + " b=" + std::to_string(theirs)
                                   : "Entry");
      } else {
        EXPECT_EQ(record.text, mine <= 3000 ? "n=" + std::to_string(mine) : "other 1");
        ++mine;
      }
    }
    EXPECT_EQ(mine, 3002);
    EXPECT_EQ(theirs, 3001);
    std::map<U32, U64> last;  // of each writer
    for (const Skein::BlockHeader& block : blocksIn(path)) {
      EXPECT_EQ(block.ordinal, ++last[block.writer]) << "of writer " << block.writer;
    }
  }
}

namespace {

// A text that takes its time.
struct Lengthy {
  std::function<void()> wait;
  operator std::string_view() const {
    wait();
    return "text";
  }
};

}  // namespace

template <>
inline constexpr bool Skein::isText<Lengthy> = true;

TEST_F(SkeinProcess, InAForkedChildAFileStaysUntilItsThreadHasTraced) {
  ringIsOn();
  Twine::trace<Sample::plain>();
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);
    std::thread closing;
    const auto isMapped = [&] {
      std::ifstream in("/proc/self/maps");
      const std::string maps{std::istreambuf_iterator<char>(in), {}};
      return maps.find("/trace.skein") != std::string::npos;
    };
    Twine::trace<Sample::numbered>(Lengthy{[&] {
      closing = std::thread([&] { skein.reset(); });
      while (Skein::defaultSkeinFile() != nullptr) std::this_thread::yield();
      // Long enough for whoever does not wait.
      for (int look = 0; look < 100; ++look) {
        if (!isMapped()) ::_exit(1);
      }
    }});
    closing.join();
    ::_exit(isMapped() ? 2 : 0);
  }
  EXPECT_EQ(ended(child), 0);
  EXPECT_EQ(textsIn(path), (std::vector<std::string>{"Entry", "n=text"}));
}

namespace {

// They take the place of what was given back last, so that whoever still uses it finds out.
std::vector<std::string> textsOfManySizes() {
  std::vector<std::string> texts;
  for (std::size_t size = 32; size < 1024; size += 8) {
    for (int i = 0; i < 8; ++i) texts.emplace_back(size, '\xff');
  }
  return texts;
}

}  // namespace

TEST_F(SkeinProcess, AForkedChildKeepsWhatItsThreadHad) {
  ringIsOn({.size = 64 * 1024});
  Twine::trace<Sample::numbered>(1);
  const pid_t child = ::fork();
  if (child == 0) {
    const auto texts = textsOfManySizes();
    Twine::trace<Sample::numbered>(2);
    ::_exit(texts.empty() ? 1 : 0);
  }
  EXPECT_EQ(ended(child), 0);
  EXPECT_EQ(textsIn(path), (std::vector<std::string>{"n=1", "n=2"}));
}

TEST_F(SkeinProcess, AForkedChildPassesOverFilesThatOthersTracedInto) {
  std::barrier step(2);
  ringIsOn();
  std::thread tracing([&] {
    Twine::trace<Sample::plain>();
    step.arrive_and_wait();
    step.arrive_and_wait();
  });
  step.arrive_and_wait();
  skein = nullptr;
  const auto texts = textsOfManySizes();
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  EXPECT_EQ(ended(child), 0);
  step.arrive_and_wait();
  tracing.join();
}

TEST_F(SkeinProcess, BlocksOfDeadChildrenComeBack) {
  ringIsOn({.size = 16 * 1024});
  for (int i = 0; i < 50; ++i) {
    const pid_t child = ::fork();
    if (child == 0) {
      Twine::trace<Sample::numbered>(i);
      ::_exit(0);
    }
    EXPECT_EQ(ended(child), 0);
  }
  for (int i = 0; i < 1000; ++i) Twine::trace<Sample::numbered>(1000 + i);
  Skein::Reader reader(path);
  const auto records = recordsOf(reader);
  EXPECT_EQ(reader.counters().dropped, 0U);
  EXPECT_EQ(records.size() + reader.counters().overwritten, 1050U);
  EXPECT_EQ(records.front().text, "n=" + std::to_string(2000 - static_cast<int>(records.size())));
}

TEST_F(SkeinProcess, TheBlockOfALivingChildIsLeftAlone) {
  ringIsOn({.size = 16 * 1024, .multiThreaded = false});
  int traced[2], goOn[2];
  ASSERT_EQ(::pipe(traced) + ::pipe(goOn), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);
    char byte = 0;
    Twine::trace<Sample::other>(1);
    const bool told = ::write(traced[1], &byte, 1) == 1 && ::read(goOn[0], &byte, 1) == 1;
    ::_exit(told ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(::read(traced[0], &byte, 1), 1);
  for (int i = 0; i < 10000; ++i) {
    errno = ESRCH;  // as of some process that was asked for before
    Twine::trace<Sample::numbered>(i);
  }
  EXPECT_EQ(textsIn(path).front(), "other 1");
  EXPECT_EQ(::write(goOn[1], &byte, 1), 1);
  EXPECT_EQ(ended(child), 0);
  for (const int end : {traced[0], traced[1], goOn[0], goOn[1]}) ::close(end);
}

TEST_F(SkeinProcess, ABlockThatADeadChildFilledToItsEndIsCounted) {
  ringIsOn({.size = 16 * 1024, .multiThreaded = false});
  const Skein::FileHeader header = headerOf(path);
  constexpr int emptyOnes = 40;
  ASSERT_EQ(header.blockSize - sizeof(Skein::BlockHeader),
            32 + emptyOnes * sizeof(Skein::RecordHeader));
  const int blocks = static_cast<int>(header.blockCount);
  const pid_t child = ::fork();
  if (child == 0) {
    for (int i = 0; i < blocks; ++i) {
      Twine::trace<Sample::numbered>(i);
      for (int j = 0; j < emptyOnes; ++j) Twine::trace<Sample::plain>();
    }
    ::_exit(0);
  }
  ASSERT_EQ(ended(child), 0);
  EXPECT_EQ(recordsIn(path).size(), static_cast<std::size_t>(blocks * (emptyOnes + 1)));
  for (int i = 0; i < blocks * 100; ++i) Twine::trace<Sample::numbered>(i);
  Skein::Reader reader(path);
  EXPECT_EQ(recordsOf(reader).size() + reader.counters().overwritten,
            static_cast<std::size_t>(blocks * (emptyOnes + 1 + 100)));
  EXPECT_EQ(reader.counters().dropped, 0U);
}

// Those that its writer before the child had left there are counted already.
TEST_F(SkeinProcess, OfABlockThatADeadChildTookOnlyItsOwnRecordsAreCounted) {
  ringIsOn({.size = 16 * 1024, .multiThreaded = false});
  for (int i = 0; i < 1000; ++i) Twine::trace<Sample::numbered>(i);
  constexpr int children = 5;
  for (int i = 0; i < children; ++i) {
    const pid_t child = ::fork();
    if (child == 0) {
      Twine::trace<Sample::numbered>(i);
      ::_exit(0);
    }
    EXPECT_EQ(ended(child), 0);
  }
  for (int i = 0; i < 1000; ++i) Twine::trace<Sample::numbered>(i);
  Skein::Reader reader(path);
  EXPECT_EQ(recordsOf(reader).size() + reader.counters().overwritten, 2000U + children);
  EXPECT_EQ(reader.counters().behindGaps, 0U);
  EXPECT_EQ(reader.counters().dropped, 0U);
}

TEST_F(SkeinProcess, AForkWhileOthersTraceLeavesAWorkingChild) {
  ringIsOn();
  std::atomic<bool> stop{false};
  std::thread tracing([&] {
    for (int i = 0; !stop; ++i) {
      Twine::trace<Sample::pair>(i, i);
      std::thread([] { Twine::trace<Sample::plain>(); }).join();
    }
  });
  for (int i = 0; i < 30; ++i) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(60);
      Lumo::traceSinkIs(nullptr);
      Twine::trace<Sample::other>(1);
      { Skein::TraceHandle another(folder.file("child"), {.size = 16 * 1024}); }
      ::_exit(0);
    }
    ASSERT_EQ(ended(child), 0);
  }
  stop = true;
  tracing.join();
}

TEST_F(SkeinProcess, RecordsLeaveTheErrorNumberAlone) {
  EXPECT_EQ(run({TRACE_PROGRAM, "errno", path}).status, 0);
}
