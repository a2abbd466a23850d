#pragma once

#include <string>
#include <vector>

#include <bess/pb/service.pb.h>

#include "Checks.h"
#include "ModuleState.h"
#include "Ports.h"

// Modules that make, hold, receive or send packets.

namespace Standin {

class SourceState : public ModuleState {
 public:
  explicit SourceState(const bess::pb::SourceArg& arg);
  void setBurst(const bess::pb::SourceCommandSetBurstArg& arg);
  void setPacketSize(const bess::pb::SourceCommandSetPktSizeArg& arg);
};

class FlowGenState : public ModuleState {
 public:
  explicit FlowGenState(const bess::pb::FlowGenArg& arg);
  std::string description() const override { return "0 flows"; }
  void update(const bess::pb::FlowGenArg& arg);
  void setBurst(const bess::pb::FlowGenCommandSetBurstArg& arg);

 private:
  double packetRate_ = 1000;  // Packets per second.
  double flowRate_ = 10;      // New flows per second.
};

class QueueState : public ModuleState {
 public:
  explicit QueueState(const bess::pb::QueueArg& arg);
  std::string description() const override;
  void setBurst(const bess::pb::QueueCommandSetBurstArg& arg);
  void setSize(const bess::pb::QueueCommandSetSizeArg& arg);
  void setConfig(const bess::pb::QueueArg& arg);
  bess::pb::QueueCommandGetStatusResponse status() const;
  bess::pb::QueueArg config() const { return config_; }

 private:
  bess::pb::QueueArg config_;
};

class DrrState : public ModuleState {
 public:
  explicit DrrState(const bess::pb::DRRArg&) {}
  void setQuantum(const bess::pb::DRRQuantumArg& arg);
  void setMaxFlowQueueSize(const bess::pb::DRRMaxFlowQueueSizeArg& arg);
};

// PortInc, PortOut, QueueInc and QueueOut: a claim on queues of a port for as long as they live.
class PortUserState : public ModuleState {
 public:
  // Claims all queues of the direction.
  PortUserState(Ports& ports, const std::string& port, Direction direction);
  // Claims one queue.
  PortUserState(Ports& ports, const std::string& port, Direction direction, std::uint16_t queue);
  std::string description() const override { return description_; }
  int tasks() const override { return tasks_; }
  void setPortBurst(const bess::pb::PortIncCommandSetBurstArg& arg) { checkBurst(arg.burst()); }
  void setQueueBurst(const bess::pb::QueueIncCommandSetBurstArg& arg) { checkBurst(arg.burst()); }

 private:
  QueueClaim claim_;
  std::string description_;
  int tasks_;
};

class TimestampState : public ModuleState {
 public:
  explicit TimestampState(const bess::pb::TimestampArg& arg);
};

class MeasureState : public ModuleState {
 public:
  explicit MeasureState(const bess::pb::MeasureArg& arg);
  bess::pb::MeasureCommandGetSummaryResponse summary(
      const bess::pb::MeasureCommandGetSummaryArg& arg) const;

 private:
  std::uint64_t resolution_;  // Nanoseconds.
};

}  // namespace Standin
