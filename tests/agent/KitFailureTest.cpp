// What the kit makes of a failed RPC: the account, and the policy.

#include <latch>

#include <Lumo/Trace.h>
#include <Lumo/TraceRecorder.h>

#include "KitFixture.h"

namespace {

using namespace agent_test;
using testing::ElementsAre;
using testing::Pair;

struct KitFailure : KitFixture {
  KitFailure() {
    kit.failureTextIs([] { return std::string("as the daemon said"); });
  }

  // Sends so many commands, of which the first fails, and waits until the worker has done with it.
  void failTheFirstOf(int count) {
    answerNth(0, {14, "gone", ""});
    connect();
    enqueue(count);
    announce();
    ASSERT_TRUE(ticking([&] { return agent.log->destroyed >= 1; }));
  }
  void clearAndGoOn() {
    Lumo::ActivityLockAnchor activity;
    kit.clearAndGoOn();
  }
};

TEST_F(KitFailure, IsTheOutcomeOfTheOneUnderWay) {
  failTheFirstOf(2);
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::failed)));
  EXPECT_EQ(told->reports[0].errorText, "as the daemon said");
  EXPECT_TRUE(kit.stopped());
}

TEST_F(KitFailure, HasTheStatusOfTheRpc) {
  kit.failureTextIs(nullptr);
  failTheFirstOf(1);
  EXPECT_EQ(told->reports[0].rpcCode, 14);
  EXPECT_EQ(told->reports[0].errorText, "gone");
}

TEST_F(KitFailure, LeavesTheTraceToWhoeverReadIt) {
  Lumo::traceLevelIs("GrpcClient", 0, true);
  Lumo::TraceRecorder recorder;
  const Norv::Agent::Kit another(agent.config, agent.pending, agent.status);
  failTheFirstOf(1);
  EXPECT_THAT(recorder.texts(),
              testing::Contains("Failure to process response: error_code: 14 error_message: gone"));
}

TEST_F(KitFailure, ShowsInTheStatus) {
  advance(5ms);
  failTheFirstOf(2);
  const Norv::Agent::Time then{Norv::Agent::Time::duration(now)};
  advance(9ms);
  const Status status = this->status();
  EXPECT_EQ(status.worker, Status::Worker::stopped);
  EXPECT_EQ(status.stoppedSince, then);
  EXPECT_FALSE(status.inFlight);
  ASSERT_TRUE(status.lastFailure);
  EXPECT_EQ(status.lastFailure->id, 1u);
  EXPECT_EQ(status.oldestAge, 9ms);
}

TEST_F(KitFailure, StopsForGoodUnlessToldOtherwise) {
  failTheFirstOf(3);
  advance(24h);
  tick();
  EXPECT_TRUE(kit.stopped());
  EXPECT_EQ(daemon.calls().size(), 1u);
}

TEST_F(KitFailure, IsClearedAfterThePause) {
  kit.failurePolicyIs({FailurePolicy::Action::clearAndGoOn, 100ms});
  failTheFirstOf(5);
  advance(99ms);
  tick();
  EXPECT_TRUE(kit.stopped());
  advance(1ms);
  EXPECT_TRUE(ticking([&] { return ends().size() == 5; }));
  EXPECT_FALSE(kit.stopped());
  // The worker may have taken the second before it saw the flag.
  EXPECT_LE(kit.ledger()->count(Outcome::dropped), 1u);
  EXPECT_EQ(kit.ledger()->count(Outcome::ok), daemon.calls().size() - 1);
  EXPECT_EQ(ends().back(), std::pair(U64{5}, Outcome::ok));
}

TEST_F(KitFailure, IsClearedAtOnceWithoutAPause) {
  kit.failurePolicyIs({FailurePolicy::Action::clearAndGoOn, 0ms});
  answerNth(0, {14, "gone", ""});
  connect();
  enqueue(20);
  announce();
  EXPECT_TRUE(ticking([&] { return ends().size() == 20; }));
  EXPECT_EQ(kit.ledger()->count(Outcome::failed), 1u);
  EXPECT_EQ(kit.ledger()->count(Outcome::ok) + 1, daemon.calls().size());
}

TEST_F(KitFailure, MayBeClearedByHand) {
  failTheFirstOf(3);
  clearAndGoOn();
  EXPECT_FALSE(kit.stopped());
  EXPECT_TRUE(ticking([&] { return ends().size() == 3; }));
  EXPECT_EQ(ends().back(), std::pair(U64{3}, Outcome::ok));
}

TEST_F(KitFailure, ClearedWhileItIsEnteredLeavesNothingStopped) {
  std::latch asked(1), cleared(1);
  kit.failureTextIs([&] {
    asked.count_down();
    cleared.wait();
    return std::string("as the daemon said");
  });
  answersAre({{14, "gone", ""}}, {0, "", "\x0a\x7f"});
  connect();
  enqueue();
  announce();
  ASSERT_TRUE(ticking([&] { return asked.try_wait(); }));
  {
    Lumo::ActivityLockAnchor activity;
    agent.status->errorOccuredIs(false);
  }
  cleared.count_down();
  // The worker lets go of the command when it has looked for another one.
  ASSERT_TRUE(support::eventually([&] { return agent.log->destroyed == 1; }));
  EXPECT_FALSE(kit.stopped());
  {
    Lumo::ActivityLockAnchor activity;
    Lumo::LockAnchor anchor(agent.manager->threadLock());
    const auto cmd = command();
    kit.ledger()->announced(cmd->id(), "main");
    agent.pending->cmdBatchEnq(cmd);  // Nobody signals.
  }
  EXPECT_TRUE(ticking([&] { return ends().size() == 2; }));
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::failed), Pair(2, Outcome::undecodable)));
}

TEST_F(KitFailure, WhatTheWorkerTookMeanwhileIsDropped) {
  failTheFirstOf(3);
  // The worker takes the second, sees the flag and sleeps holding it.
  ASSERT_TRUE(support::eventually([&] { return status().pending.now == 1; }));
  // It has looked at the flag once it takes the third, too, and lets the second go.
  ASSERT_TRUE(agent.eventually([&] { return agent.log->destroyed >= 2; }));
  EXPECT_EQ(ends()[0], std::pair(U64{1}, Outcome::failed));
  EXPECT_EQ(ends()[1], std::pair(U64{2}, Outcome::dropped));
  clearAndGoOn();
  EXPECT_TRUE(ticking([&] { return ends().size() == 3; }));
}

TEST_F(KitFailure, BatchesAnnouncedAfterwardsAreDropped) {
  failTheFirstOf(1);
  enqueue(2);
  announce();
  EXPECT_EQ(ends().size(), 3u);
  EXPECT_EQ(kit.ledger()->count(Outcome::dropped), 2u);
}

TEST_F(KitFailure, SetOnTheMainThreadIsNotThatOfTheOneUnderWay) {
  kit.failurePolicyIs({FailurePolicy::Action::clearAndGoOn, 100ms});
  daemon.hold();
  connect();
  enqueue(1);
  announce();
  ASSERT_TRUE(ticking([&] { return daemon.calls().size() == 1; }));
  {
    Lumo::ActivityLockAnchor activity;
    agent.status->errorOccuredIs(true);
  }
  EXPECT_TRUE(kit.stopped());
  EXPECT_TRUE(ends().empty());
  daemon.release();
  EXPECT_TRUE(ticking([&] { return ends().size() == 1; }));
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::ok)));
  EXPECT_EQ(kit.ledger()->count(Outcome::failed), 0u);
  EXPECT_FALSE(kit.status().lastFailure);

  EXPECT_TRUE(kit.stopped());
  advance(100ms);
  tick();
  EXPECT_FALSE(kit.stopped());
  enqueue(1);
  announce();
  EXPECT_TRUE(ticking([&] { return kit.ledger()->count(Outcome::ok) == 2; }));
}

// The worker runs from inside the manager's constructor on.
TEST_F(KitFailure, BeforeTheKitKnowsTheManagerIsInTheBooks) {
  answerNth(0, {14, "gone", ""});
  {
    Lumo::ActivityLockAnchor activity;
    for (int i = 0; i < 2; ++i) agent.queue()->cmdBatchEnq(command());
    agent.connect(daemon.port());
  }
  ASSERT_TRUE(agent.eventually([&] { return kit.stopped(); }));
  EXPECT_THAT(ends()[0], Pair(1, Outcome::failed));
  {
    Lumo::ActivityLockAnchor activity;
    kit.managerIs(agent.manager);
    kit.clearAndGoOn();
  }
  EXPECT_TRUE(ticking([&] { return ends().size() == 2; }));
}

TEST_F(KitFailure, OfAnUntrackedCommandIsNobodysInTheBooks) {
  answerNth(0, {14, "gone", ""});
  connect();
  {
    Lumo::ActivityLockAnchor activity;
    agent.enqueue();
    agent.announce();
  }
  EXPECT_TRUE(ticking([&] { return agent.log->destroyed >= 1; }));
  EXPECT_TRUE(kit.stopped());
  EXPECT_EQ(kit.ledger()->count(Outcome::failed), 0u);
}

TEST_F(KitFailure, OfAnRpcThatWasNotTakenIsNoLaterCommands) {
  kit.failureTextIs(nullptr);
  answersAre({{14, "gone", ""}, {}, {0, "", "\x0a\x7f"}});
  daemon.hold();
  connect();
  enqueue();
  announce();
  ASSERT_TRUE(ticking([&] { return daemon.calls().size() == 1; }));
  {
    Lumo::ActivityLockAnchor activity;
    agent.status->errorOccuredIs(true);
  }
  daemon.release();
  ASSERT_TRUE(support::eventually([&] { return agent.log->destroyed == 1; }));
  clearAndGoOn();
  enqueue();
  const Lumo::Ptr<TrackedCmd> kept = enqueueKept();
  {
    Lumo::ActivityLockAnchor activity;
    agent.queue()->cmdBatchEnq(Lumo::allocate<RaisingCmd>(
        agent.status, agent.log, agent.made++, support::newRequest(Norv::getVersion).release(),
        Norv::getVersion));
  }
  announce();
  // As if the one that is kept had failed.
  ASSERT_TRUE(agent.eventually([&] { return kit.stopped(); }));
  ASSERT_TRUE(kit.status().lastFailure);
  EXPECT_EQ(kit.status().lastFailure->id, kept->id());
  EXPECT_EQ(kit.status().lastFailure->rpcCode, 0);
}

TEST_F(KitFailure, ClosingTheBooksAfterwardsDropsTheRestInOrder) {
  failTheFirstOf(4);
  ASSERT_TRUE(support::eventually([&] { return status().pending.now == 2; }));
  Lumo::ActivityLockAnchor activity;
  kit.closeBooks("stopped");
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::failed), Pair(2, Outcome::dropped),
                                  Pair(3, Outcome::dropped), Pair(4, Outcome::dropped)));
}

}  // namespace
