#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include <bess/pb/service.grpc.pb.h>

#include "SchemaCheck.h"
#include "SwitchFixture.h"

// End states of a daemon's recordings, as documents and back. What a document cannot hold of a
// state makes a group of its own.

namespace Norv::State {

namespace {

using testing::IsEmpty;

struct EndState {
  std::string name;
  std::string calls;  // that lead to it
  std::string document;
  std::vector<std::string> notTold;
  std::set<std::string> unknown;  // objects that cannot be made elsewhere
  std::set<std::string> lost;     // modules whose task has lost its traffic class
  std::set<std::string> waiting;  // modules whose task waits where there are places for it
  bool running = false;           // a worker does
  bool unlisted = false;          // a worker has classes that no list tells, and loses all tasks
  bool noWorker = false;          // for a task that is there

  bool usual() const { return unknown.empty() && lost.empty() && waiting.empty(); }
};

// Where the next call that pauses would put them is not for a document to say.
std::set<std::string> waitingIn(const LiveSwitch& live, bool running) {
  std::set<std::string> names;
  if (live.workers.size() < 2 && !running) return names;
  for (const auto& [name, module] : live.modules) {
    for (const auto& place : module.tasks) {
      if (place && !place->stated()) names.insert(name);
    }
  }
  return names;
}

std::set<std::string> unknownIn(const Switch& described) {
  std::set<std::string> objects;
  for (const auto& [name, port] : described.ports) {
    if (!port.arg) objects.insert(text({Kind::port, name}));
  }
  for (const auto& [name, module] : described.modules) {
    if (!module.arg) objects.insert(text({Kind::module, name}));
  }
  for (const auto& [point, arg] : described.hooks) {
    if (!arg) objects.insert(text(objectOf(point)));
  }
  for (const auto& [name, one] : described.trafficClasses) {
    const bool measures = one.policy == "weighted_fair" || one.policy == "rate_limit";
    if (measures && one.resource.empty()) objects.insert(text({Kind::trafficClass, name}));
  }
  return objects;
}

// A class below itself is cut off from its worker, which counts it on; so is what comes below.
bool unlistedClasses(Standin::Server& server) {
  const auto stub = bess::pb::BESSControl::NewStub(server.inProcessChannel());
  grpc::ClientContext forWorkers, forClasses;
  bess::pb::ListWorkersResponse workers;
  bess::pb::ListTcsResponse classes;
  bess::pb::ListTcsRequest all;
  all.set_wid(-1);
  EXPECT_TRUE(stub->ListWorkers(&forWorkers, bess::pb::EmptyRequest(), &workers).ok());
  EXPECT_TRUE(stub->ListTcs(&forClasses, all, &classes).ok());
  std::int64_t counted = 0;
  for (const auto& worker : workers.workers_status()) counted += worker.num_tcs();
  const auto listed =
      std::count_if(classes.classes_status().begin(), classes.classes_status().end(),
                    [](const auto& one) { return one.class_().wid() >= 0; });
  return counted > listed;
}

EndState endState(const std::string& name, const std::string& calls, TestSwitch& daemon) {
  EndState state;
  state.name = name;
  state.calls = calls;
  const LiveSwitch live = daemon.read();
  const Switch told = described(live);
  state.document = yaml(told, &state.notTold);
  state.unknown = unknownIn(told);
  state.lost = live.lostTasks;
  state.running = std::any_of(live.workers.begin(), live.workers.end(),
                              [](const auto& one) { return one.second.running.value_or(false); });
  state.waiting = waitingIn(live, state.running);
  state.unlisted = unlistedClasses(daemon.server());
  state.noWorker = live.workers.empty() &&
                   std::any_of(live.modules.begin(), live.modules.end(),
                               [](const auto& one) { return !one.second.tasks.empty(); });
  return state;
}

std::vector<EndState> statesAt(const Standin::Options& options) {
  std::vector<EndState> states;
  for (const char* folder : {"/recordings", "/recordings-random"}) {
    for (const auto& file : recordings(NORV_RECORDINGS + std::string(folder))) {
      TestSwitch daemon(options);
      const std::string calls = contents(file);
      try {
        daemon.load(calls);
      } catch (const std::exception& error) {
        continue;  // not every one replays whole
      }
      states.push_back(endState(file.stem(), calls, daemon));
    }
  }
  return states;
}

// Every state that the recordings end in, as a daemon of today tells it, and as an older one does.
const std::vector<EndState>& endStates() {
  static const std::vector<EndState> all = statesAt(TestSwitch::newer());
  return all;
}
const std::vector<EndState>& olderStates() {
  static const std::vector<EndState> all = statesAt(TestSwitch::older());
  return all;
}

// The document with the places of these tasks left open.
std::string withoutPlaces(Switch described, const std::set<std::string>& modules) {
  for (const std::string& name : modules) described.modules.at(name).tasks.clear();
  return yaml(described);
}

// What of a plan is not done, by the word for it.
struct Rest {
  std::set<std::string> refused, notTried;
};
Rest rest(const TestSwitch::Applied& applied) {
  Rest rest;
  for (std::size_t i = 0; i < applied.states.size(); ++i) {
    const std::string object = text(applied.plan.changes[i].object);
    const Execution::State& state = applied.states[i];
    if (state.kind == Execution::State::Kind::refused) {
      EXPECT_THAT(state.text, testing::HasSubstr("is not known; state it")) << object;
      rest.refused.insert(object);
    } else if (state.kind == Execution::State::Kind::notTried) {
      rest.notTried.insert(object);
    } else if (applied.plan.changes[i].object.kind != Kind::hook) {
      EXPECT_EQ(state.kind, Execution::State::Kind::done) << object << " " << state.text;
    } else {  // the answer of a daemon of today does not decode
      EXPECT_NE(state.kind, Execution::State::Kind::notTried) << object << " " << state.text;
    }
  }
  for (std::size_t i = 0; i < applied.states.size(); ++i) {
    if (applied.states[i].kind != Execution::State::Kind::notTried) continue;
    EXPECT_TRUE(rest.refused.contains(applied.states[i].because)) << applied.states[i].because;
  }
  return rest;
}

class Recordings : public testing::Test {
 protected:
  void SetUp() override {
    if (endStates().empty()) GTEST_SKIP() << "no recordings at " NORV_RECORDINGS;
  }
};

// What the daemon does not tell is named, and as long as it stays there is nothing to do. Elsewhere
// its object is refused with what is missing, with it what needs it, and the rest comes through.
int checkNotTold(const std::vector<EndState>& states, const Standin::Options& options) {
  int seen = 0;
  for (const EndState& state : states) {
    if (state.notTold.empty() || !state.lost.empty() || !state.waiting.empty()) continue;
    SCOPED_TRACE(state.name + "\n" + state.document);
    for (const std::string& what : state.notTold) {
      EXPECT_THAT(state.document, testing::HasSubstr(what.substr(what.rfind(": ") + 2)));
    }
    const Switch described = wanted(state.document);
    TestSwitch same(options);
    same.load(state.calls);
    EXPECT_EQ(summary(makePlan(same.read(), described, {.prune = true})), "");
    if (state.unknown.empty()) continue;
    ++seen;
    TestSwitch elsewhere(options);
    const auto applied = elsewhere.apply(described);
    EXPECT_THAT(applied.refusals, IsEmpty());
    const Rest left = rest(applied);
    EXPECT_EQ(left.refused, state.unknown);
    for (const Change& change : makePlan(elsewhere.read(), described).changes) {
      const std::string object = text(change.object);
      EXPECT_TRUE(left.refused.contains(object) || left.notTried.contains(object)) << object;
    }
  }
  return seen;
}

}  // namespace

TEST_F(Recordings, AreExportedAndAppliedToTheSameBytes) {
  TestSwitch daemon;
  int seen = 0;
  for (const EndState& state : endStates()) {
    if (!state.usual()) continue;
    ++seen;
    daemon.reset();
    const Switch described = wanted(state.document);
    const auto applied = daemon.apply(described, {.prune = true});
    EXPECT_THAT(applied.refusals, IsEmpty()) << state.name << "\n" << state.document;
    EXPECT_EQ(daemon.exported(), state.document) << state.name;
    EXPECT_EQ(schemaProblem(json(described)), "") << state.name;
    const Plan again = makePlan(daemon.read(), described, {.prune = true});
    EXPECT_EQ(summary(again), "") << state.name;
    EXPECT_EQ(again.steps.size(), 0u) << state.name;
  }
  EXPECT_GT(seen, 150);
}

TEST_F(Recordings, WhatADaemonOfTodayDoesNotTellIsRefusedElsewhereAlone) {
  EXPECT_GT(checkNotTold(endStates(), TestSwitch::newer()), 0);
}

TEST_F(Recordings, WhatAnOlderDaemonDoesNotTellIsRefusedElsewhereAlone) {
  EXPECT_GT(checkNotTold(olderStates(), TestSwitch::older()), 0);
}

TEST_F(Recordings, AModuleWhoseTaskIsLostIsMadeAnewAndNothingElseIs) {
  int seen = 0;
  for (const EndState& state : endStates()) {
    if (state.lost.empty() || !state.unknown.empty() || state.unlisted) continue;
    SCOPED_TRACE(state.name + "\n" + state.document);
    ++seen;
    const Switch described = wanted(state.document);
    TestSwitch same;
    same.load(state.calls);
    const Plan plan = makePlan(same.read(), described, {.prune = true});
    std::set<std::string> remade;
    for (const Change& change : plan.changes) {
      if (change.action == Change::Action::recreate) remade.insert(change.object.name);
      EXPECT_TRUE(state.lost.contains(change.object.name) ||
                  state.waiting.contains(change.object.name))
          << text(change.object);
    }
    EXPECT_EQ(remade, state.lost);
    EXPECT_THAT(same.apply(described, {.prune = true}).refusals, IsEmpty());
    EXPECT_THAT(same.read().lostTasks, IsEmpty());
    EXPECT_EQ(summary(makePlan(same.read(), described, {.prune = true})), "");

    std::set<std::string> open = state.lost;
    open.insert(state.waiting.begin(), state.waiting.end());
    TestSwitch elsewhere;
    EXPECT_THAT(elsewhere.apply(described).refusals, IsEmpty());
    EXPECT_EQ(withoutPlaces(wanted(elsewhere.exported()), open), withoutPlaces(described, open));
    EXPECT_EQ(summary(makePlan(elsewhere.read(), described, {.prune = true})), "");
  }
  EXPECT_GT(seen, 0);
}

// Where no worker runs it goes on waiting, as nothing works on it.
TEST_F(Recordings, AWaitingTaskGetsAPlaceOnASwitchThatRuns) {
  int seen = 0;
  for (const EndState& state : endStates()) {
    if (state.waiting.empty() || !state.lost.empty() || !state.unknown.empty()) continue;
    SCOPED_TRACE(state.name + "\n" + state.document);
    ++seen;
    const Switch described = wanted(state.document);
    TestSwitch same;
    same.load(state.calls);
    const Plan plan = makePlan(same.read(), described, {.prune = true});
    std::set<std::string> placed;
    for (const Change& change : plan.changes) {
      EXPECT_EQ(change.action, Change::Action::change) << text(change.object);
      placed.insert(change.object.name);
    }
    EXPECT_EQ(placed, state.running ? state.waiting : std::set<std::string>());
    EXPECT_THAT(same.apply(described, {.prune = true}).refusals, IsEmpty());
    EXPECT_EQ(summary(makePlan(same.read(), described, {.prune = true})), "");

    TestSwitch elsewhere;
    EXPECT_THAT(elsewhere.apply(described).refusals, IsEmpty());
    EXPECT_EQ(withoutPlaces(wanted(elsewhere.exported()), state.waiting),
              withoutPlaces(described, state.waiting));
    EXPECT_EQ(summary(makePlan(elsewhere.read(), described, {.prune = true})), "");
  }
  EXPECT_GT(seen, 0);
}

// From one state to another, as they come in a shuffled order: so each is a beginning and an end.
// Where no worker is, before and after, a task that waits for one all the time gets it: the first
// command that pauses makes the daemon launch worker 0.
TEST_F(Recordings, AreAppliedToEachOther) {
  std::vector<EndState> states;
  for (const EndState& state : endStates()) {
    if (state.usual()) states.push_back(state);
  }
  std::mt19937 random(1);
  std::shuffle(states.begin(), states.end(), random);
  ASSERT_GT(states.size(), 150u);  // so that there are 300 pairs
  TestSwitch daemon;
  std::string before = "nothing";
  bool waitedBefore = false;
  const auto withoutWorkers = [](const std::string& document) {
    Switch described = wanted(document);
    described.workersStated = false;
    return yaml(described);
  };
  for (int round = 0; round < 2; ++round) {
    for (const EndState& state : states) {
      const std::string live = daemon.exported();
      const auto applied = daemon.apply(wanted(state.document), {.prune = true});
      EXPECT_THAT(applied.refusals, IsEmpty()) << before << " to " << state.name << "\n"
                                               << summary(applied.plan) << live;
      const bool waited = std::exchange(waitedBefore, state.noWorker) && state.noWorker;
      const std::string now = daemon.exported();
      EXPECT_EQ(waited ? withoutWorkers(now) : now,
                waited ? withoutWorkers(state.document) : state.document)
          << before << " to " << state.name << "\n"
          << summary(applied.plan);
      before = state.name;
    }
    std::shuffle(states.begin(), states.end(), random);
  }
}

}  // namespace Norv::State
