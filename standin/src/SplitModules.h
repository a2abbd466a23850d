#pragma once

#include <string>

#include <bess/pb/service.pb.h>

#include "MatchModules.h"
#include "ModuleState.h"

// Modules that choose an output gate without a table of rules.

namespace Standin {

constexpr unsigned workerLimit = 64;  // Worker numbers are below it.
constexpr unsigned maxCopies = 32;    // Gates of one Replicate.

class RoundRobinState : public ModuleState {
 public:
  explicit RoundRobinState(const bess::pb::RoundRobinArg& arg);
  void setMode(const bess::pb::RoundRobinCommandSetModeArg& arg);
  void setGates(const bess::pb::RoundRobinCommandSetGatesArg& arg);
};

class RandomSplitState : public ModuleState {
 public:
  explicit RandomSplitState(const bess::pb::RandomSplitArg& arg);
  void setDropRate(const bess::pb::RandomSplitCommandSetDroprateArg& arg);
  void setGates(const bess::pb::RandomSplitCommandSetGatesArg& arg);
};

class ReplicateState : public ModuleState {
 public:
  explicit ReplicateState(const bess::pb::ReplicateArg& arg);
  void setGates(const bess::pb::ReplicateCommandSetGatesArg& arg);
};

class HashLbState : public ModuleState {
 public:
  explicit HashLbState(const bess::pb::HashLBArg& arg);
  std::string description() const override;
  bool commandsChangeAttributes() const override { return true; }
  void setMode(const bess::pb::HashLBCommandSetModeArg& arg);
  void setGates(const bess::pb::HashLBCommandSetGatesArg& arg);

 private:
  void setFields(const google::protobuf::RepeatedPtrField<bess::pb::Field>& fields);

  MatchFields fields_;
};

class WorkerSplitState : public ModuleState {
 public:
  explicit WorkerSplitState(const bess::pb::WorkerSplitArg& arg) { reset(arg); }
  void reset(const bess::pb::WorkerSplitArg& arg);
};

class SplitState : public ModuleState {
 public:
  explicit SplitState(const bess::pb::SplitArg& arg);
};

}  // namespace Standin
