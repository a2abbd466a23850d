#pragma once

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "Carrying.h"
#include "Documents.h"
#include "Holds.h"
#include "Memory.h"
#include "Options.h"
#include "Road.h"
#include "Status.h"
#include "UnderWay.h"

namespace Norvd {

// Tells what norvd does, and why: the board, the log when it becomes something else, and who
// supervises. For the main thread, but for noticeIs. What it is made with must stay.
class Telling {
 public:
  Telling(const Options& options, Memory& memory, const UnderWay& underWay, const Road& road,
          const Documents& documents, Board& board);

  // What the agent knows and does at the moment.
  struct Moment {
    std::shared_ptr<const Picture> picture;  // null: it has not compared yet
    const Carrying* carrying;                // null: nothing is carried out
    std::string silence;                     // why the daemon does not answer; empty: it did
    std::string refusedPlan;                 // why the plan is not carried out at all
  };
  void tell(const Moment& moment);
  // Whether it is time to tell again though nothing has happened.
  bool due() const;

  // What is wrong beside the switch and its document, as the pages that cannot be served; empty
  // when it is not. Any thread.
  void noticeIs(const std::string& about, const std::string& text);
  // Whether it could be told, ever, that the switch is as wanted.
  bool wasInSync() const { return wasInSync_; }

 private:
  // Its kind, which stays while its numbers change, and itself.
  using Sentence = std::pair<std::string, std::string>;
  Sentence sentence(const Moment& moment, const Norv::Agent::Status& kit) const;
  std::string waitingSentence(const Moment& moment) const;
  std::string troubleSentence(const Moment& moment) const;
  void noteTroubles(const Moment& moment, Status& status);
  void noteCommands(const Moment& moment, const Norv::Agent::Status& kit, Status& status);
  void tellSupervisor(const std::string& sentence);

  const Options& options_;
  Memory& memory_;
  const UnderWay& underWay_;
  const Road& road_;
  const Documents& documents_;
  Board& board_;

  const WallTime started_ = std::chrono::system_clock::now();
  std::string kind_;  // of the sentence
  WallTime since_{};  // it is of that kind
  std::string loggedKind_;
  std::string told_;  // to who supervises
  Time next_{};
  Time nextWatchdog_{};
  Time nextSample_{};
  std::deque<Sample> samples_;
  bool wasInSync_ = false;
  std::mutex noticesMutex_;
  std::map<std::string, std::string> notices_;  // by what they are about
};

// "createModule of module fib", or the command alone where it is not known what it is about.
std::string whatIs(const Norv::Agent::CommandReport& report, const Road& road,
                   const Carrying* carrying);

}  // namespace Norvd
