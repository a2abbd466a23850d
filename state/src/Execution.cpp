#include <algorithm>

#include <Norv/State/Execution.h>

namespace Norv::State {

namespace {

// Whether it is taken down before it is put up again.
bool takenDown(const Change& change) {
  if (change.action == Change::Action::recreate) return true;
  const bool moves = change.object.kind == Kind::connection || change.object.kind == Kind::hook;
  return moves && change.action == Change::Action::change;
}

}  // namespace

Execution::Execution(const Plan& plan, const std::set<std::size_t>& held)
    : plan_(plan),
      phases_(plan.steps.size(), Phase::waiting),
      missing_(plan.steps.size(), 0),
      followers_(plan.steps.size()),
      idle_(plan.steps.size(), false),
      stuck_(plan.steps.size(), false),
      doomed_(plan.steps.size(), false),
      culprit_(plan.steps.size(), Step::none),
      texts_(plan.steps.size()),
      ends_(plan.steps.size(), StepEnd::dropped),
      open_(plan.steps.size()) {
  for (std::size_t i = 0; i < plan.steps.size(); ++i) {
    const Step& step = plan.steps[i];
    missing_[i] = step.after.size() + step.behind.size();
    for (const std::size_t before : step.after) followers_[before].push_back(i);
    for (const std::size_t before : step.behind) followers_[before].push_back(i);
  }
  findStuck(held);
  commands_ = static_cast<std::size_t>(std::count(stuck_.begin(), stuck_.end(), false));
  for (std::size_t i = 0; i < plan.steps.size(); ++i) {
    if (missing_[i] != 0 || phases_[i] != Phase::waiting) continue;
    if (release(i)) settle(i, phases_[i]);
  }
}

// All that cannot go. What would be taken down, and of which a step cannot go, waits whole: it
// would not be put up again, and so at every attempt.
void Execution::findStuck(std::set<std::size_t> held) {
  while (true) {
    findIdle(held);
    const std::size_t before = held.size();
    for (std::size_t i = 0; i < plan_.steps.size(); ++i) {
      const std::size_t change = plan_.steps[i].change;
      if (!stuck_[i] || change == Step::none) continue;
      if (!takenDown(plan_.changes[change])) continue;
      if (!held.insert(change).second) continue;
      for (const std::size_t needed : plan_.steps[i].after) {
        const std::size_t other = plan_.steps[needed].change;
        if (!stuck_[needed] || other == change) continue;
        const auto further = waitsFor_.find(other);
        waitsFor_[change] = further == waitsFor_.end() ? needed : further->second;
      }
    }
    if (held.size() == before) return;
  }
}

// Steps refer to earlier ones, so one pass finds all that cannot go; then a pause that nothing
// needs any more is idle, and the end of one around nothing that goes.
void Execution::findIdle(const std::set<std::size_t>& held) {
  std::vector<bool> needed(plan_.steps.size(), false);
  const auto isStuck = [&](std::size_t before) { return stuck_[before]; };
  for (std::size_t i = 0; i < plan_.steps.size(); ++i) {
    const Step& step = plan_.steps[i];
    idle_[i] = held.contains(step.change);
    stuck_[i] = idle_[i] || !step.impossible.empty() ||
                std::any_of(step.after.begin(), step.after.end(), isStuck);
    if (stuck_[i] || step.change == Step::none) continue;
    for (const std::size_t before : step.after) needed[before] = true;
    for (const std::size_t before : step.behind) needed[before] = true;
  }
  for (std::size_t i = 0; i < plan_.steps.size(); ++i) {
    const Step& step = plan_.steps[i];
    if (step.change != Step::none) continue;
    if (step.type == resumeWorker) {
      idle_[i] = std::all_of(step.behind.begin(), step.behind.end(), isStuck);
    } else if (step.type == pauseWorker || step.type == checkSchedulingConstraints) {
      idle_[i] = !needed[i];
    }
    stuck_[i] = stuck_[i] || idle_[i];
  }
}

// Everything before it has ended; true if with that it has ended, too.
bool Execution::release(std::size_t step) {
  const Step& what = plan_.steps[step];
  if (!what.impossible.empty()) {
    texts_[step] = what.impossible;
    ends_[step] = StepEnd::refused;
    phases_[step] = Phase::failed;
    return true;
  }
  if (idle_[step]) {
    const auto other = waitsFor_.find(what.change);
    culprit_[step] = other == waitsFor_.end() ? step : other->second;
    phases_[step] = Phase::skipped;
    return true;
  }
  for (const std::size_t before : what.after) {
    if (phases_[before] == Phase::succeeded || doomed_[step]) continue;
    doomed_[step] = true;
    culprit_[step] = phases_[before] == Phase::skipped ? culprit_[before] : before;
  }
  if (doomed_[step]) {
    phases_[step] = Phase::skipped;
    return true;
  }
  phases_[step] = Phase::ready;
  ready_.insert(step);
  return false;
}

// What follows from it may be as long as the plan: worked through, not recursed.
void Execution::settle(std::size_t step, Phase phase) {
  phases_[step] = phase;
  std::vector<std::size_t> settled{step};
  while (!settled.empty()) {
    const std::size_t one = settled.back();
    settled.pop_back();
    --open_;
    for (const std::size_t follower : followers_[one]) {
      if (--missing_[follower] == 0 && release(follower)) settled.push_back(follower);
    }
  }
}

std::optional<std::size_t> Execution::next() {
  if (ready_.empty()) return {};
  const std::size_t step = *ready_.begin();
  ready_.erase(ready_.begin());
  phases_[step] = Phase::underWay;
  return step;
}

void Execution::ended(std::size_t step, StepEnd how, const std::string& text) {
  ++counts_[static_cast<std::size_t>(how)];
  ends_[step] = how;
  texts_[step] = text;
  // What is unclear may have been done; what comes after is tried, and the switch is read again.
  settle(step, how == StepEnd::done || how == StepEnd::unclear ? Phase::succeeded : Phase::failed);
}

bool Execution::mayGo(std::size_t step) const {
  if (stuck_[step]) return false;
  return phases_[step] == Phase::waiting || phases_[step] == Phase::ready;
}

std::optional<StepEnd> Execution::end(std::size_t step) const {
  const bool over = phases_[step] == Phase::succeeded || phases_[step] == Phase::failed;
  if (!over || !plan_.steps[step].impossible.empty()) return {};
  return ends_[step];
}

std::vector<Execution::State> Execution::states() const {
  std::vector<State> states(plan_.changes.size());
  for (std::size_t i = 0; i < plan_.steps.size(); ++i) {
    const std::size_t change = plan_.steps[i].change;
    if (change == Step::none) continue;
    State& state = states[change];
    if (phases_[i] == Phase::failed && ends_[i] == StepEnd::refused) {
      // The daemon's own word stands above what follows from it.
      if (state.kind != State::Kind::refused) state = {State::Kind::refused, texts_[i], ""};
    } else if (state.kind == State::Kind::refused) {
      continue;
    } else if (phases_[i] == Phase::succeeded && ends_[i] == StepEnd::unclear) {
      if (state.kind != State::Kind::unclear) state = {State::Kind::unclear, texts_[i], ""};
    } else if (phases_[i] != Phase::succeeded && state.kind == State::Kind::done) {
      state.kind = State::Kind::notTried;
      const std::size_t culprit = culprit_[i];
      const bool own = culprit != Step::none && plan_.steps[culprit].change == change;
      if (culprit != Step::none && !own && plan_.steps[culprit].change != Step::none) {
        state.because = Norv::State::text(plan_.changes[plan_.steps[culprit].change].object);
      }
    }
  }
  return states;
}

}  // namespace Norv::State
