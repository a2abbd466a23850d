// How a process ends that destroys a manager's client, in every build type.

#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <support/Abort.h>
#include <support/Agent.h>
#include <support/FakeDaemon.h>

#include <cstdio>
#include <functional>
#include <stdexcept>

#include <Lumo/Trace.h>
#include <Lumo/TraceSink.h>
#include <Norv/GrpcClient.h>
#include <bess/pb/service.pb.h>

namespace {

using namespace Norv;
using support::aborted;
using support::Agent;
using support::Environment;
using support::FakeDaemon;

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

// One command through an agent whose daemon answers with that gRPC status, with what `prepare`
// does to the agent before.
void sendAfter(const std::function<void(Agent&)>& prepare, int code) {
  FakeDaemon daemon;
  daemon.handlerIs([code](GrpcRequestType, const auto&, auto*) {
    FakeDaemon::Answer answer;
    answer.code = code;
    return answer;
  });
  Agent agent;
  agent.connect(daemon.port());
  prepare(agent);
  agent.announce();
  agent.eventually([] { return false; });
}

TEST_F(ConnectionsMgrDeathTest, WhatThrowsOnTheWorkerEndsTheProcess) {
  const char* const uncaught =
      "terminate called after throwing an instance of 'std::runtime_error'";
  struct ThrowingCommand : GrpcCmd {
    ThrowingCommand() : GrpcCmd(new bess::pb::EmptyRequest(), getVersion) {}
    void processResponse(google::protobuf::Message*) override { throw std::runtime_error("no"); }
  };
  EXPECT_EXIT(
      sendAfter([](Agent& agent) { agent.queue()->cmdBatchEnq(Lumo::allocate<ThrowingCommand>()); },
                0),
      aborted, uncaught);
  struct ThrowingReactor : GrpcErrorHandlingStatus::NotifieeConst {
    explicit ThrowingReactor(const Lumo::Ptr<GrpcErrorHandlingStatus>& status) {
      startFollowing(status);
    }
    void onErrorOccured() override { throw std::runtime_error("no"); }
  };
  EXPECT_EXIT(sendAfter(
                  [](Agent& agent) {
                    static Lumo::Ptr<ThrowingReactor> reactor;
                    reactor = Lumo::allocate<ThrowingReactor>(agent.status);
                    agent.enqueue();
                  },
                  13),
              aborted, uncaught);
  struct ThrowingSink : Lumo::TraceSink {
    void lineIs(const Lumo::TraceLine& line) override {
      if (line.function == std::string_view("processResponseCommon"))
        throw std::runtime_error("no");
    }
  };
  EXPECT_EXIT(sendAfter(
                  [](Agent& agent) {
                    static ThrowingSink sink;
                    Lumo::traceSettingIs("GrpcClient/*");
                    Lumo::traceSinkIs(&sink);
                    agent.enqueue();
                  },
                  13),
              aborted, uncaught);
}

}  // namespace
