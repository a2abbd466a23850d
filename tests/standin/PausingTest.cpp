// Calls that stop the workers while they change things, and what becomes of leaves without a place
// when such a call ends.

#include <cerrno>
#include <functional>

#include "Fixture.h"

using namespace bess::pb;

class StandinPausing : public StandinTest::StandinFixture {
 protected:
  // -99 when no class of that name is listed.
  std::int64_t workerOf(const std::string& name) {
    for (const auto& status : trafficClasses())
      if (status.class_().name() == name) return status.class_().wid();
    return -99;
  }

  struct Row {
    const char* name;
    std::function<void(Stub&)> call;
  };

  // A call with the request that `fill` makes; what is answered does not matter.
  template <class Request, class Response, class Fill>
  static Row row(const char* name,
                 grpc::Status (Stub::*rpc)(grpc::ClientContext*, const Request&, Response*),
                 const Fill& fill) {
    return {name, [=](Stub& stub) {
              Request request;
              Response response;
              fill(request);
              grpc::ClientContext context;
              EXPECT_TRUE((stub.*rpc)(&context, request, &response).ok()) << name;
            }};
  }

  // Answer the code of the refusal.
  static int resetBusyPort(Stub& stub) {
    PortOutArg arg;
    arg.set_port("p");
    CreateModuleRequest user;
    user.set_mclass("PortOut");
    user.mutable_arg()->PackFrom(arg);
    CreateModuleResponse created;
    grpc::ClientContext creation, reset;
    EXPECT_TRUE(stub.CreateModule(&creation, user, &created).ok());
    EmptyResponse response;
    EXPECT_TRUE(stub.ResetPorts(&reset, EmptyRequest(), &response).ok());
    return response.error().code();
  }

  static int unloadItself(Stub& stub) {
    grpc::ClientContext context;
    EmptyResponse response;
    EXPECT_TRUE(stub.UnloadPlugin(&context, UnloadPluginRequest(), &response).ok());
    return response.error().code();
  }

  // Calls that pause, for modules src and snk and a port p.
  static std::vector<Row> pausing() {
    const auto asIs = [](auto&) {};
    const auto named = [](const char* name) { return [=](auto& one) { one.set_name(name); }; };
    return {
        row("destroyModule", &Stub::DestroyModule, named("snk")),
        row("destroyModule of none", &Stub::DestroyModule, named("nope")),
        row("destroyModule without a name", &Stub::DestroyModule, asIs),
        row("disconnectModules", &Stub::DisconnectModules, named("src")),
        row("disconnectModules of none", &Stub::DisconnectModules, named("nope")),
        row("configureGateHook", &Stub::ConfigureGateHook,
            [](auto& one) { one.mutable_hook()->set_class_name("Track"); }),
        row("configureGateHook of no class", &Stub::ConfigureGateHook, asIs),
        row("addTc", &Stub::AddTc,
            [](auto& one) {
              one.mutable_class_()->set_name("rr");
              one.mutable_class_()->set_policy("round_robin");
            }),
        row("addTc without a name", &Stub::AddTc, asIs),
        row("updateTcParams of none", &Stub::UpdateTcParams, asIs),
        row("updateTcParent of none", &Stub::UpdateTcParent, asIs),
        row("updateTcParent", &Stub::UpdateTcParent,
            [](auto& one) { one.mutable_class_()->set_leaf_module_name("src"); }),
        row("resetPorts", &Stub::ResetPorts, asIs),
        {"resetPorts of a busy one", [](Stub& stub) { EXPECT_EQ(resetBusyPort(stub), EBUSY); }},
        row("setPortConf", &Stub::SetPortConf,
            [](auto& one) {
              one.set_name("p");
              one.mutable_conf()->set_mac_addr("00:00:00:00:00:00");
            }),
        row("setPortConf out of range", &Stub::SetPortConf,
            [](auto& one) {
              one.set_name("p");
              one.mutable_conf()->set_mac_addr("00:00:00:00:00:00");
              one.mutable_conf()->set_mtu(67);
            }),
        row("importPlugin", &Stub::ImportPlugin, asIs),
        row("importPlugin of no file", &Stub::ImportPlugin,
            [](auto& one) { one.set_path("/nowhere"); }),
        row("unloadPlugin of none", &Stub::UnloadPlugin,
            [](auto& one) { one.set_path("/nowhere"); }),
        {"unloadPlugin", [](Stub& stub) { EXPECT_EQ(unloadItself(stub), 0); }},
    };
  }

  // Calls that do not, for modules src and q and a port p.
  static std::vector<Row> going() {
    const auto asIs = [](auto&) {};
    const auto named = [](const char* name) { return [=](auto& one) { one.set_name(name); }; };
    return {
        row("createModule", &Stub::CreateModule, [](auto& one) { one.set_mclass("Sink"); }),
        row("createModule of no class", &Stub::CreateModule, asIs),
        row("connectModules", &Stub::ConnectModules,
            [](auto& one) {
              one.set_m1("src");
              one.set_m2("q");
            }),
        row("connectModules of none", &Stub::ConnectModules, asIs),
        row("moduleCommand", &Stub::ModuleCommand,
            [](auto& one) {
              one.set_name("q");
              one.set_cmd("get_status");
            }),
        row("getModuleInfo", &Stub::GetModuleInfo, named("src")),
        row("createPort of no driver", &Stub::CreatePort, asIs),
        row("destroyPort", &Stub::DestroyPort, named("p")),
        row("setPortConf of none", &Stub::SetPortConf, named("nope")),
        row("getPortStats", &Stub::GetPortStats, named("p")),
        row("addWorker", &Stub::AddWorker, asIs),
        row("destroyWorker of none", &Stub::DestroyWorker, asIs),
        row("resetWorkers", &Stub::ResetWorkers, asIs),
        row("pauseAll", &Stub::PauseAll, asIs),
        row("pauseWorker", &Stub::PauseWorker, asIs),
        row("resumeWorker", &Stub::ResumeWorker, asIs),
        row("listTcs", &Stub::ListTcs, asIs),
        row("getTcStats of none", &Stub::GetTcStats, asIs),
        row("dumpMempool", &Stub::DumpMempool, asIs),
    };
  }
};

TEST_F(StandinPausing, AResetOfAllTakesLeavesWithItAndLaunchesNoWorker) {
  createModule("Source", "src");
  EXPECT_EQ(ask(&Stub::ResetAll).error().code(), 0);
  EXPECT_TRUE(ask(&Stub::ListWorkers).workers_status().empty());
  EXPECT_TRUE(trafficClasses().empty());
  createModule("Source", "src");
  EXPECT_EQ(workerOf("!leaf_src:0"), -1);
}

TEST_F(StandinPausing, EveryPausingCallPlacesLeavesWhetherItIsRefusedOrNot) {
  for (const Row& row : pausing()) {
    ask(&Stub::ResetAll);
    createModule("Source", "src");
    createModule("Sink", "snk");
    createPort("p", "net_null0");
    ASSERT_EQ(workerOf("!leaf_src:0"), -1) << row.name;
    row.call(*stub_);
    EXPECT_EQ(workerOf("!leaf_src:0"), 0) << row.name;
    EXPECT_EQ(ask(&Stub::ListWorkers).workers_status_size(), 1) << row.name;
  }
}

TEST_F(StandinPausing, NoOtherCallPlacesLeaves) {
  for (const Row& row : going()) {
    ask(&Stub::ResetAll);
    createModule("Source", "src");
    createModule("Queue", "q");
    createPort("p", "net_null0");
    row.call(*stub_);
    EXPECT_EQ(workerOf("!leaf_src:0"), -1) << row.name;
  }
}

TEST_F(StandinPausing, AConnectionPlacesLeavesWhereAWorkerReachesIt) {
  createModule("Source", "src");
  ask(&Stub::ResumeAll);
  createModule("Source", "late");
  createModule("Bypass", "b");
  createModule("Sink", "snk");
  EXPECT_EQ(connect("b", "snk"), 0);
  EXPECT_EQ(workerOf("!leaf_late:0"), -1);
  EXPECT_EQ(connect("src", "b"), 0);
  EXPECT_EQ(workerOf("!leaf_late:0"), 0);
}

TEST_F(StandinPausing, ARefusedPausingCallAttachesLeavesAndLaunchesAWorker) {
  createModule("Source", "src");
  EXPECT_TRUE(ask(&Stub::ListWorkers).workers_status().empty());
  DisconnectModulesRequest nobody;
  nobody.set_name("nope");
  EXPECT_EQ(call(&Stub::DisconnectModules, nobody).error().code(), ENOENT);
  ASSERT_EQ(ask(&Stub::ListWorkers).workers_status_size(), 1);
  EXPECT_EQ(trafficClasses().at(0).class_().wid(), 0);
}

TEST_F(StandinPausing, ResumingOneWorkerAttachesAndLaunchesNothing) {
  createModule("Source", "src");
  ResumeWorkerRequest request;
  call(&Stub::ResumeWorker, request);
  EXPECT_TRUE(ask(&Stub::ListWorkers).workers_status().empty());
  EXPECT_EQ(trafficClasses().at(0).class_().wid(), -1);
}
