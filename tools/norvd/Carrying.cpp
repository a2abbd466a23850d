#include "Carrying.h"

#include <Norv/GrpcRequestType.h>
#include <bess/pb/service.pb.h>

#include "Values.h"
#include "agent/ObjectNames.h"

namespace Norvd {

using Norv::State::Plan;
using Norv::State::Step;
using Norv::State::StepEnd;

namespace {

// That a pause, or its end, is about.
std::int64_t workerOf(const Step& step) {
  return step.type == Norv::pauseWorker
             ? static_cast<const bess::pb::PauseWorkerRequest&>(*step.request).wid()
             : static_cast<const bess::pb::ResumeWorkerRequest&>(*step.request).wid();
}

}  // namespace

Carrying::Carrying(std::shared_ptr<const Plan> plan, const Norv::State::Switch& wanted,
                   const std::set<std::size_t>& held, std::vector<std::string> values)
    : plan_(std::move(plan)),
      wanted_(wanted),
      values_(std::move(values)),
      execution_(*plan_, held),
      ownerOfPause_(plan_->steps.size(), Step::none) {
  for (std::size_t i = 0; i < plan_->steps.size(); ++i) {
    const Step& step = plan_->steps[i];
    if (step.change == Step::none) continue;
    for (const std::size_t before : step.behind) {
      if (ownerOfPause_[before] == Step::none) ownerOfPause_[before] = step.change;
    }
  }
}

// A pause belongs to the first that comes behind it; its end to none.
std::size_t Carrying::owner(std::size_t step) const {
  const Step& what = plan_->steps[step];
  const bool end = what.change == Step::none && what.type == Norv::resumeWorker;
  return what.change != Step::none || end ? what.change : ownerOfPause_[step];
}

std::string Carrying::what(std::size_t step) const {
  const std::string command = stringValue(plan_->steps[step].type).stdString();
  const std::string about = object(step);
  return about.empty() ? command : command + " of " + about;
}

std::string Carrying::object(std::size_t step) const {
  const std::size_t change = owner(step);
  return change == Step::none ? "" : text(plan_->changes[change].object);
}

// A pause, or its end, that is there for the steps between them.
bool Carrying::aroundOthers(std::size_t step) const {
  const Step& what = plan_->steps[step];
  return what.change == Step::none && what.request &&
         (what.type == Norv::pauseWorker || what.type == Norv::resumeWorker);
}

void Carrying::send(Road& road, std::size_t step) {
  const std::size_t change = owner(step);
  std::string note;
  if (change != Step::none) {
    note = written(DeathNote{Norvctl::deathKey(plan_->changes[change].object), values_[change],
                             stringValue(plan_->steps[step].type).stdString()});
  }
  road.send(step, plan_->steps[step], note);
  if (!aroundOthers(step)) return;
  if (plan_->steps[step].type == Norv::pauseWorker) {
    standing_[workerOf(plan_->steps[step])] = step;
  } else {
    waking_.insert(step);
  }
}

void Carrying::feed(Road& road) {
  if (stopped_ || road.open() > refillAt) return;
  while (road.open() < mostOpen) {
    const auto step = execution_.next();
    if (!step) break;
    send(road, *step);
  }
  road.announce();
}

// What is under way of the plan goes before that, in the order of sending.
void Carrying::stop(Road& road) {
  if (stopped_) return;
  stopped_ = true;
  for (const auto& [worker, pause] : standing_) {
    for (std::size_t i = pause; i < plan_->steps.size(); ++i) {
      const Step& step = plan_->steps[i];
      if (step.type != Norv::resumeWorker || !aroundOthers(i) || workerOf(step) != worker) continue;
      if (!waking_.contains(i)) {
        beside_.insert(i);
        send(road, i);
      }
      break;
    }
  }
  road.announce();
}

std::vector<std::int64_t> Carrying::standing() const {
  std::vector<std::int64_t> workers;
  for (const auto& [worker, pause] : standing_) workers.push_back(worker);
  return workers;
}

void Carrying::ended(const Road::Ended& end) {
  ++done_;
  if (aroundOthers(end.step)) {
    const bool paused = plan_->steps[end.step].type == Norv::pauseWorker;
    const bool took = end.how == StepEnd::done || end.how == StepEnd::unclear;
    if (paused != took) standing_.erase(workerOf(plan_->steps[end.step]));
    waking_.erase(end.step);
  }
  // The plan does not know of what was sent beside its order.
  if (!beside_.contains(end.step)) execution_.ended(end.step, end.how, end.text);
}

}  // namespace Norvd
