#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <Lumo/MainLoop.h>
#include <Norv/Agent/Kit.h>
#include <Norv/State/Execution.h>
#include <Norv/State/Plan.h>

#include "UnderWay.h"

namespace Norvd {

// The library's road for the steps of a plan: named queues, manager, pending queue and client, with
// the kit around them. There is one in a process, and once connected it stays to its end. All of it
// is for the main thread.
class Road {
 public:
  struct Ended {
    std::size_t step;
    Norv::State::StepEnd how;
    std::string text;  // the daemon's, or what is known
    Norv::Agent::CommandReport report;
  };

  // `wake` is called on any thread when a command has ended. `underWay` must stay.
  Road(UnderWay& underWay, std::function<void()> wake);

  // Makes the connection; the daemon should be there.
  void connect(const std::string& host, U16 port);
  bool connected() const { return manager_ != nullptr; }

  // Puts the step's command into the queue of its section; announced when the next one goes to
  // another queue, and by `announce`. `note` goes to UnderWay when it is its turn.
  void send(std::size_t step, const Norv::State::Step& what, const std::string& note);
  void announce();
  // Those that have not ended.
  std::size_t open() const { return stepOf_.size(); }
  std::vector<Ended> takeEnded();
  // The step of a command, by its number in the ledger.
  std::optional<std::size_t> stepOf(U64 id) const;

  Norv::Agent::Kit& kit() { return kit_; }
  const Norv::Agent::Kit& kit() const { return kit_; }

 private:
  class Cmd;
  void onEnd(const Norv::Agent::CommandReport& report);

  UnderWay& underWay_;
  const std::function<void()> wake_;
  const Lumo::Ptr<Norv::GrpcGlobalCmdConfig> config_;
  const Lumo::Ptr<Norv::CmdGroup> pending_;
  const Lumo::Ptr<Norv::GrpcErrorHandlingStatus> status_;
  Norv::Agent::Kit kit_;
  Lumo::Ptr<Norv::ConnectionsMgr> manager_;
  std::string unannounced_;                      // the queue with commands that wait for it
  std::unordered_map<U64, std::size_t> stepOf_;  // by ledger id
  U64 made_ = 0;                                 // ledger ids are given in the order of making
  std::mutex mutex_;                             // guards what follows
  std::vector<Norv::Agent::CommandReport> ended_;
  std::deque<std::pair<U64, std::string>> notes_;  // by ledger id, in the order of sending
};

}  // namespace Norvd
