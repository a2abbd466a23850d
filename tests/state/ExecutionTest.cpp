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
    step(Norv::moduleCommand, 2, {}, {2});                    // 3
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
  three.step(Norv::moduleCommand, 3, {}, {2});                       // 4
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

TEST(ExecutionTest, ASecondPauseComesBehindTheFirst) {
  const auto of = [](std::set<std::size_t> held) {
    ThreeChanges two;
    two.plan.steps.clear();
    two.step(Norv::pauseWorker, Step::none);                      // 0
    two.step(Norv::moduleCommand, 0, {}, {0});                    // 1
    two.step(Norv::resumeWorker, Step::none, {}, Indexes{0, 1});  // 2
    two.step(Norv::checkSchedulingConstraints, Step::none);       // 3
    two.step(Norv::pauseWorker, Step::none, {}, Indexes{2});      // 4
    two.step(Norv::moduleCommand, 2, {}, Indexes{3, 4});          // 5
    two.step(Norv::resumeWorker, Step::none, {}, Indexes{4, 5});  // 6
    Execution execution(two.plan, held);
    const std::size_t commands = execution.commands();
    Indexes steps = taken(execution);
    EXPECT_EQ(steps.size(), commands);
    EXPECT_TRUE(execution.finished());
    return steps;
  };
  EXPECT_EQ(of({}), (Indexes{0, 1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(of({0}), (Indexes{3, 4, 5, 6}));
  EXPECT_EQ(of({2}), (Indexes{0, 1, 2}));
  EXPECT_EQ(of({0, 2}), Indexes());
}

TEST(ExecutionTest, WhatCannotBeMadeAnewIsNotTakenDown) {
  ThreeChanges three;
  three.plan.changes[0].action = three.plan.changes[1].action = Change::Action::recreate;
  three.plan.steps.clear();
  three.step(Norv::destroyModule, 0);        // 0
  three.step(Norv::createModule, 0, {0});    // 1
  three.step(Norv::connectModules, 1, {1});  // 2
  three.step(Norv::moduleCommand, 2);        // 3
  three.plan.steps[1].impossible = "too large";
  Execution execution(three.plan);
  EXPECT_EQ(execution.commands(), 1U);
  EXPECT_EQ(taken(execution), Indexes{3});
  EXPECT_TRUE(execution.finished());
  const auto states = execution.states();
  EXPECT_EQ(states[0].kind, StateKind::refused);
  EXPECT_EQ(states[0].text, "too large");
  EXPECT_EQ(states[1].kind, StateKind::notTried);
  EXPECT_EQ(states[1].because, "module a");
  EXPECT_EQ(states[2].kind, StateKind::done);
}

TEST(ExecutionTest, AConnectionStaysWhereItIsUntilItCanMove) {
  ThreeChanges three;
  three.plan.changes[1].action = Change::Action::change;
  three.plan.steps.clear();
  three.step(Norv::createModule, 0);            // 0
  three.step(Norv::disconnectModules, 1);       // 1
  three.step(Norv::connectModules, 1, {0, 1});  // 2
  Execution whole(three.plan);
  EXPECT_EQ(taken(whole), (Indexes{0, 1, 2}));
  Execution held(three.plan, {0});
  EXPECT_EQ(taken(held), Indexes());
  EXPECT_EQ(held.states()[1].because, "module a");
  // A module that is changed by several commands takes those that can go.
  three.plan.changes[1].object.kind = Kind::module;
  Execution module(three.plan, {0});
  EXPECT_EQ(taken(module), Indexes{1});
}

TEST(ExecutionTest, TellsWhatIsToGoAndHowItEnded) {
  ThreeChanges three;
  three.plan.steps[1].impossible = "no";
  Execution execution(three.plan, {2});
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(execution.mayGo(i), i == 0) << i;
    EXPECT_FALSE(execution.end(i)) << i;
  }
  ASSERT_EQ(execution.next(), 0U);
  EXPECT_FALSE(execution.mayGo(0));
  EXPECT_FALSE(execution.end(0));
  execution.ended(0, StepEnd::unclear);
  EXPECT_EQ(execution.end(0), StepEnd::unclear);
  EXPECT_FALSE(execution.end(1)) << "no command went";
}

TEST(ExecutionTest, WithEverythingHeldNothingGoes) {
  const ThreeChanges three;
  Execution execution(three.plan, {0, 1, 2});
  EXPECT_EQ(execution.commands(), 0U);
  EXPECT_FALSE(execution.next());
  EXPECT_TRUE(execution.finished());
}
