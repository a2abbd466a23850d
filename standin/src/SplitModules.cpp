#include "SplitModules.h"

#include <cerrno>

#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::uint32_t workerLimit = 64;

void checkDropRate(double rate) {
  if (!(rate >= 0 && rate <= 1)) throw Refusal(EINVAL, "drop rate needs to be between [0, 1]");
}

void checkTurnMode(const std::string& mode) {
  if (mode != "packet" && mode != "batch")
    throw Refusal(EINVAL, "argument must be either 'packet' or 'batch'");
}

void checkHashMode(const std::string& mode) {
  if (mode != "l2" && mode != "l3" && mode != "l4")
    throw Refusal(EINVAL, "available LB modes: l2, l3, l4");
}

}  // namespace

std::vector<std::uint16_t> checkedGates(const google::protobuf::RepeatedField<std::int64_t>& gates,
                                        const char* text) {
  std::vector<std::uint16_t> result;
  for (std::int64_t gate : gates) {
    const std::uint16_t cut = gateCut(static_cast<std::uint64_t>(gate));
    if (cut >= gateLimit) throw Refusal(EINVAL, text + std::to_string(cut));
    result.push_back(cut);
  }
  return result;
}

RoundRobinState::RoundRobinState(const bess::pb::RoundRobinArg& arg) {
  checkedGates(arg.gates(), "invalid gate ");
  if (!arg.mode().empty()) checkTurnMode(arg.mode());
}

void RoundRobinState::setMode(const bess::pb::RoundRobinCommandSetModeArg& arg) {
  checkTurnMode(arg.mode());
}

void RoundRobinState::setGates(const bess::pb::RoundRobinCommandSetGatesArg& arg) {
  checkedGates(arg.gates(), "invalid gate ");
}

RandomSplitState::RandomSplitState(const bess::pb::RandomSplitArg& arg) {
  checkDropRate(arg.drop_rate());
  checkedGates(arg.gates(), "Invalid gate ");
}

void RandomSplitState::setDropRate(const bess::pb::RandomSplitCommandSetDroprateArg& arg) {
  checkDropRate(arg.drop_rate());
}

void RandomSplitState::setGates(const bess::pb::RandomSplitCommandSetGatesArg& arg) {
  checkedGates(arg.gates(), "Invalid gate ");
}

ReplicateState::ReplicateState(const bess::pb::ReplicateArg& arg) {
  checkedGates(arg.gates(), "Invalid gate ");
}

void ReplicateState::setGates(const bess::pb::ReplicateCommandSetGatesArg& arg) {
  checkedGates(arg.gates(), "Invalid gate ");
}

HashLbState::HashLbState(const bess::pb::HashLBArg& arg) : fields_(arg.fields_size()) {
  checkedGates(arg.gates(), "Invalid ogate ");
  if (!arg.mode().empty()) checkHashMode(arg.mode());
}

std::string HashLbState::description() const {
  return std::to_string(fields_) + " fields";
}

void HashLbState::setMode(const bess::pb::HashLBCommandSetModeArg& arg) {
  if (arg.fields_size() == 0) checkHashMode(arg.mode());
  fields_ = arg.fields_size();
}

void HashLbState::setGates(const bess::pb::HashLBCommandSetGatesArg& arg) {
  checkedGates(arg.gates(), "Invalid ogate ");
}

void WorkerSplitState::reset(const bess::pb::WorkerSplitArg& arg) {
  for (const auto& [worker, gate] : arg.worker_gates()) {
    if (worker >= workerLimit) throw Refusal(EINVAL, "Invalid worker id " + std::to_string(worker));
    if (gateCut(gate) >= gateLimit) throw Refusal(EINVAL, "Invalid gate " + std::to_string(gate));
  }
}

SplitState::SplitState(const bess::pb::SplitArg& arg) {
  if (arg.size() < 1 || arg.size() > 8) throw Refusal(EINVAL, "'size' must be 1-8");
  if (arg.type_case() == bess::pb::SplitArg::kAttribute)
    attributes.push_back({arg.attribute(), arg.size(), Attribute::Mode::Read});
  else if (arg.offset() < 0 || arg.offset() > 1024)
    throw Refusal(EINVAL, "invalid 'offset'");
}

}  // namespace Standin
