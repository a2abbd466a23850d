#include "TrafficModules.h"

#include <cerrno>
#include <chrono>

#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::uint64_t maxPacketSize = 2048;  // Bytes.
constexpr std::uint64_t defaultQueueSize = 1024;

void checkQueueSize(std::uint64_t size) {
  if (size < 4 || size > 16384 || (size & (size - 1)) != 0)
    throw Refusal(EINVAL, "must be a power of 2");
}

Port& portNamed(Ports& ports, const std::string& name) {
  if (name.empty()) throw Refusal(EINVAL, "'port' must be given as a string");
  Port* port = ports.find(name);
  if (port == nullptr) throw Refusal(ENODEV, "Port " + name + " not found");
  return *port;
}

}  // namespace

void checkBurst(std::uint64_t burst) {
  if (burst > burstLimit) throw Refusal(EINVAL, "burst size must be [0,64]");
}

SourceState::SourceState(const bess::pb::SourceArg& arg) {
  if (arg.pkt_size() > maxPacketSize) throw Refusal(EINVAL, "Invalid packet size");
}

void SourceState::setBurst(const bess::pb::SourceCommandSetBurstArg& arg) {
  checkBurst(arg.burst());
}

void SourceState::setPacketSize(const bess::pb::SourceCommandSetPktSizeArg& arg) {
  if (arg.pkt_size() == 0 || arg.pkt_size() > maxPacketSize)
    throw Refusal(EINVAL, "Invalid packet size");
}

FlowGenState::FlowGenState(const bess::pb::FlowGenArg& arg) {
  update(arg);
}

void FlowGenState::update(const bess::pb::FlowGenArg& arg) {
  if (arg.template_().empty()) throw Refusal(EINVAL, "must specify 'template'");
  if (arg.template_().size() > maxPacketSize) throw Refusal(EINVAL, "'template' is too big");
  if (!arg.arrival().empty() && arg.arrival() != "uniform" && arg.arrival() != "exponential")
    throw Refusal(EINVAL, "'arrival' must be either 'uniform' or 'exponential'");
  if (!arg.duration().empty() && arg.duration() != "uniform" && arg.duration() != "pareto")
    throw Refusal(EINVAL, "'duration' must be either 'uniform' or 'pareto'");
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

PortUserState::PortUserState(Ports& ports, const std::string& port, Direction direction,
                             std::int64_t queue)
    : claim_(portNamed(ports, port), direction, queue),
      description_(port + (queue < 0 ? "" : ":" + std::to_string(queue)) + "/" +
                   claim_.port().driver->name),
      tasks_(direction == Direction::Inc ? static_cast<int>(claim_.queues()) : 0) {}

MeasureState::MeasureState(const bess::pb::MeasureArg& arg)
    : resolution_(arg.latency_ns_resolution() == 0 ? 100 : arg.latency_ns_resolution()) {
  if (arg.jitter_sample_prob() < 0 || arg.jitter_sample_prob() > 1)
    throw Refusal(EINVAL, "invalid jitter_sample_prob, must be between 0.0 and 1.0");
}

bess::pb::MeasureCommandGetSummaryResponse MeasureState::summary(
    const bess::pb::MeasureCommandGetSummaryArg& arg) const {
  for (const auto* percentiles : {&arg.latency_percentiles(), &arg.jitter_percentiles()}) {
    double last = 0;
    for (double percentile : *percentiles) {
      if (percentile < last || percentile > 100)
        throw Refusal(EINVAL, "percentiles must be between 0 and 100, in ascending order");
      last = percentile;
    }
  }
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
