// What each class refuses in its arguments, with its text.

#include "Fixture.h"

class StandinArguments : public StandinTest::StandinFixture {
 protected:
  struct Case {
    const char* json;
    const char* refusal;  // Empty: none.
  };

  void expectCreations(const char* mclass, const char* argument,
                       std::initializer_list<Case> cases) {
    for (const Case& row : cases)
      EXPECT_EQ(createRefusal(mclass, argument, row.json), row.refusal) << mclass << row.json;
  }

  // A comma-separated list of `count` times the text.
  static std::string repeated(const std::string& text, int count) {
    std::string all = text;
    for (int i = 1; i < count; ++i) all += "," + text;
    return all;
  }
};

TEST_F(StandinArguments, SetMetadataWantsAttributesWithNamesSizesAndValuesThatFit) {
  expectCreations("SetMetadata", "SetMetadataArg",
                  {{"", "22 'attrs' must be specified"},
                   {R"("attrs":[{"size":4}])", "22 'name' field is missing"},
                   {R"("attrs":[{"name":"a","size":33}])", "22 'size' must be 1-32"},
                   {R"("attrs":[{"name":"a","size":1,"valueInt":256}])",
                    "22 'value_int' field has not a correct 1-byte value"},
                   {R"("attrs":[{"name":"a","size":4,"valueBin":"AAE="}])",
                    "22 'value_bin' field has not a correct 4-byte value"},
                   {R"("attrs":[{"name":"a","size":4,"offset":-1}])", "22 invalid packet offset"},
                   {R"("attrs":[{"name":"a","size":4,"offset":5000}])", "22 invalid packet offset"},
                   {R"("attrs":[{"name":"a","size":4},{"name":"a","size":2}])",
                    "17 add_metadata_attr() failed"},
                   {R"("attrs":[{"name":"a","size":32,"offset":14}])", ""}});
}

TEST_F(StandinArguments, UpdateCountsItsFieldsAndLetsANegativeOffsetPass) {
  const std::string seventeen = "\"fields\":[" + repeated(R"({"size":2})", 17) + "]";
  expectCreations("Update", "UpdateArg",
                  {{seventeen.c_str(), "22 max 16 variables can be specified"},
                   {R"("fields":[{"size":9}])", "22 'size' must be 1-8"},
                   {R"("fields":[{"size":4,"offset":2045}])", "22 too large 'offset'"},
                   {R"("fields":[{"size":4,"offset":2044}])", ""},
                   {R"("fields":[{"size":4,"offset":-1}])", ""}});
  createModule("Update", "u");
  const std::string nine = "\"fields\":[" + repeated(R"({"size":2})", 9) + "]";
  EXPECT_EQ(commandRefusal("u", "add", "UpdateArg", nine), "");
  EXPECT_EQ(commandRefusal("u", "add", "UpdateArg", nine), "22 max 16 variables can be specified");
  EXPECT_EQ(commandRefusal("u", "clear", "EmptyArg", ""), "");
  EXPECT_EQ(commandRefusal("u", "add", "UpdateArg", nine), "");
}

TEST_F(StandinArguments, RandomUpdateChecksSizeReachAndRangeInThatOrder) {
  expectCreations(
      "RandomUpdate", "RandomUpdateArg",
      {{R"("fields":[{"size":3,"offset":5000,"min":5}])", "22 'size' must be 1, 2, or 4"},
       {R"("fields":[{"size":4,"offset":5000,"min":5}])", "22 too large 'offset'"},
       {R"("fields":[{"size":4,"min":5}])", "22 'min' should not be greater than 'max'"},
       {R"("fields":[{"size":1,"offset":-1,"min":300,"max":4294967295}])", ""}});
}

TEST_F(StandinArguments, RewriteCountsItsTemplates) {
  const std::string forty = "\"templates\":[" + repeated(R"("AA==")", 40) + "]";
  createModule("Rewrite", "r");
  EXPECT_EQ(commandRefusal("r", "add", "RewriteArg", forty), "");
  EXPECT_EQ(commandRefusal("r", "add", "RewriteArg", forty),
            "22 max 64 packet templates can be used 40 40");
}

TEST_F(StandinArguments, MeasureLimitsBucketsAndNotTheProbability) {
  expectCreations("Measure", "MeasureArg",
                  {{R"("latencyNsMax":"1000000000","latencyNsResolution":100)",
                    "7 excessive latency_ns_max / latency_ns_resolution"},
                   {R"("jitterSampleProb":1.5)", ""}});
  createModule("Measure", "m");
  EXPECT_EQ(commandRefusal("m", "get_summary", "MeasureCommandGetSummaryArg",
                           R"("latencyPercentiles":[50,20])"),
            "22 invalid 'latency_percentiles'");
  EXPECT_EQ(commandRefusal("m", "get_summary", "MeasureCommandGetSummaryArg",
                           R"("jitterPercentiles":[101])"),
            "22 invalid 'jitter_percentiles'");
}

TEST_F(StandinArguments, WildcardMatchWantsPositionsNamesAndMatchingMasks) {
  expectCreations(
      "WildcardMatch", "WildcardMatchArg",
      {{R"("fields":[{"numBytes":2}])", "22 specify 'offset' or 'attr'"},
       {R"("fields":[{"numBytes":9,"offset":0}])", "22 'size' must be 1-8"},
       {R"("fields":[{"numBytes":1,"offset":1500}])", "22 too small 'offset'"},
       {R"("fields":[{"numBytes":2,"attrName":""}])", "22 add_metadata_attr() failed"}});
  EXPECT_EQ(createModule("WildcardMatch", "wm", bess::pb::WildcardMatchArg()), 0);
  createRefusal("WildcardMatch", "WildcardMatchArg", R"("fields":[{"numBytes":2,"offset":14}])");
  EXPECT_EQ(commandRefusal("wm0", "add", "WildcardMatchCommandAddArg",
                           R"("values":[{"valueInt":243}],"masks":[{"valueBin":"gYE="}])"),
            "22 idx 0: invalid pair of value 0xf300 and mask 0x8181");
}

TEST_F(StandinArguments, ExactMatchCountsTheFieldsOfARule) {
  createRefusal("ExactMatch", "ExactMatchArg", R"("fields":[{"numBytes":1,"offset":23}])");
  EXPECT_EQ(commandRefusal("em0", "add", "ExactMatchCommandAddArg",
                           R"("fields":[{"valueInt":6},{"valueInt":7}])"),
            "22 rule should have 1 fields (has 2)");
}

TEST_F(StandinArguments, HashLbGivesTheNegativeNumberForABadField) {
  EXPECT_EQ(createRefusal("HashLB", "HashLBArg", R"("fields":[{"numBytes":9}])").substr(0, 4),
            "-22 ");
  expectCreations("HashLB", "HashLBArg",
                  {{R"("mode":"l9")", "22 available LB modes: l2, l3, l4"},
                   {R"("gates":[8192])", ""},
                   {R"("gates":[8193])", "22 Invalid ogate 8193"}});
  createModule("HashLB", "h");
  const auto setGates = [this](const char* json) {
    return commandRefusal("h", "set_gates", "HashLBCommandSetGatesArg", json);
  };
  EXPECT_EQ(setGates(R"("gates":[0,8192,65536])"), "");
  EXPECT_EQ(setGates(R"("gates":[0,8193])"), "22 Invalid ogate 8193");
}

TEST_F(StandinArguments, AGateForDroppingMayBeNamed) {
  expectCreations(
      "RoundRobin", "RoundRobinArg",
      {{R"("gates":[5,8192])", ""}, {R"("gates":[99999],"mode":"x")", "22 invalid gate 34463"}});
}

TEST_F(StandinArguments, ReplicateCountsItsGatesAndTakesAnyNumber) {
  const std::string many = "\"gates\":[" + repeated("1", 33) + "]";
  expectCreations("Replicate", "ReplicateArg",
                  {{many.c_str(), "22 no more than 32 gates"}, {R"("gates":[99999])", ""}});
  createModule("Replicate", "r");
  EXPECT_EQ(commandRefusal("r", "set_gates", "ReplicateCommandSetGatesArg", many),
            "22 no more than 32 gates");
  EXPECT_EQ(
      commandRefusal("r", "set_gates", "ReplicateCommandSetGatesArg", R"("gates":[5,5,99999])"),
      "");
}

TEST_F(StandinArguments, WorkerSplitLimitsItsGates) {
  expectCreations("WorkerSplit", "WorkerSplitArg",
                  {{R"("workerGates":{"64":0})", "22 worker id must be less than 64"},
                   {R"("workerGates":{"0":8192})", "22 output gate must be less than 8192"},
                   {R"("workerGates":{"0":8191})", ""}});
}

TEST_F(StandinArguments, FlowGenChecksTemplateRatesDurationAndWordsInThatOrder) {
  const std::string frame =
      R"("template":"BhY+G3IyAh5nn02uCABFAAAqAAEAAEARAAAKAAABCgAAAicRJxIAFg==")";
  const auto refusal = [&](const std::string& rest) {
    return createRefusal("FlowGen", "FlowGenArg", frame + rest);
  };
  EXPECT_EQ(createRefusal("FlowGen", "FlowGenArg", R"("pps":-1)"), "22 must specify 'template'");
  EXPECT_EQ(createRefusal("FlowGen", "FlowGenArg", R"("template":"Dg==","pps":-1)"),
            "22 'template' is not IPv4");
  EXPECT_EQ(refusal(R"(,"pps":-3,"flowDuration":-1)"), "22 invalid 'pps'");
  EXPECT_EQ(refusal(R"(,"pps":1000,"flowRate":5000,"arrival":"x")"),
            "22 flow rate cannot be more than pps");
  EXPECT_EQ(refusal(R"(,"pps":10,"flowDuration":-1,"duration":"x")"), "22 invalid 'flow_duration'");
  EXPECT_EQ(refusal(R"(,"flowRate":-1,"flowDuration":-1)"), "22 invalid 'flow_rate'");
  EXPECT_EQ(refusal(R"(,"flowRate":1,"arrival":"x","duration":"x")"),
            "22 'arrival' must be either 'uniform' or 'exponential'");
  EXPECT_EQ(refusal(R"(,"flowRate":1,"duration":"x")"),
            "22 'duration' must be either 'uniform' or 'pareto'");
  EXPECT_EQ(refusal(R"(,"pps":10)"), "");
  const std::string big = R"("template":")" + std::string(2736, 'A') + R"(")";  // 2052 bytes
  EXPECT_EQ(createRefusal("FlowGen", "FlowGenArg", big), "22 'template' is too big");
  EXPECT_EQ(createModule("FlowGen"), "");  // Without a template.
  const auto update = [&](const char* json) {
    return commandRefusal("flowgen0", "update", "FlowGenArg", json);
  };
  EXPECT_EQ(update(R"("pps":-1)"), "22 invalid 'pps'");
  EXPECT_EQ(update(""), "");
  // A refused update keeps the rates: 10 packets a second, and 10 flows.
  EXPECT_EQ(update(R"("pps":1000,"flowRate":1001)"), "22 flow rate cannot be more than pps");
  EXPECT_EQ(update(R"("flowRate":11)"), "22 flow rate cannot be more than pps");
  EXPECT_EQ(update(R"("pps":11,"flowRate":11)"), "");
  EXPECT_EQ(update(R"("pps":10)"), "22 flow rate cannot be more than pps");
}

TEST_F(StandinArguments, ArpResponderWantsBothAddresses) {
  createModule("ArpResponder", "a");
  const auto add = [&](const char* json) {
    return commandRefusal("a", "add", "ArpResponderArg", json);
  };
  EXPECT_EQ(add(R"("macAddr":"zz")"), "22 IP address is missing");
  EXPECT_EQ(add(R"("ip":"256.1.1.1")"), "22 Invalid IP Address: 256.1.1.1");
  EXPECT_EQ(add(R"("ip":"1.2.3.4")"), "22 Invalid MAC Address: ");
  EXPECT_EQ(add(R"("ip":"1.2.3.4","macAddr":"2:0:0:0:0:1")"), "");
}

TEST_F(StandinArguments, VlanPushCutsItsTag) {
  EXPECT_EQ(createRefusal("VLANPush", "VLANPushArg", R"("tci":"65543")"), "");
  EXPECT_EQ(ask(&Stub::ListModules).modules(0).desc(), "PCP=0 DEI=0 VID=7");
}

TEST_F(StandinArguments, AclTakesAnyPrefix) {
  const char* rules = R"("rules":[{"srcIp":"zz"},{"srcIp":"10.0.0.0/40","dstPort":70000}])";
  expectCreations("ACL", "ACLArg", {{rules, ""}});
  EXPECT_EQ(commandRefusal("acl0", "add", "ACLArg", rules), "");
}

TEST_F(StandinArguments, QueueChecksTheRangeOfItsSizeFirst) {
  expectCreations("Queue", "QueueArg",
                  {{R"("size":3)", "22 must be in [4, 16384]"},
                   {R"("size":32768)", "22 must be in [4, 16384]"},
                   {R"("size":1000)", "22 must be a power of 2"},
                   {R"("size":4)", ""},
                   {R"("size":16384)", ""}});
}

TEST_F(StandinArguments, PortUsersSayEachInTheirWayThatThePortIsMissing) {
  for (const char* mclass : {"PortInc", "PortOut"})
    EXPECT_EQ(createRefusal(mclass, std::string(mclass) + "Arg", ""),
              "22 'port' must be given as a string");
  for (const char* mclass : {"QueueInc", "QueueOut"})
    EXPECT_EQ(createRefusal(mclass, std::string(mclass) + "Arg", ""),
              "22 Field 'port' must be specified");
}

TEST_F(StandinArguments, GenericEncapNamesTheField) {
  expectCreations(
      "GenericEncap", "GenericEncapArg",
      {{R"("fields":[{"size":9}])", "22 idx 0: 'size' must be 1-8"},
       {R"("fields":[{"size":4}])", "22 idx 0: must specify 'value' or 'attribute'"},
       {R"("fields":[{"size":4,"attribute":"a"},{"size":1,"value":{"valueInt":256}}])",
        "22 idx 1: not a correct 1-byte value"},
       {R"("fields":[{"size":2,"attribute":""}])", "22 idx 0: add_metadata_attr() failed"}});
}

TEST_F(StandinArguments, NatChecksAllPortRangesBeforeTheFirstAddress) {
  expectCreations("NAT", "NATArg",
                  {{R"("extAddrs":[{"extAddr":"zz"},{"portRanges":[{"begin":9,"end":5}]}])",
                    "22 Port range for address  is malformed"},
                   {R"("extAddrs":[{"extAddr":"zz"}])", "22 invalid IP address zz"}});
}

TEST_F(StandinArguments, StaticNatChecksEachRange) {
  expectCreations(
      "StaticNAT", "StaticNATArg",
      {{R"("pairs":[{"intRange":{"start":"10.0.0.9","end":"10.0.0.1"}}])",
        "22 invalid internal IP address range"},
       {R"("pairs":[{"intRange":{"start":"10.0.0.1","end":"10.0.0.1"},
                     "extRange":{"start":"10.0.0.9","end":"10.0.0.1"}}])",
        "22 invalid external IP address range"},
       {R"("pairs":[{"intRange":{"start":"10.0.0.1","end":"10.0.0.1"},
                     "extRange":{"start":"10.1.0.1","end":"10.1.0.2"}}])",
        "22 internal and external IP address ranges must have the same size"},
       {R"("pairs":[{"intRange":{"start":"10.0.0.1","end":"10.0.0.2"},
                     "extRange":{"start":"10.1.0.1","end":"10.1.0.2"}}])",
        ""},
       {R"("pairs":[{"intRange":{"start":"10.0.0.1","end":""}}])", "22 invalid IP address "}});
}

TEST_F(StandinArguments, DumpTakesNoIntervalOnlyAtCreation) {
  EXPECT_EQ(createRefusal("Dump", "DumpArg", R"("interval":0)"), "");
  EXPECT_EQ(createRefusal("Dump", "DumpArg", R"("interval":-1)"), "22 invalid interval");
  EXPECT_EQ(commandRefusal("dump0", "set_interval", "DumpArg", ""), "22 invalid interval");
  EXPECT_EQ(commandRefusal("dump0", "set_interval", "DumpArg", R"("interval":2)"), "");
}

TEST_F(StandinArguments, PopulateWantsABase) {
  createModule("L2Forward", "l2");
  const auto populate = [&](const char* json) {
    return commandRefusal("l2", "populate", "L2ForwardCommandPopulateArg", json);
  };
  EXPECT_EQ(populate(""), "22 base must exist in gen, and must be string");
  EXPECT_EQ(populate(R"("base":"zz","count":1,"gateCount":1)"), "22  is not a proper mac address");
}

TEST_F(StandinArguments, InitialArgumentsAreAsTheClassTellsThem) {
  createRefusal("NAT", "NATArg", R"("extAddrs":[{"extAddr":"10.0.0.1"}])");
  bess::pb::NATArg nat;
  ASSERT_TRUE(command("nat0", "get_initial_arg", bess::pb::EmptyArg()).data().UnpackTo(&nat));
  ASSERT_EQ(nat.ext_addrs(0).port_ranges_size(), 1);
  EXPECT_EQ(nat.ext_addrs(0).port_ranges(0).end(), 65535u);
  createRefusal("UrlFilter", "UrlFilterArg", R"("blacklist":[{"host":"a","path":"/x"}])");
  bess::pb::UrlFilterArg url;
  ASSERT_TRUE(
      command("url-filter0", "get_initial_arg", bess::pb::EmptyArg()).data().UnpackTo(&url));
  EXPECT_EQ(url.blacklist_size(), 0);
}

TEST_F(StandinArguments, EveryClassRefusesInItsWords) {
  const struct {
    const char* mclass;
    const char* argument;
    const char* json;
    const char* refusal;  // Empty: none.
  } rows[] = {
      {"Source", "SourceArg", R"("pktSize":2049)", "22 Invalid packet size"},
      {"Source", "SourceArg", R"("pktSize":2048)", ""},
      {"RandomSplit", "RandomSplitArg", R"("dropRate":1.5,"gates":[9999])",
       "22 drop rate needs to be between [0, 1]"},
      {"RandomSplit", "RandomSplitArg", R"("dropRate":-0.5)",
       "22 drop rate needs to be between [0, 1]"},
      {"RandomSplit", "RandomSplitArg", R"("gates":[8193])", "22 Invalid gate 8193"},
      {"RandomSplit", "RandomSplitArg", R"("dropRate":1,"gates":[8191])", ""},
      {"RoundRobin", "RoundRobinArg", R"("mode":"x")",
       "22 argument must be either 'packet' or 'batch'"},
      {"Split", "SplitArg", "", "22 'size' must be 1-8"},
      {"Split", "SplitArg", R"("size":9)", "22 'size' must be 1-8"},
      {"Split", "SplitArg", R"("size":1,"offset":-1)", "22 invalid 'offset'"},
      {"Split", "SplitArg", R"("size":1,"offset":1025)", "22 invalid 'offset'"},
      {"Split", "SplitArg", R"("size":1,"attribute":"")", "22 add_metadata_attr() failed"},
      {"Split", "SplitArg", R"("size":1,"offset":1024)", ""},
      {"GenericDecap", "GenericDecapArg", R"("bytes":1025)", "22 invalid decap size"},
      {"GenericDecap", "GenericDecapArg", R"("bytes":1024)", ""},
      {"VXLANEncap", "VXLANEncapArg", R"("dstport":65536)", "22 invalid 'dstport' field"},
      {"VXLANEncap", "VXLANEncapArg", R"("dstport":65535)", ""},
      {"BPF", "BPFArg", R"("filters":[{"gate":8192}])", "22 Invalid gate"},
      {"BPF", "BPFArg", R"("filters":[{"gate":-1}])", "22 Invalid gate"},
      {"L2Forward", "L2ForwardArg", R"("size":3)",
       "22 initialization failed with argument size: '3' bucket: '4'"},
      {"L2Forward", "L2ForwardArg", R"("bucket":3)",
       "22 initialization failed with argument size: '4096' bucket: '3'"},
      {"NAT", "NATArg", "", "22 at least one external IP address must be specified"},
      {"PortInc", "PortIncArg", R"("port":"nope")", "19 Port nope not found"},
      {"PortOut", "PortOutArg", R"("port":"nope")", "19 Port nope not found"},
      {"QueueInc", "QueueIncArg", R"("port":"nope")", "19 Port nope not found"},
      {"QueueOut", "QueueOutArg", R"("port":"nope")", "19 Port nope not found"},
      {"ExactMatch", "ExactMatchArg", R"("fields":[{"numBytes":9}])",
       "22 idx 0: 'size' must be in [1,8]"},
      {"ExactMatch", "ExactMatchArg", R"("fields":[{"numBytes":1},{"numBytes":1,"offset":1025}])",
       "22 idx 1: invalid 'offset'"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(createRefusal(row.mclass, row.argument, row.json), row.refusal)
        << row.mclass << row.json;
}

TEST_F(StandinArguments, EveryCommandRefusesInItsWords) {
  createPort("p", "net_null0", 2);
  createRefusal("PortInc", "PortIncArg", R"("port":"p")");
  createPort("q", "net_null1");
  createRefusal("QueueInc", "QueueIncArg", R"("port":"q")");
  createRefusal("ExactMatch", "ExactMatchArg", R"("fields":[{"numBytes":1,"offset":23}])");
  createRefusal("WildcardMatch", "WildcardMatchArg", R"("fields":[{"numBytes":1,"offset":23}])");
  createRefusal("FlowGen", "FlowGenArg",
                R"("template":"BhY+G3IyAh5nn02uCABFAAAqAAEAAEARAAAKAAABCgAAAicRJxIAFg==")");
  for (const char* mclass : {"BPF", "DRR", "HashLB", "IPLookup", "L2Forward", "Queue",
                             "RandomSplit", "RoundRobin", "Source"})
    createModule(mclass, mclass);
  const char* burst = "22 burst size must be [0,64]";
  const struct {
    const char* module;
    const char* cmd;
    const char* argument;
    const char* json;
    const char* refusal;  // Empty: none.
  } rows[] = {
      {"Source", "set_burst", "SourceCommandSetBurstArg", R"("burst":65)", burst},
      {"Source", "set_burst", "SourceCommandSetBurstArg", R"("burst":64)", ""},
      {"Source", "set_pkt_size", "SourceCommandSetPktSizeArg", "", "22 Invalid packet size"},
      {"Source", "set_pkt_size", "SourceCommandSetPktSizeArg", R"("pktSize":2049)",
       "22 Invalid packet size"},
      {"Queue", "set_burst", "QueueCommandSetBurstArg", R"("burst":65)", burst},
      {"Queue", "set_size", "QueueCommandSetSizeArg", R"("size":2)", "22 must be in [4, 16384]"},
      {"flowgen0", "set_burst", "FlowGenCommandSetBurstArg", R"("burst":65)", burst},
      {"port_inc0", "set_burst", "PortIncCommandSetBurstArg", R"("burst":65)", burst},
      {"queue_inc0", "set_burst", "QueueIncCommandSetBurstArg", R"("burst":65)", burst},
      {"DRR", "set_quantum_size", "DRRQuantumArg", "", "22 quantum size must be at least 1"},
      {"DRR", "set_max_flow_queue_size", "DRRMaxFlowQueueSizeArg", "",
       "22 max queue size must be at least 1"},
      {"RandomSplit", "set_droprate", "RandomSplitCommandSetDroprateArg", R"("dropRate":1.5)",
       "22 drop rate needs to be between [0, 1]"},
      {"RandomSplit", "set_gates", "RandomSplitCommandSetGatesArg", R"("gates":[8193])",
       "22 Invalid gate 8193"},
      {"RoundRobin", "set_mode", "RoundRobinCommandSetModeArg", R"("mode":"x")",
       "22 argument must be either 'packet' or 'batch'"},
      {"HashLB", "set_mode", "HashLBCommandSetModeArg", R"("mode":"l9")",
       "22 available LB modes: l2, l3, l4"},
      {"IPLookup", "add", "IPLookupCommandAddArg", "", "22 prefix' is missing"},
      {"IPLookup", "add", "IPLookupCommandAddArg", R"("prefix":"10.0.0")",
       "22 Invalid IP prefix: 10.0.0"},
      {"IPLookup", "add", "IPLookupCommandAddArg", R"("prefix":"10.0.0.0","prefixLen":33)",
       "22 Invalid prefix length: 33"},
      {"IPLookup", "add", "IPLookupCommandAddArg", R"("prefix":"10.0.0.1","prefixLen":24)",
       "22 Invalid IP prefix 10.0.0.1/24 a000001 ffffff00"},
      {"IPLookup", "add", "IPLookupCommandAddArg",
       R"("prefix":"10.0.0.0","prefixLen":24,"gate":8193)", "22 Invalid gate: 8193"},
      {"IPLookup", "delete", "IPLookupCommandDeleteArg", R"("prefix":"10.0.0.0","prefixLen":24)",
       "2 rpm_lpm_delete() failed"},
      {"IPLookup", "add", "IPLookupCommandAddArg", R"("prefix":"0.0.0.0")", ""},
      {"IPLookup", "delete", "IPLookupCommandDeleteArg", R"("prefix":"0.0.0.0")", ""},
      {"BPF", "add", "BPFArg", R"("filters":[{"gate":8192}])", "22 Invalid gate"},
      {"L2Forward", "add", "L2ForwardCommandAddArg", R"("entries":[{}])",
       "22 add list item map must contain addr as a string"},
      {"L2Forward", "add", "L2ForwardCommandAddArg", R"("entries":[{"addr":"zz"}])",
       "22 zz is not a proper mac address"},
      {"L2Forward", "add", "L2ForwardCommandAddArg", R"("entries":[{"addr":"2:0:0:0:0:1"}])", ""},
      {"L2Forward", "add", "L2ForwardCommandAddArg", R"("entries":[{"addr":"2:0:0:0:0:1"}])",
       "17 MAC address '2:0:0:0:0:1' already exist"},
      {"L2Forward", "delete", "L2ForwardCommandDeleteArg", R"("addrs":[""])",
       "22 delete list item map must contain addr as a string"},
      {"L2Forward", "delete", "L2ForwardCommandDeleteArg", R"("addrs":["2:0:0:0:0:2"])",
       "2 MAC address '2:0:0:0:0:2' does not exist"},
      {"L2Forward", "lookup", "L2ForwardCommandLookupArg", R"("addrs":["2:0:0:0:0:2"])",
       "2 MAC address '2:0:0:0:0:2' does not exist"},
      {"L2Forward", "lookup", "L2ForwardCommandLookupArg", R"("addrs":[""])",
       "22 lookup list item map must contain addr as a string"},
      {"L2Forward", "populate", "L2ForwardCommandPopulateArg", R"("base":"2:0:0:0:0:1","count":1)",
       "22 'count' or 'gate_count' is out of range"},
      {"em0", "add", "ExactMatchCommandAddArg", R"("gate":8193)", "22 Invalid gate: 8193"},
      {"em0", "add", "ExactMatchCommandAddArg", "", "22 'fields' must be a list"},
      {"em0", "add", "ExactMatchCommandAddArg", R"("fields":[{"valueInt":256}])",
       "22 idx 0: not a correct 1-byte value"},
      {"em0", "delete", "ExactMatchCommandDeleteArg", "", "22 argument must be a list"},
      {"em0", "delete", "ExactMatchCommandDeleteArg", R"("fields":[{"valueInt":6}])",
       "2 rule doesn't exist"},
      {"wm0", "add", "WildcardMatchCommandAddArg", "", "22 must specify 1 values"},
      {"wm0", "add", "WildcardMatchCommandAddArg", R"("values":[{"valueInt":1}])",
       "22 must specify 1 masks"},
      {"wm0", "delete", "WildcardMatchCommandDeleteArg",
       R"("values":[{"valueInt":1}],"masks":[{"valueInt":1}])", "2 failed to delete a rule"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(commandRefusal(row.module, row.cmd, row.argument, row.json), row.refusal)
        << row.module << " " << row.cmd << " " << row.json;
}

TEST_F(StandinArguments, ClassesWhoseMessagesAreForeignRefuseTheirDefaults) {
  const struct {
    const char* mclass;
    const char* argument;
    const char* refusal;
  } rows[] = {
      {"Counter", "CounterArg", "22 Invalid counter idx name"},
      {"FlowMeasure", "FlowMeasureArg", "22 invalid flag attribute name"},
      {"GtpuEcho", "GtpuEchoArg", "22 Invalid S1U SGW IP address!"},
      {"IPDefrag", "IPDefragArg", "22 Invalid num_flows!"},
      {"IPFrag", "IPFragArg", "22 Invalid MTU size!"},
  };
  for (const auto& row : rows) {
    bess::pb::CreateModuleRequest request;
    request.set_mclass(row.mclass);
    request.mutable_arg()->set_type_url(std::string("type.googleapis.com/bess.pb.") + row.argument);
    EXPECT_EQ(refusal(call(&Stub::CreateModule, request).error()), row.refusal) << row.mclass;
    request.mutable_arg()->set_value("\x08\x64");
    EXPECT_EQ(refusal(call(&Stub::CreateModule, request).error()), "") << row.mclass;
    EXPECT_EQ(createRefusal(row.mclass, "EmptyArg", ""), row.refusal) << row.mclass;
  }
}
