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
#include "Telling.h"
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

  // See Telling. Any thread.
  void noticeIs(const std::string& about, const std::string& text) {
    telling_.noticeIs(about, text);
  }

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
  void openRecorder();
  void writeAgain();
  void saveRecord();
  void tell();

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

  void takeDeath();
  [[noreturn]] void die(const std::string& why);
  void goToTheEnd();
  void wakeWorkers();
  [[noreturn]] void leave();

  const Options options_;
  Memory& memory_;
  UnderWay& underWay_;
  Metrics& metrics_;
  Lumo::MainLoop loop_;
  std::unique_ptr<Norv::Agent::FlightRecorder> recorder_;
  Road road_;
  Reader reader_;
  Documents documents_;
  Holds holds_;
  Telling telling_;
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

  std::shared_ptr<const Picture> picture_;
};

}  // namespace Norvd
