#include <cerrno>

#include "Fixture.h"

using namespace bess::pb;

class StandinScheduling : public StandinTest::StandinFixture {};

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
  EXPECT_EQ(addTc("x", "round_robin", "!leaf_src:0"), EPERM);
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
