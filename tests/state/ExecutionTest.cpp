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

// Taken down at every attempt, and not put up again: worse than left as it is.
TEST(ExecutionTest, WhatWouldNotBeWholeIsNotMadeAnew) {
  Plan plan;
  plan.changes.push_back({Change::Action::create, {Kind::trafficClass, "slow"}, {}});
  plan.changes.push_back({Change::Action::recreate, {Kind::module, "in"}, {}});
  plan.changes.push_back({Change::Action::recreate, {Kind::connection, "in:0"}, {}});
  const auto step = [&](Norv::GrpcRequestType type, std::size_t change, Indexes after) {
    Step& one = plan.steps.emplace_back();
    one.type = type;
    one.change = change;
    one.after = std::move(after);
  };
  step(Norv::destroyModule, 1, {});       // 0
  step(Norv::createModule, 1, {0});       // 1
  step(Norv::connectModules, 2, {1});     // 2
  step(Norv::addTc, 0, {});               // 3
  step(Norv::updateTcParent, 1, {1, 3});  // 4
  Execution whole(plan);
  EXPECT_EQ(taken(whole), (Indexes{0, 1, 2, 3, 4}));
  Execution held(plan, {0});
  EXPECT_EQ(held.commands(), 0U);
  EXPECT_FALSE(held.next());
  EXPECT_TRUE(held.finished());
  const auto states = held.states();
  for (const auto& state : states) EXPECT_EQ(state.kind, StateKind::notTried);
  EXPECT_EQ(states[1].because, "traffic class slow");
  EXPECT_EQ(states[2].because, "traffic class slow");
  // What is made for the first time is better than nothing.
  plan.changes[1].action = plan.changes[2].action = Change::Action::create;
  Execution fresh(plan, {0});
  EXPECT_EQ(taken(fresh), (Indexes{0, 1, 2}));
}

TEST(ExecutionTest, WithEverythingHeldNothingGoes) {
  const ThreeChanges three;
  Execution execution(three.plan, {0, 1, 2});
  EXPECT_EQ(execution.commands(), 0U);
  EXPECT_FALSE(execution.next());
  EXPECT_TRUE(execution.finished());
}
