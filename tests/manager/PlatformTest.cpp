// What the manager asks of the platform: locks, signals, and the environment.

#include <gmock/gmock.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <support/Agent.h>
#include <support/FakeDaemon.h>
#include <support/Platform.h>
#include <support/TraceRecorder.h>

#include <cerrno>
#include <thread>

#include <Norv/GrpcClient.h>

namespace {

using namespace Norv;
using support::Agent;
using support::Environment;
using support::Platform;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

bool isInside(const void* part, const Lumo::Condition& whole) {
  const auto* byte = static_cast<const char*>(part);
  const auto* first = reinterpret_cast<const char*>(&whole);
  return byte >= first && byte < first + sizeof(whole);
}

// Whether somebody holds the lock, whose mutex is its first member; asked on a thread of its own.
bool held(Lumo::Lock& lock) {
  bool taken = false;
  std::thread([&] {
    auto* const mutex = reinterpret_cast<pthread_mutex_t*>(&lock);
    taken = pthread_mutex_trylock(mutex) == EBUSY;
    if (!taken) pthread_mutex_unlock(mutex);
  }).join();
  return taken;
}

// A manager made in simulation, with a lock and a condition of the test's: as if it were connected,
// and nobody takes anything from the pending queue.
struct ManagerOnThePlatform : testing::Test {
  ManagerOnThePlatform() {
    {
      const Environment simulation("SIMULATION_NORV", "1");
      agent.connect(1);
    }
    agent.manager->threadLockIs(&lock);
    agent.manager->threadConditionIs(&condition);
    agent.queue();
  }

  // What `action` does with lock and condition.
  std::vector<std::string> calls(const std::function<void()>& action) {
    std::vector<std::string> calls;
    const Platform platform([&](const std::string& called, const void* object, int) {
      if (called == "pthread_mutex_lock" && object == &lock) calls.push_back("lock");
      if (called == "pthread_cond_broadcast" && isInside(object, condition)) {
        calls.push_back(held(lock) ? "signal, locked" : "signal, not locked");
      }
      return std::nullopt;
    });
    action();
    return calls;
  }
  void enqueue(int count) {
    for (int i = 0; i < count; ++i) agent.enqueue();
  }

  Lumo::Lock lock;
  Lumo::Condition condition;
  Agent agent;
};

TEST_F(ManagerOnThePlatform, MovesABatchUnderOneHoldAndSignalsOnceInside) {
  enqueue(5);
  EXPECT_THAT(calls([&] { agent.announce(); }), ElementsAre("lock", "signal, locked"));
  EXPECT_EQ(agent.pending->cmdBatchs(), 5u);
  EXPECT_FALSE(held(lock));
}

TEST_F(ManagerOnThePlatform, LeavesLockAndConditionAloneForAnEmptyQueue) {
  EXPECT_THAT(calls([&] { agent.announce(); }), IsEmpty());
}

TEST_F(ManagerOnThePlatform, TakesTheLockAndDoesNotSignalForADiscardedBatch) {
  agent.status->errorOccuredIs(true);
  enqueue(5);
  EXPECT_THAT(calls([&] { agent.announce(); }), ElementsAre("lock"));
}

TEST_F(ManagerOnThePlatform, FlushesUnderOneHoldWithoutASignal) {
  enqueue(5);
  agent.announce();
  EXPECT_THAT(calls([&] { agent.manager->doFlushPendingQueue(); }), ElementsAre("lock"));
}

TEST_F(ManagerOnThePlatform, LeavesLockAndConditionAloneInSimulation) {
  const Environment simulation("SIMULATION_NORV", "1");
  enqueue(5);
  EXPECT_THAT(calls([&] {
                agent.announce();
                agent.manager->doFlushPendingQueue();
              }),
              IsEmpty());
  EXPECT_EQ(agent.pending->cmdBatchs(), 5u);
}

TEST_F(ManagerOnThePlatform, FollowsQueuesWithoutTheLock) {
  EXPECT_THAT(calls([&] {
                agent.queue("other");
                agent.manager->cmdConfigGroupSm("other")->configGroupIs(agent.queue());
                agent.config->cmdConfigGroupDel("main");
              }),
              IsEmpty());
  EXPECT_FALSE(agent.manager->cmdConfigGroupSm("main"));
}

// The names of the variables that `action` asks the environment for.
std::vector<std::string> asked(const std::function<void()>& action) {
  std::vector<std::string> names;
  const Platform platform([&](const std::string& called, const void* object, int) {
    if (called == "getenv") names.emplace_back(static_cast<const char*>(object));
    return std::nullopt;
  });
  action();
  return names;
}

TEST_F(ManagerOnThePlatform, AsksForSimulationOncePerDecisionAndForNothingElse) {
  const auto once = ElementsAre("SIMULATION_NORV");
  EXPECT_THAT(asked([&] { agent.manager->doEnqueueBatch(agent.queue()); }), once);
  EXPECT_THAT(asked([&] { agent.manager->doFlushPendingQueue(); }), once);
  const Environment simulation("SIMULATION_NORV", "1");
  enqueue(1);
  EXPECT_THAT(asked([&] { agent.manager->handleInitialized(); }), IsEmpty());  // nothing to decide
  agent.manager->initializedIs(false);
  EXPECT_THAT(asked([&] { agent.manager->doEnqueueBatch(agent.queue()); }), IsEmpty());
  EXPECT_THAT(asked([&] { agent.manager->doFlushPendingQueue(); }), IsEmpty());
  agent.queue()->cmdBatchDelAll();  // its machine would decide, too
  EXPECT_THAT(asked([&] { agent.manager->handleInitialized(); }), once);
  EXPECT_THAT(asked([&] { agent.manager->doEnqueueBatch(agent.queue()); }), once);
  EXPECT_THAT(asked([&] { agent.manager->doFlushPendingQueue(); }), once);
  EXPECT_THAT(asked([&] { agent.manager->destroyGrpcClient(); }), once);
  EXPECT_THAT(asked([&] {
                Agent other;
                other.enqueue();
                other.connect(1);
                other.dropManager();
              }),
              Each("SIMULATION_NORV"));
}

TEST_F(ManagerOnThePlatform, MakesTheLockBeforeTheCondition) {
  agent.manager->threadLockIs(nullptr);
  agent.manager->threadConditionIs(nullptr);
  agent.manager->initializedIs(false);
  // Whether lock and condition are there whenever a condition is set up on this thread; gRPC sets
  // up others afterwards.
  std::vector<std::pair<bool, bool>> there;
  {
    const std::thread::id self = std::this_thread::get_id();
    const Platform platform([&](const std::string& called, const void*, int) {
      if (called == "pthread_cond_init" && std::this_thread::get_id() == self) {
        there.emplace_back(agent.manager->threadLock(), agent.manager->threadCondition());
      }
      return std::nullopt;
    });
    agent.manager->handleInitialized();
  }
  ASSERT_FALSE(there.empty());
  EXPECT_EQ(there[0], std::pair(true, false));
}

TEST_F(ManagerOnThePlatform, DeletesTheConditionThenTheLockThenTheClient) {
  support::FakeDaemon daemon;
  auto* const doomedLock = new Lumo::Lock();
  auto* const doomedCondition = new Lumo::Condition();
  agent.manager->threadLockIs(doomedLock);
  agent.manager->threadConditionIs(doomedCondition);
  agent.manager->grpcReplyThreadIs(new std::thread());
  agent.manager->clientIs(new GrpcClient(daemon.inProcessChannel(), agent.pending, agent.status,
                                         doomedLock, doomedCondition));
  std::vector<std::string> order;
  const support::TraceRecorder trace("GrpcClient/1");
  {
    const Platform platform([&](const std::string& called, const void* object, int) {
      if (trace.count("Terminating GrpcClient") != 0) return std::optional<int>();
      if (called == "pthread_cond_destroy" && isInside(object, *doomedCondition)) {
        order.push_back("condition");
      }
      if (called == "pthread_mutex_destroy" && object == doomedLock) order.push_back("lock");
      return std::optional<int>();
    });
    agent.manager->destroyGrpcClient();
  }
  EXPECT_THAT(order, ElementsAre("condition", "lock"));
  EXPECT_EQ(trace.count("Terminating GrpcClient"), 1u);
}

}  // namespace
