#pragma once

#include <utility>

#include <Norv/GrpcCmd.h>
#include <bess/pb/service.pb.h>

namespace Norv {

// The messages of a request type: Request and Response.
template <GrpcRequestType type>
struct RequestMessages;
#define NORV_REQUEST(number, name, Rpc, RequestMessage, ResponseMessage) \
  template <>                                                            \
  struct RequestMessages<name> {                                         \
    using Request = bess::pb::RequestMessage;                            \
    using Response = bess::pb::ResponseMessage;                          \
  };
#include <Norv/GrpcRequests.def>

// A command that cannot be built wrong: it is made from the one request message that fits its type,
// and hands its producer the response in the type that the daemon answers with, a refusal apart
// from a success.
//
//   class CreatePort : public Norv::TypedCmd<Norv::createPort> {
//    public:
//     using TypedCmd::TypedCmd;
//     void onSuccess(const Response& response) override { ... response.name() ... }
//     void onRefusal(const bess::pb::Error& error, const Response&) override { ... }
//   };
//   queue->cmdBatchEnq(Lumo::allocate<CreatePort>(request));
//
// The handlers run as GrpcCmd::processResponse does: on the client's thread, under the activity
// lock, with a response that is gone after the call. A command whose RPC fails gets neither.
template <GrpcRequestType type>
class TypedCmd : public GrpcCmd {
 public:
  using Request = typename RequestMessages<type>::Request;
  using Response = typename RequestMessages<type>::Response;

  explicit TypedCmd(Request request = Request()) : GrpcCmd(new Request(std::move(request)), type) {}

  // Null after freeRequestMemory.
  const Request* typedRequest() const { return static_cast<const Request*>(request()); }

  // The daemon did it.
  virtual void onSuccess(const Response& /*response*/) {}
  // The daemon refused: `error.code()` is an errno value, for some requests a negative number.
  virtual void onRefusal(const bess::pb::Error& /*error*/, const Response& /*response*/) {}

  void processResponse(google::protobuf::Message* message) override {
    const Response& response = *static_cast<const Response*>(message);
    if (response.error().code() == 0) {
      onSuccess(response);
    } else {
      onRefusal(response.error(), response);
    }
  }
};

}  // namespace Norv
