#pragma once

#include <Lumo/PtrInterface.h>
#include <Norv/GrpcRequestType.h>

namespace google::protobuf {
class Message;
}

namespace Lumo {
class GenericValue;
}

namespace Norv {

// A command: one request message, and the type that says which RPC it is for. A producer derives
// its own class to get the response, makes it with `Lumo::allocate<MyCmd>(...)` and appends it to a
// named queue.
//
// The command owns its request and deletes it no later than itself. It does not check that the
// message fits the type; the client aborts the process when it does not (TypedCmd cannot be built
// wrong). The last reference is often let go by the client's thread, without the activity lock: a
// destructor of a derived class runs there.
class GrpcCmd : public Lumo::PtrInterface {
  LUMO_OBJECT(GrpcCmd)

 public:
  typedef Lumo::Ptr<GrpcCmd> Ptr;
  typedef Lumo::Ptr<GrpcCmd const> PtrConst;

  // Takes ownership of `request`, which may be null.
  GrpcCmd(google::protobuf::Message* request, GrpcRequestType requestType)
      : request_(request), requestType_(requestType) {}
  static Lumo::ValidPtr<GrpcCmd> GrpcCmdIs(google::protobuf::Message* request,
                                           GrpcRequestType requestType);
  // Deletes the request. An exception in here ends the process.
  ~GrpcCmd() override;

  // The RPC has succeeded with this response, which may still carry an error of the daemon's in its
  // `error` field. Called once for each time the command was sent, on the client's thread, under
  // the activity lock; not at all for a reply that does not decode or a failed RPC. An OK status
  // without a message counts as an empty response. The response belongs to the caller and is gone
  // after the call. An exception that leaves it ends the process. The base only traces.
  virtual void processResponse(google::protobuf::Message* response);

  // The command's own; null after freeRequestMemory.
  google::protobuf::Message* request() const { return request_; }
  // Replaces the request and takes ownership of the new one; the old one is the caller's to delete.
  void requestIs(google::protobuf::Message* request) { request_ = request; }
  GrpcRequestType requestType() const { return requestType_; }
  // Deletes the request, if there is one, and clears it.
  void freeRequestMemory();

 private:
  google::protobuf::Message* request_;
  const GrpcRequestType requestType_;
};

Lumo::Ptr<GrpcCmd> grpcCmdFactory(google::protobuf::Message* request, GrpcRequestType requestType);

// A message as an argument of the generic interface. The value does not own it.
Lumo::GenericValue genericMessage(google::protobuf::Message* message);

}  // namespace Norv
