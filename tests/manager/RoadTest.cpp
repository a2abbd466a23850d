// The road of a command, from its named queue to the daemon and back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Agent.h>
#include <support/FakeDaemon.h>
#include <support/TraceRecorder.h>

namespace {

using support::Agent;
using support::FakeDaemon;
using testing::ElementsAre;

// One agent connected to one fake daemon.
struct Road : testing::Test {
  FakeDaemon daemon;
  Agent agent;
};

TEST_F(Road, OneCommandReachesTheDaemonAndItsResponseComesBack) {
  agent.connect(daemon.port());
  agent.enqueue(Norv::getVersion);
  agent.announce();
  EXPECT_TRUE(agent.eventually([&] { return agent.log->responses == 1; }));
  EXPECT_THAT(daemon.callTypes(), ElementsAre(Norv::getVersion));
  EXPECT_THAT(agent.log->responseTypes, ElementsAre("bess.pb.VersionResponse"));
  EXPECT_NE(agent.log->responseThread, std::this_thread::get_id());
}

TEST_F(Road, ACommandIsReleasedAfterItsResponse) {
  agent.connect(daemon.port());
  agent.enqueue();
  agent.announce();
  EXPECT_TRUE(agent.eventually([&] { return agent.log->destroyed == 1; }));
  EXPECT_EQ(agent.log->responses, 1);
}

TEST_F(Road, ThreeQueuedCommandsGoInOrderAndOneAtATime) {
  agent.connect(daemon.port());
  agent.enqueue(Norv::pauseAll);
  agent.enqueue(Norv::resetAll);
  agent.enqueue(Norv::resumeAll);
  agent.announce();
  EXPECT_TRUE(agent.eventually([&] { return agent.log->responses == 3; }));
  EXPECT_THAT(daemon.callTypes(), ElementsAre(Norv::pauseAll, Norv::resetAll, Norv::resumeAll));
  EXPECT_THAT(agent.log->respondedNumbers(), ElementsAre(0, 1, 2));
  EXPECT_EQ(daemon.mostAtOnce(), 1);
}

TEST_F(Road, TheNextCommandIsSentOnlyAfterTheAnswerToTheLast) {
  daemon.hold();
  agent.connect(daemon.port());
  agent.enqueue(Norv::pauseAll);
  agent.enqueue(Norv::resumeAll);
  agent.announce();
  ASSERT_TRUE(agent.eventually([&] { return daemon.calls().size() == 1; }));
  EXPECT_EQ(agent.log->responses, 0);
  daemon.release();
  EXPECT_TRUE(agent.eventually([&] { return agent.log->responses == 2; }));
}

TEST_F(Road, BatchesOfSeveralQueuesInterleaveAtBatchBoundariesOnly) {
  daemon.hold();
  agent.connect(daemon.port());
  agent.enqueue(Norv::listPorts, "ports");
  agent.enqueue(Norv::listModules, "modules");
  agent.enqueue(Norv::resetPorts, "ports");
  agent.enqueue(Norv::resetModules, "modules");
  agent.announce("modules");
  agent.announce("ports");
  daemon.release();
  EXPECT_TRUE(agent.eventually([&] { return agent.log->responses == 4; }));
  EXPECT_THAT(daemon.callTypes(), ElementsAre(Norv::listModules, Norv::resetModules,
                                              Norv::listPorts, Norv::resetPorts));
}

TEST_F(Road, AFailedRpcRaisesTheFlagAndStopsTheSending) {
  daemon.handlerIs([](Norv::GrpcRequestType type, const auto&, auto*) {
    return type == Norv::resetAll ? FakeDaemon::Answer{14, "gone", ""} : FakeDaemon::Answer();
  });
  agent.connect(daemon.port());
  agent.enqueue(Norv::pauseAll);
  agent.enqueue(Norv::resetAll);
  agent.enqueue(Norv::listPorts);
  agent.enqueue(Norv::listModules);
  agent.announce();
  // Each further wake-up drops one of the two behind the failed one.
  EXPECT_TRUE(agent.eventually([&] { return agent.log->destroyed == 4; }));
  EXPECT_TRUE(agent.status->errorOccured());
  EXPECT_THAT(daemon.callTypes(), ElementsAre(Norv::pauseAll, Norv::resetAll));
  EXPECT_THAT(agent.log->respondedNumbers(), ElementsAre(0));
}

TEST_F(Road, AllCommandsGoOverOneConnectionAlsoAfterAFailure) {
  daemon.handlerIs([](Norv::GrpcRequestType type, const auto&, auto*) {
    return type == Norv::resetAll ? FakeDaemon::Answer{13, "no", ""} : FakeDaemon::Answer();
  });
  agent.connect(daemon.port());
  const Norv::GrpcClient* const client = agent.manager->client();
  agent.enqueue(Norv::pauseAll);
  agent.enqueue(Norv::resetAll);
  agent.announce();
  ASSERT_TRUE(agent.eventually([&] { return agent.log->destroyed == 2; }));
  agent.status->errorOccuredIs(false);
  agent.enqueue(Norv::resumeAll);
  agent.announce();
  ASSERT_TRUE(agent.eventually([&] { return agent.log->destroyed == 3; }));
  const std::vector<FakeDaemon::Call> calls = daemon.calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[1].peer, calls[0].peer);
  EXPECT_EQ(calls[2].peer, calls[0].peer);
  EXPECT_EQ(agent.manager->client(), client);
}

TEST_F(Road, KeptOnPurposeNothingClearsTheFlagAndBatchesAreDiscarded) {
  agent.connect(daemon.port());
  agent.status->errorOccuredIs(true);
  agent.enqueue();
  agent.enqueue();
  agent.announce();
  EXPECT_EQ(agent.queue()->cmdBatchs(), 0u);
  EXPECT_THAT(agent.log->releasedNumbers(), ElementsAre(0, 1));
  EXPECT_EQ(daemon.calls().size(), 0u);
  EXPECT_TRUE(agent.status->errorOccured());
}

}  // namespace
