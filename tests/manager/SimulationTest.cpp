// The manager without a connection.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Agent.h>
#include <support/ThisProcess.h>
#include <support/TraceRecorder.h>

namespace {

using testing::ElementsAre;

struct Simulation : testing::Test {
  support::Environment simulation{"SIMULATION_NORV", ""};  // set to the empty text is set
  support::Agent agent;
};

TEST_F(Simulation, MakesNoConnectionAndNoThread) {
  const std::set<int> threads = support::ownThreads();
  const std::ptrdiff_t descriptors = support::openDescriptors();
  const support::TraceRecorder trace;
  agent.connect(1);
  EXPECT_TRUE(agent.manager->initialized());
  EXPECT_EQ(agent.manager->client(), nullptr);
  EXPECT_EQ(agent.manager->grpcReplyThread(), nullptr);
  EXPECT_EQ(agent.manager->threadLock(), nullptr);
  EXPECT_EQ(agent.manager->threadCondition(), nullptr);
  EXPECT_TRUE(support::noThreadsBut(threads));
  // The connection of a manager before may just end.
  EXPECT_LE(support::openDescriptors(), descriptors);
  // The worker of a manager before may still speak.
  EXPECT_THAT(trace.texts("NorvConnectionsMgr"),
              ElementsAre("void Norv::ConnectionsMgr::handleInitialized()"));
  EXPECT_EQ(trace.count("Starting GrpcClient"), 0u);
}

TEST_F(Simulation, FollowsTheQueuesThatAreThere) {
  agent.enqueue();
  agent.connect(1);
  EXPECT_TRUE(agent.manager->cmdConfigGroupSm("main"));
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
}

TEST_F(Simulation, KeepsEveryAnnouncedCommandInThePendingQueueInOrder) {
  agent.connect(1);
  const Lumo::Ptr<Norv::GrpcCmd> first = agent.command();
  const Lumo::Ptr<Norv::GrpcCmd> second = agent.command();
  agent.queue()->cmdBatchEnq(first);
  agent.queue()->cmdBatchEnq(second);
  agent.announce();
  EXPECT_EQ(agent.queue()->cmdBatchs(), 0u);
  EXPECT_EQ(agent.pending->cmdBatch(0), first);
  EXPECT_EQ(agent.pending->cmdBatch(1), second);
  agent.manager->doFlushPendingQueue();
  EXPECT_EQ(agent.pending->cmdBatchs(), 2u);
}

}  // namespace
