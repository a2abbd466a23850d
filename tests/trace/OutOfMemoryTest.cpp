// Trace points while memory runs out: every allocation on their way fails once.

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <thread>

#include "Process.h"
#include "TraceFixture.h"

namespace {

// How many allocations of the thread still succeed; negative: all.
thread_local int allowed = -1;
thread_local bool refused = false;
thread_local std::size_t largest = 0;  // asked for
std::atomic<long> blocks{0};           // of the whole program that are not given back

void* allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) {
  if (allowed == 0) {
    refused = true;
    throw std::bad_alloc();
  }
  if (allowed > 0) --allowed;
  largest = std::max(largest, size);
  const std::size_t whole = (size + alignment - 1) / alignment * alignment;
  if (void* memory = std::aligned_alloc(alignment, whole)) {
    ++blocks;
    return memory;
  }
  throw std::bad_alloc();
}

void giveBack(void* memory) {
  if (memory) --blocks;
  std::free(memory);
}

// Points of their own module, so that this program has made no handle for it.
Lumo::TraceHandle& freshHandle() {
  static Lumo::TraceHandle made("A facility whose name needs memory of its own", false);
  return made;
}
U8 freshLevelMap[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
constexpr Twine::Module freshModule{&freshHandle, freshLevelMap, "Fresh.cpp"};
constexpr Twine::Point freshBoth{&freshModule, 1, "both", 5, Twine::Sinks::both, "both %s %s"};
constexpr Twine::Point freshText{&freshModule, 2, "text", 5, Twine::Sinks::text, "text %s"};

// Runs `body` on a new thread again and again, with one more allocation that succeeds each time,
// until none was refused. Returns how many rounds had a refusal.
template <class Body>
int withEachAllocationRefused(Body body) {
  for (int rounds = 0;; ++rounds) {
    bool complete = false;
    std::thread([&] {
      bool raised = false;
      allowed = rounds;
      try {
        body();
      } catch (...) {
        raised = true;
      }
      allowed = -1;
      EXPECT_FALSE(raised) << "at allocation " << rounds + 1;
      complete = !refused;
    }).join();
    if (complete) return rounds;
  }
}

}  // namespace

// Not inlined, or the compiler takes the pairs below for mismatched ones.
[[gnu::noinline]] void* operator new(std::size_t size) {
  return allocate(size);
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocate(size, static_cast<std::size_t>(alignment));
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  giveBack(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  giveBack(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept {
  giveBack(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  giveBack(memory);
}

class OutOfMemory : public TraceTest {
 protected:
  const std::string longText = std::string(5000, 'x');
};

TEST_F(OutOfMemory, ARecordIsLostAndNothingElse) {
  ringIsOn();
  EXPECT_GT(withEachAllocationRefused([&] { Twine::trace<freshBoth>(1, longText); }), 3);
  const auto texts = textsIn(path);
  ASSERT_GE(texts.size(), 1U);
  for (const std::string& text : texts) EXPECT_EQ(text.substr(0, 10), "both 1 xxx");
}

// Only the first execution describes the point.
TEST_F(OutOfMemory, TheSecondExecutionOfAPointNeedsNoMemoryForItsRecord) {
  ringIsOn();
  Twine::trace<freshBoth>(1, longText);
  refused = false;
  allowed = 0;
  Twine::trace<freshBoth>(2, longText);
  allowed = -1;
  EXPECT_FALSE(refused);
  EXPECT_EQ(textsIn(path), (std::vector<std::string>{"both 1 " + longText, "both 2 " + longText}));
}

TEST_F(OutOfMemory, ALineIsLostAndNothingElse) {
  textIsOn();
  // Needs no memory itself: what a sink throws passes through.
  struct : Lumo::TraceSink {
    void lineIs(const Lumo::TraceLine& line) override {
      ++lines;
      if (line.text == expected) ++whole;
    }
    std::string expected;
    int lines = 0;
    int whole = 0;
  } sink;
  Lumo::traceSinkIs(&sink);
  sink.expected = "both 1 " + longText;
  EXPECT_GT(withEachAllocationRefused([&] { Twine::trace<freshBoth>(1, longText); }), 3);
  EXPECT_GE(sink.whole, 1);
  EXPECT_EQ(sink.whole, sink.lines) << "a line comes whole or not at all";
  sink.lines = sink.whole = 0;
  sink.expected = "text " + longText;
  EXPECT_GT(withEachAllocationRefused([&] { Twine::trace<freshText>(longText); }), 0);
  EXPECT_GE(sink.whole, 1);
  EXPECT_EQ(sink.whole, sink.lines);
  Lumo::traceSinkIs(&recorder);
}

TEST_F(OutOfMemory, ALineForStandardErrorIsLostAndNothingElse) {
  textIsOn();
  Lumo::traceSinkIs(nullptr);
  testing::internal::CaptureStderr();
  withEachAllocationRefused([&] { Twine::trace<freshBoth>(1, longText); });
  const std::string written = testing::internal::GetCapturedStderr();
  Lumo::traceSinkIs(&recorder);
  EXPECT_NE(written.find("both: both 1 " + longText + "\n"), std::string::npos);
}

TEST_F(OutOfMemory, ASettingIsTakenAsAWholeOrNotAtAll) {
  const Lumo::String before("One facility with a long name/3");
  const Lumo::String after("Another one with a long name/4,A third one with a long name/5");
  int refusals = 0;
  withEachAllocationRefused([&] {
    allowed = -1;
    Lumo::traceSettingIs(before);
    allowed = refusals;
    try {
      Lumo::traceSettingIs(after);
    } catch (const std::bad_alloc&) {
      ++refusals;
      allowed = -1;
      EXPECT_TRUE(Lumo::TraceFacility::facilityEnabled("One facility with a long name"));
      EXPECT_FALSE(Lumo::TraceFacility::facilityEnabled("Another one with a long name"));
    }
  });
  EXPECT_GT(refusals, 1);
  EXPECT_FALSE(Lumo::TraceFacility::facilityEnabled("One facility with a long name"));
  EXPECT_TRUE(Lumo::TraceFacility::facilityEnabled("A third one with a long name"));
}

// A small file that says of itself to be large, and whose only point is nearly as long.
TEST_F(OutOfMemory, ReadingADamagedFileAsksForNoMoreThanTheFileHas) {
  constexpr U32 claimed = 1800U << 20;
  Skein::FileHeader header{};
  std::memcpy(header.magic, Skein::fileMagic, sizeof header.magic);
  header.byteOrder = Skein::fileByteOrder;
  header.version = Skein::fileVersion;
  header.indexOffset = sizeof header;
  header.indexSlots = 1;
  header.heapOffset = header.indexOffset + sizeof(U64);
  header.heapSize = claimed;
  header.blocksOffset = header.heapOffset + claimed;
  header.blockSize = 64;
  header.blockCount = 1;
  header.fileSize = U64{header.blocksOffset} + header.blockSize;
  header.sitesWanted = 1;
  const U64 entry = claimed;
  std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
  bytes.append(reinterpret_cast<const char*>(&entry), sizeof entry);
  bytes.append(48, 'x');
  std::ofstream(path, std::ios::binary) << bytes;
  largest = 0;
  Skein::Reader reader(path);
  EXPECT_LT(largest, 1U << 20);
  EXPECT_NE(reader.problem(), "");
}

TEST_F(OutOfMemory, AThreadGivesBackWhatItHadForItsRecords) {
  ringIsOn();
  const auto trace = [] { Twine::trace<Sample::numbered>(1); };
  std::thread(trace).join();  // its ring stays, for the next one
  const long before = blocks;
  std::thread(trace).join();
  EXPECT_EQ(blocks, before);
}

TEST_F(OutOfMemory, AForkedChildGivesBackWhatOtherThreadsHad) {
  ringIsOn();
  std::barrier step(2);
  std::thread other([&] {
    Twine::trace<Sample::plain>();
    step.arrive_and_wait();
    step.arrive_and_wait();
  });
  step.arrive_and_wait();
  const long before = blocks;
  const pid_t child = ::fork();
  if (child == 0) ::_exit(blocks < before ? 0 : 1);
  EXPECT_EQ(ended(child), 0);
  step.arrive_and_wait();
  other.join();
}
