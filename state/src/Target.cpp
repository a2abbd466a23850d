#include "Target.h"

#include <algorithm>

#include <Norv/State/ClassTable.h>

namespace Norv::State {

namespace {

class TargetFinder {
 public:
  TargetFinder(const LiveSwitch& live, const Switch& wanted, const PlanOptions& options)
      : live_(live),
        wanted_(wanted),
        options_(options),
        back_(live.unfinished.comesBack),
        target_(wanted) {}

  Switch find() {
    if (!options_.prune) bringModulesBack();
    fillModules();
    if (!options_.prune) keepOthers();
    if (!options_.prune || !wanted_.workersStated) keepWorkers();
    for (const std::int64_t id : live_.unfinished.holding) {
      if (!wanted_.workers.contains(id)) target_.workers.erase(id);
    }
    for (auto& [id, worker] : target_.workers) fillWorker(id, worker);
    if (!wanted_.workersStated && target_.workers.empty() && anyTask()) {
      target_.workers[0] = {0, true, {}};  // the one that the daemon would launch
    }
    placeClasses();
    for (const auto& [name, module] : back_.modules) placeTasks(name, module);
    return std::move(target_);
  }

 private:
  // One that is there again may be half of what it was.
  void bringModulesBack() {
    for (const auto& [name, module] : back_.modules) {
      if (!module.arg) continue;
      const auto live = live_.modules.find(name);
      const bool another =
          live != live_.modules.end() && live->second.moduleClass != module.moduleClass;
      if (!another) target_.modules.emplace(name, module);
    }
  }

  // What is not stated of a module that is there.
  void fillModules() {
    for (auto& [name, module] : target_.modules) {
      const auto live = live_.modules.find(name);
      if (live == live_.modules.end() || live->second.moduleClass != module.moduleClass) continue;
      for (const auto& setting : live->second.settings) module.settings.insert(setting);
      if (!module.table) module.table = live->second.table;
      if (!module.arg) module.arg = live->second.arg;
    }
  }

  void keepOthers() {
    target_.plugins.insert(live_.plugins.begin(), live_.plugins.end());
    target_.ports.insert(live_.ports.begin(), live_.ports.end());
    target_.modules.insert(live_.modules.begin(), live_.modules.end());
    target_.connections.insert(live_.connections.begin(), live_.connections.end());
    target_.trafficClasses.insert(live_.trafficClasses.begin(), live_.trafficClasses.end());
    for (const auto& [point, arg] : live_.hooks) keepHook(point, arg);
    for (const auto& [from, to] : back_.connections) {
      if (target_.modules.contains(from.module) && target_.modules.contains(to.module)) {
        target_.connections.emplace(from, to);
      }
    }
    target_.trafficClasses.insert(back_.trafficClasses.begin(), back_.trafficClasses.end());
    for (const auto& [point, arg] : back_.hooks) {
      if (target_.modules.contains(point.gate.module)) keepHook(point, arg);
    }
  }

  // A hook that the document does not speak of stays, but not the default hook of a connection that
  // is stated without.
  void keepHook(const HookPoint& point, const std::optional<Any>& arg) {
    const bool statedWithout =
        point == defaultHook(point.gate) && wanted_.connections.contains(point.gate);
    if (!statedWithout && !matches(target_.hooks, point)) target_.hooks[point] = arg;
  }

  void keepWorkers() {
    for (const auto& [id, worker] : back_.workers) target_.workers.emplace(id, worker);
    target_.workers.insert(live_.workers.begin(), live_.workers.end());
  }

  void fillWorker(std::int64_t id, Worker& worker) const {
    const auto live = live_.workers.find(id);
    if (live == live_.workers.end()) return;
    if (!worker.scheduler) worker.scheduler = live->second.scheduler;
    // What ran before a change that was cut short runs again.
    const bool cutShort = live_.doubtful.contains({Kind::worker, std::to_string(id)});
    if (cutShort && !wanted_.workers.contains(id)) worker.running = true;
  }

  bool anyTask() const {
    return std::any_of(target_.modules.begin(), target_.modules.end(), [](const auto& one) {
      const ClassRow* row = classRow(one.second.moduleClass);
      return row != nullptr && row->tasks;
    });
  }

  bool there(const Place& place) const {
    return place.parent.empty() ? target_.workers.contains(place.worker)
                                : target_.trafficClasses.contains(place.parent);
  }

  // Where they were, and of what, unless they say.
  void placeClasses() {
    for (auto& [name, one] : target_.trafficClasses) {
      const auto live = live_.trafficClasses.find(name);
      const bool same = live != live_.trafficClasses.end() && live->second.policy == one.policy;
      if (one.resource.empty() && same) one.resource = live->second.resource;
      if (one.place.stated() || live != live_.trafficClasses.end()) continue;
      const auto back = back_.trafficClasses.find(name);
      if (back != back_.trafficClasses.end() && there(back->second.place)) {
        one.place = back->second.place;
      }
    }
  }

  void placeTasks(const std::string& name, const Module& back) {
    const auto module = target_.modules.find(name);
    if (module == target_.modules.end() || module->second.moduleClass != back.moduleClass) return;
    const auto stated = wanted_.modules.find(name);
    auto& places = module->second.tasks;
    for (std::size_t i = 0; i < back.tasks.size(); ++i) {
      if (!back.tasks[i] || !there(*back.tasks[i])) continue;
      const bool spokenOf = stated != wanted_.modules.end() && i < stated->second.tasks.size() &&
                            stated->second.tasks[i];
      if (spokenOf) continue;
      if (places.size() <= i) places.resize(i + 1);
      places[i] = back.tasks[i];
    }
  }

  const LiveSwitch& live_;
  const Switch& wanted_;
  const PlanOptions options_;
  const Switch& back_;
  Switch target_;
};

}  // namespace

Switch targetOf(const LiveSwitch& live, const Switch& wanted, const PlanOptions& options) {
  return TargetFinder(live, wanted, options).find();
}

Hooks::const_iterator matching(const Hooks& hooks, const HookPoint& point) {
  if (const auto found = hooks.find(point); found != hooks.end()) return found;
  auto other = hooks.lower_bound({point.gate, point.output, point.hookClass, ""});
  for (; other != hooks.end() && other->first.gate == point.gate &&
         other->first.output == point.output && other->first.hookClass == point.hookClass;
       ++other) {
    if (other->first.name.empty() || point.name.empty()) return other;
  }
  return hooks.end();
}

}  // namespace Norv::State
