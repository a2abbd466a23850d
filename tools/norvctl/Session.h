#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Lumo/MainLoop.h>
#include <Norv/Agent/Kit.h>

#include "CommandFile.h"

namespace Norvctl {

struct SessionOptions {
  std::string host = "localhost";
  U16 port = 10514;
  std::chrono::nanoseconds timeout{0};  // for the whole session; 0: for ever
  Norv::Agent::FailurePolicy failurePolicy;
  std::string flightRecorder;  // the trace file to keep; empty: none
  U64 flightRecorderSize = Norv::Agent::FlightRecorder::usualSize;
  unsigned flightRecorderCopies = Norv::Agent::FlightRecorder::usualCopies;
  std::string trace;             // as LUMO_TRACE
  bool traceFirstBatch = false;  // shows the manager's trace up to the first wake-up
};

// How a session ended.
enum class SessionEnd { complete, stoppedByFailure, timedOut, interrupted };

// One command of the session as the tool knows it.
struct Entry {
  const Step* step;
  std::unique_ptr<google::protobuf::Message> response;  // null: none came
};

// What a session tells while it runs; called on the main thread, commands in the order in which
// they ended.
class SessionListener {
 public:
  virtual ~SessionListener() = default;
  virtual void ended(const Norv::Agent::CommandReport& report, const Entry& entry) = 0;
  // Every few milliseconds.
  virtual void progress(const Norv::Agent::Kit& kit) = 0;
};

// A small agent: its own queues, manager and kit, a main loop, and one run of steps through them.
// There is one session in a process, and it stays: a connected manager cannot be destroyed.
class Session {
 public:
  // `steps` and `listener` must outlive the session.
  Session(const SessionOptions& options, const std::vector<Step>& steps, SessionListener& listener);
  ~Session();

  // Puts the commands into their queues, announces, and waits for every command's end.
  SessionEnd run();
  std::chrono::duration<double> elapsed() const { return elapsed_; }

 private:
  class Ticker;
  class Cmd;
  class Trace;

  void connect();
  void feed();
  void enqueue(const Step& step);
  void announce(const std::string& queue);
  void deliver();
  void deliverAll();
  void tell(const Norv::Agent::CommandReport& report);
  bool finished();

  const SessionOptions options_;
  const std::vector<Step>& steps_;
  SessionListener& listener_;
  Lumo::MainLoop loop_;
  Lumo::Ptr<Norv::GrpcGlobalCmdConfig> config_;
  Lumo::Ptr<Norv::CmdGroup> pending_;
  Lumo::Ptr<Norv::GrpcErrorHandlingStatus> status_;
  std::unique_ptr<Trace> trace_;
  Norv::Agent::Kit kit_;
  Lumo::Ptr<Norv::ConnectionsMgr> manager_;
  Lumo::Ptr<Ticker> ticker_;
  std::vector<Entry> entries_;  // by ledger id - 1
  std::vector<std::string> unannounced_;
  Lumo::Lock endedLock_;
  std::vector<Norv::Agent::CommandReport> ended_ LUMO_GUARDED_BY(endedLock_);
  U64 nextSeq_ = 1;
  std::map<U64, Norv::Agent::CommandReport> toTell_;      // by seq, ended before its turn
  std::map<U64, Norv::Agent::CommandReport> toTellLast_;  // by id, never announced
  std::chrono::duration<double> elapsed_{0};
};

// ^C ends the running session early. A second ^C ends the process.
void interruptOnSigint();

}  // namespace Norvctl
