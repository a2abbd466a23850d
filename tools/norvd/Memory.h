#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <Norv/State/SwitchLock.h>

#include "Log.h"

namespace Norvd {

struct Event {
  WallTime time;
  std::string text;
};

// How often in a row the daemon died under one object.
struct Death {
  std::string value;  // what was wanted of it: another value starts anew
  unsigned times = 0;
  std::string text;  // the command: "createModule of module fib"
  WallTime last;

  static constexpr unsigned most = 3;
  bool quarantined() const { return times >= most; }
};

// What norvd keeps from one process to the next, in files of the state directory whose names begin
// with the switch's address. Nothing of it is needed: what cannot be read is set aside and said,
// what cannot be written is said and tried again. For the main thread.
class Memory {
 public:
  // An empty folder: nothing is kept.
  Memory(const std::string& folder, const std::string& address);

  // Takes the switch for this process, until it ends, behind an apply that is at work on it; why
  // not, where another norvd has it.
  std::string lock();
  void load();
  // Replaces the file. Says once when it cannot, and once when it can again.
  void save();

  // The last document that was good, as it was kept; a file that is damaged is set aside.
  std::optional<std::string> lastGood();
  void lastGoodIs(const std::string& document);

  bool kept() const { return !folder_.empty(); }
  // A file of that purpose; empty when nothing is kept.
  std::string file(const std::string& purpose) const;
  // What cannot be written, and why; by purpose.
  const std::map<std::string, std::string>& troubles() const { return troubles_; }
  // Does what is about the file of that purpose, and notes what it throws as trouble with it.
  template <class Action>
  void attempt(const std::string& purpose, Action action) {
    try {
      action();
      troubleIs(purpose, "");
    } catch (const std::exception& error) {
      troubleIs(purpose, error.what());
    }
  }

  // Recordings of failures are kept as flight recorders number them, PURPOSE.failure-N with a
  // PURPOSE.failure-N.json. Makes one of the file of that purpose, as it was left by a process that
  // could not; for what reason.
  void keepRecording(const std::string& purpose, const std::string& reason) const;
  // Removes all but so many of the last.
  void removeOldRecordings(const std::string& purpose, std::size_t kept) const;

  // What `norvctl retry` has asked for since it was looked last, in its order.
  std::vector<std::string> takeRetries();

  void failureIs(const std::string& text);  // keeps the last ten
  const std::vector<Event>& failures() const { return failures_; }

  std::uint64_t starts = 0;             // of norvd, for this switch
  std::map<std::string, Death> deaths;  // by Norvctl::deathKey
  std::string lost;                     // why the last process ended; empty: not of a failure

 private:
  void setAside(const std::string& purpose, const std::string& why);
  void troubleIs(const std::string& purpose, const std::string& text);
  std::map<unsigned, std::vector<std::string>> recordings(const std::string& purpose) const;

  const std::string folder_;
  const std::string name_;
  Norv::State::SwitchLock lock_;
  std::map<std::string, std::string> troubles_;  // by purpose
  std::vector<Event> failures_;                  // the last one last
};

}  // namespace Norvd
