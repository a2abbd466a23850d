#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <Lumo/MainLoop.h>
#include <Norv/Agent/FlightRecorder.h>
#include <Norv/State/Record.h>

#include "Carrying.h"
#include "Documents.h"
#include "Holds.h"
#include "Memory.h"
#include "Metrics.h"
#include "Options.h"
#include "Reader.h"
#include "Road.h"
#include "Status.h"
#include "UnderWay.h"

namespace Norvd {

// Keeps one switch as wanted: looks at it, compares, carries out the difference, and looks again.
// Whatever goes wrong with the connection ends the process, and the next one begins here. Made and
// run on the main thread, once; it does not return. Memory is loaded and the others stay.
class Agent {
 public:
  Agent(const Options& options, Memory& memory, UnderWay& underWay, Board& board, Metrics& metrics);
  ~Agent();
  [[noreturn]] void run();

  // What is wrong beside the switch and its document, as the pages that cannot be served; empty
  // when it is not. Any thread.
  void noticeIs(const std::string& about, const std::string& text);

 private:
  class Ticker;
  using Object = Norv::State::Object;
  using LiveSwitch = Norv::State::LiveSwitch;
  using Plan = Norv::State::Plan;

  void tick();
  void takeHangUp();
  void watchConnection();
  void takeRetries();
  void look();
  void onReading(const Reading& reading);
  void onSilence(const std::string& error);

  void concludeCarrying(const LiveSwitch& bare);
  void decide(const Reading& reading);
  void carryOut(const std::shared_ptr<const Plan>& plan, const Norv::State::Switch& wanted,
                const std::set<std::size_t>& held);
  void takeEnded();
  void settleEnded();
  void forgetDeaths(const std::set<Object>& differing);

  // What is wanted of an object of the plan at hand, to know it by.
  std::string valueOf(const Object& object) const;
  // Why it has to wait; nullopt: it has not. `waits` is false when it has waited long enough.
  std::optional<ObjectStatus> held(const Object& object, bool* waits) const;
  std::shared_ptr<const Picture> picture(const Reading& reading, std::shared_ptr<LiveSwitch> live,
                                         std::shared_ptr<const Plan> plan,
                                         const std::set<std::size_t>& held) const;

  // "createModule of module fib".
  std::string whatIs(const Norv::Agent::CommandReport& report) const;
  void publish();
  void noteTroubles(Status& status);
  std::optional<Status::UnderWay> underWay(const Norv::Agent::Status& kit) const;
  std::pair<std::string, std::string> sentence() const;
  std::string waitingSentence() const;
  std::string troubleSentence() const;
  void tellSupervisor();

  void takeDeath();
  [[noreturn]] void die(const std::string& why);
  void goToTheEnd();
  void wakeWorkers();
  [[noreturn]] void leave();

  const Options options_;
  Memory& memory_;
  UnderWay& underWay_;
  Board& board_;
  Metrics& metrics_;
  Lumo::MainLoop loop_;
  std::unique_ptr<Norv::Agent::FlightRecorder> recorder_;
  Road road_;
  Reader reader_;
  Documents documents_;
  Holds holds_;
  Norv::State::Record record_;
  Lumo::Ptr<Ticker> ticker_;

  bool looking_ = false;  // a reading is under way
  Time nextLook_{};       // when none is
  bool lookAgain_ = false;
  Time looked_{};            // when the reading began
  std::string silence_;      // why the daemon does not answer; empty: it did
  std::string refusedPlan_;  // why the plan is not carried out at all
  std::unique_ptr<Carrying> carrying_;
  std::map<Object, std::string> values_;  // of the objects of the plan at hand
  std::optional<Time> leaveBy_;           // a signal to end came

  WallTime started_ = std::chrono::system_clock::now();
  std::string sentenceKind_;
  WallTime sentenceSince_{};
  std::string told_;  // to who supervises
  std::string loggedKind_;
  Time nextPublish_{};
  Time nextWatchdog_{};
  WallTime lastSample_{};
  std::deque<Sample> samples_;
  std::shared_ptr<const Picture> picture_;
  bool wasInSync_ = false;  // ever
  mutable std::mutex noticesMutex_;
  std::map<std::string, std::string> notices_;  // by what they are about
};

}  // namespace Norvd
