#include "TrafficModules.h"

#include <bit>
#include <cerrno>
#include <chrono>

#include "Checks.h"
#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::uint64_t defaultQueueSize = 1024;
constexpr std::uint64_t minQueueSize = 4;
constexpr std::uint64_t maxQueueSize = 16384;
// Of a histogram of latencies. Assumed: 100,000 were seen to be taken, 10,000,000 to be refused.
constexpr std::uint64_t maxBuckets = 1000000;

void checkQueueSize(std::uint64_t size) {
  if (size < minQueueSize || size > maxQueueSize) throw Refusal(EINVAL, "must be in [4, 16384]");
  if (!std::has_single_bit(size)) throw Refusal(EINVAL, "must be a power of 2");
}

Port& portNamed(Ports& ports, const std::string& name, const char* missing) {
  if (name.empty()) throw Refusal(EINVAL, missing);
  Port* port = ports.find(name);
  if (port == nullptr) throw Refusal(ENODEV, "Port " + name + " not found");
  return *port;
}

bool isIpv4(const std::string& frame) {
  return frame.size() >= 14 && frame[12] == '\x08' && frame[13] == '\x00';
}

bool ascending(const google::protobuf::RepeatedField<double>& percentiles) {
  double last = 0;
  for (double percentile : percentiles) {
    if (!(percentile >= last && percentile <= 100)) return false;
    last = percentile;
  }
  return true;
}

}  // namespace

SourceState::SourceState(const bess::pb::SourceArg& arg) {
  if (arg.pkt_size() > packetRoom) throw Refusal(EINVAL, "Invalid packet size");
}

void SourceState::setBurst(const bess::pb::SourceCommandSetBurstArg& arg) {
  checkBurst(arg.burst());
}

void SourceState::setPacketSize(const bess::pb::SourceCommandSetPktSizeArg& arg) {
  if (arg.pkt_size() == 0 || arg.pkt_size() > packetRoom)
    throw Refusal(EINVAL, "Invalid packet size");
}

FlowGenState::FlowGenState(const bess::pb::FlowGenArg& arg) {
  if (arg.template_().empty()) throw Refusal(EINVAL, "must specify 'template'");
  update(arg);
}

void FlowGenState::update(const bess::pb::FlowGenArg& arg) {
  if (arg.template_().size() > packetRoom) throw Refusal(EINVAL, "'template' is too big");
  if (!arg.template_().empty() && !isIpv4(arg.template_()))
    throw Refusal(EINVAL, "'template' is not IPv4");
  // What is 0 keeps its value.
  const auto take = [](double wanted, const char* name, double present) {
    if (wanted == 0) return present;
    if (!(wanted > 0)) throw Refusal(EINVAL, std::string("invalid '") + name + "'");
    return wanted;
  };
  const double rate = take(arg.pps(), "pps", packetRate_);
  const double flowRate = take(arg.flow_rate(), "flow_rate", flowRate_);
  if (flowRate > rate) throw Refusal(EINVAL, "flow rate cannot be more than pps");
  take(arg.flow_duration(), "flow_duration", 0);
  if (!arg.arrival().empty() && arg.arrival() != "uniform" && arg.arrival() != "exponential")
    throw Refusal(EINVAL, "'arrival' must be either 'uniform' or 'exponential'");
  if (!arg.duration().empty() && arg.duration() != "uniform" && arg.duration() != "pareto")
    throw Refusal(EINVAL, "'duration' must be either 'uniform' or 'pareto'");
  packetRate_ = rate;
  flowRate_ = flowRate;
}

void FlowGenState::setBurst(const bess::pb::FlowGenCommandSetBurstArg& arg) {
  checkBurst(arg.burst());
}

QueueState::QueueState(const bess::pb::QueueArg& arg) : config_(arg) {
  if (arg.size() == 0) config_.set_size(defaultQueueSize);
  checkQueueSize(config_.size());
}

std::string QueueState::description() const {
  return "0/" + std::to_string(config_.size());
}

void QueueState::setBurst(const bess::pb::QueueCommandSetBurstArg& arg) {
  checkBurst(arg.burst());
}

void QueueState::setSize(const bess::pb::QueueCommandSetSizeArg& arg) {
  checkQueueSize(arg.size());
  config_.set_size(arg.size());
}

void QueueState::setConfig(const bess::pb::QueueArg& arg) {
  bess::pb::QueueArg wanted = arg;
  if (wanted.size() == 0) wanted.set_size(config_.size());
  checkQueueSize(wanted.size());
  config_ = wanted;
}

bess::pb::QueueCommandGetStatusResponse QueueState::status() const {
  bess::pb::QueueCommandGetStatusResponse answer;
  answer.set_size(config_.size());
  return answer;
}

void DrrState::setQuantum(const bess::pb::DRRQuantumArg& arg) {
  if (arg.quantum() == 0) throw Refusal(EINVAL, "quantum size must be at least 1");
}

void DrrState::setMaxFlowQueueSize(const bess::pb::DRRMaxFlowQueueSizeArg& arg) {
  if (arg.max_queue_size() == 0) throw Refusal(EINVAL, "max queue size must be at least 1");
}

PortUserState::PortUserState(Ports& ports, const std::string& port, Direction direction)
    : claim_(portNamed(ports, port, "'port' must be given as a string"), direction, -1),
      description_(port + "/" + claim_.port().driver->name),
      tasks_(direction == Direction::Inc ? static_cast<int>(claim_.queues()) : 0) {}

PortUserState::PortUserState(Ports& ports, const std::string& port, Direction direction,
                             std::uint16_t queue)
    : claim_(portNamed(ports, port, "Field 'port' must be specified"), direction, queue),
      description_(port + ":" + std::to_string(queue) + "/" + claim_.port().driver->name),
      tasks_(direction == Direction::Inc ? 1 : 0) {}

TimestampState::TimestampState(const bess::pb::TimestampArg& arg) {
  if (arg.offset() == 0) declare(*this, "timestamp", 8, Attribute::Mode::Write);
}

MeasureState::MeasureState(const bess::pb::MeasureArg& arg)
    : resolution_(arg.latency_ns_resolution() == 0 ? 100 : arg.latency_ns_resolution()) {
  if (arg.latency_ns_max() / resolution_ > maxBuckets)
    throw Refusal(E2BIG, "excessive latency_ns_max / latency_ns_resolution");
  if (arg.offset() == 0) declare(*this, "timestamp", 8, Attribute::Mode::Read);
}

bess::pb::MeasureCommandGetSummaryResponse MeasureState::summary(
    const bess::pb::MeasureCommandGetSummaryArg& arg) const {
  if (!ascending(arg.latency_percentiles())) throw Refusal(EINVAL, "invalid 'latency_percentiles'");
  if (!ascending(arg.jitter_percentiles())) throw Refusal(EINVAL, "invalid 'jitter_percentiles'");
  bess::pb::MeasureCommandGetSummaryResponse answer;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  answer.set_timestamp(std::chrono::duration<double>(now).count());
  answer.mutable_latency()->set_resolution_ns(resolution_);
  answer.mutable_jitter()->set_resolution_ns(resolution_);
  for (int i = 0; i < arg.latency_percentiles_size(); ++i)
    answer.mutable_latency()->add_percentile_values_ns(0);
  for (int i = 0; i < arg.jitter_percentiles_size(); ++i)
    answer.mutable_jitter()->add_percentile_values_ns(0);
  return answer;
}

}  // namespace Standin
