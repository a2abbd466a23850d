#include <support/TraceRecorder.h>

#include <Norv/ClientTrace.h>

#include "KitFixture.h"

namespace {

using namespace agent_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Kit = KitFixture;

TEST_F(Kit, TellsHowCommandsEnd) {
  daemon.handlerIs([](Norv::GrpcRequestType type, const auto&, auto*) {
    // A message whose first field, the error, has code 17.
    return type == Norv::createPort ? FakeDaemon::Answer{0, "", "\x0a\x02\x08\x11"}
                                    : FakeDaemon::Answer();
  });
  connect();
  enqueue(1, "main", Norv::getVersion);
  enqueue(1, "main", Norv::createPort);
  announce();
  EXPECT_TRUE(ticking([&] { return ends().size() == 2; }));
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::ok), Pair(2, Outcome::refused)));
  EXPECT_EQ(told->reports[1].errorCode, 17);
  EXPECT_EQ(agent.log->responses, 2);
}

TEST_F(Kit, NamesAReplyThatDoesNotDecode) {
  answerNth(1, {0, "", "\x0a\x7f"});
  connect();
  enqueue(3);
  announce();
  EXPECT_TRUE(ticking([&] { return ends().size() == 3; }));
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::ok), Pair(2, Outcome::undecodable),
                                  Pair(3, Outcome::ok)));
}

TEST_F(Kit, NamesAReplyThatDoesNotDecodeOfACommandThatIsKept) {
  answerNth(0, {0, "", "\x0a\x7f"});
  connect();
  Lumo::Ptr<TrackedCmd> kept = enqueueKept();
  enqueue();
  announce();
  EXPECT_TRUE(ticking([&] { return ends().size() == 2; }));
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::undecodable), Pair(2, Outcome::ok)));
}

TEST_F(Kit, ACommandThatIsKeptEndsWhenTheNextIsTaken) {
  answerNth(0, {0, "", "\x0a\x7f"});
  connect();
  Lumo::Ptr<TrackedCmd> kept = enqueueKept();
  announce();
  ASSERT_TRUE(ticking([&] { return daemon.calls().size() == 1 && kept->references() == 1; }));
  daemon.hold();
  enqueue();
  announce();
  EXPECT_TRUE(ticking([&] { return ends().size() == 1; }));
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::undecodable)));
  EXPECT_EQ(status().inFlight->id, 2u);
}

TEST_F(Kit, ACommandThatWasSentIsNotDroppedWhenItsProducerLetsItGo) {
  answerNth(0, {0, "", "\x0a\x7f"});
  connect();
  Lumo::Ptr<TrackedCmd> kept = enqueueKept();
  announce();
  // Seen to be taken; then let go by the worker, so that the last reference is ours.
  ASSERT_TRUE(ticking([&] { return daemon.calls().size() == 1 && kept->references() == 1; }));
  EXPECT_EQ(status().worker, Status::Worker::inFlight);
  {
    Lumo::ActivityLockAnchor activity;
    kept = nullptr;
  }
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::undecodable)));
  EXPECT_EQ(status().worker, Status::Worker::idle);
}

TEST_F(Kit, ACommandWithdrawnBeforeItsAnnouncementIsDroppedThoughItIsKept) {
  connect();
  Lumo::ActivityLockAnchor activity;
  const Lumo::Ptr<TrackedCmd> kept = command();
  agent.queue()->cmdBatchEnq(kept);
  agent.queue()->cmdBatchDelAll();
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::dropped)));
  EXPECT_EQ(kit.status().worker, Status::Worker::idle);
}

TEST_F(Kit, DroppingWhatWaitsDropsCommandsThatAreKept) {
  daemon.hold();
  connect();
  enqueue();
  Lumo::Ptr<TrackedCmd> kept = enqueueKept();
  announce();
  ASSERT_TRUE(ticking([&] { return daemon.calls().size() == 1; }));
  {
    Lumo::ActivityLockAnchor activity;
    kit.dropWaiting();
  }
  EXPECT_THAT(ends(), ElementsAre(Pair(2, Outcome::dropped)));
  EXPECT_EQ(status().inFlight->id, 1u);
}

TEST_F(Kit, FollowsQueuesFromBeforeAndAfterItsTime) {
  connect();
  Norv::Agent::Kit late(agent.config, agent.pending, agent.status);
  late.managerIs(agent.manager);
  enqueue(1, "first");
  enqueue(1, "second");
  EXPECT_EQ(late.status().queues.size(), 2u);
  Norv::Agent::Kit latest(agent.config, agent.pending, agent.status);
  EXPECT_EQ(latest.status().queues.size(), 2u);
  EXPECT_EQ(latest.status().queues["first"].now, 1u);
}

TEST_F(Kit, ForgetsAQueueThatIsDeleted) {
  enqueue(1, "main");
  agent.config->cmdConfigGroupDel("main");
  EXPECT_THAT(status().queues, IsEmpty());
}

TEST_F(Kit, FollowsAQueueThatTakesTheNameOfADeletedOne) {
  connect();
  enqueue(1, "main");
  announce("main");
  {
    Lumo::ActivityLockAnchor activity;
    agent.config->cmdConfigGroupDel("main");
  }
  enqueue(2, "main");
  announce("main");
  EXPECT_TRUE(ticking([&] { return ends().size() == 3; }));
  EXPECT_EQ(kit.ledger()->count(Outcome::ok), 3u);
}

TEST_F(Kit, CommandsThatAreNotTrackedPassByItsBooks) {
  connect();
  enqueue(1);
  {
    Lumo::ActivityLockAnchor activity;
    agent.enqueue();
  }
  enqueue(1);
  announce();
  EXPECT_TRUE(ticking([&] { return agent.log->responses == 3; }));
  EXPECT_TRUE(ticking([&] { return ends().size() == 2; }));
  EXPECT_EQ(kit.ledger()->count(Outcome::ok), 2u);
}

TEST_F(Kit, SeesWhichOneIsUnderWayPastCommandsThatAreNotTracked) {
  daemon.hold();
  connect();
  enqueue(1);
  announce();
  ASSERT_TRUE(ticking([&] { return daemon.calls().size() == 1; }));
  const auto untracked = [&](int count) {
    Lumo::ActivityLockAnchor activity;
    for (int i = 0; i < count; ++i) agent.enqueue();
  };
  untracked(3);
  announce();
  ASSERT_TRUE(status().inFlight);
  EXPECT_EQ(status().inFlight->id, 1u) << "nothing tracked waits";
  enqueue(1);
  untracked(1);
  enqueue(1);
  announce();
  ASSERT_TRUE(status().inFlight);
  EXPECT_EQ(status().inFlight->id, 1u) << "the second waits";
  {
    Lumo::ActivityLockAnchor activity;
    Lumo::LockAnchor anchor(agent.manager->threadLock());
    agent.pending->cmdBatchDel(agent.pending->cmdBatchMetadata().headIndex + 3);
  }
  EXPECT_THAT(ends(), ElementsAre(Pair(2, Outcome::dropped)));
  ASSERT_TRUE(status().inFlight);
  EXPECT_EQ(status().inFlight->id, 1u) << "the third waits";
  daemon.release();
  EXPECT_TRUE(ticking([&] { return ends().size() == 3; }));
  EXPECT_EQ(kit.ledger()->count(Outcome::ok), 2u);
}

TEST_F(Kit, ATickMakesUpForALostWakeUp) {
  support::TraceRecorder recorder("GrpcClient/*");
  connect();
  // The worker has looked at the queue, and sleeps now or soon without looking again.
  const std::string looked = Norv::ClientTrace::noMoreCmds.text;
  ASSERT_TRUE(support::eventually([&] { return recorder.count(looked) == 1; }));
  {
    Lumo::ActivityLockAnchor activity;
    Lumo::LockAnchor anchor(agent.manager->threadLock());
    const auto cmd = command();
    kit.ledger()->announced(cmd->id(), "main");
    agent.pending->cmdBatchEnq(cmd);  // Nobody signals.
  }
  EXPECT_TRUE(ticking([&] { return ends().size() == 1; }));
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::ok)));
}

TEST_F(Kit, StatusBeforeThereIsAManager) {
  enqueue(2);
  const Status status = this->status();
  EXPECT_EQ(status.worker, Status::Worker::none);
  EXPECT_EQ(status.queues.at("main").now, 2u);
  EXPECT_EQ(status.pending.now, 0u);
  EXPECT_FALSE(status.oldestAge);
}

TEST_F(Kit, StatusInSimulation) {
  const support::Environment simulation("SIMULATION_NORV", "");
  connect();
  enqueue(2);
  announce();
  EXPECT_EQ(status().worker, Status::Worker::none);
  EXPECT_EQ(status().pending.now, 2u);
}

TEST_F(Kit, StatusWhileIdle) {
  connect();
  enqueue(3);
  announce();
  ASSERT_TRUE(ticking([&] { return ends().size() == 3; }));
  const Status status = this->status();
  EXPECT_EQ(status.worker, Status::Worker::idle);
  EXPECT_FALSE(status.inFlight);
  EXPECT_FALSE(status.oldestAge);
  EXPECT_EQ(status.queues.at("main").now, 0u);
  EXPECT_EQ(status.queues.at("main").maximum, 3u);
  EXPECT_EQ(status.pending.maximum, 3u);
}

TEST_F(Kit, StatusWhileACommandIsUnderWay) {
  daemon.hold();
  connect();
  enqueue(1, "main", Norv::listPorts);
  enqueue(2);
  announce();
  ASSERT_TRUE(ticking([&] { return daemon.calls().size() == 1; }));
  advance(7ms);
  const Status status = this->status();
  EXPECT_EQ(status.worker, Status::Worker::inFlight);
  ASSERT_TRUE(status.inFlight);
  EXPECT_EQ(status.inFlight->type, Norv::listPorts);
  EXPECT_EQ(status.inFlight->seq, 1u);
  EXPECT_EQ(status.pending.now, 2u);
  EXPECT_EQ(status.oldestAge, 7ms);
}

TEST_F(Kit, DroppingWhatWaitsLeavesTheOneUnderWay) {
  daemon.hold();
  connect();
  enqueue(3);
  announce();
  enqueue(2, "later");
  ASSERT_TRUE(ticking([&] { return daemon.calls().size() == 1; }));
  {
    Lumo::ActivityLockAnchor activity;
    kit.dropWaiting();
  }
  EXPECT_EQ(kit.ledger()->count(Outcome::dropped), 4u);
  EXPECT_EQ(agent.queue("later")->cmdBatchs(), 0u);
  EXPECT_EQ(status().worker, Status::Worker::inFlight);
  daemon.release();
  EXPECT_TRUE(ticking([&] { return kit.ledger()->count(Outcome::ok) == 1; }));
}

TEST_F(Kit, ClosingTheBooksEndsEveryCommandInOrder) {
  daemon.hold();
  connect();
  enqueue(3);
  announce();
  enqueue(1, "later");
  ASSERT_TRUE(ticking([&] { return daemon.calls().size() == 1; }));
  {
    Lumo::ActivityLockAnchor activity;
    kit.closeBooks("no more time");
  }
  EXPECT_THAT(ends(), ElementsAre(Pair(1, Outcome::failed), Pair(2, Outcome::dropped),
                                  Pair(3, Outcome::dropped), Pair(4, Outcome::dropped)));
  EXPECT_EQ(told->reports[0].errorText, "no more time");
  daemon.release();
  EXPECT_TRUE(ticking([&] { return agent.log->destroyed == 4; }));
  EXPECT_EQ(daemon.calls().size(), 1u);
  EXPECT_EQ(ends().size(), 4u);
}

TEST_F(Kit, ClosingTheBooksInSimulationDropsAll) {
  const support::Environment simulation("SIMULATION_NORV", "");
  connect();
  enqueue(2);
  announce();
  Lumo::ActivityLockAnchor activity;
  kit.closeBooks("no more time");
  EXPECT_EQ(kit.ledger()->count(Outcome::dropped), 2u);
}

TEST(KitDeathTest, LeavingTheProcessFlushesAndRunsNoDestructors) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::atexit([] { std::fputs("at exit", stderr); });
        std::fputs("told ", stderr);
        std::fputs("in the buffer", stdout);
        Norv::Agent::Kit::leaveProcess(7);
      },
      testing::ExitedWithCode(7), "^told $");
}

TEST(WorkerName, NamesEveryState) {
  EXPECT_STREQ(workerName(Status::Worker::none), "none");
  EXPECT_STREQ(workerName(Status::Worker::idle), "idle");
  EXPECT_STREQ(workerName(Status::Worker::inFlight), "in flight");
  EXPECT_STREQ(workerName(Status::Worker::stopped), "stopped");
}

}  // namespace
