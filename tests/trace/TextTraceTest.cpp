#include <pthread.h>
#include <support/Cancelled.h>
#include <support/Environment.h>
#include <support/Redirected.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cerrno>
#include <ctime>
#include <functional>
#include <iomanip>
#include <locale>
#include <memory>
#include <semaphore>
#include <set>
#include <sstream>
#include <streambuf>
#include <thread>
#include <utility>

#include <Lumo/Trace.h>

#include "Process.h"
#include "TraceFixture.h"

using Lumo::TraceFacility;

using TraceFacilityTest = TraceTest;
using TraceHelperTest = TraceTest;
using TraceHandleTest = TraceTest;

TEST_F(TraceFacilityTest, EverythingIsOffByDefault) {
  EXPECT_FALSE(TraceFacility::facilityEnabled("Sample"));
  for (unsigned level = 0; level < 10; ++level) {
    EXPECT_FALSE(TraceFacility::levelEnabled({"Sample", level}));
  }
}

TEST_F(TraceFacilityTest, ASettingNamesFacilitiesAndLevels) {
  EXPECT_TRUE(Lumo::traceSettingIs(" Sample/0-5 ,Other/*,  Third/7  "));
  EXPECT_TRUE(TraceFacility::levelEnabled({"Sample", 5}));
  EXPECT_FALSE(TraceFacility::levelEnabled({"Sample", 6}));
  EXPECT_TRUE(TraceFacility::levelEnabled({"Other", 9}));
  EXPECT_FALSE(TraceFacility::levelEnabled({"Third", 6}));
  EXPECT_TRUE(TraceFacility::levelEnabled({"Third", 7}));
  EXPECT_FALSE(TraceFacility::facilityEnabled("Fourth"));
}

TEST_F(TraceFacilityTest, AnEveryFacilityPartAddsToTheNamedOnes) {
  EXPECT_TRUE(Lumo::traceSettingIs("Sample/9,*/0"));
  EXPECT_TRUE(TraceFacility::levelEnabled({"Sample", 0}));
  EXPECT_TRUE(TraceFacility::levelEnabled({"Sample", 9}));
  EXPECT_TRUE(TraceFacility::levelEnabled({"Anything", 0}));
  EXPECT_FALSE(TraceFacility::levelEnabled({"Anything", 9}));
}

TEST_F(TraceFacilityTest, ABadPartIsReportedOnceAndTheRestHolds) {
  for (const char* bad :
       {"Sample", "Sample/", "/5", "Sample/10", "Sample/5-3", "Sample/a", "Sample/1-", "Sample/-1",
        "Sample/1,5", "Sample/1x5", "Sample/a-5", "Sample/1-a", "Sample/0-55"}) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(Lumo::traceSettingIs(Lumo::String(std::string("Other/3,") + bad))) << bad;
    const std::string warning = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(warning.begin(), warning.end(), '\n'), 1) << bad;
    EXPECT_NE(warning.find(bad), std::string::npos);
    EXPECT_TRUE(TraceFacility::levelEnabled({"Other", 3})) << bad;
    EXPECT_FALSE(TraceFacility::levelEnabled({"Sample", 9})) << bad;
  }
}

TEST_F(TraceFacilityTest, OneLevelIsTurnedOnAndOff) {
  Lumo::traceSettingIs("*/*");
  Lumo::traceLevelIs("Sample", 4, false);
  EXPECT_FALSE(Sample::handle().enabled(4));
  EXPECT_TRUE(Sample::handle().enabled(5));
  EXPECT_TRUE(Sample::otherHandle().enabled(4));
  Lumo::traceLevelIs("Sample", -1, false);
  EXPECT_FALSE(TraceFacility::facilityEnabled("Sample"));
  Lumo::traceLevelIs("*", 2, true);
  EXPECT_TRUE(Sample::handle().enabled(2));
  Lumo::traceLevelIs("Sample", 10, true);
  Lumo::traceLevelIs("Sample", -2, true);
  EXPECT_FALSE(Sample::handle().enabled(3));
  EXPECT_FALSE(Sample::handle().enabled(10));
  Lumo::traceLevelIs("Other", 0, false);
  EXPECT_FALSE(Sample::otherHandle().enabled(0));
  EXPECT_TRUE(Sample::otherHandle().enabled(1));
}

TEST_F(TraceFacilityTest, SeveralThreadsMayChangeTheSettingAndAskForIt) {
  constexpr int threads = 4;
  Lumo::traceSettingIs("Sample/5");
  EXPECT_TRUE(Sample::handle().enabled(5));
  std::barrier together(threads);
  const auto change = [&](const Lumo::String& own) {
    int missed = 0;
    together.arrive_and_wait();
    for (int round = 0; round < 2000; ++round) {
      Lumo::traceSettingIs(own + "/3,Sample/0-5,Other/*");
      Lumo::traceLevelIs(own, 7, true);
      // On in each of the settings, so it never is off.
      missed += TraceFacility::levelEnabled({"Sample", 5}) ? 0 : 1;
      missed += Sample::handle().enabled(5) ? 0 : 1;
    }
    EXPECT_EQ(missed, 0);
  };
  std::vector<std::thread> changing;
  for (const char* own : {"First", "Second", "Third", "Fourth"}) changing.emplace_back(change, own);
  for (std::thread& thread : changing) thread.join();
}

TEST_F(TraceHandleTest, EnabledFollowsFacilityAndLevel) {
  Lumo::TraceHandle handle("Fresh", false);
  EXPECT_EQ(handle.name(), Lumo::String("Fresh"));
  for (unsigned level : {0U, 5U, 9U, 10U, 31U, 32U, 1000U}) EXPECT_FALSE(handle.enabled(level));
  Lumo::traceSettingIs("Fresh/5");
  for (unsigned level = 0; level < 40; ++level) EXPECT_EQ(handle.enabled(level), level == 5);
}

TEST_F(TraceHandleTest, OnByDefaultHoldsUntilASettingNamesTheFacility) {
  Lumo::TraceHandle handle("Loud", true);
  EXPECT_TRUE(handle.enabled(9));
  EXPECT_TRUE(TraceFacility::facilityEnabled("Loud"));
  Lumo::traceSettingIs("Loud/0");
  EXPECT_FALSE(handle.enabled(9));
  EXPECT_TRUE(handle.enabled(0));
}

TEST_F(TraceHandleTest, OneLevelOfAFacilityThatIsOnByDefaultLeavesItsOthers) {
  Lumo::TraceHandle loud("LoudByName", true);
  Lumo::traceLevelIs("LoudByName", 3, false);
  EXPECT_FALSE(loud.enabled(3));
  EXPECT_TRUE(loud.enabled(4));
}

TEST_F(TraceHandleTest, OneLevelOfAFacilityThatIsOffLeavesItsOthers) {
  const Lumo::TraceHandle& handle = Sample::handle();
  Lumo::traceLevelIs("Sample", 3, true);
  EXPECT_TRUE(handle.enabled(3));
  EXPECT_FALSE(handle.enabled(4));
}

TEST_F(TraceHandleTest, OneLevelOfEveryFacilityLeavesTheOthersOfOneThatIsOnByDefault) {
  Lumo::TraceHandle loud("LoudAsWell", true);
  Lumo::traceLevelIs("*", 3, true);
  EXPECT_TRUE(loud.enabled(9));
  EXPECT_TRUE(Sample::handle().enabled(3));
  EXPECT_FALSE(Sample::handle().enabled(9));
  Lumo::traceLevelIs("*", 9, false);
  EXPECT_FALSE(loud.enabled(9));
  EXPECT_TRUE(loud.enabled(8));
  Lumo::traceSettingIs("*/1");
  EXPECT_FALSE(loud.enabled(8));
  Lumo::traceSettingIs("");
  EXPECT_TRUE(loud.enabled(9));
}

TEST_F(TraceHandleTest, ItsNameMayBeReadWhileAnotherHandleOfTheFacilityIsMade) {
  Lumo::TraceHandle first("Shared", false);
  std::atomic<bool> stop{false};
  std::thread reading([&] {
    while (!stop) EXPECT_EQ(first.name().length(), 6U);
  });
  for (int i = 0; i < 1000; ++i) Lumo::TraceHandle("Shared", false);
  stop = true;
  reading.join();
}

TEST_F(TraceHandleTest, SeveralThreadsMayMakeThoseOfTheSameFacilities) {
  constexpr int threads = 4, facilities = 200;
  std::vector<Lumo::String> names;
  for (int i = 0; i < facilities; ++i) names.push_back("Many" + std::to_string(i));
  std::barrier together(threads);
  std::vector<std::thread> making;
  for (int i = 0; i < threads; ++i) {
    making.emplace_back([&] {
      together.arrive_and_wait();
      for (const Lumo::String& name : names) {
        const Lumo::TraceHandle handle(name, false);
        EXPECT_EQ(handle.name(), name);
        const std::vector<Lumo::String> known = TraceFacility::handleNames();
        EXPECT_NE(std::find(known.begin(), known.end(), name), known.end());
      }
    });
  }
  for (std::thread& thread : making) thread.join();
  const std::vector<Lumo::String> known = TraceFacility::handleNames();
  for (const Lumo::String& name : names) {
    EXPECT_EQ(std::count(known.begin(), known.end(), name), 1) << name;
  }
}

TEST_F(TraceHandleTest, ALateTraceThroughADestroyedHandleIsSafe) {
  alignas(Lumo::TraceHandle) std::byte storage[sizeof(Lumo::TraceHandle)];
  auto* handle = new (storage) Lumo::TraceHandle("Late", false);
  handle->~TraceHandle();
  EXPECT_FALSE(handle->enabled(5));
  Lumo::traceSettingIs("Late/5");
  EXPECT_TRUE(handle->enabled(5));
  EXPECT_EQ(handle->name(), Lumo::String("Late"));
}

TEST_F(TraceHelperTest, IsNoneWhileTheLevelIsOff) {
  alignas(void*) std::byte storage[Lumo::TraceHelper::storageSize];
  EXPECT_EQ(Lumo::TraceHelper::createIfEnabled(Sample::handle(), 5, storage), nullptr);
  Lumo::traceSettingIs("Sample/4");
  EXPECT_EQ(Lumo::TraceHelper::createIfEnabled(Sample::handle(), 5, storage), nullptr);
  Lumo::traceSettingIs("Sample/5");
  Lumo::TraceHelper* helper = Lumo::TraceHelper::createIfEnabled(Sample::handle(), 5, storage);
  ASSERT_NE(helper, nullptr);
  Lumo::EnsureTraceHelperIsDestroyed ensure(helper);
  EXPECT_EQ(static_cast<void*>(helper), static_cast<void*>(storage));
}

TEST_F(TraceHelperTest, ALineCarriesItsOrigin) {
  Lumo::traceSettingIs("Sample/5");
  Twine::trace<Sample::textOnly>();
  const auto lines = recorder.lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].facility, Lumo::String("Sample"));
  EXPECT_EQ(lines[0].level, 5U);
  EXPECT_EQ(lines[0].file, "Sample.lumo");
  EXPECT_EQ(lines[0].line, 77);
  EXPECT_EQ(lines[0].function, "work");
  EXPECT_EQ(lines[0].text, "Nothing to do");
  EXPECT_EQ(lines[0].thread, static_cast<int>(::gettid()));
}

TEST_F(TraceHelperTest, NestedHelpersKeepTheirTextsApart) {
  struct Talking {};
  Lumo::traceSettingIs("Sample/*");
  struct Nest {
    static void trace(int depth) {
      alignas(void*) std::byte storage[Lumo::TraceHelper::storageSize];
      auto* helper = Lumo::TraceHelper::createIfEnabled(Sample::handle(), 5, storage);
      Lumo::EnsureTraceHelperIsDestroyed ensure(helper);
      helper->stringstream() << "before " << depth;
      if (depth < 9) trace(depth + 1);
      helper->stringstream() << " after";
      helper->trace("f", depth, "g");
    }
  };
  Nest::trace(0);
  const auto lines = recorder.lines();
  ASSERT_EQ(lines.size(), 10U);
  for (const auto& line : lines) {
    EXPECT_EQ(line.text, "before " + std::to_string(line.line) + " after");
  }
}

TEST_F(TraceHelperTest, AStreamComesBackEmptyAndPlain) {
  Lumo::traceSettingIs("Sample/*");
  for (int round = 0; round < 2; ++round) {
    alignas(void*) std::byte storage[Lumo::TraceHelper::storageSize];
    auto* helper = Lumo::TraceHelper::createIfEnabled(Sample::handle(), 5, storage);
    Lumo::EnsureTraceHelperIsDestroyed ensure(helper);
    std::ostream& out = helper->stringstream();
    EXPECT_EQ(out.exceptions(), std::ios_base::goodbit);
    out << 255 << std::setw(4) << 7 << ' ' << 1.5 << ' ' << 1000000;
    helper->trace("f", 1, "g");
    out << std::hex << std::string(100000, 'x');
    out.fill('*');
    out.width(20);
    out.precision(1);
    out.exceptions(std::ios_base::eofbit);
    out.setstate(std::ios_base::failbit);
  }
  EXPECT_EQ(recorder.texts(), std::vector<std::string>(2, "255   7 1.5 1000000"));
}

// A stream tells those who ask for it that it goes.
TEST_F(TraceHelperTest, AThreadKeepsAFewStreamsUntilItsEnd) {
  static std::atomic<int> gone;
  gone = 0;
  const auto watch = [](std::ostream& stream) {
    stream.register_callback(
        [](std::ios_base::event event, std::ios_base&, int) {
          if (event == std::ios_base::erase_event) ++gone;
        },
        0);
  };
  struct Nest {
    static void lend(int depth, const std::function<void(std::ostream&)>& use) {
      alignas(void*) std::byte storage[Lumo::TraceHelper::storageSize];
      auto* helper = Lumo::TraceHelper::createIfEnabled(Sample::handle(), 5, storage);
      Lumo::EnsureTraceHelperIsDestroyed ensure(helper);
      use(helper->stringstream());
      if (depth > 1) lend(depth - 1, use);
    }
  };
  Lumo::traceSettingIs("Sample/*");
  std::thread([&] {
    std::vector<std::ostream*> lent;
    for (int i = 0; i < 10; ++i) {
      Nest::lend(1, [&](std::ostream& stream) {
        if (lent.empty()) watch(stream);
        lent.push_back(&stream);
      });
    }
    EXPECT_EQ(lent, std::vector<std::ostream*>(10, lent[0]));
    EXPECT_EQ(gone.load(), 0);
    Nest::lend(10, watch);
    EXPECT_GT(gone.load(), 0) << "more than are kept";
    EXPECT_LT(gone.load(), 10);
  }).join();
  EXPECT_EQ(gone.load(), 11);
}

// Where the memory of a stream is, and how much.
struct StreamMemory : std::streambuf {
  static std::pair<const void*, std::ptrdiff_t> of(std::ostream& stream) {
    const std::streambuf& buffer = *stream.rdbuf();
    const char* const begin = (buffer.*&StreamMemory::pbase)();
    return {begin, (buffer.*&StreamMemory::epptr)() - begin};
  }
  // Asks for room, without a character that is to go there.
  static bool hasMadeRoom(std::ostream& stream) {
    const int answer = (stream.rdbuf()->*&StreamMemory::overflow)(traits_type::eof());
    return answer != traits_type::eof();
  }
};

TEST_F(TraceHelperTest, AStreamKeepsTheMemoryOfALineUnlessItWasLong) {
  Lumo::traceSettingIs("Sample/*");
  const auto withLine = [](std::size_t length) {
    alignas(void*) std::byte storage[Lumo::TraceHelper::storageSize];
    auto* helper = Lumo::TraceHelper::createIfEnabled(Sample::handle(), 5, storage);
    Lumo::EnsureTraceHelperIsDestroyed ensure(helper);
    helper->stringstream() << std::string(length, 'x');
    return StreamMemory::of(helper->stringstream());
  };
  const auto usual = withLine(20000);
  EXPECT_EQ(withLine(0), usual);
  const auto larger = withLine(1000000);
  EXPECT_GE(larger.second, 1000000);
  const auto after = withLine(0);
  EXPECT_LT(after.second, 100000);
  EXPECT_NE(after.first, larger.first);
}

TEST_F(TraceHelperTest, AStreamSaysWhichCharacterItTook) {
  Lumo::traceSettingIs("Sample/*");
  alignas(void*) std::byte storage[Lumo::TraceHelper::storageSize];
  auto* helper = Lumo::TraceHelper::createIfEnabled(Sample::handle(), 5, storage);
  Lumo::EnsureTraceHelperIsDestroyed ensure(helper);
  for (int i = 0; i < 100000; ++i) ASSERT_EQ(helper->stringstream().rdbuf()->sputc('x'), int{'x'});
  EXPECT_TRUE(StreamMemory::hasMadeRoom(helper->stringstream()));
}

namespace {
struct Throwing {};
std::ostream& operator<<(std::ostream& out, const Throwing&) {
  out << "half";
  throw std::runtime_error("no text for you");
}
}  // namespace

TEST_F(TraceHelperTest, IsDestroyedWhenFormattingThrows) {
  const auto formatAndThrow = [] {
    alignas(void*) std::byte storage[Lumo::TraceHelper::storageSize];
    auto* helper = Lumo::TraceHelper::createIfEnabled(Sample::handle(), 5, storage);
    Lumo::EnsureTraceHelperIsDestroyed ensure(helper);
    helper->stringstream() << Throwing();
  };
  Lumo::traceSettingIs("Sample/*");
  // More often than the thread has streams to lend: they come back, empty, on this way too.
  for (int i = 0; i < 20; ++i) EXPECT_THROW(formatAndThrow(), std::runtime_error);
  Twine::trace<Sample::textSending>(1);
  EXPECT_EQ(recorder.texts(), std::vector<std::string>{"Sending 1"});
}

// Streams of which none came back would be others each time.
TEST_F(TraceHelperTest, TheNextHelperIsLentTheStreamOfOneThatWasThrownThrough) {
  Lumo::traceSettingIs("Sample/*");
  std::vector<std::ostream*> lent;
  const auto formatAndThrow = [&] {
    alignas(void*) std::byte storage[Lumo::TraceHelper::storageSize];
    auto* helper = Lumo::TraceHelper::createIfEnabled(Sample::handle(), 5, storage);
    Lumo::EnsureTraceHelperIsDestroyed ensure(helper);
    lent.push_back(&helper->stringstream());
    throw std::runtime_error("no text for you");
  };
  for (int i = 0; i < 3; ++i) EXPECT_THROW(formatAndThrow(), std::runtime_error);
  EXPECT_EQ(lent, std::vector<std::ostream*>(3, lent[0]));
}

TEST_F(TraceHelperTest, FormattingThatThrowsCostsTheLineAndNothingElse) {
  Lumo::traceSettingIs("Sample/*");
  for (int i = 0; i < 20; ++i) EXPECT_NO_THROW(Twine::trace<Sample::textSending>(Throwing()));
  Twine::trace<Sample::textSending>(1);
  EXPECT_EQ(recorder.texts(), std::vector<std::string>{"Sending 1"});
}

TEST_F(TraceHelperTest, AnExceptionOfTheSinkReachesTheTracingCode) {
  struct : Lumo::TraceSink {
    void lineIs(const Lumo::TraceLine&) override { throw std::runtime_error("full"); }
  } full;
  textIsOn();
  Lumo::traceSinkIs(&full);
  for (int i = 0; i < 20; ++i) {
    EXPECT_THROW(Twine::trace<Sample::plain>(), std::runtime_error);
    EXPECT_THROW(Twine::trace<Sample::textOnly>(), std::runtime_error);
  }
  Lumo::traceSinkIs(&recorder);
  Twine::trace<Sample::plain>();
  EXPECT_EQ(recorder.texts(), std::vector<std::string>{"Entry"});
}

TEST(TraceLine, HasAFixedFormWithTheTextLast) {
  Lumo::TraceLine line;
  line.facility = "GrpcClient";
  line.level = 5;
  line.file = "GrpcClient.cpp";
  line.line = 77;
  line.function = "doProcessGrpcCmd";
  line.text = "one\ntwo\rthree";
  line.timeNs = 1769860800123456789ULL;
  line.thread = 4711;
  std::string text;
  Lumo::appendTraceLine(text, line);
  EXPECT_EQ(text,
            "2026-01-31T12:00:00.123456 4711 GrpcClient/5 GrpcClient.cpp:77 doProcessGrpcCmd: "
            "one\\ntwo\\rthree\n");
}

TEST(TraceLine, HasTheSecondThatItWasTracedIn) {
  const auto secondOf = [](U64 second) {
    Lumo::TraceLine line;
    line.timeNs = second * 1000000000ULL;
    std::string text;
    Lumo::appendTraceLine(text, line);
    return text.substr(0, 20);
  };
  // On a thread that has shown none before, the first of all, and there and back.
  std::thread([&] {
    EXPECT_EQ(secondOf(0), "1970-01-01T00:00:00.");
    EXPECT_EQ(secondOf(1769860800), "2026-01-31T12:00:00.");
    EXPECT_EQ(secondOf(1769860801), "2026-01-31T12:00:01.");
    EXPECT_EQ(secondOf(0), "1970-01-01T00:00:00.");
  }).join();
}

TEST(TraceLine, HasItsTimeInUtcWhereverTheProcessIs) {
  const support::Environment tokyo("TZ", "JST-9");
  ::tzset();
  Lumo::TraceLine line;
  line.timeNs = 1769860801000000000ULL;
  std::string text;
  Lumo::appendTraceLine(text, line);
  EXPECT_EQ(text.substr(0, 19), "2026-01-31T12:00:01");
}

TEST(TraceLine, ShowsWhatIsNoPlainCharacter) {
  const auto shown = [](std::string_view text) {
    std::string out;
    Lumo::appendTraceText(out, text);
    return out;
  };
  EXPECT_EQ(shown("plain ~ \xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80"),
            "plain ~ \xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80");
  // Control characters beyond ASCII, ends of line and paragraph, directions of writing.
  EXPECT_EQ(shown("\xc2\x80\xc2\x9b\xc2\x9f\xc2\xa0"), "\\u0080\\u009b\\u009f\xc2\xa0");
  EXPECT_EQ(shown("\xd8\x9c\xe2\x80\x8e\xe2\x80\x8f"), R"(\u061c\u200e\u200f)");
  EXPECT_EQ(shown("\xe2\x80\xa7\xe2\x80\xa8\xe2\x80\xae\xe2\x80\xaf"),
            "\xe2\x80\xa7\\u2028\\u202e\xe2\x80\xaf");
  EXPECT_EQ(shown("\xe2\x81\xa5\xe2\x81\xa6\xe2\x81\xa9\xe2\x81\xaa"),
            "\xe2\x81\xa5\\u2066\\u2069\xe2\x81\xaa");
  // What is no UTF-8: stray and missing bytes, overlong forms, surrogates, too high.
  EXPECT_EQ(shown("\xff \x9b \xc3"), R"(\xff \x9b \xc3)");
  EXPECT_EQ(shown("\xc0\x80 \xe0\x80\x80 \xf0\x80\x80\x80"),
            R"(\xc0\x80 \xe0\x80\x80 \xf0\x80\x80\x80)");
  EXPECT_EQ(shown("\xe0\x9f\xbf \xf0\x8f\xbf\xbf"), R"(\xe0\x9f\xbf \xf0\x8f\xbf\xbf)");
  EXPECT_EQ(shown("\xe0\xa0\x80 \xf0\x90\x80\x80"), "\xe0\xa0\x80 \xf0\x90\x80\x80");
  EXPECT_EQ(shown("\xed\xa0\x80 \xf4\x90\x80\x80 \xf5"), R"(\xed\xa0\x80 \xf4\x90\x80\x80 \xf5)");
  EXPECT_EQ(shown("\xed\x9f\xbf \xee\x80\x80 \xf4\x8f\xbf\xbf"),
            "\xed\x9f\xbf \xee\x80\x80 \xf4\x8f\xbf\xbf");
  EXPECT_EQ(shown("\xed\xbf\xbf \xf8\x90\x80\x80"), R"(\xed\xbf\xbf \xf8\x90\x80\x80)");
  EXPECT_EQ(shown("\xe2\x28\x82"), R"(\xe2(\x82)");
  EXPECT_EQ(shown("\n\r\t\\"), R"(\n\r\t\\)");
  EXPECT_EQ(shown(std::string_view("\x1b[1m\x7f\0\x1f", 7)), R"(\x1b[1m\x7f\x00\x1f)");
  EXPECT_EQ(shown(""), "");
}

TEST(TraceLine, OfDifferentTextsIsDifferent) {
  // All texts of up to four of these letters.
  const std::string letters("\\nx1b\n\x1b", 7);
  std::vector<std::string> texts{""};
  for (std::size_t i = 0; texts[i].size() < 4; ++i) {
    for (const char letter : letters) texts.push_back(texts[i] + letter);
  }
  std::set<std::string> lines;
  for (const std::string& text : texts) {
    std::string line;
    Lumo::appendTraceText(line, text);
    EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char c) { return c >= ' '; }));
    lines.insert(line);
  }
  EXPECT_EQ(lines.size(), texts.size());
}

TEST_F(TraceHelperTest, LinesOfTwoThreadsStayWhole) {
  textIsOn();
  const auto speak = [](char letter) {
    for (int i = 0; i < 2000; ++i) {
      Twine::trace<Sample::textSending>(std::string(50, letter));
    }
  };
  std::thread first(speak, 'a');
  std::thread second(speak, 'b');
  first.join();
  second.join();
  const auto texts = recorder.texts();
  ASSERT_EQ(texts.size(), 4000U);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "Sending " + std::string(50, 'a')), 2000);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "Sending " + std::string(50, 'b')), 2000);
}

// Cancels itself while it is formatted.
struct Endless {
  friend std::ostream& operator<<(std::ostream& out, const Endless&) {
    while (true) ::pthread_testcancel();
    return out;
  }
};

// Writes itself character by character.
struct Spelled {
  std::string text;
  friend std::ostream& operator<<(std::ostream& out, const Spelled& spelled) {
    for (const char character : spelled.text) out.put(character);
    return out;
  }
};

TEST_F(TraceHelperTest, ATextMayComeCharacterByCharacter) {
  textIsOn();
  std::string text;
  for (int i = 0; i < 10000; ++i) text += std::to_string(i);
  Twine::trace<Sample::textSending>(Spelled{text});
  EXPECT_EQ(recorder.texts(), std::vector<std::string>{"Sending " + text});
}

// A number as a locale writes it.
struct Plain {
  int value;
  friend std::ostream& operator<<(std::ostream& out, const Plain& plain) {
    return out << plain.value;
  }
};

TEST_F(TraceHelperTest, NumbersAreWrittenAsInTheClassicLocale) {
  struct Grouped : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  textIsOn();
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouped));
  std::thread([] { Twine::trace<Sample::textSending>(Plain{1234567}); }).join();
  std::locale::global(before);
  EXPECT_EQ(recorder.texts(), std::vector<std::string>{"Sending 1234567"});
}

TEST_F(TraceHelperTest, TheErrorNumberStaysWhereStandardErrorIsClosed) {
  textIsOn();
  Lumo::traceSinkIs(nullptr);
  int after = 0;
  {
    const support::Redirected closed(STDERR_FILENO);
    errno = 4711;
    Twine::trace<Sample::textOnly>();
    after = errno;
  }
  Lumo::traceSinkIs(&recorder);
  EXPECT_EQ(after, 4711);
}

TEST_F(TraceHelperTest, AThreadMayBeCancelledWhileItTraces) {
  textIsOn();
  EXPECT_TRUE(support::isCancelledIn([] {
    ::pthread_cancel(::pthread_self());
    Twine::trace<Sample::textSending>(Endless());
  }));
  Twine::trace<Sample::textOnly>();
  EXPECT_EQ(recorder.texts().size(), 1U);
}

TEST_F(TraceHelperTest, ADestructorThatRunsAfterTheStreamsOfItsThreadMayTrace) {
  struct Late {
    pthread_key_t key = 0;
    int round = 0;
  } late;
  const auto trace = [](void* value) {
    Late* const self = static_cast<Late*>(value);
    if (++self->round == 1) {
      ::pthread_setspecific(self->key, self);  // once more, when those of all keys have run
      return;
    }
    // What was the streams' is somebody else's now, and empty.
    std::vector<std::unique_ptr<char[]>> blocks;
    for (int i = 0; i < 100; ++i) blocks.push_back(std::make_unique<char[]>(256));
    Twine::trace<Sample::textSending>("late");
  };
  ASSERT_EQ(::pthread_key_create(&late.key, trace), 0);
  textIsOn();
  std::thread([&] {
    Twine::trace<Sample::textOnly>();
    ::pthread_setspecific(late.key, &late);
  }).join();
  ::pthread_key_delete(late.key);
  EXPECT_EQ(recorder.texts(), (std::vector<std::string>{"Nothing to do", "Sending late"}));
}

TEST_F(TraceHelperTest, ASinkMayGoWhileOthersTrace) {
  textIsOn();
  std::atomic<bool> stop{false};
  std::atomic<int> traced{0};
  std::thread tracing([&] {
    while (!stop) {
      Twine::trace<Sample::textOnly>();
      ++traced;
    }
  });
  std::size_t seen = 0;
  for (int i = 0; i < 40; ++i) {
    Lumo::TraceRecorder shortLived;
    const int before = traced;
    while (traced < before + 2) std::this_thread::yield();
    seen += shortLived.lines().size();
  }
  stop = true;
  tracing.join();
  EXPECT_GE(seen, 40U);
}

TEST_F(TraceHelperTest, ARecorderGivesTheLinesBackToTheSinkThatWasThere) {
  textIsOn();
  {
    Lumo::TraceRecorder inner;
    Twine::trace<Sample::textOnly>();
    EXPECT_EQ(inner.lines().size(), 1U);
    inner.clear();
    EXPECT_TRUE(inner.lines().empty());
  }
  EXPECT_TRUE(recorder.lines().empty());
  EXPECT_EQ(Lumo::traceSink(), &recorder);
  Twine::trace<Sample::textOnly>();
  EXPECT_EQ(recorder.lines().size(), 1U);
}

TEST_F(TraceHelperTest, ARecorderMayBeReadAndClearedWhileOthersTrace) {
  textIsOn();
  const std::string sent(50, 'x');
  const std::string whole = "Sending " + sent;
  std::atomic<bool> stop{false};
  std::vector<std::thread> tracing;
  for (int i = 0; i < 2; ++i) {
    tracing.emplace_back([&] {
      while (!stop) Twine::trace<Sample::textSending>(sent);
    });
  }
  bool allWhole = true;
  const auto readLines = [&](const Lumo::TraceRecorder& from) {
    const auto lines = from.lines();
    for (const auto& line : lines) allWhole = allWhole && line.text == whole;
    return lines.size();
  };
  const auto readTexts = [&](const Lumo::TraceRecorder& from) {
    const std::vector<std::string> texts = from.texts();
    for (const std::string& text : texts) allWhole = allWhole && text == whole;
    return texts.size();
  };
  for (int round = 0; round < 500; ++round) {
    readTexts(recorder);
    readLines(recorder);
    if (round % 3 == 2) recorder.clear();
  }
  // So many that they move to other memory while they are read.
  for (int round = 0; round < 100; ++round) {
    Lumo::TraceRecorder growing;
    while ((round % 2 == 0 ? readLines(growing) : readTexts(growing)) < 5000) {
    }
    if (round % 4 == 0) growing.clear();
  }
  stop = true;
  for (std::thread& thread : tracing) thread.join();
  EXPECT_TRUE(allWhole);
}

TEST_F(TraceHelperTest, AForkWhileASinkIsReplacedLeavesAChildThatMayReplaceIt) {
  struct Slow : Lumo::TraceSink {
    void lineIs(const Lumo::TraceLine&) override {
      inside.release();
      goOn.acquire();
    }
    std::binary_semaphore inside{0}, goOn{0};
  } old, fresh;
  textIsOn();
  Lumo::traceSinkIs(&old);
  const auto trace = [] { Twine::trace<Sample::textOnly>(); };
  std::thread tracing(trace);
  old.inside.acquire();
  std::atomic<bool> replaced{false};
  std::thread replacing([&] {
    Lumo::traceSinkIs(&fresh);
    replaced = true;
  });
  while (Lumo::traceSink() != &fresh) std::this_thread::yield();
  std::thread newcomer(trace);
  fresh.inside.acquire();
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);
    Lumo::traceSinkIs(nullptr);
    ::_exit(0);
  }
  EXPECT_EQ(ended(child), 0);
  EXPECT_FALSE(replaced) << "while somebody is inside the old one";
  old.goOn.release();
  fresh.goOn.release();
  for (std::thread* thread : {&tracing, &newcomer, &replacing}) thread->join();
}

TEST_F(TraceHelperTest, AForkedChildMayWriteToStandardErrorAsItsParent) {
  textIsOn();
  Lumo::traceSinkIs(nullptr);
  const int kept = ::dup(STDERR_FILENO);
  const int nowhere = ::open("/dev/null", O_WRONLY);
  ::dup2(nowhere, STDERR_FILENO);
  Twine::trace<Sample::textOnly>();
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);
    Twine::trace<Sample::textOnly>();
    ::_exit(0);
  }
  ::dup2(kept, STDERR_FILENO);
  ::close(nowhere);
  ::close(kept);
  EXPECT_EQ(ended(child), 0);
}

TEST_F(TraceHelperTest, TheErrorNumberOfTheCallerStays) {
  textIsOn();
  ringIsOn();
  errno = EDOM;
  Twine::trace<Sample::plain>();
  EXPECT_EQ(errno, EDOM);
}
