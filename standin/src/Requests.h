#pragma once

#include <bess/pb/service.pb.h>

#include "Refusal.h"

namespace Standin {

// The requests of the table, one function each, which says that there is no answer until Daemon has
// it: a row is enough to build a stand-in that a client can send the request to.
class Requests {
 public:
  virtual ~Requests() = default;

#define NORV_REQUEST(number, name, rpc, request, response)              \
  virtual void name(const bess::pb::request&, bess::pb::response&) {    \
    throw Unimplemented("this stand-in does not answer " #name " yet"); \
  }
#include <Norv/GrpcRequests.def>
};

}  // namespace Standin
