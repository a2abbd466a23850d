#include <algorithm>
#include <cctype>
#include <cstring>

#include "Arg.h"
#include "HeaderModules.h"
#include "MatchModules.h"
#include "ModuleClass.h"
#include "SplitModules.h"
#include "TrafficModules.h"

// The table of module classes. Two kinds of row have little behind them: classes that keep nothing
// the protocol can show (`plain`), and commands whose argument message the protocol does not have
// or whose effect cannot be seen (`acceptAll`).

namespace Standin {

namespace {

using namespace bess::pb;  // The messages are the vocabulary of the tables below.
using google::protobuf::Any;

template <auto Method>
struct Call;

template <class State, class Arg, void (State::*Method)(const Arg&)>
struct Call<Method> {
  static void run(ModuleState& state, const Any& arg, CommandResponse&) {
    (static_cast<State&>(state).*Method)(unpack<Arg>(arg));
  }
};

template <class State, class Answer, Answer (State::*Method)() const>
struct Call<Method> {
  static void run(ModuleState& state, const Any&, CommandResponse& response) {
    response.mutable_data()->PackFrom((static_cast<const State&>(state).*Method)());
  }
};

template <class State, class Arg, class Answer, Answer (State::*Method)(const Arg&) const>
struct Call<Method> {
  static void run(ModuleState& state, const Any& arg, CommandResponse& response) {
    response.mutable_data()->PackFrom((static_cast<const State&>(state).*Method)(unpack<Arg>(arg)));
  }
};

/// The handler that calls a member function of a state: a command, a question, or a question with
/// an argument.
template <auto Method>
constexpr ModuleCommand::Handler call = &Call<Method>::run;

/// The argument that the module was created with, as the class reads it.
template <class Arg>
void initialArg(ModuleState& state, const Any&, CommandResponse& response) {
  response.mutable_data()->PackFrom(unpack<Arg>(state.initialArg));
}

void acceptAll(ModuleState&, const Any&, CommandResponse&) {}

std::unique_ptr<ModuleState> plain(const Any&, Ports&) {
  return std::make_unique<ModuleState>();
}

template <class State, class Arg>
std::unique_ptr<ModuleState> make(const Any& arg, Ports&) {
  return std::make_unique<State>(unpack<Arg>(arg));
}

template <class Arg, Direction direction>
std::unique_ptr<ModuleState> makePortUser(const Any& any, Ports& ports) {
  return std::make_unique<PortUserState>(ports, unpack<Arg>(any).port(), direction, -1);
}

template <class Arg, Direction direction>
std::unique_ptr<ModuleState> makeQueueUser(const Any& any, Ports& ports) {
  const Arg arg = unpack<Arg>(any);
  return std::make_unique<PortUserState>(ports, arg.port(), direction, gateCut(arg.qid()));
}

// Columns: name, argument, thread safe, handler.
constexpr ModuleCommand aclCommands[] = {
    {"add", "ACLArg", false, call<&AclState::add>},
    {"clear", "EmptyArg", false, call<&AclState::clear>},
};
constexpr ModuleCommand arpResponderCommands[] = {
    {"add", "ArpResponderArg", false, call<&ArpResponderState::add>},
};
constexpr ModuleCommand bpfCommands[] = {
    {"add", "BPFArg", false, call<&BpfState::add>},
    {"delete", "BPFArg", false, call<&BpfState::remove>},
    {"clear", "EmptyArg", false, call<&BpfState::clear>},
    {"get_initial_arg", "EmptyArg", true, initialArg<BPFArg>},
};
constexpr ModuleCommand counterCommands[] = {
    {"add", "CounterAddArg", false, acceptAll},
    {"removeAll", "EmptyArg", false, acceptAll},
    {"remove", "CounterRemoveArg", false, acceptAll},
};
constexpr ModuleCommand drrCommands[] = {
    {"set_quantum_size", "DRRQuantumArg", true, call<&DrrState::setQuantum>},
    {"set_max_flow_queue_size", "DRRMaxFlowQueueSizeArg", true,
     call<&DrrState::setMaxFlowQueueSize>},
};
constexpr ModuleCommand dumpCommands[] = {
    {"set_interval", "DumpArg", true, call<&DumpState::setInterval>},
};
constexpr ModuleCommand exactMatchCommands[] = {
    {"get_initial_arg", "EmptyArg", true, initialArg<ExactMatchArg>},
    {"get_runtime_config", "EmptyArg", true, call<&ExactMatchState::config>},
    {"set_runtime_config", "ExactMatchConfig", false, call<&ExactMatchState::setConfig>},
    {"add", "ExactMatchCommandAddArg", false, call<&ExactMatchState::add>},
    {"delete", "ExactMatchCommandDeleteArg", false, call<&ExactMatchState::remove>},
    {"clear", "EmptyArg", false, call<&ExactMatchState::clear>},
    {"set_default_gate", "ExactMatchCommandSetDefaultGateArg", true,
     call<&ExactMatchState::setDefaultGate>},
};
constexpr ModuleCommand flowGenCommands[] = {
    {"update", "FlowGenArg", false, call<&FlowGenState::update>},
    {"set_burst", "FlowGenCommandSetBurstArg", true, call<&FlowGenState::setBurst>},
};
constexpr ModuleCommand flowMeasureCommands[] = {
    {"read", "FlowMeasureCommandReadArg", false, acceptAll},
    {"flip", "FlowMeasureCommandFlipArg", false, acceptAll},
};
constexpr ModuleCommand gtpuPathMonitoringCommands[] = {
    {"add", "GtpuPathMonitoringCommandAddDeleteArg", false, acceptAll},
    {"delete", "GtpuPathMonitoringCommandAddDeleteArg", false, acceptAll},
    {"clear", "GtpuPathMonitoringCommandClearArg", false, acceptAll},
    {"read", "GtpuPathMonitoringCommandReadArg", false, acceptAll},
};
constexpr ModuleCommand hashLBCommands[] = {
    {"set_mode", "HashLBCommandSetModeArg", false, call<&HashLbState::setMode>},
    {"set_gates", "HashLBCommandSetGatesArg", false, call<&HashLbState::setGates>},
};
constexpr ModuleCommand ipFragCommands[] = {
    {"get_eth_mtu", "EmptyArg", false, acceptAll},
};
constexpr ModuleCommand ipLookupCommands[] = {
    {"add", "IPLookupCommandAddArg", false, call<&IpLookupState::add>},
    {"delete", "IPLookupCommandDeleteArg", false, call<&IpLookupState::remove>},
    {"clear", "EmptyArg", false, call<&IpLookupState::clear>},
};
constexpr ModuleCommand l2ForwardCommands[] = {
    {"add", "L2ForwardCommandAddArg", false, call<&L2ForwardState::add>},
    {"delete", "L2ForwardCommandDeleteArg", false, call<&L2ForwardState::remove>},
    {"set_default_gate", "L2ForwardCommandSetDefaultGateArg", true,
     call<&L2ForwardState::setDefaultGate>},
    {"lookup", "L2ForwardCommandLookupArg", true, call<&L2ForwardState::lookup>},
    {"populate", "L2ForwardCommandPopulateArg", false, call<&L2ForwardState::populate>},
};
constexpr ModuleCommand mplsPopCommands[] = {
    {"set", "MplsPopArg", false, acceptAll},
};
constexpr ModuleCommand measureCommands[] = {
    {"get_summary", "MeasureCommandGetSummaryArg", true, call<&MeasureState::summary>},
    {"clear", "EmptyArg", true, acceptAll},
};
constexpr ModuleCommand natCommands[] = {
    {"get_initial_arg", "EmptyArg", true, initialArg<NATArg>},
    {"get_runtime_config", "EmptyArg", true, acceptAll},
    {"set_runtime_config", "EmptyArg", false, acceptAll},
};
constexpr ModuleCommand portIncCommands[] = {
    {"set_burst", "PortIncCommandSetBurstArg", true, call<&PortUserState::setPortBurst>},
    {"get_initial_arg", "EmptyArg", true, initialArg<PortIncArg>},
};
constexpr ModuleCommand portOutCommands[] = {
    {"get_initial_arg", "EmptyArg", true, initialArg<PortOutArg>},
};
constexpr ModuleCommand qosCommands[] = {
    {"add", "QosCommandAddArg", false, acceptAll},
    {"delete", "QosCommandDeleteArg", false, acceptAll},
    {"clear", "EmptyArg", false, acceptAll},
    {"set_default_gate", "QosCommandSetDefaultGateArg", false, acceptAll},
};
constexpr ModuleCommand queueCommands[] = {
    {"set_burst", "QueueCommandSetBurstArg", true, call<&QueueState::setBurst>},
    {"set_size", "QueueCommandSetSizeArg", false, call<&QueueState::setSize>},
    {"get_status", "QueueCommandGetStatusArg", true, call<&QueueState::status>},
    {"get_initial_arg", "EmptyArg", true, initialArg<QueueArg>},
    {"get_runtime_config", "EmptyArg", true, call<&QueueState::config>},
    {"set_runtime_config", "QueueArg", false, call<&QueueState::setConfig>},
};
constexpr ModuleCommand queueIncCommands[] = {
    {"set_burst", "QueueIncCommandSetBurstArg", true, call<&PortUserState::setQueueBurst>},
};
constexpr ModuleCommand randomSplitCommands[] = {
    {"set_droprate", "RandomSplitCommandSetDroprateArg", false,
     call<&RandomSplitState::setDropRate>},
    {"set_gates", "RandomSplitCommandSetGatesArg", false, call<&RandomSplitState::setGates>},
};
constexpr ModuleCommand randomUpdateCommands[] = {
    {"add", "RandomUpdateArg", false, call<&RandomUpdateState::add>},
    {"clear", "EmptyArg", false, call<&RandomUpdateState::clear>},
};
constexpr ModuleCommand replicateCommands[] = {
    {"set_gates", "ReplicateCommandSetGatesArg", false, call<&ReplicateState::setGates>},
};
constexpr ModuleCommand rewriteCommands[] = {
    {"add", "RewriteArg", false, call<&RewriteState::add>},
    {"clear", "EmptyArg", false, call<&RewriteState::clear>},
};
constexpr ModuleCommand roundRobinCommands[] = {
    {"set_mode", "RoundRobinCommandSetModeArg", false, call<&RoundRobinState::setMode>},
    {"set_gates", "RoundRobinCommandSetGatesArg", false, call<&RoundRobinState::setGates>},
};
constexpr ModuleCommand setMetadataCommands[] = {
    {"get_initial_arg", "EmptyArg", true, initialArg<SetMetadataArg>},
};
constexpr ModuleCommand sourceCommands[] = {
    {"set_pkt_size", "SourceCommandSetPktSizeArg", true, call<&SourceState::setPacketSize>},
    {"set_burst", "SourceCommandSetBurstArg", true, call<&SourceState::setBurst>},
};
constexpr ModuleCommand staticNATCommands[] = {
    {"get_initial_arg", "EmptyArg", true, initialArg<StaticNATArg>},
    {"get_runtime_config", "EmptyArg", true, acceptAll},
    {"set_runtime_config", "EmptyArg", false, acceptAll},
};
constexpr ModuleCommand updateCommands[] = {
    {"add", "UpdateArg", false, call<&UpdateState::add>},
    {"clear", "EmptyArg", false, call<&UpdateState::clear>},
};
constexpr ModuleCommand urlFilterCommands[] = {
    {"get_initial_arg", "EmptyArg", true, initialArg<UrlFilterArg>},
    {"get_runtime_config", "EmptyArg", true, call<&UrlFilterState::config>},
    {"set_runtime_config", "UrlFilterConfig", false, call<&UrlFilterState::setConfig>},
    {"add", "UrlFilterArg", false, call<&UrlFilterState::add>},
    {"clear", "EmptyArg", false, call<&UrlFilterState::clear>},
};
constexpr ModuleCommand vlanPushCommands[] = {
    {"set_tci", "VLANPushArg", true, call<&VlanPushState::setTci>},
};
constexpr ModuleCommand wildcardMatchCommands[] = {
    {"get_initial_arg", "EmptyArg", true, initialArg<WildcardMatchArg>},
    {"get_runtime_config", "EmptyArg", true, call<&WildcardMatchState::config>},
    {"set_runtime_config", "WildcardMatchConfig", false, call<&WildcardMatchState::setConfig>},
    {"add", "WildcardMatchCommandAddArg", false, call<&WildcardMatchState::add>},
    {"delete", "WildcardMatchCommandDeleteArg", false, call<&WildcardMatchState::remove>},
    {"clear", "EmptyArg", false, call<&WildcardMatchState::clear>},
    {"set_default_gate", "WildcardMatchCommandSetDefaultGateArg", true,
     call<&WildcardMatchState::setDefaultGate>},
};
constexpr ModuleCommand workerSplitCommands[] = {
    {"reset", "WorkerSplitArg", false, call<&WorkerSplitState::reset>},
};

constexpr std::span<const ModuleCommand> noCommands;

// clang-format off
constexpr ModuleClass classTable[] = {
    // name               prefix         in         out        tasks, workers, state, commands, help
    {"ACL",                nullptr,      1,         1,         0, 0, make<AclState, ACLArg>,
     aclCommands, "ACL module from NetBricks"},
    {"ArpResponder",       nullptr,      1,         1,         0, 1, make<ArpResponderState, EmptyArg>,
     arpResponderCommands, "Respond to ARP requests and learns new MAC's"},
    {"BPF",                nullptr,      1,         gateLimit, 0, 0, make<BpfState, BPFArg>,
     bpfCommands, "classifies packets with pcap-filter(7) syntax"},
    {"Buffer",             nullptr,      1,         1,         0, 1, plain,
     noCommands, "buffers packets into larger batches"},
    {"Bypass",             nullptr,      gateLimit, gateLimit, 0, 0, plain,
     noCommands, "bypasses packets without any processing"},
    {"Counter",            nullptr,      1,         1,         0, 1, plain,
     counterCommands, "Counts the number of packets/bytes in the UP4 pipeline"},
    {"DRR",                "DRR",        1,         1,         1, 0, make<DrrState, DRRArg>,
     drrCommands, "Deficit Round Robin"},
    {"Dump",               nullptr,      1,         1,         0, 1, make<DumpState, DumpArg>,
     dumpCommands, "Dump packet data and metadata attributes"},
    {"EtherEncap",         nullptr,      1,         1,         0, 0, make<EtherEncapState, EtherEncapArg>,
     noCommands, "encapsulates packets with an Ethernet header"},
    {"ExactMatch",         "em",         1,         gateLimit, 0, 0, make<ExactMatchState, ExactMatchArg>,
     exactMatchCommands, "Multi-field classifier with an exact match table"},
    {"FlowGen",            nullptr,      0,         1,         1, 1, make<FlowGenState, FlowGenArg>,
     flowGenCommands, "generates packets on a flow basis"},
    {"FlowMeasure",        nullptr,      1,         1,         0, 1, plain,
     flowMeasureCommands, "Measures QoS metrics"},
    {"GenericDecap",       nullptr,      1,         1,         0, 0, make<GenericDecapState, GenericDecapArg>,
     noCommands, "remove specified bytes from the beginning of packets"},
    {"GenericEncap",       nullptr,      1,         1,         0, 0, make<GenericEncapState, GenericEncapArg>,
     noCommands, "encapsulates packets with constant values and metadata attributes"},
    {"GtpuDecap",          nullptr,      1,         1,         0, 0, plain,
     noCommands, "first version of gtpu decap module"},
    {"GtpuEcho",           nullptr,      1,         1,         0, 0, plain,
     noCommands, "first version of gtpu echo module"},
    {"GtpuEncap",          nullptr,      1,         1,         0, 0, plain,
     noCommands, "first version of gtpu encap module"},
    {"GtpuParser",         nullptr,      1,         2,         0, 0, plain,
     noCommands, "parsing module for gtp traffic"},
    {"GtpuPathMonitoring", nullptr,      1,         1,         0, 0, plain,
     gtpuPathMonitoringCommands, "Gtpu path monitoring module"},
    {"HashLB",             nullptr,      1,         gateLimit, 0, 0, make<HashLbState, HashLBArg>,
     hashLBCommands, "splits packets on a flow basis with L2/L3/L4 header fields"},
    {"IPChecksum",         nullptr,      1,         1,         0, 0, plain,
     noCommands, "recomputes the IPv4 checksum"},
    {"IPDefrag",           nullptr,      1,         2,         0, 0, plain,
     noCommands, "IP Reassembly module"},
    {"IPEncap",            nullptr,      1,         1,         0, 0, plain,
     noCommands, "encapsulates packets with an IPv4 header"},
    {"IPFrag",             nullptr,      1,         2,         0, 0, plain,
     ipFragCommands, "IPv4 Fragmentation module"},
    {"IPLookup",           nullptr,      1,         gateLimit, 0, 0, make<IpLookupState, IPLookupArg>,
     ipLookupCommands, "performs Longest Prefix Match on IPv4 packets"},
    {"IPSwap",             "ipswap",     1,         1,         0, 0, plain,
     noCommands, "swaps source/destination IP addresses and L4 ports"},
    {"L2Forward",          nullptr,      1,         gateLimit, 0, 0, make<L2ForwardState, L2ForwardArg>,
     l2ForwardCommands, "classifies packets with destination MAC address"},
    {"L4Checksum",         nullptr,      1,         1,         0, 0, plain,
     noCommands, "recomputes the TCP/Ipv4 and UDP/IPv4 checksum"},
    {"MACSwap",            "macswap",    1,         1,         0, 0, plain,
     noCommands, "swaps source/destination MAC addresses"},
    {"MPLSPop",            nullptr,      1,         2,         0, 0, plain,
     mplsPopCommands, "Pop MPLS label"},
    {"Measure",            nullptr,      1,         1,         0, 1, make<MeasureState, MeasureArg>,
     measureCommands, "measures packet latency (paired with Timestamp module)"},
    {"Merge",              nullptr,      gateLimit, 1,         0, 0, plain,
     noCommands, "All input gates go out of a single output gate"},
    {"MetadataTest",       "mt_test",    gateLimit, gateLimit, 0, 1, make<MetadataTestState, MetadataTestArg>,
     noCommands, "Dynamic metadata test module"},
    {"NAT",                nullptr,      2,         2,         0, 1, make<NatState, NATArg>,
     natCommands, "Dynamic Network address/port translator"},
    {"NoOP",               "noop",       0,         0,         1, 0, plain,
     noCommands, "creates a task that does nothing"},
    {"PortInc",            nullptr,      0,         1,         1, 0, makePortUser<PortIncArg, Direction::Inc>,
     portIncCommands, "receives packets from a port"},
    {"PortOut",            nullptr,      1,         0,         0, 0, makePortUser<PortOutArg, Direction::Out>,
     portOutCommands, "sends pakets to a port"},
    {"Qos",                nullptr,      1,         gateLimit, 0, 0, plain,
     qosCommands, "Multi-field classifier with a QOS"},
    {"Queue",              nullptr,      1,         1,         1, 0, make<QueueState, QueueArg>,
     queueCommands, "terminates current task and enqueue packets for new task"},
    {"QueueInc",           nullptr,      0,         1,         1, 0, makeQueueUser<QueueIncArg, Direction::Inc>,
     queueIncCommands, "receives packets from a port via a specific queue"},
    {"QueueOut",           nullptr,      1,         0,         0, 0, makeQueueUser<QueueOutArg, Direction::Out>,
     noCommands, "sends packets to a port via a specific queue"},
    {"RandomSplit",        nullptr,      1,         gateLimit, 0, 0, make<RandomSplitState, RandomSplitArg>,
     randomSplitCommands, "randomly splits/drops packets"},
    {"RandomUpdate",       "rupdate",    1,         1,         0, 1, make<RandomUpdateState, RandomUpdateArg>,
     randomUpdateCommands, "updates packet data with random values"},
    {"Replicate",          "repl",       1,         gateLimit, 0, 0, make<ReplicateState, ReplicateArg>,
     replicateCommands, "makes a copy of a packet and sends it out over n gates"},
    {"Rewrite",            nullptr,      1,         1,         0, 0, make<RewriteState, RewriteArg>,
     rewriteCommands, "replaces entire packet data"},
    {"RoundRobin",         "rr",         1,         gateLimit, 0, 0, make<RoundRobinState, RoundRobinArg>,
     roundRobinCommands, "splits packets evenly with round robin"},
    {"SetMetadata",        "setattr",    1,         1,         0, 0, make<SetMetadataState, SetMetadataArg>,
     setMetadataCommands, "Set metadata attributes to packets"},
    {"Sink",               nullptr,      1,         0,         0, 0, plain,
     noCommands, "discards all packets"},
    {"Source",             nullptr,      0,         1,         1, 1, make<SourceState, SourceArg>,
     sourceCommands, "infinitely generates packets with uninitialized data"},
    {"Split",              nullptr,      1,         gateLimit, 0, 0, make<SplitState, SplitArg>,
     noCommands, "split packets depending on packet data or metadata attributes"},
    {"StaticNAT",          nullptr,      2,         2,         0, 0, make<StaticNatState, StaticNATArg>,
     staticNATCommands, "Static network address translator"},
    {"Timestamp",          nullptr,      1,         1,         0, 0, plain,
     noCommands, "marks current time to packets (paired with Measure module)"},
    {"Update",             nullptr,      1,         1,         0, 0, make<UpdateState, UpdateArg>,
     updateCommands, "updates packet data with specified values"},
    {"UpdateTTL",          nullptr,      1,         1,         0, 0, plain,
     noCommands, "decreases the IP TTL field by 1"},
    {"UrlFilter",          "url-filter", 2,         2,         0, 1, make<UrlFilterState, UrlFilterArg>,
     urlFilterCommands, "Filter HTTP connection"},
    {"VLANPop",            nullptr,      1,         1,         0, 0, plain,
     noCommands, "removes 802.1Q/802.11ad VLAN tag"},
    {"VLANPush",           nullptr,      1,         1,         0, 0, make<VlanPushState, VLANPushArg>,
     vlanPushCommands, "adds 802.1Q/802.11ad VLAN tag"},
    {"VLANSplit",          nullptr,      1,         4096,      0, 0, plain,
     noCommands, "split packets depending on their VID"},
    {"VXLANDecap",         nullptr,      1,         1,         0, 0, plain,
     noCommands, "decapsulates the outer Ethetnet/IP/UDP/VXLAN headers"},
    {"VXLANEncap",         nullptr,      1,         1,         0, 0, make<VxlanEncapState, VXLANEncapArg>,
     noCommands, "encapsulates packets with UDP/VXLAN headers"},
    {"WildcardMatch",      "wm",         1,         gateLimit, 0, 0, make<WildcardMatchState, WildcardMatchArg>,
     wildcardMatchCommands, "Multi-field classifier with a wildcard match table"},
    {"WorkerSplit",        "ws",         1,         gateLimit, 0, 0, make<WorkerSplitState, WorkerSplitArg>,
     workerSplitCommands, "send packets to output gate X, the id of current worker"},
};
// clang-format on

}  // namespace

std::string ModuleClass::namePrefix() const {
  if (nameTemplate != nullptr) return nameTemplate;
  std::string prefix;
  const std::size_t length = std::strlen(name);
  for (std::size_t i = 0; i < length; ++i) {
    const auto upper = [this](std::size_t at) {
      return std::isupper(static_cast<unsigned char>(name[at])) != 0;
    };
    const bool wordBegins =
        i > 0 && upper(i) && (!upper(i - 1) || (i + 1 < length && !upper(i + 1)));
    if (wordBegins) prefix += '_';
    prefix += static_cast<char>(std::tolower(static_cast<unsigned char>(name[i])));
  }
  return prefix;
}

const ModuleCommand* ModuleClass::command(std::string_view commandName) const {
  const auto found = std::find_if(commands.begin(), commands.end(), [&](const ModuleCommand& row) {
    return commandName == row.name;
  });
  return found == commands.end() ? nullptr : &*found;
}

std::span<const ModuleClass> moduleClasses() {
  return classTable;
}

const ModuleClass* findModuleClass(std::string_view name) {
  const auto found = std::find_if(std::begin(classTable), std::end(classTable),
                                  [&](const ModuleClass& row) { return name == row.name; });
  return found == std::end(classTable) ? nullptr : &*found;
}

}  // namespace Standin
