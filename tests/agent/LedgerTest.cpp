// The accounts of commands, with an injected clock: the test is main thread and worker in one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/TraceRecorder.h>

#include <vector>

#include <Norv/Agent/AgentTrace.h>
#include <Norv/Agent/Ledger.h>

namespace {

using namespace std::chrono_literals;
using Norv::Agent::CommandReport;
using Norv::Agent::Outcome;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

struct Ledger : testing::Test {
  Ledger() {
    books.listenerIs([this](const CommandReport& report) { reports.push_back(report); });
  }

  U64 announce(Norv::GrpcRequestType type = Norv::getVersion) {
    const U64 id = books.created(type);
    books.announced(id, "main");
    return id;
  }
  void answer(U64 id, int errorCode = 0) { books.answered(id, books.now(), errorCode, "reason"); }
  void clearFlag() {
    books.flagSettled([] { return false; });
  }
  void beTheWorker() { books.workerIs(std::this_thread::get_id()); }

  std::vector<std::pair<U64, Outcome>> ends() const {
    std::vector<std::pair<U64, Outcome>> ends;
    for (const CommandReport& report : reports) ends.emplace_back(report.id, report.outcome);
    return ends;
  }

  Norv::Agent::Time now{1s};
  Norv::Agent::Ledger books{[this] { return now; }};
  std::vector<CommandReport> reports;
};

TEST_F(Ledger, AnAnswerWithoutErrorIsOk) {
  answer(announce(Norv::listPorts));
  ASSERT_THAT(ends(), ElementsAre(Pair(1, Outcome::ok)));
  EXPECT_EQ(reports[0].type, Norv::listPorts);
  EXPECT_EQ(reports[0].queue, "main");
  EXPECT_EQ(reports[0].errorCode, 0);
}

TEST_F(Ledger, AnAnswerWithAnErrorIsARefusalWithItsWords) {
  answer(announce(), 22);
  ASSERT_THAT(ends(), ElementsAre(Pair(1, Outcome::refused)));
  EXPECT_EQ(reports[0].errorCode, 22);
  EXPECT_EQ(reports[0].errorText, "reason");
}

TEST_F(Ledger, NumbersFollowTheAnnouncementNotTheCreation) {
  const U64 first = books.created(Norv::getVersion);
  const U64 second = books.created(Norv::getVersion);
  books.announced(second, "b");
  books.announced(first, "a");
  answer(second);
  answer(first);
  EXPECT_EQ(reports[0].id, second);
  EXPECT_EQ(reports[0].seq, 1u);
  EXPECT_EQ(reports[1].id, first);
  EXPECT_EQ(reports[1].seq, 2u);
}

TEST_F(Ledger, ACommandEndsOnce) {
  const U64 id = announce();
  answer(id);
  answer(id, 22);
  books.released(id);
  books.close(id, "late");
  EXPECT_THAT(ends(), ElementsAre(Pair(id, Outcome::ok)));
  EXPECT_EQ(books.ended(), 1u);
}

TEST_F(Ledger, ACommandIsAnnouncedOnce) {
  const U64 id = announce();
  books.announced(id, "another");
  EXPECT_EQ(books.announcedCount(), 1u);
  EXPECT_EQ(books.openAnnounced(), 1u);
  answer(id);
  EXPECT_EQ(reports[0].queue, "main");
  EXPECT_EQ(books.openAnnounced(), 0u);
}

TEST_F(Ledger, WhatWasNotAnnouncedIsNoPlaceInTheQueue) {
  announce();
  EXPECT_EQ(books.takenBefore(books.created(Norv::getVersion)), std::nullopt);
  EXPECT_THAT(ends(), IsEmpty());
}

TEST_F(Ledger, WhatWasNotAnnouncedIsClosedInTheOrderOfItsMaking) {
  for (int i = 0; i < 100; ++i) books.created(Norv::getVersion);
  announce();
  books.close(std::nullopt, "closed");
  ASSERT_EQ(reports.size(), 101u);
  EXPECT_EQ(reports[0].id, 101u);
  for (U64 i = 1; i <= 100; ++i) EXPECT_EQ(reports[i].id, i);
}

TEST_F(Ledger, ServiceBeginsWhenThePredecessorEndsIfThatIsLater) {
  const U64 first = announce();
  now += 2ms;
  const U64 second = announce();
  now += 3ms;
  answer(first);
  now += 5ms;
  answer(second);
  now += 7ms;
  const U64 third = announce();
  now += 11ms;
  answer(third);
  EXPECT_EQ(reports[0].ended - reports[0].started, 5ms);
  EXPECT_EQ(reports[1].ended - reports[1].started, 5ms);
  EXPECT_EQ(reports[1].ended - reports[1].announced, 8ms);
  EXPECT_EQ(reports[2].ended - reports[2].started, 11ms);
}

TEST_F(Ledger, TheEndIsWhenTheAnswerCameNotWhenItWasEntered) {
  const U64 id = announce();
  const Norv::Agent::Time came = now + 4ms;
  now += 9ms;  // the command's own handler takes its time
  books.answered(id, came, 0, "");
  EXPECT_EQ(reports[0].ended - reports[0].started, 4ms);
}

TEST_F(Ledger, TheWorkerIsInAHandlerUntilTheLastOneIsThrough) {
  using Norv::Agent::Ledger;
  { const Ledger::Handling onTheMainThread(books); }
  beTheWorker();
  EXPECT_FALSE(books.isHandling());
  {
    const Ledger::Handling outer(books);
    { const Ledger::Handling inner(books); }
    EXPECT_TRUE(books.isHandling());
  }
  EXPECT_FALSE(books.isHandling());
}

TEST_F(Ledger, OtherThreadsAreInNoHandlerOfTheWorkers) {
  const Norv::Agent::Ledger::Handling handling(books);
  EXPECT_FALSE(books.isHandling());
}

// As two threads enter what they did to the flag, in whichever order.
TEST_F(Ledger, WhoSettlesLastLeavesTheBooksAsTheFlagIs) {
  const auto up = [] { return true; };
  const auto down = [] { return false; };
  const Norv::Agent::Time rose{5ms};
  EXPECT_FALSE(books.stoppedSince());
  books.flagRose(false, "");
  EXPECT_FALSE(books.stoppedSince());
  books.flagSettled(up, rose);
  EXPECT_EQ(books.stoppedSince(), rose);
  books.flagSettled(up);  // of a clearing that was overtaken
  EXPECT_EQ(books.stoppedSince(), rose);
  books.flagSettled(down);
  EXPECT_FALSE(books.stoppedSince());
  books.flagRose(false, "");
  books.flagSettled(down, rose);  // of a rise that was overtaken
  EXPECT_FALSE(books.stoppedSince());
  beTheWorker();
  books.released(announce());
  EXPECT_EQ(reports.back().outcome, Outcome::undecodable);
}

TEST_F(Ledger, WhatTheWorkerLetsGoUnansweredWasUndecodable) {
  beTheWorker();
  books.released(announce());
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::undecodable)));
}

TEST_F(Ledger, WhatAnotherThreadLetsGoWasDropped) {
  books.released(announce());
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::dropped)));
}

TEST_F(Ledger, WhatTheWorkerHasHadWasUndecodableWhoeverLetsItGo) {
  const U64 first = announce();
  const U64 second = announce();
  EXPECT_EQ(books.takenBefore(second), first);
  books.released(first);
  books.released(second);
  EXPECT_THAT(ends(),
              ElementsAre(Pair(first, Outcome::undecodable), Pair(second, Outcome::dropped)));
}

TEST_F(Ledger, TakingTheNextTellsThatThoseBeforeAreDoneWith) {
  const U64 first = announce();
  const U64 second = announce();
  const U64 third = announce();
  EXPECT_EQ(books.takenBefore(first), std::nullopt);
  EXPECT_THAT(ends(), IsEmpty());
  EXPECT_EQ(books.takenBefore(third), second);
  EXPECT_THAT(ends(), ElementsAre(Pair(first, Outcome::undecodable)));
  EXPECT_EQ(books.takenBefore(std::nullopt), third);
  EXPECT_THAT(ends(),
              ElementsAre(Pair(first, Outcome::undecodable), Pair(second, Outcome::undecodable)));
}

TEST_F(Ledger, WhatIsDiscardedIsDroppedAtOnceAndOnce) {
  const U64 id = announce();
  books.discarded(id);
  books.released(id);
  EXPECT_THAT(ends(), ElementsAre(Pair(id, Outcome::dropped)));
}

TEST_F(Ledger, AnyThreadButItsOwnPassesForTheWorkerUntilThatIsKnown) {
  EXPECT_FALSE(books.onWorker());
  bool elsewhere = false;
  std::thread([&] { elsewhere = books.onWorker(); }).join();
  EXPECT_TRUE(elsewhere);
  beTheWorker();
  std::thread([&] { elsewhere = books.onWorker(); }).join();
  EXPECT_TRUE(books.onWorker());
  EXPECT_FALSE(elsewhere);
}

TEST_F(Ledger, WhatWasNeverAnnouncedIsDroppedWithoutANumber) {
  beTheWorker();
  books.released(books.created(Norv::getVersion));
  ASSERT_THAT(ends(), ElementsAre(Pair(1, Outcome::dropped)));
  EXPECT_EQ(reports[0].seq, 0u);
  EXPECT_FALSE(reports[0].errorText.empty());
}

TEST_F(Ledger, AnAnswerTellsThatThoseBeforeWereSkipped) {
  const U64 first = announce();
  const U64 second = announce();
  const U64 third = announce();
  answer(third);
  EXPECT_THAT(ends(), ElementsAre(Pair(first, Outcome::undecodable),
                                  Pair(second, Outcome::undecodable), Pair(third, Outcome::ok)));
}

TEST_F(Ledger, TheFlagRisesOnTheOldest) {
  const U64 first = announce();
  announce();
  books.flagRose(true, "unreachable");
  ASSERT_THAT(ends(), ElementsAre(Pair(first, Outcome::failed)));
  EXPECT_EQ(reports[0].errorText, "unreachable");
  ASSERT_TRUE(books.lastFailure());
  EXPECT_EQ(books.lastFailure()->id, first);
}

TEST_F(Ledger, TheFlagRisesOnNothing) {
  announce();
  books.flagRose(false, "set by hand");
  EXPECT_THAT(ends(), IsEmpty());
  EXPECT_FALSE(books.lastFailure());
}

TEST_F(Ledger, WhileTheFlagIsSetTheWorkerDrops) {
  beTheWorker();
  announce();
  const U64 second = announce();
  const U64 third = announce();
  books.flagRose(true, "");
  books.released(second);
  clearFlag();
  books.released(third);
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::failed), Pair(second, Outcome::dropped),
                                  Pair(third, Outcome::undecodable)));
}

TEST_F(Ledger, WhatWasTakenWhileStoppedIsDroppedWhenItIsLetGo) {
  beTheWorker();
  announce();
  const U64 held = announce();
  books.flagRose(true, "");
  books.takenWhileStopped(held);
  clearFlag();
  EXPECT_EQ(books.ended(), 1u);
  books.released(held);
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::failed), Pair(held, Outcome::dropped)));
}

TEST_F(Ledger, WhatWasTakenWhileStoppedIsDroppedWhenTheNextIsAnswered) {
  announce();
  const U64 held = announce();
  const U64 next = announce();
  books.flagRose(true, "");
  books.takenWhileStopped(held);
  clearFlag();
  answer(next);
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::failed), Pair(held, Outcome::dropped),
                                  Pair(next, Outcome::ok)));
}

TEST_F(Ledger, WhatWasTakenWhileStoppedAndIsAnsweredNonethelessWasSent) {
  announce();
  const U64 held = announce();
  books.flagRose(true, "");
  books.takenWhileStopped(held);
  clearFlag();
  answer(held);
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::failed), Pair(held, Outcome::ok)));
}

TEST_F(Ledger, ClosingFailsTheOneUnderWayAndDropsTheRestInOrder) {
  const U64 first = announce();
  const U64 second = announce();
  const U64 waiting = books.created(Norv::getVersion);
  books.close(first, "interrupted");
  EXPECT_THAT(ends(), ElementsAre(Pair(first, Outcome::failed), Pair(second, Outcome::dropped),
                                  Pair(waiting, Outcome::dropped)));
  EXPECT_EQ(reports[0].errorText, "interrupted");
  EXPECT_EQ(books.openAnnounced(), 0u);
}

TEST_F(Ledger, ClosingWithNothingUnderWayDropsAll) {
  announce();
  announce();
  books.close(std::nullopt, "interrupted");
  EXPECT_EQ(books.count(Outcome::dropped), 2u);
  EXPECT_FALSE(books.lastFailure());
}

TEST_F(Ledger, ClosingTakesNoOtherForTheOneThatEndedMeanwhile) {
  const U64 first = announce();
  const U64 second = announce();
  books.flagRose(true, "at the last moment");
  books.close(first, "interrupted");
  EXPECT_THAT(ends(), ElementsAre(Pair(first, Outcome::failed), Pair(second, Outcome::dropped)));
}

TEST_F(Ledger, CountsAddUp) {
  beTheWorker();
  answer(announce());
  answer(announce(), 2);
  books.released(announce());
  announce();
  announce();
  books.flagRose(true, "");
  books.close(std::nullopt, "");
  for (const Outcome outcome :
       {Outcome::ok, Outcome::refused, Outcome::undecodable, Outcome::failed, Outcome::dropped}) {
    EXPECT_EQ(books.count(outcome), 1u) << outcomeName(outcome);
  }
  EXPECT_EQ(books.ended(), 5u);
  EXPECT_EQ(reports.size(), 5u);
}

TEST_F(Ledger, TheMostThatWereOpenIsKept) {
  const U64 first = announce();
  const U64 second = announce();
  answer(first);
  answer(second);
  announce();
  EXPECT_EQ(books.openAnnounced(), 1u);
  EXPECT_EQ(books.openAnnouncedMaximum(), 2u);
}

TEST_F(Ledger, TheOldestOpenTellsSinceWhenItIsServed) {
  EXPECT_FALSE(books.oldestOpen());
  const U64 first = announce();
  const U64 second = announce(Norv::listPorts);
  now += 3ms;
  answer(first);
  ASSERT_TRUE(books.oldestOpen());
  EXPECT_EQ(books.oldestOpen()->id, second);
  EXPECT_EQ(books.oldestOpen()->type, Norv::listPorts);
  EXPECT_EQ(books.oldestOpen()->started, now);
}

TEST_F(Ledger, TracesTheLifeOfACommand) {
  support::TraceRecorder recorder("NorvAgent/6");
  answer(announce());
  EXPECT_THAT(recorder.texts("NorvAgent"),
              ElementsAre("announced seq=1 type=getVersion queue=main depth=1",
                          "ended seq=1 type=getVersion queue=main outcome=ok depth=0"));
}

TEST(LedgerTracePoints, MapTheirLevels) {
  EXPECT_TRUE(Norv::AgentTrace::_mapTwineToSkein(9, 8, 7, 6, 5, 4, 3, 2, 1, 0));
  for (U8 i = 0; i < 10; ++i) EXPECT_EQ(Norv::AgentTrace::levelMap[i], 9 - i);
  EXPECT_TRUE(Norv::AgentTrace::_mapTwineToSkein(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
  for (U8 i = 0; i < 10; ++i) EXPECT_EQ(Norv::AgentTrace::levelMap[i], i);
}

}  // namespace
