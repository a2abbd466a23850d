#pragma once

#include <Standin/Fault.h>
#include <Standin/Pace.h>
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Standin {

// What a stand-in daemon may be told at its start.
struct Options {
  // HOST:PORT, [IPV6]:PORT or unix:PATH to listen at; port 0 takes a free one, empty listens
  // nowhere (in-process only).
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
  // Fills in what daemons of today tell beyond our protocol, under their numbers: queues, sizes and
  // the driver's argument of a port, the hooks of gates, the name of a hook that was put on.
  bool newerReplies = false;
  // Where to listen for what the stand-in is told while it runs (see control.proto), as `listen`;
  // empty listens nowhere.
  std::string control;
  // Faults in force from the beginning, in their text form.
  std::vector<std::string> faults;
  Pace pace;  // From the beginning.
  // A dump to begin with: its state is there before the first call; empty begins with nothing.
  std::string state;
  // Packets of 60 bytes that each counted gate pretends to pass in a second, since `began`.
  double traffic = 0;
  std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
  // A file to add a line of JSON to for each call; - is stderr.
  std::string log;
  // Called in place of ending the process when a fault wants that; it may return.
  std::function<void()> onExit;
  // Called after killBess is answered, on a thread of gRPC; must not block, shut down or throw.
  std::function<void()> onKill;
};

// A stand-in for the switch daemon: serves every request with the daemon's rules and refusals, and
// keeps what they create, but moves no packet, so counters stay 0 unless `Options::traffic` says
// otherwise.
//
// All functions may be called from any thread. The server runs on threads of its own from
// construction to `shutdown`; handlers run one at a time.
class Server {
 public:
  // Throws std::runtime_error, with a text for the person who chose the options, when an address
  // has no port or cannot be listened at or the log cannot be written; std::invalid_argument for a
  // fault that is none, and for a state as `load` does.
  explicit Server(const Options& options);
  // Shuts down and waits for the handlers.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // The port listened at; 0 when in-process only or at a unix socket.
  int port() const;
  // HOST:PORT or unix:PATH to connect to; empty when in-process only.
  std::string address() const;
  // The same of the control service.
  std::string controlAddress() const;
  // A channel that needs no network. No call may begin on it after `shutdown`: gRPC does not
  // survive that; a client that outlives its daemon connects to `address`.
  std::shared_ptr<grpc::Channel> inProcessChannel();

  // Faults are asked in the order in which they were added; the first that fits a call strikes.
  void addFault(const Fault& fault);
  void clearFaults();
  // Each with how often it has struck.
  std::vector<FaultCount> faults() const;

  Pace pace() const;
  // Calls that wait for their turn are answered at once, those that come keep the new pace.
  void paceIs(const Pace& pace);

  // The whole state, as the calls that lead to it, in the form of command files. They begin with
  // the start, not with the last resetAll, as that leaves plugins and whose turn it is. Throws
  // std::runtime_error once they are more than 256 MiB, until the next resetAll, where they begin
  // from then on.
  std::string dump() const;
  // Begins anew from a dump. Throws std::invalid_argument with the line that is none, or that this
  // server refuses otherwise than the dumped one did, as one with other options may; the state is
  // as before then.
  void load(const std::string& lines);

  // Refuses new calls, gives running ones a second, then returns. May be repeated.
  void shutdown();
  // Returns once another thread has called `shutdown`.
  void wait();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Standin
