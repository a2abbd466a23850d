#include <gmock/gmock.h>

#include <algorithm>

#include <bess/pb/service.pb.h>

#include "SwitchFixture.h"

// What the steps of a plan wait for, and what their requests say that other tests take no notice
// of.

namespace Norv::State {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

// The plan from one document to another, of a switch that is as the first one wants it.
Plan from(const std::string& before, const std::string& after, const PlanOptions& options = {}) {
  TestSwitch daemon;
  EXPECT_THAT(daemon.apply(before).refusals, IsEmpty());
  return daemon.plan(after, options);
}

const bess::pb::GateHookInfo& hookOf(const Step& step) {
  return dynamic_cast<const bess::pb::ConfigureGateHookRequest&>(*step.request).hook();
}

}  // namespace

TEST(Steps, OfAPauseAreOfTheWorkerThatReachesTheModule) {
  const std::string document =
      "workers: {0: {core: 0}, 1: {core: 1}}\n"
      "modules: {src: {class: Source, tasks: {wid: 1}}, q: {class: Queue, arg: {size: %}, tasks: "
      "{wid: 1}}}\n"
      "connections: [src -> q]\n";
  const auto sized = [&](const char* size) {
    return std::string(document).replace(document.find('%'), 1, size);
  };
  const Plan plan = from(sized("64"), sized("128"));
  ASSERT_THAT(commands(plan), ElementsAre("checkSchedulingConstraints ", "pauseWorker 1",
                                          "moduleCommand q set_runtime_config", "resumeWorker 1"));
  EXPECT_THAT(plan.steps[2].behind, Contains(1));
  // Whatever becomes of what it stood still for.
  EXPECT_THAT(plan.steps[3].behind, IsSupersetOf({1, 2}));
  EXPECT_THAT(plan.steps[3].after, IsEmpty());
}

TEST(Steps, OfATableNeedNotEachOtherButTheOneThatEmptiesIt) {
  const std::string acl = "modules: {acl: {class: ACL, arg: {rules: [";
  const Plan emptied = from(acl + "{src_ip: 10.0.0.0/8}, {dst_port: 80}]}}}",
                            acl + "{dst_port: 80}, {src_ip: 10.0.0.0/8}]}}}");
  ASSERT_THAT(commands(emptied), ElementsAre("moduleCommand acl clear", "moduleCommand acl add"));
  EXPECT_THAT(emptied.steps[1].after, Contains(0));

  const std::string fib =
      "modules: {fib: {class: ExactMatch, arg: {fields: [{offset: 26, num_bytes: 4}]}, rules: [";
  const Plan added = from(fib + "{gate: 1, fields: [10.0.0.1]}]}}",
                          fib + "{gate: 1, fields: [10.0.0.2]}, {gate: 1, fields: [10.0.0.3]}]}}");
  ASSERT_THAT(commands(added), ElementsAre("moduleCommand fib delete", "moduleCommand fib add",
                                           "moduleCommand fib add"));
  for (const Step& step : added.steps) EXPECT_THAT(step.after, IsEmpty());
}

TEST(Steps, NameTheHookThatGoes) {
  const std::string document = "modules: {a: Source, b: Sink}\nconnections: [a -> b]\n";
  const Plan plan =
      from(document +
               "hooks: [{class: Track, module: a, ogate: 0, name: one},\n"
               "  {class: Track, module: a, ogate: 0, name: two}]\n",
           document + "hooks: [{class: Track, module: a, ogate: 0, name: two}]\n", {.prune = true});
  ASSERT_THAT(commands(plan), ElementsAre("configureGateHook Track"));
  EXPECT_EQ(hookOf(plan.steps[0]).hook_name(), "one");
}

TEST(Steps, OfAHookFollowTheConnectionThatMakesItsGate) {
  const std::string before = "modules: {a: Source, b: Sink, c: Sink}\n";
  for (const char* point : {"module: a, ogate: 0", "module: c, igate: 0"}) {
    const Plan plan = from(before, before + "connections: [a -> c]\nhooks: [{class: Track, " +
                                       point + ", name: one}]\n");
    ASSERT_THAT(commands(plan),
                ElementsAre("connectModules a", testing::StartsWith("configureGateHook")))
        << point;
    EXPECT_THAT(plan.steps[1].after, ElementsAre(0)) << point;
  }
}

// The gate goes with its last connection, and with it what is put there.
TEST(Steps, PutAHookBackWhereItsGateWasMadeAnew) {
  const std::string modules = "modules: {a: Source, b: Sink, c: Sink, d: Source}\n";
  const std::string hooks =
      "hooks: [{class: Track, module: a, ogate: 0, name: out}, {class: Track, module: b, igate: 0, "
      "name: in}]\n";
  const Plan moved = from(modules + "connections: [a -> b, d -> b]\n" + hooks,
                          modules + "connections: [a -> c, d -> b]\n" + hooks, {.prune = true});
  std::vector<std::string> named;
  for (const Step& step : moved.steps) {
    if (step.type == configureGateHook) named.push_back(hookOf(step).hook_name());
  }
  EXPECT_THAT(named, ElementsAre("out")) << "of b something stays connected";
}

TEST(Steps, OfAHookWhoseArgumentIsNotToldAreNoneButItIsSaid) {
  const std::string document =
      "modules: {a: Source, b: Sink}\nconnections: [a -> b]\n"
      "hooks: [{class: TcpDump, module: a, ogate: 0, name: one, arg: {fifo: /tmp/x}}]\n";
  TestSwitch daemon;
  daemon.apply("modules: {a: Source, b: Sink}\nconnections: [a -> b]\n");
  LiveSwitch live = daemon.read();
  live.tellsHooks = true;
  const Switch wish = wanted(document);
  live.hooks[wish.hooks.begin()->first] = std::nullopt;
  const Plan plan = makePlan(live, wish);
  EXPECT_TRUE(plan.empty());
  ASSERT_EQ(plan.assumed.size(), 1u);
  EXPECT_EQ(plan.assumed[0].what, "arg");
  EXPECT_THAT(commands(makePlan(live, wish, {.recreateUnknown = true})).size(), 2u);
}

}  // namespace Norv::State
