#include "SplitModules.h"

#include <cerrno>

#include "Checks.h"
#include "Refusal.h"

namespace Standin {

namespace {

void checkDropRate(double rate) {
  if (!(rate >= 0 && rate <= 1)) throw Refusal(EINVAL, "drop rate needs to be between [0, 1]");
}

void checkTurnMode(const std::string& mode) {
  if (mode != "packet" && mode != "batch")
    throw Refusal(EINVAL, "argument must be either 'packet' or 'batch'");
}

void checkCopies(int gates) {
  if (gates > static_cast<int>(maxCopies))
    throw Refusal(EINVAL, "no more than " + std::to_string(maxCopies) + " gates");
}

void checkHashMode(const std::string& mode) {
  if (mode != "l2" && mode != "l3" && mode != "l4")
    throw Refusal(EINVAL, "available LB modes: l2, l3, l4");
}

}  // namespace

RoundRobinState::RoundRobinState(const bess::pb::RoundRobinArg& arg) {
  checkGates(arg.gates(), "invalid gate ");
  if (!arg.mode().empty()) checkTurnMode(arg.mode());
}

void RoundRobinState::setMode(const bess::pb::RoundRobinCommandSetModeArg& arg) {
  checkTurnMode(arg.mode());
}

void RoundRobinState::setGates(const bess::pb::RoundRobinCommandSetGatesArg& arg) {
  checkGates(arg.gates(), "invalid gate ");
}

RandomSplitState::RandomSplitState(const bess::pb::RandomSplitArg& arg) {
  checkDropRate(arg.drop_rate());
  checkGates(arg.gates(), "Invalid gate ");
}

void RandomSplitState::setDropRate(const bess::pb::RandomSplitCommandSetDroprateArg& arg) {
  checkDropRate(arg.drop_rate());
}

void RandomSplitState::setGates(const bess::pb::RandomSplitCommandSetGatesArg& arg) {
  checkGates(arg.gates(), "Invalid gate ");
}

ReplicateState::ReplicateState(const bess::pb::ReplicateArg& arg) {
  checkCopies(arg.gates_size());
}

void ReplicateState::setGates(const bess::pb::ReplicateCommandSetGatesArg& arg) {
  checkCopies(arg.gates_size());
}

HashLbState::HashLbState(const bess::pb::HashLBArg& arg) {
  checkGates(arg.gates(), "Invalid ogate ");
  if (arg.fields_size() > 0)
    setFields(arg.fields());
  else if (!arg.mode().empty())
    checkHashMode(arg.mode());
}

std::string HashLbState::description() const {
  return std::to_string(fields_.size()) + " fields";
}

void HashLbState::setFields(const google::protobuf::RepeatedPtrField<bess::pb::Field>& fields) {
  try {
    std::vector<Attribute> read;
    fields_ = MatchFields(fields, read, MatchFields::Wording::Exact);
    attributes = read;
  } catch (const Refusal& refusal) {
    // This class gives the number as it gets it. The texts are assumed.
    throw Refusal(-refusal.code, refusal.what());
  }
}

void HashLbState::setMode(const bess::pb::HashLBCommandSetModeArg& arg) {
  if (arg.fields_size() > 0)
    setFields(arg.fields());
  else
    checkHashMode(arg.mode());
}

void HashLbState::setGates(const bess::pb::HashLBCommandSetGatesArg& arg) {
  checkGates(arg.gates(), "Invalid ogate ");
}

void WorkerSplitState::reset(const bess::pb::WorkerSplitArg& arg) {
  for (const auto& [worker, gate] : arg.worker_gates()) {
    if (worker >= workerLimit)
      throw Refusal(EINVAL, "worker id must be less than " + std::to_string(workerLimit));
    if (gate >= gateLimit)
      throw Refusal(EINVAL, "output gate must be less than " + std::to_string(gateLimit));
  }
}

SplitState::SplitState(const bess::pb::SplitArg& arg) {
  if (arg.size() < 1 || arg.size() > maxNumberSize) throw Refusal(EINVAL, "'size' must be 1-8");
  if (arg.type_case() == bess::pb::SplitArg::kAttribute)
    declare(*this, arg.attribute(), arg.size(), Attribute::Mode::Read);
  else if (arg.offset() < 0 || arg.offset() > 1024)
    throw Refusal(EINVAL, "invalid 'offset'");
}

}  // namespace Standin
