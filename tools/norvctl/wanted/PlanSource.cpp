#include "PlanSource.h"

namespace Norvctl {

namespace {

// So many commands of a queue are a batch, so that the first are under way before the last is read.
constexpr std::size_t mostUnannounced = 200;

}  // namespace

PlanSource::PlanSource(const Norv::State::Plan& plan, Following following)
    : following_(std::move(following)) {
  stages_.push_back({&plan, std::make_unique<Norv::State::Execution>(plan)});
}

Step PlanSource::announcement() {
  Step step;
  step.queue = std::exchange(open_, {});
  step.queueGiven = true;
  unannounced_ = 0;
  return step;
}

Step PlanSource::command(std::size_t index) {
  const Norv::State::Step& planned = stages_.back().plan->steps[index];
  Step step;
  step.queue = sectionName(planned.queue);
  step.queueGiven = true;
  step.type = planned.type;
  step.request.reset(planned.request->New());
  step.request->CopyFrom(*planned.request);
  lines_.emplace_back(stages_.size() - 1, index);
  step.line = lines_.size();
  step.bytes = step.request->ByteSizeLong();
  open_ = step.queue;
  ++unannounced_;
  return step;
}

std::optional<Step> PlanSource::next() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    if (!held_) held_ = stages_.back().execution->next();
    const bool queueChanges =
        held_ && !open_.empty() && open_ != sectionName(stages_.back().plan->steps[*held_].queue);
    if (!open_.empty() && (!held_ || queueChanges || unannounced_ == mostUnannounced)) {
      return announcement();
    }
    if (held_) return command(*std::exchange(held_, std::nullopt));
    if (!stages_.back().execution->finished()) {
      changed_.wait(lock);
      continue;
    }
    lock.unlock();
    const Norv::State::Plan* plan = following_();
    lock.lock();
    if (plan == nullptr) return {};
    stages_.push_back({plan, std::make_unique<Norv::State::Execution>(*plan)});
  }
  return {};
}

void PlanSource::ended(std::size_t line, Norv::State::StepEnd how, const std::string& text) {
  const std::lock_guard lock(mutex_);
  const auto [stage, step] = lines_[line - 1];
  stages_[stage].execution->ended(step, how, text);
  changed_.notify_all();
}

void PlanSource::stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
}

}  // namespace Norvctl
