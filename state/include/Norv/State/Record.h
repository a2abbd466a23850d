#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <Norv/State/Execution.h>
#include <Norv/State/LiveSwitch.h>
#include <Norv/State/Plan.h>

// What was applied to one switch and its daemon does not tell again: a small file that complements
// what is read. An entry holds as long as its object is there and tells of itself what it told when
// the entry was made; where the addresses that a daemon makes up for its ports have changed, it is
// another life of the daemon, and nothing holds.
namespace Norv::State {

class Record {
 public:
  // Of the file; empty when there is none. One that cannot be read as a record is renamed to
  // FILE.damaged, and `said` gets a line. Throws std::runtime_error when the file cannot be read or
  // renamed.
  static Record load(const std::string& file, std::string* said = nullptr);
  // Replaces the file by a whole new one that is on the disk when this returns; only its owner can
  // read it. Throws std::runtime_error, and the old file stays.
  void save(const std::string& file) const;

  // Fills in what the daemon does not tell, and forgets what does not hold any more.
  void complement(LiveSwitch& live);
  // Before a plan is carried out: what it is going to touch is in doubt until it is through.
  void begin(const Execution& execution, const Switch& wanted);
  // The states that it ended with. What was unclear is done where `after`, the switch read again,
  // tells so: no reply is needed for what can be seen.
  static std::vector<Execution::State> settled(const Execution& execution, const LiveSwitch& after,
                                               const Switch& wanted, const PlanOptions& options);
  // After it, with the switch read again, without complement, and the settled states. What nothing
  // was sent for, and what was refused, is as it was before.
  void end(const Execution& execution, const std::vector<Execution::State>& states,
           const Switch& wanted, const LiveSwitch& after);

  bool empty() const { return entries_.empty() && unfinished_.empty(); }

 private:
  struct Entry {
    std::string told;  // what the object told of itself, to know it by
    bool doubtful = false;
    std::optional<Any> arg;  // in force, where the daemon tells another or none
    std::map<std::string, std::uint64_t> settings;
    std::optional<Entries> table;
    std::optional<std::string> word;  // a class's resource, a worker's scheduler
    bool wordDoubtful = false;        // of a worker

    // Of a module: "arg", a setting's name or the table's.
    void forget(const std::string& what) {
      if (what == "arg") {
        arg.reset();
      } else if (settings.erase(what) == 0) {
        table.reset();
      }
    }
    bool holdsNothing() const {
      return !doubtful && !arg && settings.empty() && !table && !word && !wordDoubtful;
    }
  };

  // An entry before a plan.
  struct Former {
    std::size_t change;  // that opened it
    std::optional<Entry> entry;
  };

  static Entry entryOf(const Object& object, const Switch& wanted, const LiveSwitch& after);
  static Entry madeWith(const Object& object, const Switch& wanted);
  static std::optional<Entry> partly(const Execution& execution,
                                     const std::vector<std::size_t>& steps, const Object& object,
                                     Entry former, const Switch& goal, const LiveSwitch& after);
  void forgetGone(const LiveSwitch& live);
  Entry& opened(const Object& object, std::size_t change);
  void beginChange(const Plan& plan, std::size_t number, const Switch& wanted);
  void endOpened(const Execution& execution, const std::vector<Execution::State>& states,
                 const Switch& wanted, const LiveSwitch& after);
  void endHooks(const Plan& plan, const std::vector<Execution::State>& states,
                const LiveSwitch& after);
  void endUnfinished(const std::vector<Execution::State>& states, const LiveSwitch& after);
  void keepDoubtOfWorkers(const std::set<Object>& doubtful, const Switch& wanted,
                          const LiveSwitch& after);
  static bool hidden(const Object& object, const Switch& wanted, const Plan& plan);
  void enter(const Object& object, Entry entry);  // none when it holds nothing

  std::map<Object, Entry> entries_;
  std::map<Object, Former> former_;  // of what the plan under way has opened; not kept in the file
  std::map<std::string, std::string> addresses_;  // of ports, as the daemon told them
  Unfinished unfinished_;
};

// "switch1_10514.json" for a daemon's address; the same for the names of the loopback.
std::string recordName(const std::string& address);

}  // namespace Norv::State
