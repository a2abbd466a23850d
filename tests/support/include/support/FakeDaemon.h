#pragma once

#include <google/protobuf/message.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <Norv/GrpcRequestType.h>

namespace grpc {
class Channel;
}

namespace support {

// A server of the daemon's service inside the test, which records what arrives and answers what it
// is told. By default every call succeeds with an empty response.
class FakeDaemon {
 public:
  struct Call {
    Norv::GrpcRequestType type;
    std::string method;   // its path on the wire
    std::string request;  // serialised
    bool hasDeadline;
    std::vector<std::string> metadata;  // names of what the client added
    std::string peer;                   // the client's end of the connection
  };
  struct Answer {
    int code = 0;  // gRPC status
    std::string message;
    // Answers with these bytes instead of a message of the right type; with a failure, before it.
    std::string rawResponse;
    bool withoutMessage = false;  // a success that brings none
  };
  // Fills the response, or sets a status. Called on a thread of the server.
  using Handler =
      std::function<Answer(Norv::GrpcRequestType type, const google::protobuf::Message& request,
                           google::protobuf::Message* response)>;

  // Listens on a port of the loopback, 0 for a free one.
  explicit FakeDaemon(unsigned short port = 0);
  ~FakeDaemon();
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  unsigned short port() const;
  std::shared_ptr<grpc::Channel> inProcessChannel();
  void handlerIs(Handler handler);

  std::vector<Call> calls() const;
  std::vector<Norv::GrpcRequestType> callTypes() const;
  // The most calls that were being answered at one time.
  int mostAtOnce() const;
  // From now on calls arrive but are not answered, until released. Calls held are in calls()
  // already.
  void hold();
  void release();
  // Ends running calls as a dying server does, and stops listening.
  void shutdown();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace support
