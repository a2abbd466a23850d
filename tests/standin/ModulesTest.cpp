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

TEST_F(StandinModules, MetadataThatMeetsStandsApart) {
  SetMetadataArg foo, bar;
  foo.add_attrs()->set_name("foo");
  foo.mutable_attrs(0)->set_size(2);
  bar.add_attrs()->set_name("bar");
  bar.mutable_attrs(0)->set_size(2);
  MetadataTestArg reads;
  (*reads.mutable_read())["foo"] = 2;
  (*reads.mutable_read())["bar"] = 2;
  createModule("SetMetadata", "a", foo);
  createModule("SetMetadata", "b", bar);
  createModule("MetadataTest", "c", reads);
  connect("a", "b");
  connect("b", "c");
  ask(&Stub::ResumeAll);
  GetModuleInfoRequest request;
  request.set_name("c");
  const auto info = call(&Stub::GetModuleInfo, request);
  ASSERT_EQ(info.metadata_size(), 2);
  EXPECT_EQ(info.metadata(0).name(), "bar");
  EXPECT_EQ(info.metadata(0).offset(), 2);
  EXPECT_EQ(info.metadata(1).offset(), 0);
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

TEST_F(StandinModules, AttributesAreThoseOfTheClass) {
  const auto names = [this](const std::string& mclass) {
    GetModuleInfoRequest request;
    request.set_name(createModule(mclass));
    const auto info = call(&Stub::GetModuleInfo, request);
    std::string all;
    for (const auto& attribute : info.metadata())
      all +=
          attribute.name() + "/" + std::to_string(attribute.size()) + "/" + attribute.mode() + " ";
    return all;
  };
  EXPECT_EQ(names("Timestamp"), "timestamp/8/write ");
  EXPECT_EQ(names("Measure"), "timestamp/8/read ");
  EXPECT_EQ(names("IPEncap"),
            "ip_src/4/read ip_dst/4/read ip_proto/1/read ip_nexthop/4/write ether_type/2/write ");
  EXPECT_EQ(names("VXLANDecap"), "tun_ip_src/4/write tun_ip_dst/4/write tun_id/4/write ");
  EXPECT_EQ(names("VXLANEncap"),
            "tun_ip_src/4/read tun_ip_dst/4/read tun_id/4/read ip_src/4/write ip_dst/4/write "
            "ip_proto/1/write ");
}

TEST_F(StandinModules, AMarkAtAFixedOffsetIsNoMetadata) {
  EXPECT_EQ(createRefusal("Timestamp", "TimestampArg", R"("offset":14)"), "");
  EXPECT_TRUE(offsets("timestamp0").empty());
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
