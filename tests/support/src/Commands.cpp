#include <support/Commands.h>

#include <bess/pb/service.pb.h>

namespace support {

std::unique_ptr<google::protobuf::Message> newRequest(Norv::GrpcRequestType type) {
  switch (type) {
#define NORV_REQUEST(number, name, Rpc, Request, Response) \
  case Norv::name:                                         \
    return std::make_unique<bess::pb::Request>();
#include <Norv/GrpcRequests.def>
    default:
      return nullptr;
  }
}

}  // namespace support
