#include "Carrying.h"

#include <Norv/GrpcRequestType.h>

namespace Norvd {

using Norv::State::Plan;
using Norv::State::Step;

Carrying::Carrying(std::shared_ptr<const Plan> plan, const Norv::State::Switch& wanted,
                   const std::set<std::size_t>& held, std::vector<std::string> notes)
    : plan_(std::move(plan)),
      wanted_(wanted),
      notes_(std::move(notes)),
      execution_(*plan_, held),
      ownerOfPause_(plan_->steps.size(), Step::none) {
  for (std::size_t i = 0; i < plan_->steps.size(); ++i) {
    const Step& step = plan_->steps[i];
    if (step.change == Step::none) continue;
    for (const std::size_t before : step.after) ownerOfPause_[before] = step.change;
  }
}

// A pause belongs to what it is for.
std::size_t Carrying::owner(std::size_t step) const {
  const std::size_t own = plan_->steps[step].change;
  return own != Step::none ? own : ownerOfPause_[step];
}

std::string Carrying::what(std::size_t step) const {
  const std::string command = stringValue(plan_->steps[step].type).stdString();
  const std::size_t change = owner(step);
  return change == Step::none ? command : command + " of " + text(plan_->changes[change].object);
}

void Carrying::feed(Road& road) {
  if (stopped_ || road.open() > refillAt) return;
  while (road.open() < mostOpen) {
    const auto step = execution_.next();
    if (!step) break;
    const std::size_t change = owner(*step);
    road.send(*step, plan_->steps[*step], change == Step::none ? "" : notes_[change]);
  }
  road.announce();
}

void Carrying::ended(const Road::Ended& end) {
  ++done_;
  execution_.ended(end.step, end.how, end.text);
}

}  // namespace Norvd
