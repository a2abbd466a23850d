#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "SwitchFixture.h"

// What is wrong with a document, and where; and what is right in it.

namespace Norv::State {

namespace {

struct Wrong {
  const char* document;
  const char* problem;
};

// So that a failing row names itself.
void PrintTo(const Wrong& wrong, std::ostream* out) {
  *out << wrong.document;
}

class WrongDocument : public testing::TestWithParam<Wrong> {};

TEST_P(WrongDocument, IsToldWithItsPlace) {
  EXPECT_EQ(problems(GetParam().document), GetParam().problem);
}

constexpr Wrong form[] = {
    {"modules: [", "f:1:1: not YAML: end of sequence flow not found"},
    {"- a", "f:1:1: a map of sections belongs here"},
    {"module: {}", "f:1:1: no section \"module\"; did you mean \"modules\"?"},
    {"ports: 5", "f:1:8: a map belongs here"},
    {"connections: {}", "f:1:14: a list belongs here"},
    {"modules: {a: Sink, a: Sink}", "f:1:20: \"a\" a second time in the same map"},
    {"modules: {a: &x Sink, b: *x}", "f:1:26: an alias; write what it stands for"},
    {"modules: {a: !!str Sink}", "f:1:14: a tag, \"tag:yaml.org,2002:str\"; leave it out"},
    {"modules: {[a]: Sink}", "f:1:11: a key that is no text"},
    {"modules:\n  a\xff: Sink", "f:2:4: no UTF-8"},
    {"a: \xed\xa0\x80", "f:1:4: no UTF-8"},
    {"a: \xe0\x9f\xbf", "f:1:4: no UTF-8"},
    {"  ,  ", "f:1:3: not YAML: no value begins so"},
    {"modules: {}\n,", "f:2:1: not YAML: end of map not found"},
    {"---\n---\n,\n", "f:3:1: not YAML: no value begins so"},
    {"a: \xf0\x8f\xbf\xbf", "f:1:4: no UTF-8"},
    {"a: \xf4\x90\x80\x80", "f:1:4: no UTF-8"},
    {"a: 1\n---\nb: 2", "f:3:1: a second document in the file; join them"},
    {"plugins:\n---\n---\nb: 2", "f:4:1: a second document in the file; join them"},
    {"plugins: {a: b}", "f:1:10: a list belongs here"},
    {"plugins: [[a.so]]", "f:1:11: a path belongs here"},
    {"plugins: [a.so, a.so]", "f:1:17: plugin a.so is stated a second time; first at f:1:11"},
};
INSTANTIATE_TEST_SUITE_P(Form, WrongDocument, testing::ValuesIn(form));

// YAML has no place for them, and the parser makes of some what is not even text.
TEST(Document, RefusesControlCharacters) {
  for (char c = 0; c < 0x20; ++c) {
    const bool known = c == '\t' || c == '\n' || c == '\r';
    for (const std::string quote : {"", "\""}) {
      const std::string text =
          "plugins:\n  - " + quote + "a" + std::string(1, c) + "b" + quote + "\n";
      const bool refused =
          problems(text).starts_with("f:2:" + std::string(quote.empty() ? "6" : "7") +
                                     ": a control character, which YAML does not know");
      EXPECT_EQ(refused, !known) << static_cast<int>(c) << quote;
    }
  }
  const Document escaped = readDocument({{"f", "plugins:\n  - \"a\\x01b\"\n"}});
  const std::string written = yaml(escaped.wanted);
  EXPECT_NE(written.find("\"a\\x01b\""), std::string::npos) << written;
  EXPECT_EQ(yaml(readDocument({{"f", written}}).wanted), written);
}

constexpr Wrong modules[] = {
    {"modules: {a: Sinc}", "f:1:14: no module class \"Sinc\"; did you mean \"Sink\"?"},
    {"modules: {a: {clas: Sink}}", "f:1:11: module a needs a \"class\""},
    {"modules: {a: [Sink]}",
     "f:1:11: module a needs a class: \"a: Sink\", or {class: Source, arg: {pkt_size: 60}}"},
    {"modules: {a: {class: Sink, burst: 3}}", "f:1:28: no \"burst\" in a module of class Sink"},
    {"modules: {a: {class: Source, arg: {pkt_sise: 60}}}",
     "f:1:36: no field \"pkt_sise\" in SourceArg; did you mean \"pkt_size\"?"},
    {"modules: {a: {class: Source, arg: {pkt_size: many}}}",
     "f:1:46: no number that fits field \"pkt_size\": many"},
    {"modules: {a: {class: Source, arg: {pkt_size: -1}}}",
     "f:1:46: no number that fits field \"pkt_size\": -1"},
    {"modules: {a: {class: Source, arg: {pkt_size: 60, pktSize: 61}}}",
     "f:1:50: field \"pkt_size\" a second time"},
    {"modules: {a: {class: Source, arg: 5}}",
     "f:1:35: a map of the fields of SourceArg belongs here"},
    {"modules: {a: {class: PortInc, arg: {port: p}, burst: drop}}",
     "f:1:54: \"burst\" is a number, not \"drop\""},
    {"modules: {a: {class: Source, burst: x}}", "f:1:37: \"burst\" is a number, not \"x\""},
    {"modules: {a: {class: Sink, tasks: x}}", "f:1:35: class Sink has no tasks"},
    {"modules: {a: {class: Source, tasks: {}}}", "f:1:37: a task needs a \"parent\" or a \"wid\""},
    {"modules: {a: {class: Source, tasks: {parent: x, wid: 0}}}",
     "f:1:54: \"wid\" beside \"parent\"; one of them"},
    {"modules: {a: {class: Split, arg: {attribute: x, offset: 3}}}",
     "f:1:49: \"offset\" beside \"attribute\"; one of them"},
    {"modules: {a: {class: Queue, arg: {prefetch: yes}}}", "f:1:45: true or false belongs here"},
    {"modules: {a: {class: Qos, arg: {x: 1}}}",
     "f:1:32: what argument Qos takes is not known here; leave it out"},
    {"modules: {\"\": Sink}", "f:1:11: a module needs a name"},
    {"modules: {a: {class: HashLB, arg: {mode: l5}}}",
     "f:1:42: no \"mode\" is called \"l5\"; there are l2, l3, l4"},
    {"modules: {a: {class: RoundRobin, arg: {mode: Packet}}}",
     "f:1:46: no \"mode\" is called \"Packet\"; there are packet, batch"},
    {"modules: {a: {class: [Sink]}}",
     "f:1:22: a value belongs here, of \"class\"\nf:1:11: module a needs a \"class\""},
    {"modules: {a: {class: Source, tasks: [[x]]}}",
     "f:1:38: the name of a traffic class belongs here, or {wid: 0}"},
    {"modules: {a: {class: Source, tasks: {paren: x}}}",
     "f:1:38: no \"paren\" in the place of a task; did you mean \"parent\"?\n"
     "f:1:37: a task needs a \"parent\" or a \"wid\""},
    {"modules: {a: {class: Source, tasks: {parent: x, priority: high}}}",
     "f:1:59: \"priority\" is a number, not \"high\""},
    {"modules: {a: {class: Source, tasks: {wid: 64}}}",
     "f:1:43: \"wid\" is a number up to 63, not \"64\"\n"
     "f:1:37: a task needs a \"parent\" or a \"wid\""},
    {"modules: {a: {class: HashLB, arg: {gates: 1}}}", "f:1:43: a list belongs here"},
    {"modules: {a: {class: HashLB, arg: {gates: [[1]]}}}",
     "f:1:44: a value belongs here, of field \"gates\""},
    {"modules: {a: {class: WorkerSplit, arg: {worker_gates: [1]}}}", "f:1:55: a map belongs here"},
    {"modules: {a: {class: RandomSplit, arg: {drop_rate: often}}}", "f:1:52: no number"},
    {"modules: {a: {class: FlowGen, arg: {template: 0x00, arrival: poisson, duration: normal}}}",
     "f:1:62: no \"arrival\" is called \"poisson\"; there are uniform, exponential\n"
     "f:1:81: no \"duration\" is called \"normal\"; there are uniform, pareto"},
};
INSTANTIATE_TEST_SUITE_P(Modules, WrongDocument, testing::ValuesIn(modules));

constexpr Wrong values[] = {
    {"modules: {a: {class: ExactMatch, arg: {fields: [{num_bytes: 4}]}, rules: [{fields: "
     "[10.0.0]}]}}",
     "f:1:85: \"10.0.0\" is no value of 4 bytes: an address, a number, 0x... or base64 belongs "
     "here"},
    {"modules: {a: {class: ExactMatch, arg: {fields: [{num_bytes: 1}]}, rules: [{fields: [256]}]}}",
     "f:1:85: \"256\" is no value of 1 bytes: an address, a number, 0x... or base64 belongs here"},
    {"modules: {a: {class: ExactMatch, arg: {fields: [{num_bytes: 2}]}, "
     "rules: [{fields: [1]}, {gate: 2, fields: [0x0001]}]}}",
     "f:1:90: this entry is stated a second time; first at f:1:75"},
    {"modules: {a: {class: ExactMatch, rules: [{gate: 8193}]}}",
     "f:1:42: gate 8193 is above the last of class ExactMatch, 8191"},
    {"modules: {a: {class: ExactMatch, default_gate: 65536}}",
     "f:1:48: \"default_gate\" is a number up to 65535, not 65536"},
    {"modules: {a: {class: ExactMatch, arg: {fields: [{num_bytes: 1}, {num_bytes: 2}]}, "
     "rules: [{fields: [1]}]}}",
     "f:1:91: \"fields\" has 1 value, and the module looks at 2 fields"},
    {"modules: {a: {class: ExactMatch, arg: {fields: [{num_bytes: 1}]}, rules: [{gate: 1}]}}",
     "f:1:75: \"fields\" has 0 values, and the module looks at 1 field"},
    {"modules: {a: {class: IPLookup, rules: [{prefix: 10.0.0.0/33}]}}",
     "f:1:40: a prefix is at most 32 bits long, not 33"},
    {"modules: {a: {class: IPLookup, rules: [{prefix: 10.0.1.0/16}]}}",
     "f:1:40: 10.0.1.0 has bits behind the first 16"},
    {"modules: {a: {class: IPLookup, rules: [{prefix: 10.0.0/8}]}}",
     "f:1:40: no IPv4 address: \"10.0.0\""},
    {"modules: {a: {class: L2Forward, entries: [{addr: \"1:2:3\"}]}}",
     "f:1:43: no MAC address: \"1:2:3\""},
    {"modules: {a: {class: ExactMatch, arg: {fields: [{num_bytes: 2}]}, "
     "rules: [{fields: [{value_bin: AQID}]}]}}",
     "f:1:85: value_bin has 3 bytes, not 2"},
    {"modules: {a: {class: ExactMatch, arg: {fields: [{num_bytes: 2}]}, "
     "rules: [{fields: [{value_int: 65536}]}]}}",
     "f:1:85: value_int does not fit 2 bytes"},
    {"modules: {a: {class: ArpResponder, entries: [{ip: 10.0.0.1, mac_addr: x}]}}",
     "f:1:46: no MAC address: \"x\""},
    {"modules: {a: {class: IPLookup, rules: {prefix: 10.0.0.0/8}}}", "f:1:39: a list belongs here"},
    {"modules: {a: {class: Rewrite, arg: {templates: [\"?\"]}}}",
     "f:1:49: \"?\" is no base64, and no address or 0x number"},
};
INSTANTIATE_TEST_SUITE_P(Values, WrongDocument, testing::ValuesIn(values));

constexpr Wrong others[] = {
    {"ports: {p: {}}", "f:1:9: port p needs a \"driver\""},
    {"ports: {p: PMDport}", "f:1:12: no port driver \"PMDport\"; did you mean \"PMDPort\"?"},
    {"ports: {p: {driver: PMDPort, mac_addr: x}}", "f:1:40: no MAC address: \"x\""},
    {"ports: {p: {driver: PMDPort, mtu: 70000}}",
     "f:1:35: \"mtu\" is a number up to 65535, not \"70000\""},
    {"ports: {p: []}", "f:1:9: port p needs a driver: {driver: PMDPort, arg: {...}}"},
    {"ports: {\"\": PMDPort}", "f:1:9: a port needs a name"},
    {"ports: {p: {driver: PMDPort, speed: 1}}", "f:1:30: no \"speed\" in a port"},
    {"ports: {p: {driver: PMDPort, admin_up: yes}}", "f:1:40: \"admin_up\" is true or false"},
    {"workers: {0: 5}", "f:1:14: a map belongs here: {core: 0}"},
    {"workers: {0: {core: 0}, 0x0: {core: 0}}",
     "f:1:25: worker 0 is stated a second time; first at f:1:11"},
    {"workers: {64: {core: 0}}", "f:1:11: a worker is a number from 0 to 63, not \"64\""},
    {"workers: {0: {scheduler: fast}}",
     "f:1:26: no scheduler is called \"fast\"; there is experimental, or leave it out"},
    {"workers: {0: {cor: 0}}", "f:1:15: no \"cor\" in a worker; did you mean \"core\"?"},
    {"connections: [a b]",
     "f:1:15: \"a b\" is no connection; as in \"in -> fib\" or \"fib:1 -> 0:drop\""},
    {"connections: [a -> b -> c]",
     "f:1:15: \"a -> b -> c\" is no connection; as in \"in -> fib\" or \"fib:1 -> 0:drop\""},
    {"connections: [{from: a}]", "f:1:15: a connection needs \"from\" and \"to\""},
    {"connections: [[a, b]]", "f:1:15: a connection belongs here, as in \"in -> fib\""},
    {"connections: [{from: a, to: b, gate: 1}]",
     "f:1:32: no \"gate\" in a connection; did you mean \"ogate\"?"},
    {"connections: [{from: a, to: b, ogate: 65536}]",
     "f:1:39: \"ogate\" is a number up to 65535, not \"65536\""},
    {"modules: {a: Merge, b: Sink}\nconnections: [a -> b, \"a:0 -> b\"]",
     "f:2:23: connection a:0 is stated a second time; first at f:2:15"},
    {"traffic_classes: {\"!x\": {policy: priority}}",
     "f:1:19: a traffic class needs a name that does not begin with \"!\""},
    {"traffic_classes: {x: [priority]}", "f:1:19: traffic class x needs a policy"},
    {"traffic_classes: {x: {wid: 0}}", "f:1:19: traffic class x needs a \"policy\""},
    {"traffic_classes: {x: {policy: priority, weight: 1}}",
     "f:1:41: no \"weight\" in a traffic class; did you mean \"wid\"?"},
    {"traffic_classes: {x: {policy: rate_limit, limit: {packet: 1, bit: 2}}}",
     "f:1:50: one resource belongs into \"limit\", as in {packet: 1000}\n"
     "f:1:22: rate_limit needs a \"resource\": count, cycle, packet or bit"},
    {"traffic_classes: {x: {policy: rate_limit, resource: bit, limit: {packet: 1}}}",
     "f:1:66: resource \"packet\" is not that of the class, \"bit\""},
    {"traffic_classes: {x: {policy: rate_limit, limit: {packet: much}}}",
     "f:1:59: \"packet\" is a number, not \"much\""},
    {"traffic_classes: {x: {policy: weighted_fair, limit: {packet: 1}}}",
     "f:1:22: weighted_fair takes no limit or max_burst"},
    {"traffic_classes: {x: prority}", "f:1:22: no policy \"prority\"; did you mean \"priority\"?"},
    {"traffic_classes: {x: {policy: rate_limit, wid: 0}}",
     "f:1:22: rate_limit needs a \"resource\": count, cycle, packet or bit"},
    {"traffic_classes: {x: {policy: rate_limit, limit: {packets: 1}}}",
     "f:1:22: no resource \"packets\"; did you mean \"packet\"?"},
    {"traffic_classes: {x: {policy: round_robin, limit: {packet: 1}}}",
     "f:1:22: round_robin takes no resource, limit or max_burst"},
    {"hooks: [{class: Trac, module: a, ogate: 0}]",
     "f:1:17: no hook class \"Trac\"; did you mean \"Track\"?"},
    {"hooks: [Track]", "f:1:9: a map belongs here: {class: Track, module: fib, ogate: 0}"},
    {"hooks: [{class: Track, ogate: 0}]", "f:1:9: a hook needs a \"class\" and a \"module\""},
    {"hooks: [{class: Track, module: a, gate: 0, ogate: 0}]",
     "f:1:35: no \"gate\" in a hook; did you mean \"igate\"?"},
    {"hooks: [{class: Track, module: a, ogate: 0, igate: 0}]",
     "f:1:9: a hook needs either an \"igate\" or an \"ogate\""},
    {"hooks: [{class: Track, module: a, ogate: 0, arg: 5}]",
     "f:1:50: a map of the fields of TrackArg belongs here"},
    {"hooks: [{class: Track, module: a}]",
     "f:1:9: a hook needs either an \"igate\" or an \"ogate\""},
};
INSTANTIATE_TEST_SUITE_P(Others, WrongDocument, testing::ValuesIn(others));

constexpr Wrong references[] = {
    {"modules: {fib: Merge}\nconnections: [fib -> fob]",
     "f:2:15: no module \"fob\" here; did you mean \"fib\"?"},
    {"modules: {a: Sink, b: Sink}\nconnections: [a -> b]",
     "f:2:15: module a has no output 0: class Sink has none"},
    {"modules: {a: Source, b: NAT}\nconnections: [a -> 2:b]",
     "f:2:15: module b has no input 2: class NAT has 2, the last is 1"},
    {"modules: {a: {class: PortInc, arg: {port: p}}}", "f:1:11: module a: no port \"p\" here"},
    {"modules: {a: {class: Source, tasks: slow}}",
     "f:1:11: module a: no traffic class \"slow\" here"},
    {"workers: {}\nmodules: {a: {class: Source, tasks: {wid: 3}}}",
     "f:2:11: module a: no worker 3 here; state it under \"workers\""},
    {"traffic_classes: {x: {policy: round_robin, parent: y}, y: {policy: round_robin, parent: x}}",
     "f:1:19: traffic class x is below itself\nf:1:56: traffic class y is below itself"},
    {"traffic_classes: {x: {policy: round_robin, wid: 0, priority: 1}}",
     "f:1:62: a \"priority\" counts only below a \"parent\""},
    {"traffic_classes: {x: {policy: round_robin, share: 1}}",
     "f:1:51: a \"share\" counts only below a \"parent\""},
    {"workers: {0: }\ntraffic_classes: {p: {policy: priority, wid: 0},\n"
     " x: {policy: round_robin, parent: p, priority: -1}}",
     "f:3:2: traffic class x: a \"priority\" is 0 or more"},
    {"workers: {0: }\ntraffic_classes: {w: {policy: weighted_fair, resource: bit, wid: 0},\n"
     " x: {policy: round_robin, parent: w, share: 0}}",
     "f:3:2: traffic class x: a \"share\" is 1 or more"},
    {"workers: {0: }\ntraffic_classes: {p: {policy: priority, wid: 0},\n"
     " x: {policy: round_robin, parent: p, priority: 1}}\n"
     "modules: {a: {class: Source, tasks: {parent: p, priority: 1}}}",
     "f:4:11: module a: traffic class x is below p at this priority, too"},
    {"workers: {0: }\ntraffic_classes: {r: {policy: rate_limit, resource: bit, wid: 0}}\n"
     "modules: {a: {class: Source, tasks: r}, b: {class: Source, tasks: r}}",
     "f:3:41: module b: module a is below r, and it takes one only"},
    {"traffic_classes: {p: {policy: priority, wid: 0}, x: {policy: round_robin, parent: p}}",
     "f:1:50: traffic class x needs a \"priority\" below p"},
    {"workers: {0: }\ntraffic_classes: {w: {policy: weighted_fair, resource: bit, wid: 0},\n"
     " x: {policy: round_robin, parent: w}}",
     "f:3:2: traffic class x needs a \"share\" below w"},
    {"traffic_classes: {x: {policy: round_robin, parent: y}}",
     "f:1:19: traffic class x: no traffic class \"y\" here; did you mean \"x\"?"},
    {"hooks: [{class: Track, module: b, igate: 0}]", "f:1:9: no module \"b\" here"},
    {"modules: {a: Merge, b: Sink}\nhooks: [{class: Track, module: a, ogate: 3}]",
     "f:2:9: a hook needs a connection: nothing is connected to output a:3"},
    {"modules: {a: Merge, b: Sink}\nhooks: [{class: Track, module: b, igate: 0}]",
     "f:2:9: a hook needs a connection: nothing is connected to input b:0"},
};
INSTANTIATE_TEST_SUITE_P(References, WrongDocument, testing::ValuesIn(references));

}  // namespace

TEST(Document, TooDeepIsRefusedBeforeTheParserGoesThere) {
  EXPECT_EQ(problems("a: " + std::string(1000, '[') + std::string(1000, ']')),
            "f:1:35: nested more than 32 deep");
  EXPECT_NE(problems(std::string(100000, '[')), "");
  EXPECT_NE(problems(std::string(100000, '{')), "");
}

TEST(Document, AllProblemsAreToldAtOnce) {
  EXPECT_EQ(
      problems("modules: {a: Sinc}\nports: {p: {}}"),
      "f:1:14: no module class \"Sinc\"; did you mean \"Sink\"?\nf:2:9: port p needs a \"driver\"");
}

TEST(Document, ObjectsOfSeveralFilesAreJoinedAndStatedOnce) {
  const Document document =
      readDocument({{"a.yaml", "modules: {x: Sink}"}, {"b.yaml", "modules: {y: Sink}"}});
  EXPECT_EQ(document.wanted.modules.size(), 2u);
  try {
    readDocument({{"a.yaml", "modules: {x: Sink}"}, {"b.yaml", "\nmodules: {x: Sink}"}});
    FAIL() << "no error";
  } catch (const DocumentError& error) {
    EXPECT_STREQ(error.what(),
                 "b.yaml:2:11: module x is stated a second time; first at a.yaml:1:11");
  }
}

TEST(Document, ItsObjectsAreThoseThatItNames) {
  EXPECT_EQ(wanted("plugins: [x.so]\nworkers: {0: }\nports: {p: PMDPort}\n"
                   "modules: {a: Merge, b: Merge}\n"
                   "connections: [a -> b, {from: b, to: a, skip_default_hooks: true}]\n"
                   "hooks: [{class: Track, module: a, ogate: 0, name: mine}]\n"
                   "traffic_classes: {t: round_robin}\n")
                .objects(),
            9u);
}

TEST(Document, JsonIsTakenToo) {
  const Switch one =
      wanted(R"({"modules": {"a": {"class": "Rewrite", "arg": {"templates": ["AAEC"]}}}})");
  EXPECT_EQ(yaml(one), "modules:\n  a: {class: Rewrite, arg: {templates: [AAEC]}}\n");
}

// A parser of YAML looks for the colon behind a key no further than 1,024 characters.
TEST(Document, NamesMayBeOfAnyLength) {
  const std::string longName(3000, 'n'), escapedName = std::string(300, '\x01');
  Switch described;
  described.modules[longName].moduleClass = "Sink";
  described.modules[escapedName].moduleClass = "Sink";
  for (auto& [name, module] : described.modules) module.arg = Any();
  described.workersStated = false;
  for (const std::string& text : {yaml(described), json(described)}) {
    const Switch again = wanted(text);
    EXPECT_EQ(again.modules.count(longName), 1u);
    EXPECT_EQ(again.modules.count(escapedName), 1u);
    EXPECT_EQ(yaml(again), yaml(described));
  }
  // The same in one line, as people write it, with a quote that begins nothing.
  EXPECT_EQ(wanted("{modules: {a\": Sink, b: Sink}}").modules.count("a\""), 1u);
  EXPECT_EQ(wanted("{\"modules\":{\"" + longName + "\":\"Sink\",\"b\\\"\":\"Sink\"}}")
                .modules.count("b\""),
            1u);
}

TEST(Document, OfAPluginMayHaveUnknownClasses) {
  EXPECT_EQ(problems("plugins: [x.so]\nmodules: {a: Mine}"), "");
}

TEST(Document, ValuesAreWrittenAsPeopleWriteThem) {
  const std::string written =
      "modules:\n"
      "  em:\n"
      "    class: ExactMatch\n"
      "    arg: {fields: [{offset: 26, num_bytes: 4}, {offset: 0, num_bytes: 6}, {offset: 36, "
      "num_bytes: 2}]}\n"
      "    rules:\n"
      "      - {gate: 1, fields: [10.0.0.1, \"2:0:0:0:0:1\", 0x50]}\n"
      "      - {gate: 2, fields: [0x0a000002, 0x020000000002, 443]}\n"
      "      - {gate: 3, fields: [{value_int: 167772163}, {value_bin: AgAAAAAD}, {valueInt: "
      "\"8080\"}]}\n";
  EXPECT_EQ(yaml(wanted(written)),
            "modules:\n"
            "  em:\n"
            "    class: ExactMatch\n"
            "    arg: {fields: [{offset: 26, num_bytes: 4}, {offset: 0, num_bytes: 6}, {offset: "
            "36, num_bytes: 2}]}\n"
            "    rules:\n"
            "      - {gate: 1, fields: [10.0.0.1, 02:00:00:00:00:01, 80]}\n"
            "      - {gate: 2, fields: [10.0.0.2, 02:00:00:00:00:02, 443]}\n"
            "      - {gate: 3, fields: [10.0.0.3, 02:00:00:00:00:03, 8080]}\n");
}

TEST(Document, ShortNumbersInJsonAreNoBase64UnlessPadded) {
  const Switch one = wanted(
      "modules:\n"
      "  m:\n"
      "    class: SetMetadata\n"
      "    arg: {attrs: [{name: a, size: 1, value_bin: 12}, {name: b, size: 2, value_bin: "
      "100}]}\n");
  EXPECT_EQ(yaml(wanted(json(one))), yaml(one));
  const std::string coded = R"({"modules": {"m": {"class": "SetMetadata", "arg":
      {"attrs": [{"name": "a", "size": 1, "value_bin": "DA=="},
                 {"name": "b", "size": 2, "value_bin": "AGQ="}]}}}})";
  EXPECT_EQ(yaml(wanted(coded)), yaml(one));
}

TEST(Document, PrefixesAreWrittenWithTheirLength) {
  const std::string text =
      "modules:\n"
      "  fib:\n"
      "    class: IPLookup\n"
      "    rules:\n"
      "      - {prefix: 10.0.0.0/8, gate: 1}\n"
      "      - {prefix: 10.1.0.0/16, gate: 2}\n";
  EXPECT_EQ(yaml(wanted(text)), text);
}

TEST(Document, NamesThatNeedItAreQuotedOrInMaps) {
  const std::string text =
      "modules:\n"
      "  \"a:b\": Merge\n"
      "  x -> y: Merge\n"
      "connections:\n"
      "  - {from: \"a:b\", to: x -> y}\n";
  const Switch one = wanted(text);
  EXPECT_EQ(one.connections.at({"a:b", 0}).module, "x -> y");
  EXPECT_EQ(yaml(wanted(yaml(one))), yaml(one));
}

TEST(Document, IsTheSameFromYamlAndFromJson) {
  const Switch one = wanted(contents(NORV_EXAMPLE));
  EXPECT_EQ(yaml(wanted(json(one))), yaml(one));
}

TEST(Document, OfJsonMayHaveTheHalvesOfACharacter) {
  const Switch read = wanted(R"({"modules": {"b\ud83d\ude00\u00e9\\ud83d": "Sink"}})");
  EXPECT_EQ(read.modules.count("b\xf0\x9f\x98\x80\xc3\xa9\\ud83d"), 1u);
  // Half of one is none.
  EXPECT_NE(problems(R"({"modules": {"b\ud83d": "Sink"}})"), "");
}

TEST(Document, MayBeginAndEndAsDocumentsOfYamlDo) {
  for (const char* const text :
       {"---\nmodules: {a: Sink}\n", "modules: {a: Sink}\n---\n", "modules: {a: Sink}\n...\n",
        "---\nmodules: {a: Sink}\n...\n---\n---\n...\n# the end\n"}) {
    EXPECT_EQ(problems(text), "") << text;
    EXPECT_EQ(wanted(text).modules.size(), 1u) << text;
  }
}

// The first and the last of each length, and those around what stands for halves of others.
TEST(Document, EveryCharacterOfUtf8IsTaken) {
  for (const char* const character :
       {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbd",
        "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    const std::string name = std::string("m") + character;
    const Document document = readDocument({{"f", "modules: {\"" + name + "\": Sink}"}});
    EXPECT_TRUE(document.wanted.modules.contains(name)) << name;
  }
}

TEST(Document, PlacesBehindLongKeysOfJsonAreThoseOfTheFile) {
  const std::string longName(200, 'a');
  EXPECT_EQ(problems(R"({"modules": {")" + longName + R"(": "Sink", "b": "Sinc", ")" + longName +
                     R"(2": 5, "c": "Sinc"},)" + "\n" + R"( "ports": {"x": "y"}})"),
            "f:1:231: no module class \"Sinc\"; did you mean \"Sink\"?\n"
            "f:1:444: no module class \"5\"\n"
            "f:1:452: no module class \"Sinc\"; did you mean \"Sink\"?\n"
            "f:2:17: no port driver \"y\"");
}

TEST(Document, GatesThatAClassDoesNotHaveAreToldWithoutASwitch) {
  EXPECT_THAT(
      gateWarnings(wanted("modules: {r: {class: Replicate, arg: {gates: [0, 99]}},\n"
                          " e: {class: ExactMatch, arg: {fields: [{num_bytes: 1}]},"
                          " default_gate: 9000}, d: {class: L2Forward, default_gate: drop}}")),
      testing::ElementsAre("module e: its default gate is 9000, and the last of class "
                           "ExactMatch is 8191; drop says that none is meant",
                           "module r: its argument names gate 99, and the last of class "
                           "Replicate is 31"));
}

TEST(Document, OnlyTheFirstProblemsHaveProposals) {
  std::string text = "modules: {there: Sink}\nconnections:\n";
  for (int i = 0; i < 30; ++i) text += "  - there" + std::to_string(i) + " -> there\n";
  std::vector<Problem> found = checkReferences(readDocument({{"f", text}}), nullptr);
  ASSERT_GE(found.size(), 30u);
  EXPECT_THAT(found[0].text, testing::EndsWith("did you mean \"there\"?"));
  EXPECT_THAT(found.back().text, testing::Not(testing::HasSubstr("did you mean")));
}

TEST(Document, HasABoundThatHoldsWhileItIsRead) {
  const std::string file = testing::TempDir() + "/huge.yaml";
  {
    std::ofstream stream(file);
    stream << "#";
  }
  std::filesystem::resize_file(file, 300u << 20);  // holes
  try {
    readFiles({file});
    ADD_FAILURE() << "taken";
  } catch (const DocumentError& error) {
    EXPECT_EQ(error.problems().front().text, "more than 256 MiB; split it up");
  }
  std::filesystem::remove(file);
}

}  // namespace Norv::State
