#include <algorithm>

#include <Bess/Facts.h>
#include <Norv/State/ClassTable.h>
#include <bess/pb/module_arg.pb.h>

namespace Norv::State {

namespace {

constexpr std::uint32_t many = 8192;

// Columns: fields of the argument, command, the fields of its argument; then what is not usual.
constexpr Setting burst[] = {
    {"burst", "set_burst", "burst", Setting::ofModule | Setting::whileRunning},
};
constexpr Setting defaultGate[] = {
    {"default_gate", "set_default_gate", "gate", Setting::ofModule | Setting::whileRunning},
};
constexpr Setting drr[] = {
    {"quantum", "set_quantum_size", "quantum", Setting::zeroKeeps},
    {"max_flow_queue_size", "set_max_flow_queue_size", "max_queue_size", Setting::zeroKeeps},
};
constexpr Setting dump[] = {
    {"interval", "set_interval", "interval", Setting::whileRunning | Setting::zeroKeeps},
};
constexpr std::string_view flowGenFields =
    "template,pps,flow_rate,flow_duration,arrival,duration,quick_rampup,ip_src_range,ip_dst_range,"
    "port_src_range,port_dst_range";
constexpr Setting flowGen[] = {
    {flowGenFields, "update", flowGenFields, Setting::zeroKeeps},
    burst[0],
};
constexpr Setting hashLb[] = {
    {"mode,fields", "set_mode", "mode,fields", Setting::zeroKeeps},
    {"gates", "set_gates", "gates"},
};
constexpr Setting mplsPop[] = {
    {"remove_eth_header,next_eth_type", "set", "remove_eth_header,next_eth_type"},
};
constexpr Setting queue[] = {
    {"size,prefetch,backpressure", "set_runtime_config", "size,prefetch,backpressure"},
    burst[0],
};
constexpr Setting randomSplit[] = {
    {"drop_rate", "set_droprate", "drop_rate"},
    {"gates", "set_gates", "gates"},
};
constexpr Setting replicate[] = {
    {"gates", "set_gates", "gates"},
};
constexpr Setting roundRobin[] = {
    {"gates", "set_gates", "gates"},
    {"mode", "set_mode", "mode", Setting::zeroKeeps},
};
constexpr Setting source[] = {
    {"pkt_size", "set_pkt_size", "pkt_size", Setting::whileRunning | Setting::zeroKeeps},
    burst[0],
};
constexpr Setting vlanPush[] = {
    {"tci", "set_tci", "tci", Setting::whileRunning},
};
constexpr Setting workerSplit[] = {
    {"worker_gates", "reset", "worker_gates"},
};
constexpr std::span<const Setting> none;

constexpr ArgumentTable aclRules = {"rules", "", "clear", ""};
constexpr ArgumentTable bpfFilters = {"filters", "delete", "clear", "", "filter"};
constexpr ArgumentTable updateFields = {"fields", "", "clear", ""};
constexpr ArgumentTable rewriteTemplates = {"templates", "", "clear", ""};
constexpr ArgumentTable urlBlacklist = {"blacklist", "", "clear", "set_runtime_config",
                                        "host,path"};

// Columns: name; add, its list; remove, its list; clear; whole; key.
constexpr EntryTable arpEntries = {"entries", "add", "", "", "", "", "", "ip"};
constexpr EntryTable exactRules = {
    "rules", "add", "", "delete", "", "clear", "set_runtime_config", "fields", "fields"};
constexpr EntryTable wildcardRules = {
    "rules", "add", "", "delete", "", "clear", "set_runtime_config", "values,masks", "fields"};
constexpr EntryTable prefixRules = {"rules", "add",   "", "delete",
                                    "",      "clear", "", "prefix,prefix_len"};
constexpr EntryTable macEntries = {"entries", "add", "entries", "delete", "addrs",
                                   "",        "",    "addr",    "",       false};

void fillQueueSize(google::protobuf::Message& argument) {
  auto& queueArg = static_cast<bess::pb::QueueArg&>(argument);
  if (queueArg.size() == 0) queueArg.set_size(1024);
}

void fillPortRange(google::protobuf::Message& argument) {
  for (auto& address : *static_cast<bess::pb::NATArg&>(argument).mutable_ext_addrs()) {
    if (address.port_ranges_size() == 0) address.add_port_ranges()->set_end(65535);
  }
}

// The gates and tasks of a class are what a daemon was seen to allow, or are assumed where none was
// seen to refuse.
// clang-format off
constexpr ClassRow rows[] = {
    // name               in    out   tasks  settings; tables in and beside the argument; reads back, port, defaults
    {"ACL",                1,    1,    false, none,        &aclRules},
    {"ArpResponder",       1,    1,    false, none,        nullptr, &arpEntries},
    {"BPF",                1,    many, false, none,        &bpfFilters},
    {"Buffer",             1,    1,    false, none},
    {"Bypass",             many, many, false, none},
    {"Counter",            1,    1,    false, none},
    {"DRR",                1,    1,    true,  drr},
    {"Dump",               1,    1,    false, dump},
    {"EtherEncap",         1,    1,    false, none},
    {"ExactMatch",         1,    many, false, defaultGate, nullptr, &exactRules, true},
    {"FlowGen",            0,    1,    true,  flowGen},
    {"FlowMeasure",        1,    1,    false, none},
    {"GenericDecap",       1,    1,    false, none},
    {"GenericEncap",       1,    1,    false, none},
    {"GtpuDecap",          1,    1,    false, none},
    {"GtpuEcho",           1,    2,    false, none},
    {"GtpuEncap",          1,    2,    false, none},
    {"GtpuParser",         1,    2,    false, none},
    {"GtpuPathMonitoring", 1,    1,    false, none},
    {"HashLB",             1,    many, false, hashLb},
    {"IPChecksum",         1,    2,    false, none},
    {"IPDefrag",           1,    2,    false, none},
    {"IPEncap",            1,    1,    false, none},
    {"IPFrag",             1,    2,    false, none},
    {"IPLookup",           1,    many, false, none,        nullptr, &prefixRules},
    {"IPSwap",             1,    1,    false, none},
    {"L2Forward",          1,    many, false, defaultGate, nullptr, &macEntries},
    {"L4Checksum",         1,    2,    false, none},
    {"MACSwap",            1,    1,    false, none},
    {"MPLSPop",            1,    2,    false, mplsPop},
    {"Measure",            1,    1,    false, none},
    {"Merge",              many, 1,    false, none},
    {"MetadataTest",       many, many, false, none},
    {"NAT",                2,    2,    false, none,        nullptr, nullptr, false, {}, fillPortRange},
    {"NoOP",               0,    0,    true,  none},
    {"PortInc",            0,    1,    true,  burst,       nullptr, nullptr, false, "port"},
    {"PortOut",            1,    0,    false, none,        nullptr, nullptr, false, "port"},
    {"Qos",                1,    many, false, none},
    {"Queue",              1,    1,    true,  queue,       nullptr, nullptr, true, {}, fillQueueSize},
    {"QueueInc",           0,    1,    true,  burst,       nullptr, nullptr, false, "port"},
    {"QueueOut",           1,    0,    false, none,        nullptr, nullptr, false, "port"},
    {"RandomSplit",        1,    many, false, randomSplit},
    {"RandomUpdate",       1,    1,    false, none,        &updateFields},
    {"Replicate",          1,    32,   false, replicate},
    {"Rewrite",            1,    1,    false, none,        &rewriteTemplates},
    {"RoundRobin",         1,    many, false, roundRobin},
    {"SetMetadata",        1,    1,    false, none},
    {"Sink",               1,    0,    false, none},
    {"Source",             0,    1,    true,  source},
    {"Split",              1,    many, false, none},
    {"StaticNAT",          2,    2,    false, none},
    {"Timestamp",          1,    1,    false, none},
    {"Update",             1,    1,    false, none,        &updateFields},
    {"UpdateTTL",          1,    1,    false, none},
    {"UrlFilter",          2,    2,    false, none,        &urlBlacklist, nullptr, true},
    {"VLANPop",            1,    1,    false, none},
    {"VLANPush",           1,    1,    false, vlanPush},
    {"VLANSplit",          1,    4096, false, none},
    {"VXLANDecap",         1,    1,    false, none},
    {"VXLANEncap",         1,    1,    false, none},
    // Its get_runtime_config is not asked for: it ends daemons of today once a rule was added.
    {"WildcardMatch",      1,    many, false, defaultGate, nullptr, &wildcardRules},
    {"WorkerSplit",        1,    64,   false, workerSplit},
};
// clang-format on

// Text fields that take a few words alone, as their comments in the protocol say.
struct WordRow {
  const char* message;
  const char* field;
  const char* words;
};
constexpr WordRow wordRows[] = {
    {"FlowGenArg", "arrival", "uniform,exponential"},
    {"FlowGenArg", "duration", "uniform,pareto"},
    {"HashLBArg", "mode", "l2,l3,l4"},
    {"RoundRobinArg", "mode", "packet,batch"},
};

}  // namespace

const ClassRow* classRow(std::string_view name) {
  const auto found = std::find_if(std::begin(rows), std::end(rows),
                                  [&](const ClassRow& row) { return row.name == name; });
  return found == std::end(rows) ? nullptr : &*found;
}

std::span<const ClassRow> classRows() {
  return rows;
}

std::vector<std::string> words(std::string_view list) {
  std::vector<std::string> found;
  while (!list.empty()) {
    const std::size_t comma = list.find(',');
    found.emplace_back(list.substr(0, comma));
    list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
  }
  return found;
}

std::vector<std::string> wordsFor(const google::protobuf::FieldDescriptor& field) {
  const std::string name = Bess::shortName(*field.containing_type());
  for (const WordRow& row : wordRows) {
    if (name == row.message && field.name() == row.field) return words(row.words);
  }
  return {};
}

const google::protobuf::Descriptor* argumentOf(const ClassRow& row) {
  const Bess::ModuleClass* found = Bess::moduleClass(row.name);
  return found == nullptr || found->argument.empty() ? nullptr : Bess::message(found->argument);
}

const google::protobuf::Descriptor* argumentOf(const ClassRow& row, std::string_view command) {
  const Bess::ModuleClass* found = Bess::moduleClass(row.name);
  const Bess::Taker* taker = found == nullptr ? nullptr : Bess::command(*found, command);
  return taker == nullptr || taker->argument.empty() ? nullptr : Bess::message(taker->argument);
}

const google::protobuf::Descriptor* entryOf(const ClassRow& row) {
  if (row.entryTable == nullptr) return nullptr;
  const auto* add = argumentOf(row, row.entryTable->add);
  if (row.entryTable->addList.empty()) return add;
  return add->FindFieldByName(std::string(row.entryTable->addList))->message_type();
}

}  // namespace Norv::State
