#pragma once

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

  // `held`: the changes that are not to be tried. `notes`: what is noted when a command of each
  // change is under way.
  Carrying(std::shared_ptr<const Norv::State::Plan> plan, const Norv::State::Switch& wanted,
           const std::set<std::size_t>& held, std::vector<std::string> notes);

  bool anythingToDo() const { return total() != 0; }
  void feed(Road& road);
  void ended(const Road::Ended& end);
  // Nothing more goes than what is in the queues.
  void stop() { stopped_ = true; }
  bool finished(const Road& road) const {
    return execution_.finished() || (stopped_ && road.open() == 0);
  }

  const Norv::State::Plan& plan() const { return *plan_; }
  const Norv::State::Switch& wanted() const { return wanted_; }
  std::vector<Norv::State::Execution::State> states() const { return execution_.states(); }
  std::size_t done() const { return done_; }  // commands
  std::size_t total() const { return execution_.commands(); }
  // "createModule of module fib": what the step is about.
  std::string what(std::size_t step) const;

 private:
  std::size_t owner(std::size_t step) const;

  const std::shared_ptr<const Norv::State::Plan> plan_;
  const Norv::State::Switch wanted_;
  const std::vector<std::string> notes_;
  Norv::State::Execution execution_;
  std::vector<std::size_t> ownerOfPause_;  // by step
  std::size_t done_ = 0;
  bool stopped_ = false;
};

}  // namespace Norvd
