#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <Lumo/MainLoop.h>
#include <Norv/Agent/Kit.h>

#include "Feeder.h"

namespace Norvctl {

struct SessionOptions {
  std::string host = "localhost";  // as a channel takes it, an IPv6 address in brackets
  U16 port = 10514;
  std::chrono::nanoseconds timeout{0};  // for the whole session; 0: for ever
  Norv::Agent::FailurePolicy failurePolicy;
  std::string flightRecorder;  // the trace file to keep; empty: none
  U64 flightRecorderSize = Norv::Agent::FlightRecorder::usualSize;
  unsigned flightRecorderCopies = Norv::Agent::FlightRecorder::usualCopies;
  std::string trace;             // as LUMO_TRACE
  bool traceFirstBatch = false;  // shows the manager's trace up to the first wake-up
  bool keepRequests = false;     // for the listener
  bool keepResponses = false;
  // Commands that name no queue go at once, as a stream has no end to wait for.
  bool stream = false;
};

// How a session ended.
enum class SessionEnd { complete, stoppedByFailure, timedOut, interrupted, badInput, outputLost };

// One command of the session as the tool knows it.
struct Entry {
  std::string queue;
  Norv::GrpcRequestType type = Norv::unknown;
  std::size_t line = 0;
  std::size_t bytes = 0;
  std::unique_ptr<google::protobuf::Message> request;   // null: not kept
  std::unique_ptr<google::protobuf::Message> response;  // null: none came, or not kept
};

// What a session tells while it runs; called on the main thread, commands in the order in which
// they ended.
class SessionListener {
 public:
  virtual ~SessionListener() = default;
  virtual void ended(const Norv::Agent::CommandReport& report, const Entry& entry) = 0;
  // After each round of ends; false ends the session.
  virtual bool told() = 0;
  // Whether it wants to be told of each command that was never read, as dropped.
  virtual bool wantsUnread() const = 0;
  // Every few milliseconds.
  virtual void progress(const Norv::Agent::Kit& kit) = 0;
};

// A small agent: its own queues, manager and kit, a main loop, and one run of steps through them, a
// bounded number of commands at a time. There is one session in a process, and it stays: a
// connected manager cannot be destroyed.
class Session {
 public:
  // `source` and `listener` must outlive the session.
  Session(const SessionOptions& options, StepSource& source, SessionListener& listener);
  ~Session();

  // Reads the steps, puts the commands into their queues, announces, and waits for every command's
  // end.
  SessionEnd run();
  std::chrono::duration<double> elapsed() const { return elapsed_; }
  // What was wrong with the input, when that ended the session.
  const std::string& complaint() const { return complaint_; }
  // Commands that were read, told or not.
  U64 commands() const { return made_; }

 private:
  class Ticker;
  class Cmd;
  class Trace;

  void connect();
  void feed();
  void enqueue(Step step);
  void announce(const std::string& queue);
  void announceEarly();
  void announceRest();
  bool room() const;
  void refuseTooMany();
  void deliver();
  void deliverAll();
  void tell(const Norv::Agent::CommandReport& report);
  void tellUnread();
  bool finished();
  SessionEnd end(bool done) const;

  const SessionOptions options_;
  StepSource& source_;
  SessionListener& listener_;
  Lumo::MainLoop loop_;
  Lumo::Ptr<Norv::GrpcGlobalCmdConfig> config_;
  Lumo::Ptr<Norv::CmdGroup> pending_;
  Lumo::Ptr<Norv::GrpcErrorHandlingStatus> status_;
  std::unique_ptr<Trace> trace_;
  Norv::Agent::Kit kit_;
  Lumo::Ptr<Norv::ConnectionsMgr> manager_;
  Lumo::Ptr<Ticker> ticker_;
  // By ledger id, of commands that are not told yet.
  std::unordered_map<U64, std::shared_ptr<Entry>> entries_;
  std::size_t openBytes_ = 0;  // of their lines
  U64 made_ = 0;
  bool fed_ = false;
  std::string complaint_;
  bool outputLost_ = false;
  struct Unannounced {
    std::string queue;
    std::size_t commands = 0;
    std::size_t bytes = 0;
    bool early = false;  // may go before its announcement
  };
  std::vector<Unannounced> unannounced_;  // in order of appearance
  Lumo::Lock endedLock_;
  std::vector<Norv::Agent::CommandReport> ended_ LUMO_GUARDED_BY(endedLock_);
  U64 nextSeq_ = 1;
  std::map<U64, Norv::Agent::CommandReport> toTell_;      // by seq, ended before its turn
  std::map<U64, Norv::Agent::CommandReport> toTellLast_;  // by id, never announced
  std::chrono::duration<double> elapsed_{0};
  std::optional<Feeder> feeder_;  // made last: its thread calls in here
};

// SIGINT, SIGTERM and SIGHUP end the running session early; the same a second time ends the
// process. One that was ignored stays so.
void endOnSignals();
// The signal that did; 0 for none.
int endingSignal();

}  // namespace Norvctl
