// How a process ends that destroys a manager's client, in every build type.

#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <support/Abort.h>
#include <support/Agent.h>

#include <cstdio>

#include <Norv/GrpcClient.h>

namespace {

using namespace Norv;
using support::aborted;
using support::Agent;
using support::Environment;

struct ConnectionsMgrDeathTest : testing::Test {
  ConnectionsMgrDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// A manager made in simulation, so that nothing is there to destroy; with as many of the four plain
// pointers set as asked for, in the order in which they are deleted.
void destroyWith(int pointers, Lumo::Condition* condition = nullptr) {
  Agent agent;
  {
    const Environment simulation("SIMULATION_NORV", "1");
    agent.connect(1);
  }
  if (pointers > 0) agent.manager->grpcReplyThreadIs(new std::thread());
  if (pointers > 1) {
    agent.manager->threadConditionIs(condition ? condition : new Lumo::Condition());
  }
  if (pointers > 2) agent.manager->threadLockIs(new Lumo::Lock());
  agent.manager->destroyGrpcClient();
}

TEST_F(ConnectionsMgrDeathTest, AssertsEachOfTheFourInOrder) {
  EXPECT_EXIT(destroyWith(0), aborted,
              "ConnectionsMgr.cpp.*destroyGrpcClient.*`grpcReplyThread\\(\\)' failed");
  EXPECT_EXIT(destroyWith(1), aborted,
              "ConnectionsMgr.cpp.*destroyGrpcClient.*`threadCondition\\(\\)' failed");
  EXPECT_EXIT(destroyWith(2), aborted,
              "ConnectionsMgr.cpp.*destroyGrpcClient.*`threadLock\\(\\)' failed");
  EXPECT_EXIT(destroyWith(3), aborted,
              "ConnectionsMgr.cpp.*destroyGrpcClient.*`client\\(\\)' failed");
}

TEST_F(ConnectionsMgrDeathTest, DeletesEachBeforeItAsksForTheNext) {
  struct LastWords : Lumo::Condition {
    ~LastWords() override { std::fputs("condition deleted\n", stderr); }
  };
  EXPECT_EXIT(destroyWith(2, new LastWords()), aborted, "condition deleted\n.*`threadLock\\(\\)'");
  EXPECT_EXIT(
      {
        Agent agent;
        agent.connect(1);
        agent.manager->threadConditionIs(nullptr);
        agent.manager->destroyGrpcClient();
      },
      aborted, "terminate called without an active exception");
}

TEST_F(ConnectionsMgrDeathTest, KeptOnPurposeDestroyingAConnectedManagerEndsTheProcess) {
  EXPECT_EXIT(
      {
        Agent agent;
        agent.connect(1);
        agent.manager = nullptr;
      },
      aborted, "terminate called without an active exception");
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
