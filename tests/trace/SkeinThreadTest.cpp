#include <atomic>
#include <functional>
#include <map>
#include <set>
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

TEST_F(SkeinThreads, FilesComeAndGoWhileThreadsTrace) {
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

TEST_F(SkeinThreads, ASnapshotBesideWritersMissesNoneBetweenTwoOfAWriter) {
  ringIsOn({.size = 64 * 1024});
  std::atomic<int> nextWriter{0};
  const Writers writers(2, [&](int i) {
    static thread_local const int self = nextWriter++;
    Twine::trace<Sample::pair>(self, i);
  });
  const std::string frozen = folder.file("frozen.skein");
  std::size_t compared = 0;
  for (int round = 0; round < 100; ++round) {
    Skein::snapshot(*skein->traceFile(), frozen);
    std::map<std::string, int> last;
    for (const Seen& record : recordsIn(frozen)) {
      const auto b = record.text.find(" b=");
      const int number = std::stoi(record.text.substr(b + 3));
      const auto [known, fresh] = last.try_emplace(record.text.substr(0, b), number);
      if (!fresh) {
        ASSERT_EQ(number, known->second + 1) << "round " << round;
        ++compared;
      }
      known->second = number;
    }
  }
  EXPECT_GT(compared, 1000U);
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
