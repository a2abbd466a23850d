#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

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
  std::string text;  // the command, and how it ended
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

  // Takes the switch for this process, until it ends; false when another one has it.
  bool lock();
  void load();
  // Replaces the file. Says once when it cannot, and once when it can again.
  void save();

  // The last document that was good, as it was kept.
  std::optional<std::string> lastGood() const;
  void lastGoodIs(const std::string& document);

  bool kept() const { return !folder_.empty(); }
  // A file of that purpose; empty when nothing is kept.
  std::string file(const std::string& purpose) const;
  // Why nothing can be written; empty: it can.
  const std::string& trouble() const { return trouble_; }
  // Does it, and notes what it throws as trouble.
  template <class Action>
  void attempt(Action action) {
    try {
      action();
      troubleIs("");
    } catch (const std::exception& error) {
      troubleIs(error.what());
    }
  }

  void failureIs(const std::string& text);  // keeps the last ten
  const std::vector<Event>& failures() const { return failures_; }

  std::uint64_t starts = 0;             // of norvd, for this switch
  std::map<std::string, Death> deaths;  // by object, "module fib"

 private:
  void troubleIs(const std::string& text);

  const std::string folder_;
  const std::string name_;
  int lock_ = -1;
  std::string trouble_;
  std::vector<Event> failures_;  // the last one last
};

}  // namespace Norvd
