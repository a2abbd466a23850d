#include "NewerReplies.h"

#include <google/protobuf/unknown_field_set.h>

namespace Standin::NewerReplies {

namespace {

google::protobuf::UnknownFieldSet& extra(google::protobuf::Message& message) {
  return *message.GetReflection()->MutableUnknownFields(&message);
}

}  // namespace

void tell(const Port& port, bess::pb::ListPortsResponse::Port& shown) {
  auto& fields = extra(shown);
  fields.AddVarint(4, port.incUsed.size());
  fields.AddVarint(5, port.outUsed.size());
  fields.AddVarint(6, port.incSize);
  fields.AddVarint(7, port.outSize);
  fields.AddLengthDelimited(8, port.arg.SerializeAsString());
}

void tell(const bess::pb::GetModuleInfoResponse::GateHook& hook,
          bess::pb::GetModuleInfoResponse::IGate& gate) {
  extra(gate).AddLengthDelimited(8, hook.SerializeAsString());
}

void tell(const bess::pb::GetModuleInfoResponse::GateHook& hook,
          bess::pb::GetModuleInfoResponse::OGate& gate) {
  extra(gate).AddLengthDelimited(9, hook.SerializeAsString());
}

void tellHookName(const std::string& name, bess::pb::CommandResponse& response) {
  extra(response).AddLengthDelimited(2, name);
}

}  // namespace Standin::NewerReplies
