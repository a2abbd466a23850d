#include <gmock/gmock.h>
#include <google/protobuf/dynamic_message.h>

#include <algorithm>

#include <Norv/State/ClassTable.h>
#include <bess/pb/module_arg.pb.h>
#include <bess/pb/service.pb.h>

#include "SwitchFixture.h"

// A module of every class with settings or a table is changed, there and back, while a worker may
// come to it.

namespace Norv::State {

namespace {

using testing::IsEmpty;

struct ChangeRow {
  const char* moduleClass;
  const char* before;  // of the module, beside its class
  const char* after;
  const char* commands;  // that lead from the one to the other
};

void PrintTo(const ChangeRow& row, std::ostream* stream) {
  *stream << row.moduleClass << " " << row.before << " -> " << row.after;
}

constexpr ChangeRow rows[] = {
    {"ACL", "arg: {rules: [{src_ip: 10.0.0.0/8, drop: true}]}",
     "arg: {rules: [{src_ip: 10.0.0.0/8, drop: true}, {dst_port: 80}]}",
     "pauseWorker\n"
     "add rules { dst_port: 80 }\n"
     "resumeWorker\n"},
    {"ACL", "arg: {rules: [{src_ip: 10.0.0.0/8, drop: true}, {dst_port: 80}]}",
     "arg: {rules: [{dst_port: 80}, {src_ip: 10.0.0.0/8, drop: true}]}",
     "pauseWorker\n"
     "clear \n"
     "add rules { dst_port: 80 } rules { src_ip: \"10.0.0.0/8\" drop: true }\n"
     "resumeWorker\n"},
    {"ArpResponder", "entries: [{ip: 10.0.0.1, mac_addr: 02:00:00:00:00:01}]",
     "entries: [{ip: 10.0.0.1, mac_addr: 02:00:00:00:00:02}, {ip: 10.0.0.2, mac_addr: "
     "02:00:00:00:00:03}]",
     "pauseWorker\n"
     "add ip: \"10.0.0.1\" mac_addr: \"02:00:00:00:00:02\"\n"
     "add ip: \"10.0.0.2\" mac_addr: \"02:00:00:00:00:03\"\n"
     "resumeWorker\n"},
    {"BPF",
     "arg: {filters: [{priority: 1, filter: tcp, gate: 1}, {priority: 2, filter: udp, "
     "gate: 2}]}",
     "arg: {filters: [{priority: 1, filter: tcp, gate: 1}, {priority: 3, filter: icmp, "
     "gate: 3}]}",
     "pauseWorker\n"
     "delete filters { priority: 2 filter: \"udp\" gate: 2 }\n"
     "add filters { priority: 3 filter: \"icmp\" gate: 3 }\n"
     "resumeWorker\n"},
    {"DRR", "arg: {num_flows: 16, quantum: 1500, max_flow_queue_size: 1024}",
     "arg: {num_flows: 16, quantum: 3000, max_flow_queue_size: 2048}",
     "pauseWorker\n"
     "set_quantum_size quantum: 3000\n"
     "set_max_flow_queue_size max_queue_size: 2048\n"
     "resumeWorker\n"},
    {"Dump", "arg: {interval: 1}", "arg: {interval: 2.5}", "set_interval interval: 2.5\n"},
    {"ExactMatch",
     "arg: {fields: [{offset: 26, num_bytes: 4}]}, default_gate: 0, rules: [{gate: 1, "
     "fields: [10.0.0.1]}, {gate: 2, fields: [10.0.0.2]}]",
     "arg: {fields: [{offset: 26, num_bytes: 4}]}, default_gate: 5, rules: [{gate: 1, "
     "fields: [10.0.0.1]}, {gate: 3, fields: [10.0.0.2]}, {gate: 4, fields: [10.0.0.3]}]",
     "pauseWorker\n"
     "add gate: 3 fields { value_bin: \"\\n\\000\\000\\002\" }\n"
     "add gate: 4 fields { value_bin: \"\\n\\000\\000\\003\" }\n"
     "set_default_gate gate: 5\n"
     "resumeWorker\n"},
    {"FlowGen",
     "arg: {template: BhY+G3IyAh5nn02uCABFAAAqAAEAAEARAAAKAAABCgAAAicRJxIAFg==, pps: "
     "1000, flow_rate: 10, flow_duration: 5}",
     "arg: {template: BhY+G3IyAh5nn02uCABFAAAqAAEAAEARAAAKAAABCgAAAicRJxIAFg==, pps: "
     "2000, flow_rate: 10, flow_duration: 5, arrival: exponential}, burst: 16",
     "pauseWorker\n"
     "update template: "
     "\"\\006\\026>\\033r2\\002\\036g\\237M\\256\\010\\000E\\000\\000*\\000\\001\\000\\000@"
     "\\021\\000\\000\\n\\"
     "000\\000\\001\\n\\000\\000\\002\\'\\021\\'\\022\\000\\026\" pps: 2000 flow_rate: 10 "
     "flow_duration: 5 arrival: \"exponential\"\n"
     "resumeWorker\n"},
    {"HashLB", "arg: {gates: [0, 1], mode: l3}", "arg: {gates: [0, 2], mode: l4}",
     "pauseWorker\n"
     "set_gates gates: 0 gates: 2\n"
     "set_mode mode: \"l4\"\n"
     "resumeWorker\n"},
    {"IPLookup",
     "rules: [{prefix: 10.0.0.0, prefix_len: 8, gate: 1}, {prefix: 10.1.0.0, prefix_len: "
     "16, gate: 2}]",
     "rules: [{prefix: 10.0.0.0, prefix_len: 8, gate: 3}, {prefix: 10.2.0.0, prefix_len: "
     "16, gate: 2}]",
     "pauseWorker\n"
     "delete prefix: \"10.1.0.0\" prefix_len: 16\n"
     "add prefix: \"10.0.0.0\" prefix_len: 8 gate: 3\n"
     "add prefix: \"10.2.0.0\" prefix_len: 16 gate: 2\n"
     "resumeWorker\n"},
    {"L2Forward",
     "default_gate: 1, entries: [{addr: 02:00:00:00:00:01, gate: 1}, {addr: "
     "02:00:00:00:00:02, gate: 2}]",
     "default_gate: 2, entries: [{addr: 02:00:00:00:00:01, gate: 3}, {addr: "
     "02:00:00:00:00:03, gate: 2}]",
     "pauseWorker\n"
     "delete addrs: \"02:00:00:00:00:02\" addrs: \"02:00:00:00:00:01\"\n"
     "add entries { addr: \"02:00:00:00:00:01\" gate: 3 } entries { addr: "
     "\"02:00:00:00:00:03\" gate: 2 }\n"
     "set_default_gate gate: 2\n"
     "resumeWorker\n"},
    {"MPLSPop", "arg: {remove_eth_header: true, next_eth_type: 2048}",
     "arg: {remove_eth_header: false, next_eth_type: 34525}",
     "pauseWorker\n"
     "set next_eth_type: 34525\n"
     "resumeWorker\n"},
    {"PortInc", "arg: {port: p}, burst: 32", "arg: {port: p}, burst: 8", "set_burst burst: 8\n"},
    {"Queue", "arg: {size: 1024}, burst: 32",
     "arg: {size: 2048, prefetch: true, backpressure: true}, burst: 16",
     "pauseWorker\n"
     "set_runtime_config size: 2048 prefetch: true backpressure: true\n"
     "set_burst burst: 16\n"
     "resumeWorker\n"},
    {"QueueInc", "arg: {port: p, qid: 0}, burst: 32", "arg: {port: p, qid: 0}, burst: 8",
     "set_burst burst: 8\n"},
    {"RandomSplit", "arg: {drop_rate: 0.5, gates: [0, 1]}",
     "arg: {drop_rate: 0.25, gates: [0, 1, 2]}",
     "pauseWorker\n"
     "set_droprate drop_rate: 0.25\n"
     "set_gates gates: 0 gates: 1 gates: 2\n"
     "resumeWorker\n"},
    {"RandomUpdate", "arg: {fields: [{offset: 14, size: 2, min: 1, max: 9}]}",
     "arg: {fields: [{offset: 14, size: 4, min: 1, max: 9}]}",
     "pauseWorker\n"
     "clear \n"
     "add fields { offset: 14 size: 4 min: 1 max: 9 }\n"
     "resumeWorker\n"},
    {"Replicate", "arg: {gates: [0, 1]}", "arg: {gates: [0, 1, 2]}",
     "pauseWorker\n"
     "set_gates gates: 0 gates: 1 gates: 2\n"
     "resumeWorker\n"},
    {"Rewrite", "arg: {templates: [AAAA]}", "arg: {templates: [AAAA, AAEC]}",
     "pauseWorker\n"
     "add templates: \"\\000\\001\\002\"\n"
     "resumeWorker\n"},
    {"RoundRobin", "arg: {gates: [0, 1], mode: packet}", "arg: {gates: [0, 1, 2], mode: batch}",
     "pauseWorker\n"
     "set_gates gates: 0 gates: 1 gates: 2\n"
     "set_mode mode: \"batch\"\n"
     "resumeWorker\n"},
    {"Source", "arg: {pkt_size: 60}, burst: 32", "arg: {pkt_size: 128}, burst: 16",
     "set_pkt_size pkt_size: 128\n"
     "set_burst burst: 16\n"},
    {"Update", "arg: {fields: [{offset: 14, size: 2, value: 1}]}",
     "arg: {fields: [{offset: 14, size: 2, value: 1}, {offset: 20, size: 1, value: 7}]}",
     "pauseWorker\n"
     "add fields { offset: 20 size: 1 value: 7 }\n"
     "resumeWorker\n"},
    {"UrlFilter", "arg: {blacklist: [{host: a.example, path: /}, {host: b.example, path: /x}]}",
     "arg: {blacklist: [{host: a.example, path: /}, {host: c.example, path: /}]}",
     "pauseWorker\n"
     "set_runtime_config blacklist { host: \"a.example\" path: \"/\" } blacklist { host: "
     "\"c.example\" path: \"/\" }\n"
     "resumeWorker\n"},
    {"VLANPush", "arg: {tci: 5}", "arg: {tci: 6}", "set_tci tci: 6\n"},
    {"WildcardMatch",
     "arg: {fields: [{offset: 26, num_bytes: 4}]}, default_gate: 0, rules: [{gate: 1, "
     "priority: 1, values: [10.0.0.0], masks: [0xff000000]}, {gate: 2, priority: 2, "
     "values: [10.1.0.0], masks: [0xffff0000]}]",
     "arg: {fields: [{offset: 26, num_bytes: 4}]}, default_gate: 5, rules: [{gate: 1, "
     "priority: 1, values: [10.0.0.0], masks: [0xff000000]}, {gate: 3, priority: 2, "
     "values: [10.1.0.0], masks: [0xffff0000]}, {gate: 4, priority: 3, values: "
     "[10.2.0.0], masks: [0xffff0000]}]",
     "pauseWorker\n"
     "add gate: 3 priority: 2 values { value_bin: \"\\n\\001\\000\\000\" } masks { value_bin: "
     "\"\\377\\377\\000\\000\" }\n"
     "add gate: 4 priority: 3 values { value_bin: \"\\n\\002\\000\\000\" } masks { value_bin: "
     "\"\\377\\377\\000\\000\" }\n"
     "set_default_gate gate: 5\n"
     "resumeWorker\n"},
    {"WorkerSplit", "arg: {worker_gates: {0: 1}}", "arg: {worker_gates: {0: 2, 1: 3}}",
     "pauseWorker\n"
     "reset worker_gates { key: 0 value: 2 } worker_gates { key: 1 value: 3 }\n"
     "resumeWorker\n"},
};

class ClassChangeTest : public testing::TestWithParam<ChangeRow> {
 protected:
  static std::string document(const char* module) {
    const ClassRow& row = *classRow(GetParam().moduleClass);
    std::string text =
        "workers: {0: {core: 0}}\n"
        "ports: {p: {driver: UnixSocketPort, arg: {path: \"@p\"}}}\n"
        "modules:\n"
        "  src: Source\n"
        "  m: {class: " +
        std::string(row.name) + ", " + module + "}\n";
    if (row.inputs > 0) text += "connections: [src -> m]\n";
    return text;
  }

  // Each with what it is told, on a line.
  static std::string sent(const Plan& plan) {
    std::string all;
    for (const Step& step : plan.steps) {
      const auto* command = dynamic_cast<const bess::pb::CommandRequest*>(step.request.get());
      if (command == nullptr) {
        std::ostringstream type;
        type << step.type;
        all += type.str() + "\n";
        continue;
      }
      const auto* type = argumentOf(*classRow(GetParam().moduleClass), command->cmd());
      google::protobuf::DynamicMessageFactory factory;
      const std::unique_ptr<google::protobuf::Message> argument(
          type ? factory.GetPrototype(type)->New() : new bess::pb::EmptyArg());
      EXPECT_TRUE(argument->ParseFromString(command->arg().value()));
      all += command->cmd() + " " + argument->ShortDebugString() + "\n";
    }
    return all;
  }
};

}  // namespace

TEST_P(ClassChangeTest, IsMadeInPlaceAndReadBack) {
  TestSwitch daemon;
  const std::string before = document(GetParam().before), after = document(GetParam().after);
  ASSERT_THAT(daemon.apply(before).refusals, IsEmpty());
  const auto applied = daemon.apply(after);
  EXPECT_THAT(applied.refusals, IsEmpty());
  EXPECT_EQ(sent(applied.plan), GetParam().commands);
  EXPECT_EQ(summary(daemon.plan(after)), "");
  EXPECT_THAT(daemon.apply(before).refusals, IsEmpty());
  EXPECT_EQ(summary(daemon.plan(before)), "");
}

INSTANTIATE_TEST_SUITE_P(Each, ClassChangeTest, testing::ValuesIn(rows), [](const auto& row) {
  return std::string(row.param.moduleClass) + std::to_string(row.index);
});

TEST(ClassChange, IsTriedOfEveryClassThatCanBeChanged) {
  for (const ClassRow& row : classRows()) {
    if (row.settings.empty() && row.argumentTable == nullptr && row.entryTable == nullptr) continue;
    EXPECT_TRUE(std::any_of(std::begin(rows), std::end(rows), [&](const ChangeRow& one) {
      return one.moduleClass == row.name;
    })) << row.name;
  }
}

}  // namespace Norv::State
