// Random sequences of requests, and what must hold after each, whatever they were. The statements
// are made from outside, by what the daemon tells of itself, and not from its own structures.

#include <cerrno>
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
  int step() { return draw(3) == 0 ? rarerStep() : commonStep(); }

  int rarerStep() {
    switch (draw(7)) {
      case 0: {
        DestroyWorkerRequest request;
        request.set_wid(draw(4));
        return call(&Stub::DestroyWorker, request).error().code();
      }
      case 1: {
        SetPortConfRequest request;
        request.set_name(port());
        request.mutable_conf()->set_mac_addr(draw(4) == 0 ? "zz" : "00:00:00:00:00:00");
        request.mutable_conf()->set_mtu(draw(3) * 1000);  // 0 keeps it.
        request.mutable_conf()->set_admin_up(draw(2) == 0);
        return call(&Stub::SetPortConf, request).error().code();
      }
      case 2: {
        ConfigureGateHookRequest request;
        request.set_enable(draw(2) == 0);
        request.mutable_hook()->set_class_name("Track");
        request.mutable_hook()->set_hook_name(draw(2) == 0 ? "" : "mine");
        request.mutable_hook()->set_module_name(module());
        request.mutable_hook()->set_ogate(draw(3));
        CommandResponse response;
        // A hook that was put on is answered with something that does not decode.
        tryCall(&Stub::ConfigureGateHook, request, response);
        return response.error().code();
      }
      case 3: {
        AddTcRequest request;
        request.mutable_class_()->set_name("below" + std::to_string(draw(4)));
        request.mutable_class_()->set_policy("round_robin");
        request.mutable_class_()->set_parent(trafficClass());
        request.mutable_class_()->set_wid(draw(8) == 0 ? 0 : -1);
        if (draw(2) == 0)
          request.mutable_class_()->set_priority(draw(3));
        else
          request.mutable_class_()->set_share(draw(3));
        return call(&Stub::AddTc, request).error().code();
      }
      case 4: {
        UpdateTcParamsRequest request;
        request.mutable_class_()->set_name(trafficClass());
        request.mutable_class_()->set_resource(draw(4) == 0 ? "fun" : "bit");
        return call(&Stub::UpdateTcParams, request).error().code();
      }
      case 5:
        resetPorts();
        return 0;
      default:
        return ask(&Stub::CheckSchedulingConstraints).error().code();
    }
  }

  // Ports go by name up to the first that is in use: so much a refusal changes.
  void resetPorts() {
    const std::set<std::string> used = usedPorts();
    const auto before = ask(&Stub::ListPorts);
    std::vector<std::string> expected;
    for (const auto& shown : before.ports())
      if (!expected.empty() || used.count(shown.name()) > 0) expected.push_back(shown.name());
    EXPECT_EQ(ask(&Stub::ResetPorts).error().code(), expected.empty() ? 0 : EBUSY);
    const auto after = ask(&Stub::ListPorts);
    std::vector<std::string> left;
    for (const auto& shown : after.ports()) left.push_back(shown.name());
    EXPECT_EQ(left, expected);
  }

  std::set<std::string> usedPorts() {
    std::set<std::string> used;
    const auto modules = ask(&Stub::ListModules);
    for (const auto& shown : modules.modules())
      if (shown.mclass() == "QueueOut") used.insert(shown.desc().substr(0, shown.desc().find(':')));
    return used;
  }

  int commonStep() {
    static const char* const classes[] = {"Source", "Sink",  "Bypass",
                                          "Queue",  "Merge", "RoundRobin"};
    static const char* const policies[] = {"priority", "round_robin", "weighted_fair"};
    switch (draw(14)) {
      case 0:
      case 1:
        return createOne(classes[draw(6)], draw(4) == 0 ? "" : module());
      case 2: {
        const std::string name = module();
        lost_.erase(name);
        return destroyModule(name);
      }
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
        const std::string name = module();
        request.mutable_class_()->set_leaf_module_name(name);
        request.mutable_class_()->set_parent(trafficClass());
        request.mutable_class_()->set_wid(-1);
        request.mutable_class_()->set_priority(draw(3));
        const int code = call(&Stub::UpdateTcParent, request).error().code();
        if (code != 0) lost_.insert(name);  // If it is one that has a task.
        return code;
      }
    }
  }

  // An automatic name has the lowest number that is free.
  int createOne(const std::string& mclass, const std::string& name) {
    std::set<std::string> taken;
    const auto list = ask(&Stub::ListModules);
    for (const auto& shown : list.modules()) taken.insert(shown.name());
    CreateModuleRequest request;
    request.set_mclass(mclass);
    request.set_name(name);
    const auto created = call(&Stub::CreateModule, request);
    EXPECT_EQ(created.error().code(), taken.count(name) > 0 ? EEXIST : 0) << name;
    if (created.error().code() == 0) lost_.erase(created.name());
    if (name.empty()) {
      const std::size_t digits = created.name().find_last_not_of("0123456789") + 1;
      const std::string prefix = created.name().substr(0, digits);
      int lowest = 0;
      while (taken.count(prefix + std::to_string(lowest)) > 0) ++lowest;
      EXPECT_EQ(created.name(), prefix + std::to_string(lowest));
    }
    return created.error().code();
  }

  // Everything that the daemon tells, less what tells the time and where leaves are: a refused call
  // may place those, and make a class for them.
  std::string told() {
    const auto ports = ask(&Stub::ListPorts);
    std::string all = ask(&Stub::ListModules).ShortDebugString() + ports.ShortDebugString();
    for (const auto& shown : ports.ports()) {
      GetPortConfRequest request;
      request.set_name(shown.name());
      all += call(&Stub::GetPortConf, request).ShortDebugString();
    }
    std::set<std::string> classes;
    for (const auto& status : trafficClasses())
      if (status.class_().name()[0] != '!') classes.insert(status.class_().ShortDebugString());
    for (const std::string& shown : classes) all += shown;
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

  // Each task has one leaf, which belongs to a module, unless a refused move has lost it; classes
  // have one place; what has a parent has one that is listed; a worker that is named exists and
  // counts what stands below it.
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
    for (const auto& [name, info] : infos) {
      const bool task = info.mclass() == "Source" || info.mclass() == "Queue";
      EXPECT_EQ(names.count("!leaf_" + name + ":0"), task && lost_.count(name) == 0 ? 1u : 0u)
          << name;
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
    const std::set<std::string> used = usedPorts();
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
  std::set<std::string> lost_;  // Modules whose leaf a refused move has lost, if they had one.
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
