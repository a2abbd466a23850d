#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "Arg.h"
#include "HeaderModules.h"
#include "MatchModules.h"
#include "ModuleClass.h"
#include "Refusal.h"
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

// The handler that calls a member function of a state: a command, a question, or a question with
// an argument.
template <auto Method>
constexpr ModuleCommand::Handler call = &Call<Method>::run;

// The argument that the module was created with, as the class reads it.
template <class Arg>
void initialArg(ModuleState& state, const Any&, CommandResponse& response) {
  response.mutable_data()->PackFrom(unpack<Arg>(state.initialArg));
}

// This class keeps what it was made with elsewhere, and answers without it.
template <class Arg>
void emptyInitialArg(ModuleState&, const Any&, CommandResponse& response) {
  response.mutable_data()->PackFrom(Arg());
}

// With the range that an address has when none is given.
void natInitialArg(ModuleState& state, const Any&, CommandResponse& response) {
  NATArg arg = unpack<NATArg>(state.initialArg);
  for (auto& external : *arg.mutable_ext_addrs())
    if (external.port_ranges_size() == 0) external.add_port_ranges()->set_end(65535);
  response.mutable_data()->PackFrom(arg);
}

void acceptAll(ModuleState&, const Any&, CommandResponse&) {}

std::unique_ptr<ModuleState> plain(const Any&, Ports&) {
  return std::make_unique<ModuleState>();
}

// An argument whose message the protocol lacks. An empty one is refused, as the daemon's check of
// its defaults does; any other passes.
struct ForeignArgument {
  const char* type;
  const char* refusal;
};
constexpr ForeignArgument counterArgument = {"bess.pb.CounterArg", "Invalid counter idx name"};
constexpr ForeignArgument flowMeasureArgument = {"bess.pb.FlowMeasureArg",
                                                 "invalid flag attribute name"};
constexpr ForeignArgument echoArgument = {"bess.pb.GtpuEchoArg", "Invalid S1U SGW IP address!"};
constexpr ForeignArgument defragArgument = {"bess.pb.IPDefragArg", "Invalid num_flows!"};
constexpr ForeignArgument fragArgument = {"bess.pb.IPFragArg", "Invalid MTU size!"};

template <const ForeignArgument& argument>
std::unique_ptr<ModuleState> needArgument(const Any& any, Ports&) {
  if (!any.type_url().ends_with(argument.type) || any.value().empty())
    throw Refusal(EINVAL, argument.refusal);
  return std::make_unique<ModuleState>();
}

template <class State, class Arg>
std::unique_ptr<ModuleState> make(const Any& arg, Ports&) {
  return std::make_unique<State>(unpack<Arg>(arg));
}

template <class Arg, Direction direction>
std::unique_ptr<ModuleState> makePortUser(const Any& any, Ports& ports) {
  return std::make_unique<PortUserState>(ports, unpack<Arg>(any).port(), direction);
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
    {"set_quantum_size", "DRRQuantumArg", false, call<&DrrState::setQuantum>},
    {"set_max_flow_queue_size", "DRRMaxFlowQueueSizeArg", false,
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
    {"update", "FlowGenArg", true, call<&FlowGenState::update>},
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
    {"get_initial_arg", "EmptyArg", true, natInitialArg},
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
    {"get_initial_arg", "EmptyArg", true, emptyInitialArg<UrlFilterArg>},
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
     aclCommands, "lets through or drops packets by rules on addresses, protocol and ports"},  // assumed
    {"ArpResponder",       nullptr,      1,         1,         0, 1, make<ArpResponderState, EmptyArg>,
     arpResponderCommands, "answers ARP requests for the addresses in its table"},  // outputs seen, inputs assumed
    {"BPF",                nullptr,      1,         gateLimit, 0, 0, make<BpfState, BPFArg>,
     bpfCommands, "sends each packet to the gate of the first filter expression it meets"},  // assumed
    {"Buffer",             nullptr,      1,         1,         0, 1, plain,
     noCommands, "collects small batches into full ones"},  // assumed
    {"Bypass",             nullptr,      gateLimit, gateLimit, 0, 0, plain,
     noCommands, "hands packets on untouched"},  // assumed
    {"Counter",            nullptr,      1,         1,         0, 1, needArgument<counterArgument>,
     counterCommands, "counts packets and bytes for each counter number"},  // assumed
    {"DRR",                "DRR",        1,         1,         1, 0, make<DrrState, DRRArg>,
     drrCommands, "shares the output fairly among flows, a quantum of bytes a turn"},  // outputs seen, inputs assumed
    {"Dump",               nullptr,      1,         1,         0, 1, make<DumpState, DumpArg>,
     dumpCommands, "prints a packet with its metadata every so often"},  // seen
    {"EtherEncap",         nullptr,      1,         1,         0, 0, make<EtherEncapState, EtherEncapArg>,
     noCommands, "puts an Ethernet header in front, made from metadata"},  // assumed
    {"ExactMatch",         "em",         1,         gateLimit, 0, 0, make<ExactMatchState, ExactMatchArg>,
     exactMatchCommands, "chooses the gate by looking up several fields in a table"},  // assumed
    {"FlowGen",            "flowgen",    0,         1,         1, 1, make<FlowGenState, FlowGenArg>,
     flowGenCommands, "makes packets that look like many flows beginning and ending"},  // assumed
    {"FlowMeasure",        nullptr,      1,         1,         0, 1, needArgument<flowMeasureArgument>,
     flowMeasureCommands, "measures delay, jitter and throughput of each flow"},  // assumed
    {"GenericDecap",       nullptr,      1,         1,         0, 0, make<GenericDecapState, GenericDecapArg>,
     noCommands, "cuts a number of bytes off the front"},  // assumed
    {"GenericEncap",       nullptr,      1,         1,         0, 0, make<GenericEncapState, GenericEncapArg>,
     noCommands, "puts bytes in front, fixed ones or from metadata"},  // assumed
    {"GtpuDecap",          nullptr,      1,         1,         0, 0, plain,
     noCommands, "takes the GTP-U tunnel headers off"},  // assumed
    {"GtpuEcho",           nullptr,      1,         2,         0, 0, needArgument<echoArgument>,
     noCommands, "answers GTP-U echo requests"},  // outputs seen, inputs assumed
    {"GtpuEncap",          nullptr,      1,         2,         0, 0, make<GtpuEncapState, EmptyArg>,
     noCommands, "puts GTP-U tunnel headers in front"},  // outputs seen, inputs assumed
    {"GtpuParser",         nullptr,      1,         2,         0, 0, make<GtpuParserState, EmptyArg>,
     noCommands, "reads the headers of GTP-U packets into metadata"},  // assumed
    {"GtpuPathMonitoring", nullptr,      1,         1,         0, 0, plain,
     gtpuPathMonitoringCommands, "watches GTP-U peers by asking them for an echo"},  // assumed
    {"HashLB",             nullptr,      1,         gateLimit, 0, 0, make<HashLbState, HashLBArg>,
     hashLBCommands, "spreads flows over gates by a hash of their header fields"},  // assumed
    {"IPChecksum",         nullptr,      1,         2,         0, 0, plain,
     noCommands, "computes the checksum of the IPv4 header anew"},  // outputs seen, inputs assumed
    {"IPDefrag",           nullptr,      1,         2,         0, 0, needArgument<defragArgument>,
     noCommands, "puts IPv4 fragments together again"},  // assumed
    {"IPEncap",            nullptr,      1,         1,         0, 0, make<IpEncapState, IPEncapArg>,
     noCommands, "puts an IPv4 header in front, made from metadata"},  // assumed
    {"IPFrag",             nullptr,      1,         2,         0, 0, needArgument<fragArgument>,
     ipFragCommands, "cuts IPv4 packets that are too long into fragments"},  // assumed
    {"IPLookup",           nullptr,      1,         gateLimit, 0, 0, make<IpLookupState, IPLookupArg>,
     ipLookupCommands, "chooses the gate by the longest prefix of the IPv4 destination"},  // assumed
    {"IPSwap",             "ipswap",     1,         1,         0, 0, plain,
     noCommands, "exchanges source and destination, addresses and ports"},  // outputs seen, inputs assumed
    {"L2Forward",          nullptr,      1,         gateLimit, 0, 0, make<L2ForwardState, L2ForwardArg>,
     l2ForwardCommands, "chooses the gate by the destination MAC address"},  // assumed
    {"L4Checksum",         nullptr,      1,         2,         0, 0, plain,
     noCommands, "computes the TCP or UDP checksum anew"},  // outputs seen, inputs assumed
    {"MACSwap",            "macswap",    1,         1,         0, 0, plain,
     noCommands, "exchanges the source and destination MAC addresses"},  // outputs seen, inputs assumed
    {"MPLSPop",            nullptr,      1,         2,         0, 0, plain,
     mplsPopCommands, "takes the outermost MPLS label off"},  // outputs: 1 seen taken, 3 refused; inputs assumed
    {"Measure",            nullptr,      1,         1,         0, 1, make<MeasureState, MeasureArg>,
     measureCommands, "measures how old packets are that a Timestamp has marked"},  // assumed
    {"Merge",              nullptr,      gateLimit, 1,         0, 0, plain,
     noCommands, "joins all inputs into one output"},  // assumed
    {"MetadataTest",       "mt_test",    gateLimit, gateLimit, 0, 1, make<MetadataTestState, MetadataTestArg>,
     noCommands, "reads and writes the metadata it is told, for tests"},  // outputs: 4 seen taken, 8193 refused; inputs assumed
    {"NAT",                nullptr,      2,         2,         0, 2, make<NatState, NATArg>,
     natCommands, "translates addresses and ports of IPv4 flows as they appear"},  // workers seen, inputs and outputs assumed
    {"NoOP",               "noop",       0,         0,         1, 0, plain,
     noCommands, "has a task that has nothing to do"},  // seen
    {"PortInc",            nullptr,      0,         1,         1, 0, makePortUser<PortIncArg, Direction::Inc>,
     portIncCommands, "takes packets in from all queues of a port"},  // assumed
    {"PortOut",            nullptr,      1,         0,         0, 0, makePortUser<PortOutArg, Direction::Out>,
     portOutCommands, "sends packets out through a port"},  // outputs seen, inputs assumed
    {"Qos",                nullptr,      1,         gateLimit, 0, 0, make<QosState, EmptyArg>,
     qosCommands, "chooses gate and rate limits by looking up several fields"},  // assumed
    {"Queue",              nullptr,      1,         1,         1, 0, make<QueueState, QueueArg>,
     queueCommands, "keeps packets until a task of its own takes them on"},  // assumed
    {"QueueInc",           nullptr,      0,         1,         1, 0, makeQueueUser<QueueIncArg, Direction::Inc>,
     queueIncCommands, "takes packets in from one queue of a port"},  // assumed
    {"QueueOut",           nullptr,      1,         0,         0, 0, makeQueueUser<QueueOutArg, Direction::Out>,
     noCommands, "sends packets out through one queue of a port"},  // outputs seen, inputs assumed
    {"RandomSplit",        nullptr,      1,         gateLimit, 0, 0, make<RandomSplitState, RandomSplitArg>,
     randomSplitCommands, "drops some packets and spreads the others, by chance"},  // outputs: 32 seen taken, 8193 refused; inputs assumed
    {"RandomUpdate",       "rupdate",    1,         1,         0, 1, make<RandomUpdateState, RandomUpdateArg>,
     randomUpdateCommands, "overwrites packet bytes with random numbers from a range"},  // assumed
    {"Replicate",          "repl",       1,         maxCopies, 0, 0, make<ReplicateState, ReplicateArg>,
     replicateCommands, "sends a copy of each packet to every gate"},  // assumed
    {"Rewrite",            nullptr,      1,         1,         0, 0, make<RewriteState, RewriteArg>,
     rewriteCommands, "exchanges the whole content of packets for given ones"},  // assumed
    {"RoundRobin",         "rr",         1,         gateLimit, 0, 1, make<RoundRobinState, RoundRobinArg>,
     roundRobinCommands, "sends to one gate after the other in turn"},  // outputs and workers seen, inputs assumed
    {"SetMetadata",        "setattr",    1,         1,         0, 0, make<SetMetadataState, SetMetadataArg>,
     setMetadataCommands, "gives packets metadata, fixed or copied from their bytes"},  // assumed
    {"Sink",               nullptr,      1,         0,         0, 0, plain,
     noCommands, "drops whatever comes"},  // seen
    {"Source",             nullptr,      0,         1,         1, 1, make<SourceState, SourceArg>,
     sourceCommands, "makes packets of a given size without end; their content is arbitrary"},  // seen
    {"Split",              nullptr,      1,         gateLimit, 0, 0, make<SplitState, SplitArg>,
     noCommands, "takes the gate's number from packet bytes or metadata"},  // assumed
    {"StaticNAT",          nullptr,      2,         2,         0, 0, make<StaticNatState, StaticNATArg>,
     staticNATCommands, "translates address ranges one to one, keeping no flows"},  // seen
    {"Timestamp",          nullptr,      1,         1,         0, 0, make<TimestampState, TimestampArg>,
     noCommands, "writes the time of passing into packets, for Measure"},  // outputs seen, inputs assumed
    {"Update",             nullptr,      1,         1,         0, 0, make<UpdateState, UpdateArg>,
     updateCommands, "overwrites packet bytes with given values"},  // assumed
    {"UpdateTTL",          nullptr,      1,         1,         0, 0, plain,
     noCommands, "takes one off the IPv4 time to live and drops what has run out"},  // assumed
    {"UrlFilter",          "url-filter", 2,         2,         0, 1, make<UrlFilterState, UrlFilterArg>,
     urlFilterCommands, "cuts HTTP connections that ask for a blocked address"},  // assumed
    {"VLANPop",            nullptr,      1,         1,         0, 0, plain,
     noCommands, "takes the outermost VLAN tag off"},  // inputs seen, outputs assumed
    {"VLANPush",           nullptr,      1,         1,         0, 0, make<VlanPushState, VLANPushArg>,
     vlanPushCommands, "puts a VLAN tag on"},  // assumed
    {"VLANSplit",          nullptr,      1,         4096,      0, 0, plain,
     noCommands, "takes the gate's number from the VLAN tag, which comes off"},  // inputs seen, outputs assumed
    {"VXLANDecap",         nullptr,      1,         1,         0, 0, make<VxlanDecapState, VXLANDecapArg>,
     noCommands, "takes the outer headers down to VXLAN off"},  // assumed
    {"VXLANEncap",         nullptr,      1,         1,         0, 0, make<VxlanEncapState, VXLANEncapArg>,
     noCommands, "puts UDP and VXLAN headers in front"},  // assumed
    {"WildcardMatch",      "wm",         1,         gateLimit, 0, 0, make<WildcardMatchState, WildcardMatchArg>,
     wildcardMatchCommands, "chooses the gate by looking up several fields under masks"},  // outputs seen, inputs assumed
    {"WorkerSplit",        "ws",         1,         workerLimit, 0, 0, make<WorkerSplitState, WorkerSplitArg>,
     workerSplitCommands, "takes the gate's number from the worker that is running"},  // assumed
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
