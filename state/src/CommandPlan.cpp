#include "CommandPlan.h"

#include <algorithm>

namespace Norv::State {

namespace {

using Action = Change::Action;

// "a, b and 7 more".
std::string listed(const std::vector<std::string>& names) {
  constexpr std::size_t shown = 10;
  std::string all;
  for (std::size_t i = 0; i < std::min(names.size(), shown); ++i) {
    all += (i == 0 ? "" : ", ") + names[i];
  }
  if (names.size() > shown) all += " and " + std::to_string(names.size() - shown) + " more";
  return all;
}

}  // namespace

void CommandPlanner::fillNew(const Commands& commands,
                             const std::map<std::string, std::size_t>& created) {
  for (const auto& [name, toSend] : commands) {
    const std::size_t change = builder_.change({Kind::module, name}, Action::create);
    send(name, toSend, change, {created.at(name)}, {});
  }
}

void CommandPlanner::change(const std::map<std::string, ModuleDifference>& differences) {
  // By the workers that have to stand still for it.
  std::map<std::set<std::int64_t>, std::vector<std::string>> windows;
  const Reached reached = reachedByRunning();
  for (const auto& [name, found] : differences) {
    if (found.commands.empty() || !found.recreate.empty()) continue;
    const bool pause = std::any_of(found.commands.begin(), found.commands.end(),
                                   [](const ModuleCommand& one) { return !one.whileRunning; });
    const auto workers = reached.find(name);
    std::set<std::int64_t> standing;
    if (pause && workers != reached.end()) {
      for (const std::int64_t worker : workers->second) {
        if (traffic_.runsThroughout(worker)) standing.insert(worker);
      }
    }
    // One that stops anyway has to have stopped, also where it only came to the module before.
    for (const auto& [worker, live] : live_.workers) {
      const auto step = traffic_.stopped(worker);
      if (pause && step && live.running.value_or(false)) stops_[name].push_back(*step);
    }
    if (pause && othersRun(standing)) findReached(stops_[name]);
    windows[standing].push_back(name);
  }
  for (const auto& [workers, names] : windows) window(workers, names, differences);
}

bool CommandPlanner::othersRun(const std::set<std::int64_t>& standing) const {
  return std::any_of(live_.workers.begin(), live_.workers.end(), [&](const auto& one) {
    return traffic_.runsThroughout(one.first) && !standing.contains(one.first);
  });
}

// A daemon goes by what it found last when it refuses: a worker that was cut off from a module
// still counts until it is told to look again.
void CommandPlanner::findReached(std::vector<std::size_t>& before) {
  if (!found_) {
    found_ = builder_.step(checkSchedulingConstraints, std::make_unique<bess::pb::EmptyRequest>(),
                           Kind::worker, Step::none);
  }
  before.push_back(*found_);
}

// The entries of a table do not need each other, but what comes before them.
std::vector<std::size_t> CommandPlanner::send(const std::string& name,
                                              const std::vector<ModuleCommand>& commands,
                                              std::size_t change, std::vector<std::size_t> after,
                                              const std::vector<std::size_t>& behind) {
  std::vector<std::size_t> sent;
  for (const ModuleCommand& command : commands) {
    sent.push_back(builder_.step(moduleCommand, commandRequest(name, command), Kind::module, change,
                                 after, behind));
    builder_.plan.steps.back().edit = command.edit;
    builder_.plan.steps.back().parts = command.parts;
    if (!command.whileRunning) builder_.standing.push_back(sent.back());
    if (command.command != "add" && command.command != "delete") after = {sent.back()};
  }
  return sent;
}

void CommandPlanner::window(const std::set<std::int64_t>& workers,
                            const std::vector<std::string>& names,
                            const std::map<std::string, ModuleDifference>& differences) {
  std::vector<std::size_t> paused;
  std::string who;
  for (const std::int64_t worker : workers) {
    auto request = std::make_unique<bess::pb::PauseWorkerRequest>();
    request->set_wid(worker);
    paused.push_back(
        builder_.step(pauseWorker, std::move(request), Kind::worker, Step::none, {}, resumed_));
    who += (who.empty() ? "" : ", ") + std::to_string(worker);
  }
  std::vector<std::size_t> ended = paused;
  for (const std::string& name : names) {
    const std::size_t change = builder_.change({Kind::module, name}, Action::change);
    const ModuleDifference& found = differences.at(name);
    for (const std::string& detail : found.details) builder_.detail(change, detail);
    std::vector<std::size_t> behind = stops_[name];
    behind.insert(behind.end(), paused.begin(), paused.end());
    const auto sent = send(name, found.commands, change, {}, behind);
    ended.insert(ended.end(), sent.begin(), sent.end());
  }
  if (workers.empty()) return;
  resumed_.clear();  // the next window comes behind this one, which would end it
  for (const std::int64_t worker : workers) {
    auto request = std::make_unique<bess::pb::ResumeWorkerRequest>();
    request->set_wid(worker);
    resumed_.push_back(
        builder_.step(resumeWorker, std::move(request), Kind::worker, Step::none, {}, ended));
  }
  builder_.plan.pauses.push_back((workers.size() == 1 ? "worker " : "workers ") + who + " while " +
                                 listed(names) + (names.size() == 1 ? " is" : " are") + " changed");
}

// The workers that run and come to the module's own tasks.
std::set<std::int64_t> CommandPlanner::runningAt(const Module& module) const {
  std::set<std::int64_t> workers;
  for (const auto& place : module.tasks) {
    if (!place) continue;
    const std::int64_t at = rootOf(live_, *place);
    const bool goes = !target_.workers.contains(at) && !target_.workers.empty();
    for (const auto& [worker, live] : live_.workers) {
      // One that waits may come to any, and one whose worker goes comes to the first.
      const bool here =
          worker == at || at < 0 || (goes && worker == target_.workers.begin()->first);
      if (here && live.running.value_or(false)) workers.insert(worker);
    }
  }
  return workers;
}

// The workers that run and come to a module, as the daemon finds them: along the connections from
// a task's module, up to modules with a task of their own.
CommandPlanner::Reached CommandPlanner::reachedByRunning() const {
  std::map<std::string, std::set<std::string>> next;
  for (const auto& [from, to] : live_.connections) next[from.module].insert(to.module);
  Reached reached;
  for (const auto& [name, module] : live_.modules) {
    const std::set<std::int64_t> workers = runningAt(module);
    if (workers.empty()) continue;
    std::set<std::string> seen{name};
    std::vector<std::string> open{name};
    while (!open.empty()) {
      const std::string at = open.back();
      open.pop_back();
      reached[at].insert(workers.begin(), workers.end());
      if (at != name && !live_.modules.at(at).tasks.empty()) continue;
      for (const std::string& to : next[at]) {
        if (live_.modules.contains(to) && seen.insert(to).second) open.push_back(to);
      }
    }
  }
  return reached;
}

}  // namespace Norv::State
