#pragma once

#include <grpcpp/grpcpp.h>

#include <functional>
#include <memory>
#include <string>

namespace Standin {

// What a stand-in daemon may be told at its start.
struct Options {
  // HOST:PORT to listen at; port 0 takes a free one, empty listens nowhere (in-process only).
  std::string listen = "127.0.0.1:10514";
  // The text that getVersion answers.
  std::string version = "bessd-standin 0.1.0";
  // Processor cores that the daemon pretends to have; workers name them.
  int cores = 2;
  // Answers UNIMPLEMENTED to the two MAC address requests, as daemons without them do.
  bool strictDaemon = false;
  // Fills the gate hooks into the answers of getModuleInfo. Off: daemons of today report them in
  // fields that our protocol does not have, so a client of ours sees none.
  bool reportGateHooks = false;
  // Called after killBess is answered, on a thread of gRPC; must not block, shut down or throw.
  std::function<void()> onKill;
};

// A stand-in for the switch daemon: serves every request with the daemon's rules and refusals, and
// keeps what they create, but moves no packet, so counters stay 0.
//
// All functions may be called from any thread. The server runs on threads of its own from
// construction to `shutdown`; handlers run one at a time.
class Server {
 public:
  // Throws std::runtime_error, with a text for the person who chose the address, when
  // `options.listen` has no port or cannot be listened at.
  explicit Server(const Options& options);
  // Shuts down and waits for the handlers.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // The port listened at; 0 when in-process only.
  int port() const;
  // HOST:PORT to connect to; empty when in-process only.
  std::string address() const;
  // A channel that needs no network. No call may begin on it after `shutdown`: gRPC does not
  // survive that; a client that outlives its daemon connects to `address`.
  std::shared_ptr<grpc::Channel> inProcessChannel();

  // Refuses new calls, gives running ones a second, then returns. May be repeated.
  void shutdown();
  // Returns once another thread has called `shutdown`.
  void wait();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Standin
