// Construction and teardown of the manager, and what it traces.

#include <gmock/gmock.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <support/Agent.h>
#include <support/FakeDaemon.h>
#include <support/TraceRecorder.h>

#include <filesystem>

#include <Norv/GrpcClient.h>

namespace {

using namespace Norv;
using support::Agent;
using support::Environment;
using support::FakeDaemon;
using support::TraceRecorder;
using testing::ElementsAre;
using testing::StartsWith;

std::ptrdiff_t threads() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                       std::filesystem::directory_iterator());
}

struct ConnectionsMgrTest : testing::Test {
  FakeDaemon daemon;
  Agent agent;
};

TEST_F(ConnectionsMgrTest, ConnectsAsSoonAsItExists) {
  agent.connect(daemon.port());
  EXPECT_TRUE(agent.manager->initialized());
  EXPECT_NE(agent.manager->client(), nullptr);
  EXPECT_NE(agent.manager->grpcReplyThread(), nullptr);
  EXPECT_NE(agent.manager->threadLock(), nullptr);
  EXPECT_NE(agent.manager->threadCondition(), nullptr);
  EXPECT_STREQ(agent.manager->fwkType()->typeName(), "Norv::ConnectionsMgr");
}

TEST_F(ConnectionsMgrTest, TracesItsStartInOrder) {
  agent.queue("a");
  const TraceRecorder trace("NorvConnectionsMgr/5,GrpcClient/1");
  agent.connect(daemon.port());
  EXPECT_THAT(trace.texts(),
              ElementsAre("void Norv::ConnectionsMgr::handleInitialized()",
                          "Connecting to Bessd (127.0.0.1:" + std::to_string(daemon.port()) + ")",
                          "Starting GrpcClient",
                          StartsWith("The grpc client has successfully started. client: 0x"),
                          "void Norv::ConnectionsMgr::handleCmdConfigGroup(Lumo::Name) a",
                          "Creating a CmdConfigGroupSm for a",
                          "void Norv::CmdConfigGroupSm::handleBatch()"));
  const TraceRecorder::Line first = trace.lines()[0];
  EXPECT_EQ(first.facility, "NorvConnectionsMgr");
  EXPECT_EQ(first.file, "NorvConnectionsMgr.lumo");
  EXPECT_EQ(first.line, 115);
  EXPECT_EQ(first.level, 5u);
  EXPECT_EQ(first.function, "handleInitialized");
  EXPECT_EQ(trace.lines()[1].line, 125);
  EXPECT_EQ(trace.lines()[3].line, 140);
  EXPECT_EQ(trace.lines()[4].line, 75);
  EXPECT_EQ(trace.lines()[5].line, 82);
}

TEST_F(ConnectionsMgrTest, InitializesOnce) {
  agent.connect(daemon.port());
  ASSERT_TRUE(agent.eventually([&] { return threads() > 1; }));
  const std::ptrdiff_t before = threads();
  GrpcClient* const client = agent.manager->client();
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.manager->handleInitialized();
  EXPECT_THAT(trace.texts(), ElementsAre("void Norv::ConnectionsMgr::handleInitialized()"));
  EXPECT_EQ(agent.manager->client(), client);
  EXPECT_EQ(threads(), before);
}

TEST_F(ConnectionsMgrTest, FormatsTheAddressAsGiven) {
  const auto address = [&](const std::string& host, U16 port) {
    const TraceRecorder trace("NorvConnectionsMgr/5");
    Agent other;
    other.connect(port, host);
    return trace.texts()[1];
  };
  EXPECT_EQ(address("", 0), "Connecting to Bessd (:0)");
  EXPECT_EQ(address("::1", 1), "Connecting to Bessd (::1:1)");
  EXPECT_EQ(address("127.0.0.1", 65535), "Connecting to Bessd (127.0.0.1:65535)");
  const std::string longHost(10000, 'h');
  EXPECT_EQ(address(longHost, 7), "Connecting to Bessd (" + longHost + ":7)");
}

TEST_F(ConnectionsMgrTest, DoesNotWaitForADaemon) {
  // A port that nobody listens on: taken from a server that has gone.
  U16 port = 0;
  {
    FakeDaemon gone;
    port = gone.port();
  }
  agent.connect(port);
  agent.enqueue();
  agent.announce();
  EXPECT_TRUE(agent.eventually([&] { return agent.waiting() == 0; }));
  EXPECT_FALSE(agent.status->errorOccured());
  EXPECT_EQ(agent.log->responses, 0);
}

TEST_F(ConnectionsMgrTest, StoresItsPlainPointersAndDeletesNothing) {
  const Environment simulation("SIMULATION_NORV", "1");
  agent.connect(1);
  Lumo::Lock lock;
  Lumo::Lock other;
  agent.manager->threadLockIs(&lock);
  agent.manager->threadLockIs(&other);
  EXPECT_EQ(agent.manager->threadLock(), &other);
  EXPECT_TRUE(lock.lock());  // still alive
  lock.unlock();
}

TEST_F(ConnectionsMgrTest, LeavesEverythingInPlaceWhenDestroyingTheClientInSimulation) {
  const Environment simulation("SIMULATION_NORV", "1");
  agent.connect(1);
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.manager->destroyGrpcClient();
  EXPECT_THAT(trace.texts(), ElementsAre("void Norv::ConnectionsMgr::destroyGrpcClient()"));
  EXPECT_EQ(trace.lines()[0].line, 92);
  EXPECT_TRUE(agent.manager->initialized());
}

TEST_F(ConnectionsMgrTest, KeptOnPurposeDestroyingTheClientLeavesThePointersAsTheyWere) {
  {
    const Environment simulation("SIMULATION_NORV", "1");
    agent.connect(1);
  }
  auto* const lock = new Lumo::Lock();
  auto* const condition = new Lumo::Condition();
  auto* const thread = new std::thread();  // none runs
  auto* const client =
      new GrpcClient(daemon.inProcessChannel(), agent.pending, agent.status, lock, condition);
  agent.manager->threadLockIs(lock);
  agent.manager->threadConditionIs(condition);
  agent.manager->grpcReplyThreadIs(thread);
  agent.manager->clientIs(client);
  agent.manager->destroyGrpcClient();
  EXPECT_EQ(agent.manager->threadLock(), lock);
  EXPECT_EQ(agent.manager->threadCondition(), condition);
  EXPECT_EQ(agent.manager->grpcReplyThread(), thread);
  EXPECT_EQ(agent.manager->client(), client);
  EXPECT_TRUE(agent.manager->initialized());
}

TEST_F(ConnectionsMgrTest, LeavesQueuesAndPendingCommandsToOthersWhenItGoes) {
  {
    const Environment simulation("SIMULATION_NORV", "1");
    agent.enqueue();
    agent.connect(1);
    agent.enqueue();
  }
  agent.dropManager();
  EXPECT_EQ(agent.queue()->cmdBatchs(), 1u);
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
  agent.announce();
  agent.queue("another");
  EXPECT_EQ(agent.queue()->cmdBatchs(), 1u);
}

TEST_F(ConnectionsMgrTest, CanBeDroppedWhileConnectedOnlyBySelectingSimulation) {
  agent.connect(daemon.port());
  agent.enqueue();
  agent.announce();
  ASSERT_TRUE(agent.eventually([&] { return agent.log->destroyed == 1; }));
  agent.dropManager();
  EXPECT_EQ(agent.manager, nullptr);
}

TEST_F(ConnectionsMgrTest, GivesItsInputsBackInReverseOrder) {
  const Environment simulation("SIMULATION_NORV", "1");
  agent.connect(1);
  EXPECT_EQ(agent.status->references(), 2u);
  EXPECT_EQ(agent.pending->references(), 2u);
  EXPECT_EQ(agent.config->references(), 2u);
  agent.dropManager();
  EXPECT_EQ(agent.status->references(), 1u);
  EXPECT_EQ(agent.pending->references(), 1u);
  EXPECT_EQ(agent.config->references(), 1u);
}

TEST_F(ConnectionsMgrTest, HoldsOneWorkerThread) {
  const std::ptrdiff_t before = threads();
  const std::thread::id none;
  agent.connect(daemon.port());
  EXPECT_NE(agent.manager->grpcReplyThread()->get_id(), none);
  EXPECT_TRUE(agent.manager->grpcReplyThread()->joinable());
  EXPECT_GT(threads(), before);
}

TEST_F(ConnectionsMgrTest, ReadsTheSimulationVariableAfreshAtEachDecision) {
  {
    const Environment simulation("SIMULATION_NORV", "1");
    agent.connect(1);
  }
  agent.enqueue();
  {
    const Environment simulation("SIMULATION_NORV", "");
    agent.announce();
    EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
    agent.manager->doFlushPendingQueue();
    EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
  }
  Lumo::Lock lock;
  agent.manager->threadLockIs(&lock);
  agent.manager->doFlushPendingQueue();  // now the other branch
  EXPECT_EQ(agent.pending->cmdBatchs(), 0u);
}

struct ConnectionsMgrDeathTest : testing::Test {
  ConnectionsMgrDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// A manager made in simulation, so that nothing is there to destroy; with as many of the four plain
// pointers set as asked for, in the order in which they are deleted.
void destroyWith(int pointers) {
  Agent agent;
  {
    const Environment simulation("SIMULATION_NORV", "1");
    agent.connect(1);
  }
  if (pointers > 0) agent.manager->grpcReplyThreadIs(new std::thread());
  if (pointers > 1) agent.manager->threadConditionIs(new Lumo::Condition());
  if (pointers > 2) agent.manager->threadLockIs(new Lumo::Lock());
  agent.manager->destroyGrpcClient();
}

TEST_F(ConnectionsMgrDeathTest, AssertsEachOfTheFourInOrder) {
  EXPECT_DEATH(destroyWith(0), "ConnectionsMgr.cpp.*`grpcReplyThread\\(\\)'");
  EXPECT_DEATH(destroyWith(1), "ConnectionsMgr.cpp.*`threadCondition\\(\\)'");
  EXPECT_DEATH(destroyWith(2), "ConnectionsMgr.cpp.*`threadLock\\(\\)'");
  EXPECT_DEATH(destroyWith(3), "ConnectionsMgr.cpp.*`client\\(\\)'");
}

TEST_F(ConnectionsMgrDeathTest, KeptOnPurposeDestroyingAConnectedManagerEndsTheProcess) {
  EXPECT_DEATH(
      {
        Agent agent;
        agent.connect(1);
        agent.manager = nullptr;
      },
      "terminate called without an active exception");
}

TEST_F(ConnectionsMgrDeathTest, NeedsACollection) {
  const Environment simulation("SIMULATION_NORV", "1");
  EXPECT_DEATH(
      {
        Agent agent;
        agent.config = nullptr;
        agent.connect(1);
      },
      "globalCmdConfig\\(\\)");
}

}  // namespace
