#include <gmock/gmock.h>

#include <algorithm>

#include <bess/pb/module_arg.pb.h>
#include <bess/pb/service.pb.h>

#include "SwitchFixture.h"

// What a plan does, and what it leaves alone.

namespace Norv::State {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char* const fib =
    "workers: {0: {core: 0}}\n"
    "modules:\n"
    "  src: Source\n"
    "  fib: {class: ExactMatch, arg: {fields: [{offset: 26, num_bytes: 4}]}, default_gate: 0,\n"
    "        rules: [{gate: 1, fields: [10.0.0.1]}, {gate: 1, fields: [10.0.0.2]}]}\n"
    "  a: Sink\n"
    "  b: Sink\n"
    "connections: [src -> fib, fib -> a, \"fib:1 -> b\"]\n";

const char* const sourceOnAWorker =
    "workers: {0: {core: 0}}\n"
    "modules: {s: {class: Source, burst: 16, tasks: {wid: 0}}, d: Sink}\nconnections: [s -> d]\n";

MATCHER_P(isText, wanted, "") {
  return text(arg) == wanted;
}

std::string macAddress(int number) {
  char text[18];
  std::snprintf(text, sizeof text, "02:00:00:%02x:%02x:%02x", number >> 16 & 255, number >> 8 & 255,
                number & 255);
  return text;
}

// Of the commands to module t from now on this one alone is refused.
void refuseCommand(TestSwitch& daemon, int number) {
  daemon.server().clearFaults();
  daemon.server().addFault(Standin::Fault::parse(
      "kind=error rpc=moduleCommand name=t code=28 nth=" + std::to_string(number)));
}

class PlanTest : public testing::Test {
 protected:
  // The document with a part of it exchanged.
  static std::string changed(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
  }
  void SetUp() override { EXPECT_THAT(daemon_.apply(std::string(fib)).refusals, IsEmpty()); }

  TestSwitch daemon_;
};

}  // namespace

TEST_F(PlanTest, WhatIsRightIsNotTouched) {
  EXPECT_EQ(summary(daemon_.plan(fib)), "");
  EXPECT_TRUE(daemon_.plan(fib).empty());
}

TEST_F(PlanTest, AChangedRuleSendsThatRuleWhileTheWorkerThatReachesItPauses) {
  const Plan plan = daemon_.plan(changed(fib, "10.0.0.2", "10.0.0.3"));
  EXPECT_EQ(summary(plan), "~ module fib; rules: 1 added, 1 removed, 0 changed\n");
  EXPECT_THAT(commands(plan), ElementsAre("pauseWorker 0", "moduleCommand fib delete",
                                          "moduleCommand fib add", "resumeWorker 0"));
  EXPECT_THAT(plan.pauses, ElementsAre("worker 0 while fib is changed"));
}

TEST_F(PlanTest, ATableThatIsSetAgainIsClearedWhileTheWorkerThatReachesItPauses) {
  const std::string full =
      "workers: {0: {core: 0}}\n"
      "modules: {s: Source, t: {class: IPLookup, rules: [{prefix: 10.0.0.0/8, gate: 1}]}}\n"
      "connections: [s -> t]\n";
  const std::string empty = changed(full, "{prefix: 10.0.0.0/8, gate: 1}", "");
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply(full).refusals, IsEmpty());
  daemon.server().addFault(
      Standin::Fault::parse("kind=undecodable rpc=moduleCommand name=t nth=2"));
  EXPECT_EQ(daemon.apply(empty).states.at(0).kind, Execution::State::Kind::unclear);
  EXPECT_THAT(commands(daemon.plan(empty)),
              ElementsAre("pauseWorker 0", "moduleCommand t clear", "resumeWorker 0"));
}

TEST_F(PlanTest, AWorkerRunsAgainAlsoWhenWhatItPausedForIsRefused) {
  const std::string document =
      "modules: {src: Source, q: {class: Queue, arg: {size: 64}}}\nconnections: [src -> q]\n";
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply("workers: {0: {core: 0}}\n" + document).refusals, IsEmpty());
  const auto applied = daemon.apply(changed(document, "64", "100"));
  EXPECT_THAT(commands(applied.plan),
              ElementsAre("pauseWorker 0", "moduleCommand q set_runtime_config", "resumeWorker 0"));
  EXPECT_EQ(applied.refusals.size(), 1u);
  EXPECT_TRUE(daemon.read().workers.at(0).running.value());
}

TEST_F(PlanTest, AChangedDefaultGateNeedsNoPause) {
  const Plan plan = daemon_.plan(changed(fib, "default_gate: 0", "default_gate: 1"));
  EXPECT_THAT(commands(plan), ElementsAre("moduleCommand fib set_default_gate"));
  EXPECT_EQ(summary(plan), "~ module fib; default_gate: 0 -> 1\n");
}

TEST_F(PlanTest, AChangedGateMovesOneConnection) {
  const Plan plan = daemon_.plan(changed(fib, "fib:1 -> b", "fib:1 -> a"));
  EXPECT_THAT(commands(plan), ElementsAre("disconnectModules fib", "connectModules fib"));
  EXPECT_EQ(summary(plan), "~ connection fib:1; -> b becomes -> a\n");
}

TEST_F(PlanTest, AnArgumentWithACommandIsChangedInPlace) {
  const std::string document =
      changed(fib, "src: Source", "src: {class: Source, arg: {pkt_size: 100}}");
  const Plan plan = daemon_.plan(document);
  EXPECT_THAT(commands(plan), ElementsAre("moduleCommand src set_pkt_size"));
  daemon_.apply(document);
  EXPECT_EQ(summary(daemon_.plan(document)), "");
  // There is no command that sets it back to the daemon's own.
  EXPECT_EQ(summary(daemon_.plan(fib)).substr(0, 70),
            "-/+ module src; no command of class Source can clear pkt_size; arg.pkt");
}

TEST_F(PlanTest, AMapInAnArgumentIsChangedInPlace) {
  const std::string document =
      "workers: {0: {core: 0}}\nmodules: {w: {class: WorkerSplit, arg: {worker_gates: {0: 1}}}}\n";
  daemon_.apply(document);
  const std::string more = changed(document, "{0: 1}", "{0: 2, 1: 1}");
  EXPECT_THAT(commands(daemon_.plan(more)),
              ElementsAre("checkSchedulingConstraints ", "moduleCommand w reset"));
  EXPECT_THAT(daemon_.apply(more).refusals, IsEmpty());
  EXPECT_EQ(summary(daemon_.plan(more)), "");
}

TEST_F(PlanTest, AModuleMadeAnewGetsItsConnectionsTableAndTaskBack) {
  const std::string document =
      changed(fib, "num_bytes: 4", "num_bytes: 4}, {offset: 30, num_bytes: 1");
  const std::string with =
      changed(changed(document, "[10.0.0.1]", "[10.0.0.1, 1]"), "[10.0.0.2]", "[10.0.0.2, 2]");
  const auto applied = daemon_.apply(with);
  EXPECT_THAT(applied.refusals, IsEmpty());
  EXPECT_EQ(summary(applied.plan).substr(0, 67),
            "-/+ module fib; no command of class ExactMatch changes fields; arg.");
  EXPECT_EQ(daemon_.read().connections.size(), 3u);
  EXPECT_EQ(summary(daemon_.plan(with)), "");
  const auto back = daemon_.apply(
      changed(fib, "src: Source",
              "src: {class: FlowGen, arg: {template: 0x0000000000000000000000000800}}"));
  EXPECT_THAT(back.refusals, IsEmpty());
  EXPECT_EQ(daemon_.read().modules.at("src").tasks.at(0)->worker, 0);
}

TEST_F(PlanTest, WhatIsNotInTheDocumentIsLeftAloneAndCounted) {
  const Plan plan = daemon_.plan("modules: {a: Sink}");
  EXPECT_TRUE(plan.empty());
  EXPECT_EQ(plan.leftAlone, 6u);  // three modules, three connections; workers are not spoken of
}

TEST_F(PlanTest, PruneDeletesWhatIsNotInTheDocument) {
  const Plan plan = daemon_.plan("workers: {0: {core: 0}}\nmodules: {a: Sink}", {.prune = true});
  EXPECT_THAT(commands(plan),
              ElementsAre("destroyModule b", "destroyModule fib", "destroyModule src"));
  EXPECT_EQ(plan.deletions, 6u);
  EXPECT_EQ(plan.leftAlone, 0u);
}

TEST_F(PlanTest, WorkersThatAreNotSpokenOfStayWithPrune) {
  daemon_.apply("modules: {src: Source}", {.prune = true});
  EXPECT_EQ(daemon_.read().workers.size(), 1u);
}

TEST_F(PlanTest, ARefusalStopsWhatNeedsItAndNothingElse) {
  const auto applied = daemon_.apply(
      "ports: {p: {driver: PMDPort, arg: {vdev: nothing}}}\n"
      "modules: {in: {class: PortInc, arg: {port: p}}, c: Sink, d: Sink}\n"
      "connections: [in -> c]\n");
  std::map<std::string, Execution::State> states;
  for (std::size_t i = 0; i < applied.states.size(); ++i) {
    states[text(applied.plan.changes[i].object)] = applied.states[i];
  }
  using enum Execution::State::Kind;
  EXPECT_EQ(states["port p"].kind, refused);
  EXPECT_EQ(states["port p"].text, "Cannot attach vdev nothing");
  EXPECT_EQ(states["module in"].kind, notTried);
  EXPECT_EQ(states["module in"].because, "port p");
  EXPECT_EQ(states["connection in:0"].because, "port p");
  EXPECT_EQ(states["module d"].kind, done);
}

TEST_F(PlanTest, AChangedPolicyRebuildsItsWorkerAndLosesNoTask) {
  const std::string classes =
      "workers: {0: {core: 0}}\n"
      "modules: {src: {class: Source, tasks: slow}}\n"
      "traffic_classes: {slow: {policy: rate_limit, limit: {packet: 5}, wid: 0}}\n";
  EXPECT_THAT(daemon_.apply(classes).refusals, IsEmpty());
  const std::string fair = changed(classes, "rate_limit, limit: {packet: 5}", "round_robin");
  const auto applied = daemon_.apply(fair);
  EXPECT_THAT(applied.refusals, IsEmpty());
  EXPECT_THAT(applied.plan.pauses, ElementsAre("worker 0 while its traffic classes are made anew"));
  const LiveSwitch live = daemon_.read();
  EXPECT_EQ(live.trafficClasses.at("slow").policy, "round_robin");
  EXPECT_EQ(live.modules.at("src").tasks.at(0)->parent, "slow");
  EXPECT_TRUE(live.workers.at(0).running.value());
  EXPECT_EQ(live.workers.size(), 1u);
}

TEST_F(PlanTest, AClassGoesToAnotherWorkerWhenItsNameIsFree) {
  const std::string below0 =
      "workers: {0: {core: 0}, 1: {core: 1}}\n"
      "modules: {src: {class: Source, tasks: x}}\n"
      "traffic_classes: {x: {policy: round_robin, wid: 0}}\n";
  EXPECT_THAT(daemon_.apply(below0).refusals, IsEmpty());
  const std::string below1 = changed(below0, "wid: 0", "wid: 1");
  EXPECT_THAT(daemon_.apply(below1).refusals, IsEmpty());
  EXPECT_EQ(summary(daemon_.plan(below1)), "");
  const std::string without0 = changed(below0, "0: {core: 0}, 1: {core: 1}", "0: {core: 0}");
  EXPECT_THAT(daemon_.apply(without0, {.prune = true}).refusals, IsEmpty());
  EXPECT_EQ(summary(daemon_.plan(without0, {.prune = true})), "");
}

TEST_F(PlanTest, TasksChangePlacesWithoutALoss) {
  const std::string document =
      "workers: {0: {core: 0}}\n"
      "modules:\n"
      "  x: {class: Source, tasks: one}\n"
      "  y: {class: Source, tasks: two}\n"
      "traffic_classes:\n"
      "  one: {policy: rate_limit, resource: packet, wid: 0}\n"
      "  two: {policy: rate_limit, resource: packet, wid: 0}\n";
  EXPECT_THAT(daemon_.apply(document).refusals, IsEmpty());
  const std::string exchanged =
      changed(changed(changed(document, "tasks: one", "tasks: 2"), "tasks: two", "tasks: one"),
              "tasks: 2", "tasks: two");
  EXPECT_THAT(daemon_.apply(exchanged).refusals, IsEmpty());
  EXPECT_TRUE(daemon_.read().lostTasks.empty());
  EXPECT_EQ(summary(daemon_.plan(exchanged)), "");
}

TEST_F(PlanTest, ATaskIsNotSentWhereThereIsNoRoom) {
  const auto applied = daemon_.apply(
      "modules: {x: {class: Source, tasks: one}, y: {class: Source, tasks: one}}\n"
      "traffic_classes: {one: {policy: rate_limit, resource: packet, wid: 0}}\n");
  EXPECT_TRUE(daemon_.read().lostTasks.empty());
  const auto refused = std::count_if(
      applied.states.begin(), applied.states.end(), [](const Execution::State& state) {
        return state.kind == Execution::State::Kind::refused &&
               state.text.find("there is no room for it below one") == 0;
      });
  EXPECT_EQ(refused, 2);
}

// A class and a task that the document does not speak of, below one that it makes of another
// policy.
TEST_F(PlanTest, WhatAnotherPolicyNeedsIsSaidBeforeTheDaemonRefuses) {
  const std::string parent = "traffic_classes: {up: {policy: round_robin, wid: 0}}\n";
  const std::string task =
      "workers: {0: {core: 0}}\n"
      "modules: {x: {class: Source, tasks: up}}\n"
      "traffic_classes:\n"
      "  up: {policy: round_robin, wid: 0}\n";
  for (const std::string& children :
       {task, task + "  below: {policy: round_robin, parent: up}\n"}) {
    for (const auto& [policy, field] :
         {std::pair("{policy: priority, wid: 0}", "priority"),
          std::pair("{policy: weighted_fair, resource: packet, wid: 0}", "share")}) {
      TestSwitch daemon;
      EXPECT_THAT(daemon.apply(children).refusals, IsEmpty());
      const auto applied = daemon.apply(changed(parent, "{policy: round_robin, wid: 0}", policy));
      EXPECT_THAT(applied.refusals, IsEmpty());
      const std::string why =
          "it needs a " + std::string(field) + " below up; state its place, too";
      const auto said =
          std::count_if(applied.states.begin(), applied.states.end(),
                        [&](const Execution::State& state) { return state.text.find(why) == 0; });
      EXPECT_EQ(said, 1) << policy;
      EXPECT_TRUE(daemon.read().lostTasks.empty());
      // A worker stays with a class that would not come back, and all below it.
      if (children != task) {
        EXPECT_EQ(summary(daemon.plan(children)), "");
      }
    }
  }
}

TEST_F(PlanTest, ATaskIsNotSentToAWorkerThatIsNotThere) {
  const auto applied = daemon_.apply("modules: {src: {class: Source, tasks: {wid: 5}}}");
  EXPECT_EQ(applied.states.at(0).text,
            "no worker 5 is there for its task; state one under \"workers\"");
  EXPECT_TRUE(daemon_.read().lostTasks.empty());
}

TEST_F(PlanTest, ALostTaskIsRepairedByMakingItsModuleAnew) {
  daemon_.load(
      R"({"type":"createModule","request":{"name":"x","mclass":"Source"}})"
      "\n"
      R"({"type":"updateTcParent","request":{"class":{"leafModuleName":"x","parent":"nowhere","wid":"-1"}}})"
      "\n");
  EXPECT_EQ(summary(daemon_.plan("workers: {}\nmodules: {x: Source}")),
            "-/+ module x; its task has lost its traffic class\n");
}

TEST_F(PlanTest, WhatADaemonDoesNotTellIsAssumedWithoutARecord) {
  TestSwitch other;
  other.load(daemon_.server().dump());
  const Plan plan = other.plan(fib);
  EXPECT_THAT(plan.assumed, ElementsAre(isText("module fib: rules")));
  EXPECT_TRUE(plan.empty());
  EXPECT_THAT(
      commands(other.plan(fib, {.recreateUnknown = true})),
      ElementsAre("pauseWorker 0", "moduleCommand fib set_runtime_config", "resumeWorker 0"));
}

TEST_F(PlanTest, WhatWasAssumedAndNotTouchedIsAssumedAgain) {
  TestSwitch other;
  other.load(daemon_.server().dump());
  other.apply(changed(fib, "  b: Sink\n", "  b: Sink\n  c: Sink\n"));
  EXPECT_THAT(other.plan(fib).assumed, ElementsAre(isText("module fib: rules")));
  // Also when something else of it was changed, and what was set is known.
  const std::string document = changed(fib, "default_gate: 0", "default_gate: 1");
  EXPECT_THAT(other.apply(document).refusals, IsEmpty());
  EXPECT_THAT(other.plan(document).assumed, ElementsAre(isText("module fib: rules")));
  other.apply(document, {.recreateUnknown = true});
  EXPECT_THAT(other.plan(document).assumed, IsEmpty());
}

TEST_F(PlanTest, WhatNothingWasSentForIsNotInDoubt) {
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply(sourceOnAWorker).refusals, IsEmpty());
  const auto applied = daemon.apply(
      changed(changed(sourceOnAWorker, "workers: {0: {core: 0}}\n", ""), "wid: 0", "wid: 3"));
  EXPECT_THAT(commands(applied.plan), ElementsAre(testing::StartsWith("impossible: ")));
  EXPECT_EQ(applied.states.at(0).kind, Execution::State::Kind::refused);
  EXPECT_EQ(summary(daemon.plan(sourceOnAWorker)), "");
}

TEST_F(PlanTest, AnArgumentOfAnotherTypeIsAnotherWhateverItsBytes) {
  const std::string document = "modules: {m: {class: Timestamp, arg: {offset: 64}}}";
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply(document).refusals, IsEmpty());
  LiveSwitch live = daemon.read();
  bess::pb::QueueArg other;
  other.set_size(64);
  live.modules.at("m").arg.emplace().PackFrom(other);
  const Plan plan = makePlan(live, readDocument({{"wanted", document}}).wanted);
  EXPECT_THAT(summary(plan), testing::StartsWith("-/+ module m"));
}

TEST_F(PlanTest, EachTaskOfAModuleHasItsPlace) {
  const std::string document =
      "workers: {0: {core: 0}, 1: {core: 1}}\n"
      "ports: {p: {driver: PMDPort, arg: {vdev: net_null0}, num_inc_q: 2}}\n"
      "modules: {i: {class: PortInc, arg: {port: p}, tasks: [{wid: 0}, {wid: 1}]}, d: Sink}\n"
      "connections: [i -> d]\n";
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply(document).refusals, IsEmpty());
  EXPECT_EQ(summary(daemon.plan(document)), "");
  const std::string crossed = changed(document, "[{wid: 0}, {wid: 1}]", "[{wid: 1}, {wid: 0}]");
  EXPECT_THAT(daemon.apply(crossed).refusals, IsEmpty());
  const auto tasks = daemon.read().modules.at("i").tasks;
  EXPECT_EQ(tasks.at(0)->worker, 1);
  EXPECT_EQ(tasks.at(1)->worker, 0);
}

// As where it was read while another took the class away.
TEST_F(PlanTest, ATaskBelowAClassThatIsNotThereIsNotSought) {
  LiveSwitch live = daemon_.read();
  live.modules.at("src").tasks.at(0)->parent = "gone";
  EXPECT_EQ(summary(makePlan(live, readDocument({{"wanted", fib}}).wanted)), "");
}

TEST_F(PlanTest, AnOlderDaemonsPortIsNotMadeElsewhere) {
  TestSwitch older(TestSwitch::older());
  older.apply(
      "ports: {p: {driver: PMDPort, arg: {vdev: net_null0}}}\nmodules: {s: Sink, i: {class: "
      "PortInc, arg: {port: p}}}");
  LiveSwitch live = older.read();
  live.ports.at("p").arg.reset();  // as without a record
  const std::string document = yaml(described(live));
  EXPECT_EQ(document,
            "workers:\n"
            "  0: {core: 0}\n"
            "ports:\n"
            "  p: {driver: PMDPort, arg: unknown, mtu: 1500}  # the daemon does not tell the "
            "driver's argument; "
            "state it before this is applied elsewhere\n"
            "modules:\n"
            "  i: {class: PortInc, arg: {port: p}}\n"
            "  s: Sink\n");
  EXPECT_TRUE(older.plan(document).empty());
  TestSwitch elsewhere;
  const auto applied = elsewhere.apply(document);
  EXPECT_EQ(applied.states[1].text, "the argument of its driver PMDPort is not known; state it");
  EXPECT_EQ(elsewhere.read().modules.size(), 1u);
}

TEST_F(PlanTest, APortMadeAnewTakesItsUsersAlong) {
  const std::string document =
      "ports: {p: {driver: PMDPort, arg: {vdev: net_null0}}}\n"
      "modules: {in: {class: PortInc, arg: {port: p}}, a: Sink}\n"
      "connections: [in -> a]\n";
  daemon_.apply(document);
  const auto applied = daemon_.apply(changed(document, "net_null0", "net_null1"));
  EXPECT_THAT(applied.refusals, IsEmpty());
  EXPECT_EQ(summary(applied.plan),
            "-/+ module in; port p is made anew\n-/+ port p; another argument\n");
  EXPECT_EQ(daemon_.read().connections.count({"in", 0}), 1u);
}

TEST_F(PlanTest, GatesThatAClassDoesNotHaveAreWarnedOf) {
  const Plan plan = daemon_.plan(
      "modules:\n"
      "  rr: {class: RoundRobin, arg: {gates: [0, 8191, 8192, 8193]}}\n"
      "  bpf: {class: BPF, arg: {filters: [{gate: 70000, filter: ip}, {gate: 2, filter: udp}]}}\n"
      "  ws: {class: WorkerSplit, arg: {worker_gates: {0: 63, 1: 64}}}\n"
      "  good: {class: HashLB, arg: {mode: l4, gates: [0, 1, 2]}}\n");
  EXPECT_THAT(
      plan.warnings,
      ElementsAre(
          "module bpf: its argument names gate 70000, and the last of class BPF is 8191",
          "module rr: its argument names gate 8193, and the last of class RoundRobin is 8191",
          "module ws: its argument names gate 64, and the last of class WorkerSplit is 63"));
}

TEST_F(PlanTest, QueuesThatAnOlderDaemonDoesNotTellAreAssumed) {
  TestSwitch older(TestSwitch::older());
  const std::string document =
      "ports: {p: {driver: PMDPort, arg: {vdev: net_null0}, num_inc_q: 2, size_out_q: 64}}\n";
  older.apply(document);
  const Plan plan = older.plan(document);
  EXPECT_THAT(plan.assumed, ElementsAre(isText("port p: num_inc_q"), isText("port p: size_out_q")));
  EXPECT_TRUE(plan.empty());
  EXPECT_EQ(summary(older.plan(document, {.recreateUnknown = true})),
            "-/+ port p; num_inc_q: not told -> 2, size_out_q: not told -> 64\n");
}

TEST_F(PlanTest, WhatIsUnclearOfAChangeStandsAboveWhatWasNotTriedOfIt) {
  const Plan plan = daemon_.plan(
      "modules:\n  t:\n    class: IPLookup\n    rules:\n"
      "      - {prefix: 10.0.0.0/8, gate: 1}\n      - {prefix: 11.0.0.0/8, gate: 2}\n");
  ASSERT_THAT(commands(plan),
              ElementsAre("createModule t", "moduleCommand t add", "moduleCommand t add"));
  Execution execution(plan);
  execution.ended(execution.next().value(), StepEnd::done);
  execution.ended(execution.next().value(), StepEnd::unclear, "the line went dead");
  execution.ended(execution.next().value(), StepEnd::dropped);
  ASSERT_EQ(execution.states().size(), 1u);
  EXPECT_EQ(execution.states()[0].kind, Execution::State::Kind::unclear);
  EXPECT_EQ(execution.states()[0].text, "the line went dead");
}

// Their hooks, which nobody sees, would be a third of it.
TEST_F(PlanTest, MostOfASwitchIsMostOfWhatADocumentNames) {
  const auto chain = [](int number) {
    std::string modules = "workers: {}\nmodules: {", connections = "connections: [";
    for (int i = 0; i < number; ++i) {
      const std::string name = "m" + std::to_string(i);
      modules += name + ": Bypass, ";
      connections += name + " -> m0, \"" + name + ":1 -> m0\", ";
    }
    return modules + "}\n" + connections + "]\n";
  };
  TestSwitch daemon;
  daemon.apply(chain(10));
  EXPECT_EQ(daemon.read().objects(), 30u);
  const Plan plan = daemon.plan(chain(4), {.prune = true});
  EXPECT_EQ(plan.liveObjects, 30u);
  EXPECT_EQ(plan.deletions, 18u);
  EXPECT_TRUE(plan.deletesMuch());
  EXPECT_FALSE(daemon.plan(chain(5), {.prune = true}).deletesMuch());
}

TEST_F(PlanTest, TenOfManyRulesTakeACommandEachAndOnePause) {
  Switch document = wanted(fib);
  Entries& rules = document.modules.at("fib").table.emplace();
  const auto setGate = [&](int rule, std::uint64_t gate) {
    bess::pb::ExactMatchCommandAddArg entry;
    const char bytes[] = {1, static_cast<char>(rule >> 16), static_cast<char>(rule >> 8),
                          static_cast<char>(rule)};
    entry.add_fields()->set_value_bin(bytes, sizeof bytes);
    const std::string key = entry.SerializeAsString();
    entry.set_gate(gate);
    rules[key] = entry.SerializeAsString();
  };
  for (int rule = 0; rule < 100'000; ++rule) setGate(rule, 1);
  LiveSwitch live = daemon_.read();
  live.modules.at("fib").table = rules;
  EXPECT_TRUE(makePlan(live, document).empty());
  for (int rule = 0; rule < 100'000; rule += 10'000) setGate(rule, 2);
  const Plan plan = makePlan(live, document);
  EXPECT_EQ(summary(plan), "~ module fib; rules: 0 added, 0 removed, 10 changed\n");
  const auto sent = commands(plan);
  ASSERT_EQ(sent.size(), 12u);
  EXPECT_EQ(sent.front(), "pauseWorker 0");
  EXPECT_EQ(std::count(sent.begin(), sent.end(), "moduleCommand fib add"), 10);
  EXPECT_EQ(sent.back(), "resumeWorker 0");
}

// The call would fail, and end the session before the others are sent.
TEST_F(PlanTest, WhatIsTooLargeForARequestIsNotSent) {
  const std::string large(5 << 20, 'x');
  const auto applied = daemon_.apply(
      "modules:\n  meta: {class: SetMetadata, arg: {attrs: [{name: " + large +
      ", size: 1}]}}\n  out: Sink\n  url: {class: UrlFilter, arg: {blacklist: [{host: " + large +
      ", path: /}]}}\nconnections: [meta -> out, url -> out]\n");
  std::map<std::string, Execution::State> states;
  for (std::size_t i = 0; i < applied.states.size(); ++i) {
    states[text(applied.plan.changes[i].object)] = applied.states[i];
  }
  using enum Execution::State::Kind;
  for (const char* name : {"module meta", "module url"}) {
    EXPECT_EQ(states[name].kind, refused) << name;
    EXPECT_THAT(states[name].text,
                testing::MatchesRegex("it takes a request of 52[0-9]+ bytes, and a daemon takes "
                                      "4194304; make it smaller"));
  }
  EXPECT_EQ(states["connection meta:0"].because, "module meta");
  EXPECT_EQ(states["module out"].kind, done);
  EXPECT_EQ(states["connection url:0"].kind, done);
}

TEST(RecordName, IsOfTheAddressAndOneForTheLoopback) {
  EXPECT_EQ(recordName("switch1:10514"), "switch1_10514.json");
  EXPECT_EQ(recordName("[fe80::1]:10514"), "_fe80__1__10514.json");
  for (const char* address : {"localhost:10514", "127.0.0.1:10514", "[::1]:10514"}) {
    EXPECT_EQ(recordName(address), "localhost_10514.json");
  }
  EXPECT_EQ(recordName("localhost"), "localhost.json");
}

TEST_F(PlanTest, ALargeTableIsSetInOneRequest) {
  std::string document =
      "modules:\n  t:\n    class: ExactMatch\n    arg: {fields: [{num_bytes: 4}]}\n    rules:\n";
  for (int i = 0; i < 1000; ++i) {
    document += "      - {gate: 1, fields: [" + std::to_string(i) + "]}\n";
  }
  const auto applied = daemon_.apply(document);
  EXPECT_THAT(applied.refusals, IsEmpty());
  EXPECT_THAT(commands(applied.plan),
              ElementsAre("createModule t", "moduleCommand t set_runtime_config"));
  const Plan plan = daemon_.plan(changed(document, "fields: [7]}", "fields: [7000]}"));
  // The worker that runs does not come to it, which the daemon has to see.
  EXPECT_THAT(commands(plan), ElementsAre("checkSchedulingConstraints ", "moduleCommand t delete",
                                          "moduleCommand t add"));
}

// A daemon takes 4 MiB in a request.
TEST_F(PlanTest, AVeryLargeTableIsSetInSeveralRequests) {
  Switch document = wanted("modules: {t: {class: L2Forward, arg: {size: 262144, bucket: 4}}}");
  Entries& table = document.modules.at("t").table.emplace();
  for (int i = 0; i < 250'000; ++i) {
    bess::pb::L2ForwardCommandAddArg::Entry entry;
    entry.set_addr(macAddress(i));
    const std::string key = entry.SerializeAsString();
    entry.set_gate(1);
    table.emplace(key, entry.SerializeAsString());
  }
  const auto applied = daemon_.apply(document);
  EXPECT_THAT(applied.refusals, IsEmpty());
  EXPECT_THAT(commands(applied.plan),
              ElementsAre("createModule t", "moduleCommand t add", "moduleCommand t add"));
  table.clear();
  const auto emptied = daemon_.apply(document);
  EXPECT_THAT(emptied.refusals, IsEmpty());
  EXPECT_THAT(commands(emptied.plan),
              ElementsAre("checkSchedulingConstraints ", "moduleCommand t delete",
                          "moduleCommand t delete"));
}

// A daemon of today ends when it is asked for this table once a rule was added.
TEST_F(PlanTest, TheTableOfAWildcardMatchIsNotAskedFor) {
  for (const Standin::Options& options : {TestSwitch::older(), TestSwitch::newer()}) {
    TestSwitch daemon(options);
    const auto applied = daemon.apply(
        "modules: {w: {class: WildcardMatch, arg: {fields: [{offset: 26, num_bytes: 4}]},\n"
        "              rules: [{gate: 1, priority: 1, values: [10.0.0.0], masks: [0xff000000]}]}}");
    EXPECT_THAT(applied.refusals, IsEmpty());
    Standin::Fault call;
    call.rpc = "moduleCommand";
    call.name = "w";
    daemon.server().addFault(call);
    daemon.read();
    EXPECT_EQ(daemon.server().faults().at(0).matched, 1u);  // its argument alone
  }
}

// Refused at every attempt, it would otherwise be taken apart at every one.
TEST_F(PlanTest, ARefusedValueLeavesTheModuleAsItWas) {
  const std::string split = "modules: {r: {class: RandomSplit, arg: {drop_rate: 0.5, gates: [0]}}}";
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply(split).refusals, IsEmpty());
  const std::string other = changed(split, "0.5", "2");
  for (int attempt = 0; attempt < 3; ++attempt) {
    const auto applied = daemon.apply(other);
    EXPECT_THAT(commands(applied.plan), ElementsAre("moduleCommand r set_droprate"));
    EXPECT_EQ(applied.refusals.size(), 1u);
  }
  EXPECT_EQ(summary(daemon.plan(split)), "");
}

TEST_F(PlanTest, ARefusedEntryLeavesTheOthersAsTheyAre) {
  const std::string table = "modules: {t: {class: IPLookup, rules: [%]}}";
  const std::string two = "{prefix: 10.0.0.0/8, gate: 1}, {prefix: 11.0.0.0/8, gate: 2}";
  const std::string four = two + ", {prefix: 12.0.0.0/8, gate: 1}, {prefix: 13.0.0.0/8, gate: 2}";
  TestSwitch daemon;
  // The question before them is the first of its commands once it is there.
  refuseCommand(daemon, 2);
  EXPECT_EQ(daemon.apply(changed(table, "%", two)).refusals.size(), 1u);
  EXPECT_THAT(commands(daemon.plan(changed(table, "%", two))), ElementsAre("moduleCommand t add"));
  EXPECT_THAT(daemon.apply(changed(table, "%", two)).refusals, IsEmpty());
  EXPECT_EQ(summary(daemon.plan(changed(table, "%", two))), "");
  refuseCommand(daemon, 3);
  EXPECT_EQ(daemon.apply(changed(table, "%", four)).refusals.size(), 1u);
  EXPECT_THAT(commands(daemon.plan(changed(table, "%", four))), ElementsAre("moduleCommand t add"));
  daemon.server().clearFaults();
  EXPECT_THAT(daemon.apply(changed(table, "%", four)).refusals, IsEmpty());
  refuseCommand(daemon, 2);
  const std::string moved =
      changed(changed(table, "%", four), "13.0.0.0/8, gate: 2", "13.0.0.0/8, gate: 7");
  EXPECT_EQ(daemon.apply(moved).refusals.size(), 1u);
  EXPECT_THAT(commands(daemon.plan(moved)), ElementsAre("moduleCommand t add"));
  // What did not decode may be there or not.
  daemon.server().clearFaults();
  EXPECT_THAT(daemon.apply(moved).refusals, IsEmpty());
  daemon.server().addFault(
      Standin::Fault::parse("kind=undecodable rpc=moduleCommand name=t nth=2"));
  EXPECT_EQ(daemon.apply(changed(table, "%", two)).states.at(0).kind,
            Execution::State::Kind::unclear);
  EXPECT_THAT(commands(daemon.plan(changed(table, "%", two))),
              ElementsAre("moduleCommand t clear", "moduleCommand t add", "moduleCommand t add"));
}

TEST_F(PlanTest, WhatARefusalMayHaveLeftHalfDoneIsInDoubt) {
  const std::string table = "modules: {t: {class: L2Forward, default_gate: 1, entries: [%]}}";
  const std::string one = "{addr: \"02:00:00:00:00:01\", gate: 1}";
  const std::string three =
      one + ", {addr: \"02:00:00:00:00:02\", gate: 1}" + ", {addr: \"02:00:00:00:00:03\", gate: 1}";
  TestSwitch daemon;
  // Two entries in one request.
  EXPECT_THAT(daemon.apply(changed(table, "%", one)).refusals, IsEmpty());
  refuseCommand(daemon, 2);
  EXPECT_EQ(daemon.apply(changed(table, "%", three)).refusals.size(), 1u);
  EXPECT_THAT(summary(daemon.plan(changed(table, "%", three))), testing::HasSubstr("set again"));
  EXPECT_THAT(daemon.apply(changed(table, "%", three)).refusals, IsEmpty());
  EXPECT_EQ(summary(daemon.plan(changed(table, "%", three))), "");
  // A new one, but for its default gate.
  daemon.reset();
  refuseCommand(daemon, 2);
  EXPECT_EQ(daemon.apply(changed(table, "%", one)).refusals.size(), 1u);
  EXPECT_THAT(summary(daemon.plan(changed(table, "%", one))), testing::HasSubstr("default_gate"));
}

TEST_F(PlanTest, WhatWaitsForAnotherIsNotInDoubt) {
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply(sourceOnAWorker).refusals, IsEmpty());
  daemon.server().addFault(Standin::Fault::parse("kind=error rpc=addTc code=28"));
  const std::string slow = changed(sourceOnAWorker, "{wid: 0}", "slow") +
                           "traffic_classes: {slow: {policy: round_robin, wid: 0}}\n";
  for (int attempt = 0; attempt < 3; ++attempt) {
    const auto applied = daemon.apply(slow);
    EXPECT_EQ(applied.refusals.size(), 1u);
    EXPECT_THAT(commands(applied.plan), testing::Not(testing::Contains("destroyModule s")));
  }
  EXPECT_EQ(summary(daemon.plan(sourceOnAWorker)), "");
}

TEST_F(PlanTest, AWorkerIsNotTakenFromAClassThatCannotBeMadeAgain) {
  const std::string document =
      "workers: {0: {core: 0}}\n"
      "modules: {s: {class: Source, tasks: w}, d: Sink}\nconnections: [s -> d]\n"
      "traffic_classes: {w: {policy: weighted_fair, resource: packet, wid: 0}}\n";
  const std::string elsewhere = changed(document, "core: 0", "core: 1");
  const std::string unknown = changed(elsewhere, "resource: packet", "resource: unknown");
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply(document).refusals, IsEmpty());
  // What the record knows is of use, also where the document does not.
  const auto applied = daemon.apply(unknown);
  EXPECT_THAT(applied.refusals, IsEmpty());
  EXPECT_THAT(commands(applied.plan), testing::Contains("addTc w"));
  EXPECT_EQ(daemon.read().workers.at(0).core, 1);

  TestSwitch other;
  other.load(
      R"({"type":"addWorker","request":{"wid":"0","core":"0"}})"
      "\n"
      R"({"type":"createModule","request":{"name":"s","mclass":"Source"}})"
      "\n"
      R"({"type":"addTc","request":{"class":{"name":"w","policy":"weighted_fair","resource":"packet","wid":"0"}}})"
      "\n");
  const auto refused = other.apply(changed(unknown, ", tasks: w", ""));
  EXPECT_THAT(refused.refusals, IsEmpty()) << "nothing is sent for it";
  EXPECT_THAT(refused.plan.pauses, IsEmpty());
  for (const auto& state : refused.states) {
    if (state.kind == Execution::State::Kind::refused) {
      EXPECT_THAT(state.text, testing::HasSubstr("its resource is not known; state it"));
    }
  }
  EXPECT_EQ(other.read().workers.at(0).core, 0);
  EXPECT_TRUE(other.read().trafficClasses.contains("w"));
}

TEST_F(PlanTest, WhatLeavesAWorkerThatStaysWaitsWithIt) {
  const std::string before =
      "workers: {0: {core: 0}, 1: {core: 1}}\n"
      "traffic_classes:\n"
      "  t: {policy: round_robin, wid: 0}\n"
      "  u: {policy: round_robin, wid: 0}\n"
      "  v: {policy: round_robin, parent: u}\n";
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply(before).refusals, IsEmpty());
  // The one is to go to the other worker; what is left out would have no place below its parent.
  const auto applied = daemon.apply(
      "workers: {0: {core: 0}, 1: {core: 1}}\n"
      "traffic_classes:\n"
      "  t: {policy: round_robin, wid: 1}\n"
      "  u: {policy: priority, wid: 0}\n");
  EXPECT_THAT(applied.refusals, IsEmpty());
  EXPECT_THAT(applied.states.at(0).text, testing::HasSubstr("traffic class v would go with it"));
  EXPECT_EQ(daemon.read().trafficClasses.size(), 3u);
  EXPECT_EQ(summary(daemon.plan(before)), "");
}

TEST_F(PlanTest, ATableOnAWorkerThatStaysIsChangedWhileItPauses) {
  const std::string before = std::string(fib) +
                             "traffic_classes: {u: {policy: round_robin, wid: 0},\n"
                             "  v: {policy: round_robin, parent: u}}\n";
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply(before).refusals, IsEmpty());
  const auto applied =
      daemon.apply(changed(fib, "10.0.0.2", "10.0.0.3") +
                   std::string("traffic_classes: {u: {policy: priority, wid: 0}}\n"));
  EXPECT_THAT(applied.refusals, IsEmpty());
  EXPECT_EQ(daemon.read().modules.at("fib").table,
            wanted(changed(fib, "10.0.0.2", "10.0.0.3")).modules.at("fib").table);
}

TEST_F(PlanTest, AWorkerPausesAlsoWhileSomethingElseWaits) {
  const Plan both = daemon_.plan(
      changed(changed(fib, "10.0.0.2", "10.0.0.3"), "  b: Sink\n", "  b: Sink\n  late: Sink\n"));
  std::set<std::size_t> held;
  for (std::size_t i = 0; i < both.changes.size(); ++i) {
    if (both.changes[i].object.name == "late") held.insert(i);
  }
  ASSERT_EQ(held.size(), 1u);
  Execution execution(both, held);
  std::vector<GrpcRequestType> types;
  while (const auto step = execution.next()) {
    types.push_back(both.steps[*step].type);
    execution.ended(*step, StepEnd::done);
  }
  EXPECT_THAT(types, ElementsAre(pauseWorker, moduleCommand, moduleCommand, resumeWorker));
}

TEST_F(PlanTest, WhatHasGoneWhileItWasAskedIsLeftOut) {
  TestSwitch daemon;
  const std::string document =
      "ports: {p: {driver: PMDPort, arg: {vdev: net_null0}}}\n"
      "modules: {q: Queue, d: Sink}\nconnections: [q -> d]\n";
  EXPECT_THAT(daemon.apply(document).refusals, IsEmpty());
  const auto gone = [&](const std::string& call) {
    daemon.server().clearFaults();
    daemon.server().addFault(Standin::Fault::parse("kind=error code=2 " + call));
    return daemon.read();
  };
  EXPECT_FALSE(gone("rpc=getPortConf").ports.contains("p"));
  for (const char* call : {"rpc=getModuleInfo name=q", "rpc=moduleCommand name=q nth=1",
                           "rpc=moduleCommand name=q nth=2"}) {
    const LiveSwitch live = gone(call);
    EXPECT_FALSE(live.modules.contains("q")) << call;
    EXPECT_TRUE(live.modules.contains("d")) << call;
    EXPECT_TRUE(live.connections.empty()) << call;
  }
  // What a class does not tell is no reason to leave it out.
  daemon.server().clearFaults();
  daemon.server().addFault(
      Standin::Fault::parse("kind=error code=95 rpc=moduleCommand name=q nth=2"));
  EXPECT_TRUE(daemon.read().modules.contains("q"));
}

TEST_F(PlanTest, ANewTaskDoesNotComeToAWorkerThatGoes) {
  TestSwitch daemon;
  // The plan of one document after the other, as steps that may go together go together.
  daemon.apply("workers: {0: {core: 0}, 1: {core: 1}}\nmodules: {a: Source}\n");
  daemon.apply("modules: {a: Source}\n");
  const Plan plan = daemon.plan(
      "workers: {3: {core: 0}}\n"
      "modules: {a: Source, b: {class: Source, tasks: z}}\n"
      "traffic_classes: {z: {policy: round_robin, wid: 3}}\n",
      {.prune = true});
  std::size_t made = 0;
  std::set<std::size_t> gone;
  for (std::size_t i = 0; i < plan.steps.size(); ++i) {
    if (plan.steps[i].type == createModule) made = i;
    if (plan.steps[i].type == destroyWorker) gone.insert(i);
  }
  ASSERT_EQ(gone.size(), 2u);
  const auto& behind = plan.steps[made].behind;
  for (const std::size_t step : gone) EXPECT_THAT(behind, testing::Contains(step));
  EXPECT_THAT(daemon.carryOut(plan).refusals, IsEmpty());
}

TEST_F(PlanTest, ATaskThatWaitsOnASwitchThatRunsGetsAPlace) {
  TestSwitch daemon;
  daemon.load(R"({"type":"addWorker","request":{"wid":"0","core":"0"}})"
              "\n"
              R"({"type":"resumeWorker","request":{"wid":"0"}})"
              "\n"
              R"({"type":"createModule","request":{"name":"x","mclass":"Source"}})"
              "\n");
  ASSERT_FALSE(daemon.read().modules.at("x").tasks.at(0)->stated());
  const Plan plan = daemon.plan("modules: {x: Source}");
  EXPECT_EQ(summary(plan), "~ module x; task 0: nowhere yet -> any worker\n");
  daemon.carryOut(plan);
  EXPECT_EQ(daemon.read().modules.at("x").tasks.at(0)->worker, 0);
  EXPECT_TRUE(daemon.plan("modules: {x: Source}").empty());
}

TEST_F(PlanTest, AMovedTaskIsNotTakenBackByAWorkerThatGoes) {
  TestSwitch daemon;
  const std::string document =
      "workers: {%}\nmodules: {a: {class: Source, tasks: {wid: 2}}, b: {class: Source, tasks: "
      "{wid: 1}}}\n";
  daemon.apply(changed(changed(document, "%", "2: {core: 0}, 1: {core: 0}"), "wid: 1", "wid: 2"));
  // The lowest of the workers that stay is new, and takes what the others leave.
  const std::string later =
      changed(changed(document, "%", "0: {core: 0}, 1: {core: 0}"),
              "a: {class: Source, tasks: {wid: 2}}", "a: {class: Source, tasks: {wid: 1}}");
  EXPECT_THAT(daemon.apply(later, {.prune = true}).refusals, IsEmpty());
  EXPECT_EQ(summary(daemon.plan(later, {.prune = true})), "");
}

TEST_F(PlanTest, AMoveToAnotherCoreIsToldAsThat) {
  EXPECT_THAT(daemon_.plan(changed(fib, "core: 0", "core: 1")).pauses,
              ElementsAre("worker 0 while it moves to another core"));
}

TEST_F(PlanTest, ManyModulesOfAPauseAreToldInShort) {
  std::string one = "modules:\n  src: Source\n";
  std::string connections = "connections:\n";
  std::string last = "src";
  for (int i = 10; i < 30; ++i) {
    const std::string name = "q" + std::to_string(i);
    one += "  " + name + ": {class: IPLookup, rules: [{prefix: 10.0.0.0/8}]}\n";
    connections += "  - " + last + " -> " + name + "\n";
    last = name;
  }
  TestSwitch daemon;
  daemon.apply(one + connections);
  std::string other = one;
  for (std::size_t at = 0; (at = other.find("10.0.0.0/8", at)) != std::string::npos;) {
    other.replace(at, 2, "11");
  }
  const Plan plan = daemon.plan(other + connections);
  ASSERT_EQ(plan.pauses.size(), 1u);
  EXPECT_THAT(plan.pauses[0], testing::HasSubstr("q18, q19 and 10 more are changed"));
}

// 10 times the objects and no more than 10 times the steps that one waits for.
TEST_F(PlanTest, WaitsGrowWithTheSwitch) {
  const auto waits = [](int number) {
    std::string modules = "workers: {0: {core: 0}}\nmodules: {";
    std::string connections = "connections: [", hooks = "hooks: [", ports = "ports: {";
    for (int i = 0; i < number; ++i) {
      const std::string n = std::to_string(i);
      ports += "p" + n + ": {driver: PMDPort, arg: {vdev: net_null" + n + "}}, ";
      modules += "m" + n + ": Merge, ";
      connections += "m" + n + " -> m" + n + ", ";
      hooks += "{class: Track, module: m" + n + ", igate: 0, name: a}, ";
    }
    TestSwitch daemon;
    Switch before = wanted(modules + "}\n" + connections + "]\n" + hooks + "]\n" + ports + "}\n");
    LiveSwitch live;
    static_cast<Switch&>(live) = before;
    live.tellsHooks = true;
    std::map<HookPoint, std::optional<Any>> other;
    for (const auto& [point, arg] : before.hooks) {
      HookPoint renamed = point;
      if (!point.output) renamed.name = "b";
      other[renamed] = arg;
    }
    before.hooks = other;
    for (auto& [name, port] : before.ports) port.driver = "UnixSocketPort";
    const Plan plan = makePlan(live, before, {.prune = true});
    std::size_t all = 0;
    for (const Step& step : plan.steps) all += step.after.size() + step.behind.size();
    return all;
  };
  const std::size_t few = waits(30);
  EXPECT_GT(few, 30u);
  EXPECT_LT(waits(300), few * 11);
}

}  // namespace Norv::State
