// Random sequences of requests, and what must hold after each, whatever they were. The statements
// are made from outside, by what the daemon tells of itself, and not from its own structures.

#include <map>
#include <random>
#include <set>

#include "Fixture.h"

using namespace bess::pb;

class StandinProperties : public StandinTest::StandinFixture,
                          public testing::WithParamInterface<unsigned> {
 protected:
  StandinProperties() : StandinFixture(options()), random_(GetParam()) {}

  static Standin::Options options() {
    Standin::Options options;
    options.newerReplies = true;
    return options;
  }

  unsigned draw(unsigned below) {
    return std::uniform_int_distribution<unsigned>(0, below - 1)(random_);
  }
  std::string module() { return "m" + std::to_string(draw(8)); }
  std::string port() { return "p" + std::to_string(draw(3)); }
  std::string trafficClass() { return "t" + std::to_string(draw(4)); }

  // One request that changes something, or is refused; answers the code.
  int step() {
    static const char* const classes[] = {"Source", "Sink",  "Bypass",
                                          "Queue",  "Merge", "RoundRobin"};
    static const char* const policies[] = {"priority", "round_robin", "weighted_fair"};
    switch (draw(14)) {
      case 0:
      case 1: {
        CreateModuleRequest request;
        request.set_mclass(classes[draw(6)]);
        request.set_name(draw(4) == 0 ? "" : module());
        return call(&Stub::CreateModule, request).error().code();
      }
      case 2:
        return destroyModule(module());
      case 3:
      case 4:
        return connect(module(), module(), draw(3), draw(3));
      case 5: {
        DisconnectModulesRequest request;
        request.set_name(module());
        request.set_ogate(draw(3));
        return call(&Stub::DisconnectModules, request).error().code();
      }
      case 6:
        return createPort(port(), "net_null" + std::to_string(draw(3)), 1 + draw(2));
      case 7: {
        DestroyPortRequest request;
        request.set_name(port());
        return call(&Stub::DestroyPort, request).error().code();
      }
      case 8: {
        QueueOutArg arg;
        arg.set_port(port());
        arg.set_qid(draw(3));
        return createModule("QueueOut", module(), arg);
      }
      case 9:
        return addWorker(draw(4), draw(3));
      case 10: {
        AddTcRequest request;
        request.mutable_class_()->set_name(trafficClass());
        request.mutable_class_()->set_policy(policies[draw(3)]);
        request.mutable_class_()->set_resource("bit");
        request.mutable_class_()->set_priority(draw(3));
        request.mutable_class_()->set_wid(static_cast<std::int64_t>(draw(4)) - 1);
        return call(&Stub::AddTc, request).error().code();
      }
      case 11:
        return ask(&Stub::ResumeAll).error().code();
      case 12: {
        PauseWorkerRequest request;
        request.set_wid(draw(4));
        return call(&Stub::PauseWorker, request).error().code();
      }
      default: {
        UpdateTcParentRequest request;
        request.mutable_class_()->set_leaf_module_name(module());
        request.mutable_class_()->set_parent(trafficClass());
        request.mutable_class_()->set_wid(-1);
        request.mutable_class_()->set_priority(draw(3));
        return call(&Stub::UpdateTcParent, request).error().code();
      }
    }
  }

  // Everything that the daemon tells, less what tells the time and where leaves are: a refused call
  // may place those.
  std::string told() {
    std::string all =
        ask(&Stub::ListModules).ShortDebugString() + ask(&Stub::ListPorts).ShortDebugString();
    for (auto& [name, info] : infos()) {
      for (auto& gate : *info.mutable_ogates()) gate.clear_timestamp();
      for (auto& gate : *info.mutable_igates()) gate.clear_timestamp();
      for (auto& attribute : *info.mutable_metadata()) attribute.clear_offset();
      all += info.ShortDebugString();
    }
    return all;
  }

  std::map<std::string, GetModuleInfoResponse> infos() {
    std::map<std::string, GetModuleInfoResponse> infos;
    const auto list = ask(&Stub::ListModules);
    for (const auto& shown : list.modules()) {
      GetModuleInfoRequest request;
      request.set_name(shown.name());
      EXPECT_TRUE(infos.emplace(shown.name(), call(&Stub::GetModuleInfo, request)).second)
          << "two modules are called " << shown.name();
    }
    return infos;
  }

  // Each output gate is among the sources of the input gate it leads to, and the other way round.
  static void expectSymmetry(const std::map<std::string, GetModuleInfoResponse>& infos) {
    std::multiset<std::string> forward, backward;
    const auto link = [](const std::string& from, std::uint64_t output, const std::string& to,
                         std::uint64_t input) {
      return from + ":" + std::to_string(output) + "->" + std::to_string(input) + ":" + to;
    };
    for (const auto& [name, info] : infos) {
      for (const auto& gate : info.ogates())
        forward.insert(link(name, gate.ogate(), gate.name(), gate.igate()));
      for (const auto& gate : info.igates())
        for (const auto& source : gate.ogates())
          backward.insert(link(source.name(), source.ogate(), name, gate.igate()));
    }
    EXPECT_EQ(forward, backward);
  }

  // Each leaf is listed once and belongs to a module; classes have one place; what has a parent has
  // one that is listed; a worker that is named exists and counts what stands below it.
  void expectPlaces(const std::map<std::string, GetModuleInfoResponse>& infos) {
    std::map<std::int64_t, std::int64_t> counted;
    const auto workers = ask(&Stub::ListWorkers);
    for (const auto& worker : workers.workers_status()) counted[worker.wid()] = worker.num_tcs();
    std::set<std::string> names;
    const auto listed = trafficClasses();
    for (const auto& status : listed) {
      EXPECT_TRUE(names.insert(status.class_().name()).second) << status.class_().name();
      if (status.class_().policy() == "leaf") {
        EXPECT_EQ(infos.count(status.class_().leaf_module_name()), 1u) << status.class_().name();
      }
      if (status.class_().wid() < 0) continue;
      ASSERT_EQ(counted.count(status.class_().wid()), 1u) << status.class_().name();
      --counted[status.class_().wid()];
    }
    for (const auto& status : listed)
      EXPECT_TRUE(status.parent().empty() || names.count(status.parent()) == 1) << status.parent();
    for (const auto& [worker, rest] : counted) EXPECT_EQ(rest, 0) << "worker " << worker;
  }

  // A command that is not for running workers is refused just where the tasks of one lead. The
  // daemon finds that out when it is asked to check.
  void expectCommandsRefusedWhereWorkersRun() {
    ask(&Stub::CheckSchedulingConstraints);
    std::set<std::int64_t> running;
    const auto workers = ask(&Stub::ListWorkers);
    for (const auto& worker : workers.workers_status())
      if (worker.running()) running.insert(worker.wid());
    const auto all = infos();
    std::set<std::string> withTasks, reached;
    for (const auto& [name, info] : all)
      if (info.mclass() == "Source" || info.mclass() == "Queue") withTasks.insert(name);
    for (const auto& status : trafficClasses()) {
      const std::string& start = status.class_().leaf_module_name();
      if (start.empty() || running.count(status.class_().wid()) == 0) continue;
      std::vector<std::string> open = {start};
      std::set<std::string> seen = {start};
      while (!open.empty()) {
        const std::string name = open.back();
        open.pop_back();
        reached.insert(name);
        if (name != start && withTasks.count(name) > 0) continue;
        for (const auto& gate : all.at(name).ogates())
          if (seen.insert(gate.name()).second) open.push_back(gate.name());
      }
    }
    for (const auto& [name, info] : all) {
      CommandRequest request;
      request.set_name(name);
      request.set_cmd(info.mclass() == "Queue" ? "set_size" : "set_gates");
      if (info.mclass() == "Queue") {
        QueueCommandSetSizeArg size;
        size.set_size(64);
        request.mutable_arg()->PackFrom(size);
      } else if (info.mclass() != "RoundRobin") {
        continue;
      }
      EXPECT_EQ(call(&Stub::ModuleCommand, request).error().code(),
                reached.count(name) > 0 ? EBUSY : 0)
          << name;
    }
  }

  // A port that a module uses cannot go, and one that no module uses can.
  void expectBusyPorts() {
    std::set<std::string> used;
    const auto modules = ask(&Stub::ListModules);
    for (const auto& shown : modules.modules())
      if (shown.mclass() == "QueueOut") used.insert(shown.desc().substr(0, shown.desc().find(':')));
    const auto ports = ask(&Stub::ListPorts);
    for (const auto& shown : ports.ports()) {
      DestroyPortRequest request;
      request.set_name(shown.name());
      EXPECT_EQ(call(&Stub::DestroyPort, request).error().code(),
                used.count(shown.name()) > 0 ? EBUSY : 0)
          << shown.name();
    }
  }

  std::mt19937 random_;
};

TEST_P(StandinProperties, HoldAfterEachOfManyRandomCalls) {
  for (int i = 0; i < 200 && !HasFailure(); ++i) {
    const std::string before = told();
    if (step() != 0) {
      EXPECT_EQ(told(), before) << "a refused call changed something";
    }
    const auto all = infos();
    expectSymmetry(all);
    expectPlaces(all);
    if (i % 10 == 9) expectCommandsRefusedWhereWorkersRun();
  }
  expectBusyPorts();
}

TEST_P(StandinProperties, ADumpLeadsToTheSameState) {
  for (int i = 0; i < 200; ++i) step();
  const std::string before = told();
  const auto classes = trafficClasses();
  server_->load(server_->dump());
  EXPECT_EQ(told(), before);
  const auto again = trafficClasses();
  ASSERT_EQ(again.size(), classes.size());
  for (std::size_t i = 0; i < again.size(); ++i)
    EXPECT_EQ(again[i].ShortDebugString(), classes[i].ShortDebugString());
}

INSTANTIATE_TEST_SUITE_P(Seeds, StandinProperties, testing::Range(1u, 13u));
