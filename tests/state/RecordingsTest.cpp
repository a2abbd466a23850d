#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "SwitchFixture.h"

// End states of a daemon's recordings, as documents and back.

namespace Norv::State {

namespace {

struct EndState {
  std::string name;
  std::string document;
  bool unplaced = false;  // a task in no place, which the next call that pauses would give it
  bool whole = true;      // told whole
  bool waits = false;     // a task waits, and there is no worker at all
};

bool waitsForAWorker(const LiveSwitch& live) {
  return live.workers.empty() &&
         std::any_of(live.modules.begin(), live.modules.end(),
                     [](const auto& one) { return !one.second.tasks.empty(); });
}

bool unplacedTask(const LiveSwitch& live) {
  if (!live.lostTasks.empty()) return true;
  const bool running = std::any_of(live.workers.begin(), live.workers.end(), [](const auto& one) {
    return one.second.running.value_or(false);
  });
  if (live.workers.size() < 2 && !running) return false;
  for (const auto& [name, module] : live.modules) {
    for (const auto& place : module.tasks) {
      if (place && !place->stated()) return true;
    }
  }
  return false;
}

// Every state that the recordings end in, as the newer daemon tells it.
const std::vector<EndState>& endStates() {
  static const std::vector<EndState> all = [] {
    std::vector<EndState> states;
    for (const char* folder : {"/recordings", "/recordings-random"}) {
      for (const auto& file : recordings(NORV_RECORDINGS + std::string(folder))) {
        TestSwitch daemon;
        try {
          daemon.load(contents(file));
        } catch (const std::exception& error) {
          continue;  // not every one replays whole
        }
        std::vector<std::string> notTold;
        const LiveSwitch live = daemon.read();
        states.push_back({file.stem(), yaml(described(live), &notTold), unplacedTask(live)});
        states.back().waits = waitsForAWorker(live);
        states.back().whole = states.back().document.find("unknown") == std::string::npos;
      }
    }
    return states;
  }();
  return all;
}

}  // namespace

TEST(Recordings, AreExportedAndAppliedToTheSameBytes) {
  if (endStates().empty()) GTEST_SKIP() << "no recordings at " NORV_RECORDINGS;
  TestSwitch daemon;
  for (const EndState& state : endStates()) {
    if (state.unplaced || !state.whole) continue;
    daemon.reset();
    const Switch described = wanted(state.document);
    const auto applied = daemon.apply(described, {.prune = true});
    EXPECT_THAT(applied.refusals, testing::IsEmpty()) << state.name << "\n" << state.document;
    EXPECT_EQ(daemon.exported(), state.document) << state.name;
    const Plan again = makePlan(daemon.read(), described, {.prune = true});
    EXPECT_EQ(summary(again), "") << state.name;
    EXPECT_EQ(again.steps.size(), 0u) << state.name;
  }
}

// From one state to another, as they come in a shuffled order: so each is a beginning and an end.
TEST(Recordings, AreAppliedToEachOther) {
  if (endStates().empty()) GTEST_SKIP() << "no recordings at " NORV_RECORDINGS;
  std::vector<EndState> states;
  for (const EndState& state : endStates()) {
    if (!state.unplaced && state.whole && !state.waits) states.push_back(state);
  }
  std::mt19937 random(1);
  std::shuffle(states.begin(), states.end(), random);
  ASSERT_GT(states.size(), 150u);  // so that there are 300 pairs
  TestSwitch daemon;
  std::string before = "nothing";
  for (int round = 0; round < 2; ++round) {
    for (const EndState& state : states) {
      const std::string live = daemon.exported();
      const auto applied = daemon.apply(wanted(state.document), {.prune = true});
      EXPECT_THAT(applied.refusals, testing::IsEmpty()) << before << " to " << state.name << "\n"
                                                        << summary(applied.plan) << live;
      EXPECT_EQ(daemon.exported(), state.document) << before << " to " << state.name << "\n"
                                                   << summary(applied.plan);
      before = state.name;
    }
    std::shuffle(states.begin(), states.end(), random);
  }
}

}  // namespace Norv::State
