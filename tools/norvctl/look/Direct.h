#pragma once

#include <google/protobuf/message.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>

#include <Lumo/Types.h>
#include <Norv/GrpcRequestType.h>

namespace Norvctl {

// The daemon cannot be asked, or its reply is none; for a person.
class DirectError : public std::runtime_error {
 public:
  DirectError(grpc::StatusCode status, const std::string& text)
      : std::runtime_error(text), status_(status) {}
  grpc::StatusCode status() const { return status_; }

 private:
  const grpc::StatusCode status_;
};

// Calls the daemon beside the library: with a deadline, replies of any size, nothing queued. For
// reading what a switch looks like; changes go through a session. One thread at a time.
class Direct {
 public:
  static constexpr std::chrono::milliseconds usualPatience{5000};

  // Loopback addresses are reached without a proxy if exemptLoopbackFromProxies was called.
  Direct(const std::string& host, U16 port, std::chrono::milliseconds patience = usualPatience);

  // Gives a call up, as CANCELLED, soon after this begins to return anything but 0.
  void endOn(int (*signalled)()) { signalled_ = signalled; }

  struct Reply {
    grpc::StatusCode status = grpc::StatusCode::OK;
    std::string message;  // of the status
    std::string bytes;    // of the response
  };
  // By the RPC's name in the service.
  Reply call(std::string_view rpc, const std::string& requestBytes);

  // Sends the request and fills the response. Throws DirectError when the RPC fails or the reply
  // does not decode; a refusal is a reply.
  void ask(Norv::GrpcRequestType type, const google::protobuf::Message& request,
           google::protobuf::Message* response);
  template <class Response, class Request>
  Response ask(Norv::GrpcRequestType type, const Request& request) {
    Response response;
    ask(type, request, &response);
    return response;
  }

  const std::string& address() const { return address_; }
  std::chrono::milliseconds patience() const { return patience_; }
  // Why the host does not answer, looked up beside the channel.
  std::string whyNoAnswer() const;
  std::shared_ptr<grpc::Channel> channel() const { return channel_; }

 private:
  const std::string host_;
  const U16 port_;
  const std::string address_;
  const std::chrono::milliseconds patience_;
  std::shared_ptr<grpc::Channel> channel_;
  grpc::GenericStub stub_;
  int (*signalled_)() = nullptr;
};

}  // namespace Norvctl
