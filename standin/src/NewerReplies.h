#pragma once

#include <bess/pb/service.pb.h>

#include "Ports.h"

// What daemons of today tell in fields that our protocol does not have. It travels as unknown
// fields, which are on the wire what known ones are.

namespace Standin::NewerReplies {

void tell(const Port& port, bess::pb::ListPortsResponse::Port& shown);
void tell(const bess::pb::GetModuleInfoResponse::GateHook& hook,
          bess::pb::GetModuleInfoResponse::IGate& gate);
void tell(const bess::pb::GetModuleInfoResponse::GateHook& hook,
          bess::pb::GetModuleInfoResponse::OGate& gate);
void tellHookName(const std::string& name, bess::pb::CommandResponse& response);

}  // namespace Standin::NewerReplies
