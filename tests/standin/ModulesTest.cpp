#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "Fixture.h"

using namespace bess::pb;

class StandinModules : public StandinTest::StandinFixture {};

TEST_F(StandinModules, AutomaticNameTakesTheLowestFreeNumber) {
  EXPECT_EQ(createModule("Sink"), "sink0");
  EXPECT_EQ(createModule("Sink"), "sink1");
  EXPECT_EQ(destroyModule("sink0"), 0);
  EXPECT_EQ(createModule("Sink"), "sink0");
}

TEST_F(StandinModules, AutomaticNameComesFromTheClassNameOrItsTemplate) {
  EXPECT_EQ(createModule("L2Forward"), "l2_forward0");
  EXPECT_EQ(createModule("VLANPush"), "vlan_push0");
  EXPECT_EQ(createModule("IPChecksum"), "ip_checksum0");
  EXPECT_EQ(createModule("RoundRobin"), "rr0");
  EXPECT_EQ(createModule("UrlFilter"), "url-filter0");
}

TEST_F(StandinModules, ListIsSortedByName) {
  createModule("Sink", "b");
  createModule("Sink", "a");
  const auto list = ask(&Stub::ListModules);
  ASSERT_EQ(list.modules_size(), 2);
  EXPECT_EQ(list.modules(0).name(), "a");
}

TEST_F(StandinModules, AnOutputGateGoesToOneInputGate) {
  createModule("Source", "src");
  createModule("Sink", "snk");
  EXPECT_EQ(connect("src", "snk"), 0);
  EXPECT_EQ(connect("src", "snk"), EBUSY);
}

TEST_F(StandinModules, GatesAreCheckedAgainstTheClass) {
  createModule("Source", "src");
  createModule("Sink", "snk");
  EXPECT_EQ(connect("src", "snk", 1), EINVAL);
  EXPECT_EQ(connect("src", "snk", 0, 1), EINVAL);
  EXPECT_EQ(connect("snk", "src"), EINVAL);
}

TEST_F(StandinModules, GateNumbersAreCutToSixteenBits) {
  createModule("Source", "src");
  createModule("Sink", "snk");
  EXPECT_EQ(connect("src", "snk", 65536), 0);
  EXPECT_EQ(connect("src", "snk", 0), EBUSY);
}

TEST_F(StandinModules, DestroyingAModuleDisconnectsItsNeighbours) {
  createModule("Source", "src");
  createModule("Sink", "snk");
  connect("src", "snk");
  EXPECT_EQ(destroyModule("snk"), 0);
  GetModuleInfoRequest request;
  request.set_name("src");
  EXPECT_EQ(call(&Stub::GetModuleInfo, request).ogates_size(), 0);
}

TEST_F(StandinModules, AnArgumentOfAnotherTypeCountsAsDefaults) {
  SourceArg other;
  other.set_pkt_size(100);  // As a QueueArg, field 1 would be a bad size.
  EXPECT_EQ(createModule("Queue", "q", other), 0);
  QueueArg bad;
  bad.set_size(100);
  EXPECT_EQ(createModule("Queue", "q2", bad), EINVAL);
}

TEST_F(StandinModules, ACommandThatIsNotThreadSafeWaitsForAPause) {
  createModule("Source", "src");
  createModule("Queue", "q");
  connect("src", "q");
  ask(&Stub::CheckSchedulingConstraints);
  ask(&Stub::ResumeAll);
  QueueCommandSetSizeArg size;
  size.set_size(256);
  EXPECT_EQ(command("q", "set_size", size).error().code(), EBUSY);
  ask(&Stub::PauseAll);
  EXPECT_EQ(command("q", "set_size", size).error().code(), 0);
}

TEST_F(StandinModules, AnUnknownCommandIsNotSupported) {
  createModule("Sink", "snk");
  EXPECT_EQ(command("snk", "fly", EmptyArg()).error().code(), EOPNOTSUPP);
}

TEST_F(StandinModules, ALookupAnswersWhatWasAdded) {
  createModule("L2Forward", "l2");
  L2ForwardCommandAddArg add;
  add.add_entries()->set_addr("02:00:00:00:00:01");
  add.mutable_entries(0)->set_gate(7);
  EXPECT_EQ(command("l2", "add", add).error().code(), 0);
  EXPECT_EQ(command("l2", "add", add).error().code(), EEXIST);
  L2ForwardCommandLookupArg lookup;
  lookup.add_addrs("02:00:00:00:00:01");
  L2ForwardCommandLookupResponse answer;
  ASSERT_TRUE(command("l2", "lookup", lookup).data().UnpackTo(&answer));
  ASSERT_EQ(answer.gates_size(), 1);
  EXPECT_EQ(answer.gates(0), 7u);
}

TEST_F(StandinModules, AHookNameIsTakenOnce) {
  createModule("Source", "src");
  createModule("Sink", "snk");
  connect("src", "snk");
  ConfigureGateHookRequest request;
  request.set_enable(true);
  request.mutable_hook()->set_class_name("Track");
  request.mutable_hook()->set_hook_name("mine");
  request.mutable_hook()->set_module_name("snk");
  request.mutable_hook()->set_igate(0);
  EXPECT_EQ(call(&Stub::ConfigureGateHook, request).error().code(), 0);
  EXPECT_EQ(call(&Stub::ConfigureGateHook, request).error().code(), EEXIST);
}

TEST_F(StandinModules, ClassesHaveTheirOwnNumbersOfGates) {
  const struct {
    const char* mclass;
    std::uint64_t outputs;
  } rows[] = {{"IPChecksum", 2}, {"L4Checksum", 2},   {"GtpuEncap", 2},     {"UrlFilter", 2},
              {"Replicate", 32}, {"WorkerSplit", 64}, {"RoundRobin", 8192}, {"Merge", 1}};
  createModule("Sink", "snk");
  for (const auto& row : rows) {
    createModule(row.mclass, row.mclass);
    EXPECT_EQ(connect(row.mclass, "snk", row.outputs - 1), 0) << row.mclass;
    EXPECT_EQ(connect(row.mclass, "snk", row.outputs), EINVAL) << row.mclass;
  }
  CreateModuleRequest echo;  // Its message is not of our protocol.
  echo.set_mclass("GtpuEcho");
  echo.mutable_arg()->set_type_url("type.googleapis.com/bess.pb.GtpuEchoArg");
  echo.mutable_arg()->set_value("\x08\x01");
  EXPECT_EQ(call(&Stub::CreateModule, echo).name(), "gtpu_echo0");
  EXPECT_EQ(connect("gtpu_echo0", "snk", 1), 0);
  EXPECT_EQ(connect("gtpu_echo0", "snk", 2), EINVAL);
}

TEST_F(StandinModules, ClassesSayHowManyWorkersMayReachThem) {
  for (int worker = 0; worker < 3; ++worker) addWorker(worker);
  createModule("RoundRobin", "rr");
  createModule("Source", "a");
  createModule("Source", "b");
  connect("a", "rr");
  EXPECT_FALSE(ask(&Stub::CheckSchedulingConstraints).fatal());
  createModule("Merge", "m");
  connect("m", "rr", 0, 0);
  connect("b", "m");
  const auto check = ask(&Stub::CheckSchedulingConstraints);
  EXPECT_TRUE(check.fatal());
  ASSERT_EQ(check.modules_size(), 1);
  EXPECT_EQ(check.modules(0).name(), "rr");
}

TEST_F(StandinModules, TwoWorkersMayReachANatAndAThirdIsTooMany) {
  for (int worker = 0; worker < 3; ++worker) addWorker(worker);
  EXPECT_EQ(createRefusal("NAT", "NATArg", R"("extAddrs":[{"extAddr":"10.0.0.1"}])"), "");
  createModule("Merge", "m");
  connect("m", "nat0");
  for (int source = 0; source < 2; ++source) {
    createModule("Source", "s" + std::to_string(source));
    connect("s" + std::to_string(source), "m", 0, static_cast<std::uint64_t>(source));
  }
  EXPECT_FALSE(ask(&Stub::CheckSchedulingConstraints).fatal());
  createModule("Source", "s2");
  connect("s2", "m", 0, 2);
  const auto check = ask(&Stub::CheckSchedulingConstraints);
  EXPECT_TRUE(check.fatal());
  ASSERT_EQ(check.modules_size(), 1);
  EXPECT_EQ(check.modules(0).name(), "nat0");
}

TEST_F(StandinModules, ADisconnectedGateIsFreeAgain) {
  createModule("Source", "src");
  createModule("Sink", "snk");
  connect("src", "snk");
  DisconnectModulesRequest request;
  request.set_name("src");
  EXPECT_EQ(call(&Stub::DisconnectModules, request).error().code(), 0);
  GetModuleInfoRequest info;
  info.set_name("src");
  EXPECT_EQ(call(&Stub::GetModuleInfo, info).ogates_size(), 0);
  info.set_name("snk");
  EXPECT_EQ(call(&Stub::GetModuleInfo, info).igates_size(), 0);
  EXPECT_EQ(connect("src", "snk"), 0);
}

TEST_F(StandinModules, RequestsThatNameNoModuleAreToldSo) {
  EXPECT_EQ(refusal(call(&Stub::GetMclassInfo, GetMclassInfoRequest()).error()),
            "22 Argument must be a name in str");
  EXPECT_EQ(refusal(call(&Stub::GetDriverInfo, GetDriverInfoRequest()).error()),
            "22 Argument must be a name in str");
  EXPECT_EQ(refusal(call(&Stub::GetModuleInfo, GetModuleInfoRequest()).error()),
            "22 Argument must be a name in str");
  EXPECT_EQ(refusal(call(&Stub::DestroyModule, DestroyModuleRequest()).error()),
            "22 Argument must be a name in str");
  EXPECT_EQ(refusal(call(&Stub::DisconnectModules, DisconnectModulesRequest()).error()),
            "22 Missing 'name' field");
  EXPECT_EQ(refusal(call(&Stub::ModuleCommand, CommandRequest()).error()),
            "22 Missing module name field 'name'");
}

TEST_F(StandinModules, ASuccessfulCreationBringsAnEmptyError) {
  CreateModuleRequest request;
  request.set_mclass("Sink");
  const auto created = call(&Stub::CreateModule, request);
  EXPECT_TRUE(created.has_error());
  EXPECT_EQ(created.error().code(), 0);
  EXPECT_FALSE(ask(&Stub::ResetModules).has_error());
}

TEST_F(StandinModules, AGateTellsTheTimeWhileItIsTracked) {
  createModule("Source", "src");
  createModule("Sink", "snk");
  ConnectModulesRequest connection;
  connection.set_m1("src");
  connection.set_m2("snk");
  connection.set_skip_default_hooks(true);
  EXPECT_EQ(call(&Stub::ConnectModules, connection).error().code(), 0);
  GetModuleInfoRequest request;
  request.set_name("src");
  EXPECT_EQ(call(&Stub::GetModuleInfo, request).ogates(0).timestamp(), 0);
  ConfigureGateHookRequest hook;
  hook.set_enable(true);
  hook.mutable_hook()->set_class_name("Track");
  hook.mutable_hook()->set_module_name("src");
  hook.mutable_hook()->set_ogate(0);
  EXPECT_EQ(call(&Stub::ConfigureGateHook, hook).error().code(), 0);
  EXPECT_GT(call(&Stub::GetModuleInfo, request).ogates(0).timestamp(), 0);
  hook.set_enable(false);
  EXPECT_FALSE(call(&Stub::ConfigureGateHook, hook).has_error());
  EXPECT_EQ(call(&Stub::GetModuleInfo, request).ogates(0).timestamp(), 0);
}

TEST_F(StandinModules, ACaptureWantsAFifoUnlessItMayWaitForOne) {
  createModule("Source", "src");
  createModule("Sink", "snk");
  connect("src", "snk");
  const std::string path = "fifo-" + std::to_string(getpid());
  ConfigureGateHookRequest hook;
  hook.set_enable(true);
  hook.mutable_hook()->set_class_name("TcpDump");
  hook.mutable_hook()->set_module_name("src");
  hook.mutable_hook()->set_ogate(0);
  TcpdumpArg arg;
  arg.set_fifo(path);
  hook.mutable_hook()->mutable_arg()->PackFrom(arg);
  EXPECT_EQ(refusal(call(&Stub::ConfigureGateHook, hook).error()), "-2 Failed to open FIFO");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(refusal(call(&Stub::ConfigureGateHook, hook).error()), "");
  std::filesystem::remove(path);
  arg.set_defer(true);
  hook.mutable_hook()->mutable_arg()->PackFrom(arg);
  EXPECT_EQ(refusal(call(&Stub::ConfigureGateHook, hook).error()), "");
}

class StandinHooks : public StandinTest::StandinFixture {
 protected:
  StandinHooks() : StandinFixture(shown()) {
    createModule("Source", "src");
    createModule("Sink", "snk");
    connect("src", "snk");
  }
  static Standin::Options shown() {
    Standin::Options options;
    options.reportGateHooks = true;
    return options;
  }

  std::string configure(bool enable, const std::string& hookClass, const std::string& name = "") {
    ConfigureGateHookRequest request;
    request.set_enable(enable);
    request.mutable_hook()->set_class_name(hookClass);
    request.mutable_hook()->set_hook_name(name);
    request.mutable_hook()->set_module_name("src");
    request.mutable_hook()->set_ogate(0);
    TcpdumpArg arg;
    arg.set_defer(true);
    if (hookClass == "TcpDump") request.mutable_hook()->mutable_arg()->PackFrom(arg);
    return refusal(call(&Stub::ConfigureGateHook, request).error());
  }

  std::string hooks() {
    GetModuleInfoRequest request;
    request.set_name("src");
    std::string all;
    const auto info = call(&Stub::GetModuleInfo, request);
    for (const auto& hook : info.ogates(0).gatehooks()) all += hook.hook_name() + " ";
    return all;
  }
};

TEST_F(StandinHooks, HaveTheLowestFreeNumberOfTheirClassAndStayInOrder) {
  EXPECT_EQ(hooks(), "track0 ");
  EXPECT_EQ(configure(true, "Track"), "");
  EXPECT_EQ(configure(true, "TcpDump"), "");
  EXPECT_EQ(configure(true, "Track", "track3"), "");
  EXPECT_EQ(configure(true, "Track"), "");
  EXPECT_EQ(configure(true, "Track"), "");
  EXPECT_EQ(hooks(), "track0 track1 tcpdump0 track3 track2 track4 ");
  EXPECT_EQ(configure(false, "Track", "track1"), "");
  EXPECT_EQ(configure(true, "Track"), "");
  EXPECT_EQ(hooks(), "track0 tcpdump0 track3 track2 track4 track1 ");
}

TEST_F(StandinHooks, GoByTheirNameOrElseTheFirstOfTheClass) {
  configure(true, "TcpDump");
  configure(true, "Track");
  EXPECT_EQ(configure(false, "TcpDump", "track1"), "");  // The name alone counts.
  EXPECT_EQ(hooks(), "track0 tcpdump0 ");
  EXPECT_EQ(configure(false, "TcpDump"), "");
  EXPECT_EQ(hooks(), "track0 ");
  EXPECT_EQ(configure(false, "TcpDump"), "");
  EXPECT_EQ(configure(false, "Track", "nope"), "");
  EXPECT_EQ(hooks(), "track0 ");
}

TEST_F(StandinHooks, TensOfThousandsComeAndGoAtOneGate) {
  // This does not end if each looks at all others.
  constexpr int count = 30000;
  const auto line = [](const char* enable, const std::string& name) {
    return std::string("{\"type\":\"configureGateHook\",\"request\":{\"enable\":") + enable +
           ",\"hook\":{\"className\":\"Track\",\"moduleName\":\"src\",\"ogate\":0,\"hookName\":\"" +
           name + "\"}}}\n";
  };
  std::string lines = server_->dump();
  for (int i = 1; i <= count; ++i) lines += line("true", "");
  for (int i = count - 1; i >= 0; --i) lines += line("false", "track" + std::to_string(i));
  server_->load(lines);
  EXPECT_EQ(hooks(), "track" + std::to_string(count) + " ");
}
