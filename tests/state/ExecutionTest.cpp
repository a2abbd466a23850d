// Which step of a plan may go, where some of it has to wait.

#include <gtest/gtest.h>

#include <Norv/State/Execution.h>
#include <bess/pb/service.pb.h>

using namespace Norv::State;

namespace {

using Indexes = std::vector<std::size_t>;

// A plan of three changes: a module, a connection that needs it, and another module that is changed
// while a worker pauses.
struct ThreeChanges {
  Plan plan;

  ThreeChanges() {
    const auto change = [&](Kind kind, const char* name) {
      plan.changes.push_back({Change::Action::create, {kind, name}, {}});
    };
    change(Kind::module, "a");
    change(Kind::connection, "a:0");
    change(Kind::module, "b");
    step(Norv::createModule, 0);                              // 0
    step(Norv::connectModules, 1, {0});                       // 1
    step(Norv::pauseWorker, Step::none);                      // 2
    step(Norv::moduleCommand, 2, {2});                        // 3
    step(Norv::resumeWorker, Step::none, {}, Indexes{2, 3});  // 4
  }

  void step(Norv::GrpcRequestType type, std::size_t change, Indexes after = {},
            Indexes behind = {}) {
    Step one;
    one.type = type;
    one.change = change;
    one.after = std::move(after);
    one.behind = std::move(behind);
    plan.steps.push_back(std::move(one));
  }
};

// All that goes when all goes well.
Indexes taken(Execution& execution) {
  Indexes steps;
  while (const auto step = execution.next()) {
    steps.push_back(*step);
    execution.ended(*step, StepEnd::done);
  }
  return steps;
}

using StateKind = Execution::State::Kind;

}  // namespace

TEST(ExecutionTest, WithoutAHoldEverythingGoes) {
  const ThreeChanges three;
  Execution execution(three.plan);
  EXPECT_EQ(execution.commands(), 5U);
  EXPECT_EQ(taken(execution), (Indexes{0, 1, 2, 3, 4}));
  EXPECT_TRUE(execution.finished());
}

TEST(ExecutionTest, AHeldChangeIsNotTriedNorWhatNeedsIt) {
  const ThreeChanges three;
  Execution execution(three.plan, {0});
  EXPECT_EQ(execution.commands(), 3U);
  EXPECT_EQ(taken(execution), (Indexes{2, 3, 4}));
  EXPECT_TRUE(execution.finished());
  const auto states = execution.states();
  EXPECT_EQ(states[0].kind, StateKind::notTried);
  EXPECT_EQ(states[0].because, "");
  EXPECT_EQ(states[1].kind, StateKind::notTried);
  EXPECT_EQ(states[1].because, "module a");
  EXPECT_EQ(states[2].kind, StateKind::done);
}

TEST(ExecutionTest, NoWorkerPausesForNothing) {
  const ThreeChanges three;
  Execution execution(three.plan, {2});
  EXPECT_EQ(execution.commands(), 2U);
  EXPECT_EQ(taken(execution), (Indexes{0, 1}));
  EXPECT_TRUE(execution.finished());
}

TEST(ExecutionTest, WhatPausesForAnotherToo) {
  ThreeChanges three;
  three.plan.changes.push_back({Change::Action::change, {Kind::module, "c"}, {}});
  three.plan.steps.pop_back();
  three.step(Norv::moduleCommand, 3, {2});                           // 4
  three.step(Norv::resumeWorker, Step::none, {}, Indexes{2, 3, 4});  // 5
  Execution execution(three.plan, {2});
  EXPECT_EQ(taken(execution), (Indexes{0, 1, 2, 4, 5}));
  EXPECT_TRUE(execution.finished());
}

TEST(ExecutionTest, WithEverythingHeldNothingGoes) {
  const ThreeChanges three;
  Execution execution(three.plan, {0, 1, 2});
  EXPECT_EQ(execution.commands(), 0U);
  EXPECT_FALSE(execution.next());
  EXPECT_TRUE(execution.finished());
}
