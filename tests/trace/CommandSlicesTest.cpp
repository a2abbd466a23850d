#include <CommandSlices.h>
#include <gtest/gtest.h>

#include <Norv/Agent/AgentTrace.h>

namespace {

// The records of a worker, thread 2, and of the main thread, thread 1, a nanosecond apart.
class CommandSlicesTest : public testing::Test {
 protected:
  void announced(U64 sequence, U64 depth, const std::string& queue = "q") {
    slices.newsIs({false, sequence, "getVersion", queue, "", depth}, 1, ++now);
  }
  std::optional<CommandSlice> ended(U64 sequence, const std::string& outcome = "ok",
                                    const std::string& queue = "q") {
    return slices.newsIs({true, sequence, "getVersion", queue, outcome, 0}, 2, ++now);
  }
  // 0: none.
  U64 inFlight() const {
    const auto slice = slices.inFlight(now);
    return slice ? slice->command.sequence : 0;
  }

  CommandSlices slices;
  U64 now = 100;
};

}  // namespace

TEST_F(CommandSlicesTest, TheOldestOpenCommandIsInFlightOnTheWorker) {
  announced(1, 1);
  EXPECT_EQ(inFlight(), 1U);
  announced(2, 2);
  announced(3, 1, "other");
  EXPECT_EQ(inFlight(), 1U);
  ended(1);
  ended(2);
  ASSERT_EQ(inFlight(), 3U);
  EXPECT_EQ(slices.inFlight(now)->thread, 2);
  EXPECT_EQ(slices.inFlight(now)->startNs, now) << "from the end of its predecessor on";
  ended(3, "ok", "other");
  EXPECT_EQ(inFlight(), 0U);
}

TEST_F(CommandSlicesTest, AnEndTellsThatOlderCommandsAreOver) {
  announced(5, 1);
  announced(6, 1, "other");
  ended(1000);
  EXPECT_EQ(inFlight(), 0U);
}

TEST_F(CommandSlicesTest, ACommandThatIsDroppedTellsNothingAboutThoseBeforeIt) {
  announced(1, 1);
  announced(2, 2);
  ended(2, "dropped");
  EXPECT_EQ(inFlight(), 1U);
}

TEST_F(CommandSlicesTest, TheDepthOfAQueueTellsThatOlderCommandsAreOver) {
  announced(5, 1);
  announced(6, 2);
  announced(70, 2);
  EXPECT_EQ(inFlight(), 6U);
  announced(90, 1);
  EXPECT_EQ(inFlight(), 90U);
}

TEST_F(CommandSlicesTest, AnEndMayBeWrittenDownBeforeItsAnnouncement) {
  announced(1, 1);
  ended(1);
  EXPECT_TRUE(ended(2));
  announced(2, 1);
  EXPECT_EQ(inFlight(), 0U);
  announced(3, 1);
  EXPECT_EQ(inFlight(), 3U);
}

TEST_F(CommandSlicesTest, AnotherRunCountsFromOneAgain) {
  announced(7, 1);
  ended(7);
  announced(1, 1);
  EXPECT_EQ(inFlight(), 1U);
}

namespace {

// The names in front of the places of a text, as in "announced seq=%s type=%s".
std::vector<std::string> argumentNames(const std::string& text) {
  std::vector<std::string> names;
  for (std::size_t at = text.find("=%s"); at != text.npos; at = text.find("=%s", at + 1)) {
    const std::size_t before = text.rfind(' ', at) + 1;
    names.push_back(text.substr(before, at - before));
  }
  return names;
}

void expectAsWritten(const CommandPoint& read, const Twine::Point& written) {
  EXPECT_STREQ(read.text, written.text);
  EXPECT_EQ(commandFacility, written.module->handle().name().stdString());
  const auto names = argumentNames(written.text);
  const auto nameAt = [&](int index) { return names.at(static_cast<std::size_t>(index)); };
  EXPECT_EQ(nameAt(read.sequence), "seq");
  EXPECT_EQ(nameAt(read.type), "type");
  EXPECT_EQ(nameAt(read.queue), "queue");
  EXPECT_EQ(nameAt(read.depth), "depth");
  if (read.ends) {
    EXPECT_EQ(nameAt(read.outcome), "outcome");
  }
}

}  // namespace

TEST(CommandPoints, AreThoseThatTheAgentsKitWrites) {
  ASSERT_EQ(std::size(commandPoints), 2U);
  EXPECT_FALSE(commandPoints[0].ends);
  expectAsWritten(commandPoints[0], Norv::AgentTrace::announced);
  EXPECT_TRUE(commandPoints[1].ends);
  expectAsWritten(commandPoints[1], Norv::AgentTrace::ended);
}
