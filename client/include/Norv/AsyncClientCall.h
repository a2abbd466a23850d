#pragma once

#include <grpcpp/client_context.h>
#include <grpcpp/support/async_unary_call.h>

#include <memory>

namespace Norv {

// One RPC under way. Everything that gRPC writes until the call completes lives in one record,
// whose address is the completion's tag: so nothing is freed while gRPC may still write to it, and
// the one who takes the completion owns the record.
template <class Response>
struct AsyncClientCall {
  Response response;
  grpc::ClientContext context;
  grpc::Status status;  // OK until the call completes
  std::unique_ptr<grpc::ClientAsyncResponseReaderInterface<Response>> responseReader;
};

}  // namespace Norv
