#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <Norv/State/Execution.h>

#include "Road.h"

namespace Norvd {

// One plan on its way to the switch, a bounded number of commands at a time, so that a change of
// mind takes effect soon. For the main thread.
class Carrying {
 public:
  static constexpr std::size_t mostOpen = 64;  // commands in queues
  static constexpr std::size_t refillAt = 32;

  // `held`: the changes that are not to be tried. `values`: what is wanted of the object of each
  // change, to know it by.
  Carrying(std::shared_ptr<const Norv::State::Plan> plan, const Norv::State::Switch& wanted,
           const std::set<std::size_t>& held, std::vector<std::string> values);

  bool anythingToDo() const { return total() != 0; }
  void feed(Road& road);
  void ended(const Road::Ended& end);
  // Nothing more goes than what is in the queues, and what lets workers run again that were paused
  // meanwhile.
  void stop(Road& road);
  // Those that were paused meanwhile and do not run again yet, as far as the daemon has answered.
  std::vector<std::int64_t> standing() const;
  bool finished(const Road& road) const {
    return execution_.finished() || (stopped_ && road.open() == 0);
  }

  const Norv::State::Switch& wanted() const { return wanted_; }
  const Norv::State::Execution& execution() const { return execution_; }
  std::size_t done() const { return done_; }  // commands
  std::size_t total() const { return execution_.commands(); }
  // "createModule of module fib": what the step is about.
  std::string what(std::size_t step) const;
  std::string object(std::size_t step) const;  // "module fib"; empty: it is about none

 private:
  std::size_t owner(std::size_t step) const;
  bool aroundOthers(std::size_t step) const;
  void send(Road& road, std::size_t step);

  const std::shared_ptr<const Norv::State::Plan> plan_;
  const Norv::State::Switch wanted_;
  const std::vector<std::string> values_;
  Norv::State::Execution execution_;
  std::vector<std::size_t> ownerOfPause_;         // a change, by step
  std::map<std::int64_t, std::size_t> standing_;  // workers, and the step that paused each
  std::set<std::size_t> waking_;                  // steps to end those pauses that were sent
  std::set<std::size_t> beside_;                  // those of them that stop has sent
  std::size_t done_ = 0;
  bool stopped_ = false;
};

}  // namespace Norvd
