#include <cerrno>

#include "Fixture.h"

using namespace bess::pb;

class StandinScheduling : public StandinTest::StandinFixture {
 protected:
  // Null when no class of that name is listed; valid until the next call.
  const TrafficClass* find(const std::string& name) {
    listed_ = trafficClasses();
    for (const auto& status : listed_)
      if (status.class_().name() == name) return &status.class_();
    return nullptr;
  }

  std::int64_t workerOf(const std::string& name) {
    const TrafficClass* found = find(name);
    return found == nullptr ? -99 : found->wid();
  }

  std::string moveLeaf(const std::string& module, const std::string& parent) {
    UpdateTcParentRequest request;
    request.mutable_class_()->set_leaf_module_name(module);
    request.mutable_class_()->set_parent(parent);
    request.mutable_class_()->set_wid(-1);
    return refusal(call(&Stub::UpdateTcParent, request).error());
  }

 private:
  std::vector<ListTcsResponse::TrafficClassStatus> listed_;
};

TEST_F(StandinScheduling, AWorkerNeedsAFreeIdAndACore) {
  EXPECT_EQ(addWorker(0), 0);
  EXPECT_EQ(addWorker(0), EEXIST);
  EXPECT_EQ(addWorker(1, 2), EINVAL);
  EXPECT_EQ(addWorker(64), EINVAL);
  EXPECT_EQ(addWorker(63), 0);
}

TEST_F(StandinScheduling, ANewWorkerIsPaused) {
  addWorker(0);
  EXPECT_FALSE(ask(&Stub::ListWorkers).workers_status(0).running());
  ask(&Stub::ResumeAll);
  EXPECT_TRUE(ask(&Stub::ListWorkers).workers_status(0).running());
}

TEST_F(StandinScheduling, AWorkerWithATaskCannotBeDestroyed) {
  createModule("Source", "src");
  ask(&Stub::ResumeAll);
  DestroyWorkerRequest request;
  EXPECT_EQ(call(&Stub::DestroyWorker, request).error().code(), EBUSY);
  destroyModule("src");
  EXPECT_EQ(call(&Stub::DestroyWorker, request).error().code(), 0);
  EXPECT_EQ(call(&Stub::DestroyWorker, request).error().code(), ENOENT);
}

TEST_F(StandinScheduling, ResumingLaunchesAWorkerForWaitingTasks) {
  ask(&Stub::ResumeAll);
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status_size(), 0);
  createModule("Source", "src");
  ask(&Stub::ResumeAll);
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status_size(), 1);
}

TEST_F(StandinScheduling, ATaskIsALeafWithoutWorkerUntilAPause) {
  addWorker(0);
  createModule("Source", "src");
  ASSERT_EQ(trafficClasses().size(), 1u);
  EXPECT_EQ(trafficClasses()[0].class_().name(), "!leaf_src:0");
  EXPECT_EQ(trafficClasses()[0].class_().wid(), -1);
  ask(&Stub::CheckSchedulingConstraints);
  EXPECT_EQ(trafficClasses()[0].class_().wid(), 0);
}

TEST_F(StandinScheduling, TasksGoToTheWorkersInTurn) {
  addWorker(0);
  addWorker(1);
  createModule("Source", "a");
  createModule("Source", "b");
  ask(&Stub::CheckSchedulingConstraints);
  const auto workers = ask(&Stub::ListWorkers);
  EXPECT_EQ(workers.workers_status(0).num_tcs(), 1);
  EXPECT_EQ(workers.workers_status(1).num_tcs(), 1);
}

TEST_F(StandinScheduling, ASecondRootGetsARoundRobinOnTop) {
  addWorker(0);
  EXPECT_EQ(addTc("a", "round_robin"), 0);
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status(0).num_tcs(), 1);
  EXPECT_EQ(addTc("b", "round_robin"), 0);
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status(0).num_tcs(), 3);
}

TEST_F(StandinScheduling, NamesOfTrafficClassesAreCheckedFirst) {
  addWorker(0);
  EXPECT_EQ(addTc("", "round_robin"), EINVAL);
  EXPECT_EQ(addTc("!x", "round_robin"), EINVAL);
  EXPECT_EQ(addTc("x", "bogus"), EINVAL);
  EXPECT_EQ(addTc("x", "round_robin", "nope"), ENOENT);
}

TEST_F(StandinScheduling, ALeafTakesNoChildren) {
  addWorker(0);
  createModule("Source", "src");
  AddTcRequest add;
  add.mutable_class_()->set_name("x");
  add.mutable_class_()->set_policy("round_robin");
  add.mutable_class_()->set_parent("!leaf_src:0");
  add.mutable_class_()->set_wid(-1);
  EXPECT_EQ(refusal(call(&Stub::AddTc, add).error()), "1 Parent tc doesn't support children");
}

TEST_F(StandinScheduling, OnlyALeafMovesAndTheOthersAreToldSo) {
  addTc("rr", "round_robin");
  UpdateTcParentRequest move;
  move.mutable_class_()->set_name("rr");
  EXPECT_EQ(refusal(call(&Stub::UpdateTcParent, move).error()),
            "22 Cannot detach 'rr'. while it is part of a worker");
  EXPECT_EQ(workerOf("rr"), 0);
}

TEST_F(StandinScheduling, AResourceIsOneOfFour) {
  AddTcRequest add;
  add.mutable_class_()->set_name("r");
  add.mutable_class_()->set_policy("rate_limit");
  add.mutable_class_()->set_resource("byte");
  EXPECT_EQ(refusal(call(&Stub::AddTc, add).error()), "22 Invalid resource");
  add.mutable_class_()->set_policy("weighted_fair");
  EXPECT_EQ(refusal(call(&Stub::AddTc, add).error()), "22 Invalid resource");
  EXPECT_EQ(find("r"), nullptr);
  add.mutable_class_()->set_resource("packet");
  EXPECT_EQ(call(&Stub::AddTc, add).error().code(), 0);
  UpdateTcParamsRequest update;
  update.mutable_class_()->set_name("r");
  EXPECT_EQ(refusal(call(&Stub::UpdateTcParams, update).error()), "22 Invalid resource");
}

TEST_F(StandinScheduling, ALeafThatCannotBeMovedIsLost) {
  addWorker(0);
  createModule("Source", "src");
  UpdateTcParentRequest request;
  request.mutable_class_()->set_leaf_module_name("src");
  request.mutable_class_()->set_parent("nope");
  request.mutable_class_()->set_wid(-1);
  EXPECT_EQ(call(&Stub::UpdateTcParent, request).error().code(), ENOENT);
  EXPECT_TRUE(trafficClasses().empty());
}

TEST_F(StandinScheduling, ResetTcsUnlistsAndTheWorkerGoesOn) {
  createModule("Source", "src");
  ask(&Stub::ResumeAll);
  EXPECT_EQ(ask(&Stub::ResetTcs).error().code(), 0);
  EXPECT_TRUE(trafficClasses().empty());
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status(0).num_tcs(), 1);
  destroyModule("src");
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status(0).num_tcs(), 0);
}

TEST_F(StandinScheduling, AModuleForOneWorkerReachedByTwoIsFatal) {
  addWorker(0);
  addWorker(1);
  createModule("Source", "a");
  createModule("Source", "b");
  createModule("MetadataTest", "m");
  connect("a", "m");
  connect("b", "m", 0, 1);
  const auto answer = ask(&Stub::CheckSchedulingConstraints);
  EXPECT_TRUE(answer.fatal());
  ASSERT_EQ(answer.modules_size(), 1);
  EXPECT_EQ(answer.modules(0).name(), "m");
}

TEST_F(StandinScheduling, ResetAllLeavesNothing) {
  createPort("p", "net_null0");
  PortIncArg arg;
  arg.set_port("p");
  createModule("PortInc", "pi", arg);
  ask(&Stub::ResumeAll);
  EXPECT_EQ(ask(&Stub::ResetAll).error().code(), 0);
  EXPECT_EQ(ask(&Stub::ListModules).modules_size(), 0);
  EXPECT_EQ(ask(&Stub::ListPorts).ports_size(), 0);
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status_size(), 0);
  EXPECT_TRUE(trafficClasses().empty());
}

TEST_F(StandinScheduling, ANewClassWaitsBehindTheLeavesThatWaitAlready) {
  createModule("Source", "src");
  EXPECT_EQ(addTc("v", "priority"), 0);
  const auto classes = trafficClasses();
  ASSERT_EQ(classes.size(), 3u);
  EXPECT_EQ(classes[0].class_().name(), "!leaf_src:0");
  EXPECT_EQ(classes[1].class_().name(), "v");
}

TEST_F(StandinScheduling, AWorkerLaunchedForALeafIsNobodysTurn) {
  createModule("Source", "a");
  ask(&Stub::ResumeAll);  // Launches worker 0 for it.
  addWorker(1);
  createModule("Source", "b");
  DestroyModuleRequest nobody;
  call(&Stub::DestroyModule, nobody);
  EXPECT_EQ(workerOf("!leaf_b:0"), 0);
  createModule("Source", "c");
  call(&Stub::DestroyModule, nobody);
  EXPECT_EQ(workerOf("!leaf_c:0"), 1);
}

TEST_F(StandinScheduling, TheTopRoundRobinEndsWhenAMoveLeavesItOneChild) {
  createModule("Source", "src");
  addTc("rr", "round_robin");
  ASSERT_NE(find("!default_rr_0"), nullptr);
  EXPECT_EQ(moveLeaf("src", "rr"), "");
  EXPECT_EQ(find("!default_rr_0"), nullptr);
}

TEST_F(StandinScheduling, TheTopRoundRobinStaysWhenADestructionLeavesItOneChildOrNone) {
  createModule("Source", "a");
  createModule("Source", "b");
  ask(&Stub::ResumeAll);
  destroyModule("a");
  EXPECT_NE(find("!default_rr_0"), nullptr);
  destroyModule("b");
  EXPECT_NE(find("!default_rr_0"), nullptr);
}

TEST_F(StandinScheduling, TheTopRoundRobinEndsWhenItsLastChildMovesAway) {
  addWorker(0);
  createModule("Source", "a");
  createModule("Source", "b");
  ask(&Stub::CheckSchedulingConstraints);
  destroyModule("a");
  addWorker(1);
  AddTcRequest add;
  add.mutable_class_()->set_name("other");
  add.mutable_class_()->set_policy("round_robin");
  add.mutable_class_()->set_wid(1);
  EXPECT_EQ(call(&Stub::AddTc, add).error().code(), 0);
  ASSERT_NE(find("!default_rr_0"), nullptr);
  EXPECT_EQ(moveLeaf("b", "other"), "");
  EXPECT_EQ(find("!default_rr_0"), nullptr);
  EXPECT_EQ(workerOf("!leaf_b:0"), 1);
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status(0).num_tcs(), 0);
}

TEST_F(StandinScheduling, AWorkerThatCannotBeIsToldWithWhatCould) {
  createModule("Source", "src");
  const std::string range = "22 'wid' must be -1 or between 0 and 63";
  for (const auto& [wid, text] : std::initializer_list<std::pair<std::int64_t, std::string>>{
           {-2, range}, {64, range}, {5, "22 worker:5 does not exist"}}) {
    AddTcRequest add;
    add.mutable_class_()->set_name("t");
    add.mutable_class_()->set_policy("round_robin");
    add.mutable_class_()->set_wid(wid);
    EXPECT_EQ(refusal(call(&Stub::AddTc, add).error()), text) << wid;
    destroyModule("src");
    createModule("Source", "src");  // A refused move loses the leaf.
    UpdateTcParentRequest move;
    move.mutable_class_()->set_leaf_module_name("src");
    move.mutable_class_()->set_wid(wid);
    EXPECT_EQ(refusal(call(&Stub::UpdateTcParent, move).error()), text) << wid;
  }
  ListTcsRequest list;
  list.set_wid(64);
  EXPECT_EQ(refusal(call(&Stub::ListTcs, list).error()), "22 'wid' must be between 0 and 63");
}

TEST_F(StandinScheduling, ALeafThatWasLostIsNotFoundAgain) {
  createModule("Source", "src");
  EXPECT_EQ(moveLeaf("src", "nope"), "2 Parent TC 'nope' not found");
  EXPECT_EQ(moveLeaf("src", "nope"), "2 Error finding TC");
}

TEST_F(StandinScheduling, AClassMayBeItsOwnParentAndThenNothingIsListed) {
  createModule("Source", "src");
  AddTcRequest request;
  request.mutable_class_()->set_name("u");
  request.mutable_class_()->set_policy("round_robin");
  request.mutable_class_()->set_parent("u");
  request.mutable_class_()->set_wid(-1);
  EXPECT_EQ(call(&Stub::AddTc, request).error().code(), 0);
  EXPECT_TRUE(trafficClasses().empty());
  EXPECT_EQ(ask(&Stub::ResetAll).error().code(), 0);
  EXPECT_EQ(addTc("v", "priority"), 0);
  EXPECT_EQ(trafficClasses().size(), 1u);
}

TEST_F(StandinScheduling, ResetForgetsNamesAndLeavesTheTrees) {
  addTc("rr", "round_robin");
  ask(&Stub::ResetTcs);
  EXPECT_TRUE(trafficClasses().empty());
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status(0).num_tcs(), 1);
  EXPECT_EQ(addTc("rr", "round_robin"), 0);
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status(0).num_tcs(), 3);
}

TEST_F(StandinScheduling, ParametersThatAreNotGivenKeepTheirValues) {
  AddTcRequest add;
  add.mutable_class_()->set_name("r");
  add.mutable_class_()->set_policy("rate_limit");
  add.mutable_class_()->set_resource("bit");
  (*add.mutable_class_()->mutable_limit())["bit"] = 5;
  (*add.mutable_class_()->mutable_max_burst())["bit"] = 7;
  call(&Stub::AddTc, add);
  UpdateTcParamsRequest update;
  update.mutable_class_()->set_name("r");
  update.mutable_class_()->set_resource("bit");
  (*update.mutable_class_()->mutable_limit())["bit"] = 9;
  EXPECT_EQ(call(&Stub::UpdateTcParams, update).error().code(), 0);
  EXPECT_EQ(find("r")->limit().at("bit"), 9);
  EXPECT_EQ(find("r")->max_burst().at("bit"), 7);
  update.mutable_class_()->clear_limit();
  (*update.mutable_class_()->mutable_max_burst())["bit"] = 11;
  EXPECT_EQ(call(&Stub::UpdateTcParams, update).error().code(), 0);
  EXPECT_EQ(find("r")->limit().at("bit"), 9);
  EXPECT_EQ(find("r")->max_burst().at("bit"), 11);
}

TEST_F(StandinScheduling, ParametersMayNameALeafWhichHasNone) {
  createModule("Source", "src");
  UpdateTcParamsRequest update;
  update.mutable_class_()->set_leaf_module_name("src");
  EXPECT_EQ(refusal(call(&Stub::UpdateTcParams, update).error()),
            "22 Only 'rate_limit' and 'weighted_fair' can be updated");
  update.mutable_class_()->set_leaf_module_taskid(1);
  EXPECT_EQ(refusal(call(&Stub::UpdateTcParams, update).error()), "2 Task src:1 does not exist");
}

TEST_F(StandinScheduling, APriorityIsCutToThirtyTwoBits) {
  addTc("p", "priority");
  AddTcRequest add;
  add.mutable_class_()->set_name("c");
  add.mutable_class_()->set_policy("round_robin");
  add.mutable_class_()->set_parent("p");
  add.mutable_class_()->set_wid(-1);
  add.mutable_class_()->set_priority(-1);
  EXPECT_EQ(refusal(call(&Stub::AddTc, add).error()), "22 Priority -1 is reserved");
}

TEST_F(StandinScheduling, StatisticsWantAName) {
  EXPECT_EQ(refusal(call(&Stub::GetTcStats, GetTcStatsRequest()).error()),
            "22 Argument must be a name in str");
}

TEST_F(StandinScheduling, ACoreIsCutToThirtyTwoBits) {
  EXPECT_EQ(addWorker(1, std::int64_t{1} << 40), 0);
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status(0).core(), 0);
}

TEST_F(StandinScheduling, AResumeDoesNotFindOutWhatTheWorkersReachAndAConnectionDoes) {
  createModule("Sink", "snk");
  createModule("DRR", "drr");
  ask(&Stub::ResumeAll);
  const auto setQuantum = [this] {
    return commandRefusal("drr", "set_quantum_size", "DRRQuantumArg", R"("quantum":5)");
  };
  EXPECT_EQ(setQuantum(), "");
  EXPECT_EQ(connect("snk", "drr"), EINVAL);
  EXPECT_EQ(setQuantum(),
            "16 There is a running worker and command 'set_quantum_size' is not MT safe");
}

TEST_F(StandinScheduling, ACommandIsTakenUntilTheDaemonHasFoundItsModuleReached) {
  createModule("Queue", "q");
  ask(&Stub::ResumeAll);
  const auto tried = [this] {
    return commandRefusal("q", "set_runtime_config", "QueueArg", R"("size":64)");
  };
  EXPECT_EQ(tried(), "");
  ask(&Stub::CheckSchedulingConstraints);
  EXPECT_EQ(tried(),
            "16 There is a running worker and command 'set_runtime_config' is not MT safe");
  ask(&Stub::PauseAll);
  EXPECT_EQ(tried(), "");
}

TEST_F(StandinScheduling, AFlowGeneratorIsUpdatedWhileItsWorkerRuns) {
  const char* frame = R"("template":"BhY+G3IyAh5nn02uCABFAAAqAAEAAEARAAAKAAABCgAAAicRJxIAFg==")";
  EXPECT_EQ(createRefusal("FlowGen", "FlowGenArg", frame), "");
  ask(&Stub::ResumeAll);
  ask(&Stub::CheckSchedulingConstraints);
  EXPECT_EQ(commandRefusal("flowgen0", "update", "FlowGenArg", R"("pps":500)"), "");
}

TEST_F(StandinScheduling, AListOfOneWorkerHasItsClassesOnly) {
  addWorker(0);
  addWorker(1);
  for (int worker : {0, 1}) {
    AddTcRequest add;
    add.mutable_class_()->set_name("t" + std::to_string(worker));
    add.mutable_class_()->set_policy("round_robin");
    add.mutable_class_()->set_wid(worker);
    EXPECT_EQ(call(&Stub::AddTc, add).error().code(), 0);
  }
  ListTcsRequest request;
  request.set_wid(1);
  const auto listed = call(&Stub::ListTcs, request);
  ASSERT_EQ(listed.classes_status_size(), 1);
  EXPECT_EQ(listed.classes_status(0).class_().name(), "t1");
  request.set_wid(64);
  EXPECT_EQ(call(&Stub::ListTcs, request).error().code(), EINVAL);
}

TEST_F(StandinScheduling, AListTellsParentAndShare) {
  AddTcRequest add;
  add.mutable_class_()->set_name("w");
  add.mutable_class_()->set_policy("weighted_fair");
  add.mutable_class_()->set_resource("count");
  EXPECT_EQ(call(&Stub::AddTc, add).error().code(), 0);
  add.mutable_class_()->set_name("c");
  add.mutable_class_()->set_parent("w");
  add.mutable_class_()->set_wid(-1);
  EXPECT_EQ(refusal(call(&Stub::AddTc, add).error()), "22 No share specified");
  add.mutable_class_()->set_share(0);
  EXPECT_EQ(refusal(call(&Stub::AddTc, add).error()), "22 AddChild() failed");
  add.mutable_class_()->set_share(3);
  EXPECT_EQ(call(&Stub::AddTc, add).error().code(), 0);
  EXPECT_EQ(find("c")->share(), 3);
  for (const auto& status : trafficClasses())
    EXPECT_EQ(status.parent(), status.class_().name() == "c" ? "w" : "");
}

TEST_F(StandinScheduling, ARateLimitKeepsTheLimitsItIsMadeWithAndTakesOneChild) {
  AddTcRequest add;
  add.mutable_class_()->set_name("r");
  add.mutable_class_()->set_policy("rate_limit");
  add.mutable_class_()->set_resource("bit");
  (*add.mutable_class_()->mutable_limit())["bit"] = 5;
  (*add.mutable_class_()->mutable_max_burst())["bit"] = 7;
  call(&Stub::AddTc, add);
  EXPECT_EQ(find("r")->limit().at("bit"), 5);
  EXPECT_EQ(find("r")->max_burst().at("bit"), 7);
  EXPECT_EQ(addTc("a", "round_robin", "r"), 0);
  EXPECT_EQ(addTc("b", "round_robin", "r"), EINVAL);
}

TEST_F(StandinScheduling, APriorityIsTakenByOneChildAndFreeWhenItLeaves) {
  createModule("Source", "a");
  createModule("Source", "b");
  addTc("p", "priority");
  const auto move = [this](const std::string& module) {
    UpdateTcParentRequest request;
    request.mutable_class_()->set_leaf_module_name(module);
    request.mutable_class_()->set_parent("p");
    request.mutable_class_()->set_wid(-1);
    request.mutable_class_()->set_priority(4);
    return call(&Stub::UpdateTcParent, request).error().code();
  };
  EXPECT_EQ(move("a"), 0);
  EXPECT_EQ(move("b"), EINVAL);
  destroyModule("a");
  createModule("Source", "c");
  EXPECT_EQ(move("c"), 0);
}

TEST_F(StandinScheduling, WhatTheTopRoundRobinLeavesBehindIsWithItsWorker) {
  createModule("Source", "src");
  addTc("rr", "round_robin");
  EXPECT_EQ(moveLeaf("src", "rr"), "");
  EXPECT_EQ(workerOf("rr"), 0);
  EXPECT_EQ(workerOf("!leaf_src:0"), 0);
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status(0).num_tcs(), 2);
}

TEST_F(StandinScheduling, AWorkersTreeGoesWithIt) {
  addWorker(0);
  addTc("rr", "round_robin");
  EXPECT_EQ(call(&Stub::DestroyWorker, DestroyWorkerRequest()).error().code(), 0);
  EXPECT_TRUE(trafficClasses().empty());
  addWorker(0);
  EXPECT_EQ(ask(&Stub::ListWorkers).workers_status(0).num_tcs(), 0);
  EXPECT_EQ(addTc("rr", "round_robin"), 0);
}

TEST_F(StandinScheduling, AWorkerToDestroyHasAnIdInRange) {
  DestroyWorkerRequest request;
  for (std::int64_t id : {-1, 64}) {
    request.set_wid(id);
    EXPECT_EQ(refusal(call(&Stub::DestroyWorker, request).error()), "22 Invalid worker id");
  }
}

TEST_F(StandinScheduling, AWorkerPausesAndResumesAloneAndByItsWholeId) {
  addWorker(0);
  addWorker(1);
  ask(&Stub::ResumeAll);
  PauseWorkerRequest pause;
  pause.set_wid(1);
  call(&Stub::PauseWorker, pause);
  pause.set_wid(std::int64_t{1} << 32);
  call(&Stub::PauseWorker, pause);
  const auto workers = ask(&Stub::ListWorkers);
  EXPECT_TRUE(workers.workers_status(0).running());
  EXPECT_FALSE(workers.workers_status(1).running());
  ResumeWorkerRequest resume;
  resume.set_wid(1);
  call(&Stub::ResumeWorker, resume);
  EXPECT_TRUE(ask(&Stub::ListWorkers).workers_status(1).running());
}

TEST_F(StandinScheduling, AWorkerHasNoSchedulerOrTheExperimentalOne) {
  AddWorkerRequest request;
  request.set_scheduler("other");
  EXPECT_EQ(refusal(call(&Stub::AddWorker, request).error()), "22 Invalid scheduler other");
  request.set_scheduler("experimental");
  EXPECT_EQ(call(&Stub::AddWorker, request).error().code(), 0);
}

TEST_F(StandinScheduling, AChainThatGrowsWhileAWorkerRunsIsReachedLinkByLink) {
  createModule("Source", "src");
  ask(&Stub::ResumeAll);
  for (const char* name : {"a", "b", "drr"})
    createModule(name == std::string("drr") ? "DRR" : "Bypass", name);
  connect("a", "b");
  connect("b", "drr");
  const auto setQuantum = [this] {
    return commandRefusal("drr", "set_quantum_size", "DRRQuantumArg", R"("quantum":5)");
  };
  ask(&Stub::PauseAll);
  ask(&Stub::CheckSchedulingConstraints);  // Places the task of drr.
  ask(&Stub::ResumeAll);
  EXPECT_NE(setQuantum(), "");  // Its own worker runs.
  createModule("RoundRobin", "rr");
  const auto setGates = [this] {
    return commandRefusal("rr", "set_gates", "RoundRobinCommandSetGatesArg", "");
  };
  connect("a", "rr", 1);
  EXPECT_EQ(setGates(), "");
  connect("src", "a");
  EXPECT_EQ(setGates(), "");  // The daemon looked before it connected.
  connect("src", "a", 7);     // Refused; it looked all the same.
  EXPECT_NE(setGates(), "");
  createModule("RoundRobin", "rr2");
  connect("a", "rr2", 2);
  connect("nope", "a");  // No module, no look.
  EXPECT_EQ(commandRefusal("rr2", "set_gates", "RoundRobinCommandSetGatesArg", ""), "");
  connect("src", "a", 7);
  EXPECT_NE(commandRefusal("rr2", "set_gates", "RoundRobinCommandSetGatesArg", ""), "");
}
