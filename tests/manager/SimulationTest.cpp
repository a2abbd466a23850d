// The manager without a connection.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Agent.h>
#include <support/TraceRecorder.h>

#include <filesystem>

namespace {

using testing::ElementsAre;

// The entries of a folder that the kernel keeps for this process.
std::ptrdiff_t entries(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder),
                       std::filesystem::directory_iterator());
}

struct Simulation : testing::Test {
  support::Environment simulation{"SIMULATION_NORV", ""};  // set to the empty text is set
  support::Agent agent;
};

TEST_F(Simulation, MakesNoConnectionAndNoThread) {
  const std::ptrdiff_t threads = entries("/proc/self/task");
  const std::ptrdiff_t files = entries("/proc/self/fd");
  const support::TraceRecorder trace;
  agent.connect(1);
  EXPECT_TRUE(agent.manager->initialized());
  EXPECT_EQ(agent.manager->client(), nullptr);
  EXPECT_EQ(agent.manager->grpcReplyThread(), nullptr);
  EXPECT_EQ(agent.manager->threadLock(), nullptr);
  EXPECT_EQ(agent.manager->threadCondition(), nullptr);
  EXPECT_EQ(entries("/proc/self/task"), threads);
  EXPECT_EQ(entries("/proc/self/fd"), files);
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
