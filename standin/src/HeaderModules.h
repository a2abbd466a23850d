#pragma once

#include <string>

#include <bess/pb/service.pb.h>

#include "ModuleState.h"

// Modules that change packets or their metadata.

namespace Standin {

class UpdateState : public ModuleState {
 public:
  explicit UpdateState(const bess::pb::UpdateArg& arg) { add(arg); }
  void add(const bess::pb::UpdateArg& arg);
  void clear(const bess::pb::EmptyArg&) { fields_ = 0; }

 private:
  int fields_ = 0;
};

class RandomUpdateState : public ModuleState {
 public:
  explicit RandomUpdateState(const bess::pb::RandomUpdateArg& arg) { add(arg); }
  void add(const bess::pb::RandomUpdateArg& arg);
  void clear(const bess::pb::EmptyArg&) { fields_ = 0; }

 private:
  int fields_ = 0;
};

class RewriteState : public ModuleState {
 public:
  explicit RewriteState(const bess::pb::RewriteArg& arg) { add(arg); }
  void add(const bess::pb::RewriteArg& arg);
  void clear(const bess::pb::EmptyArg&) { templates_ = 0; }

 private:
  int templates_ = 0;
};

class VlanPushState : public ModuleState {
 public:
  explicit VlanPushState(const bess::pb::VLANPushArg& arg) { setTci(arg); }
  std::string description() const override;
  void setTci(const bess::pb::VLANPushArg& arg);

 private:
  std::uint64_t tci_ = 0;
};

class EtherEncapState : public ModuleState {
 public:
  explicit EtherEncapState(const bess::pb::EtherEncapArg& arg);
};

class GenericEncapState : public ModuleState {
 public:
  explicit GenericEncapState(const bess::pb::GenericEncapArg& arg);
};

class GenericDecapState : public ModuleState {
 public:
  explicit GenericDecapState(const bess::pb::GenericDecapArg& arg);
};

class IpEncapState : public ModuleState {
 public:
  explicit IpEncapState(const bess::pb::IPEncapArg& arg);
};

class VxlanDecapState : public ModuleState {
 public:
  explicit VxlanDecapState(const bess::pb::VXLANDecapArg& arg);
};

class VxlanEncapState : public ModuleState {
 public:
  explicit VxlanEncapState(const bess::pb::VXLANEncapArg& arg);
};

class SetMetadataState : public ModuleState {
 public:
  explicit SetMetadataState(const bess::pb::SetMetadataArg& arg);
};

class MetadataTestState : public ModuleState {
 public:
  explicit MetadataTestState(const bess::pb::MetadataTestArg& arg);
};

class GtpuEncapState : public ModuleState {
 public:
  explicit GtpuEncapState(const bess::pb::EmptyArg& arg);
};

class GtpuParserState : public ModuleState {
 public:
  explicit GtpuParserState(const bess::pb::EmptyArg& arg);
};

class NatState : public ModuleState {
 public:
  explicit NatState(const bess::pb::NATArg& arg);
  std::string description() const override { return "0 entries"; }
};

class StaticNatState : public ModuleState {
 public:
  explicit StaticNatState(const bess::pb::StaticNATArg& arg);
};

class ArpResponderState : public ModuleState {
 public:
  explicit ArpResponderState(const bess::pb::EmptyArg&) {}
  void add(const bess::pb::ArpResponderArg& arg);
};

class DumpState : public ModuleState {
 public:
  explicit DumpState(const bess::pb::DumpArg& arg);
  void setInterval(const bess::pb::DumpArg& arg);
};

}  // namespace Standin
