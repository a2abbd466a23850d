#include <algorithm>

#include "PlanBuilder.h"

// Workers, traffic classes and the places of tasks. No command takes a class away or changes where
// it hangs; it goes with its worker. So a worker whose classes have to change is made anew, while
// another one, which does not run, holds its tasks.

namespace Norv::State {

namespace {

using Action = Change::Action;

void fill(bess::pb::TrafficClass& message, const Place& place) {
  message.set_parent(place.parent);
  message.set_wid(place.parent.empty() ? place.worker : -1);
  if (place.priority) message.set_priority(*place.priority);
  if (place.share) message.set_share(*place.share);
}

void fillLimits(bess::pb::TrafficClass& message, const TrafficClass& one) {
  message.set_resource(one.resource);
  if (one.limit) (*message.mutable_limit())[one.resource] = *one.limit;
  if (one.maxBurst) (*message.mutable_max_burst())[one.resource] = *one.maxBurst;
}

}  // namespace

std::string placeText(const Place& place) {
  if (!place.stated()) return "any worker";
  std::string text = place.parent.empty() ? "worker " + std::to_string(place.worker) : place.parent;
  if (place.priority) text += " at priority " + std::to_string(*place.priority);
  if (place.share) text += " with share " + std::to_string(*place.share);
  return text;
}

bool samePlace(const Place& live, const Place& wanted) {
  if (!wanted.stated()) return true;
  if (live.parent != wanted.parent) return false;
  if (wanted.parent.empty() && live.worker != wanted.worker) return false;
  if (wanted.priority && live.priority != wanted.priority) return false;
  return !wanted.share || live.share == wanted.share;
}

std::int64_t rootOf(const Switch& live, const Place& place) {
  std::set<std::string> seen;
  const Place* at = &place;
  while (!at->parent.empty()) {
    const auto parent = live.trafficClasses.find(at->parent);
    if (parent == live.trafficClasses.end() || !seen.insert(at->parent).second) return -1;
    at = &parent->second.place;
  }
  return at->worker;
}

TrafficPlanner::TrafficPlanner(PlanBuilder& builder, const TrafficContext& context)
    : builder_(builder), context_(context), live_(context.live), target_(context.target) {
  for (const auto& [id, worker] : live_.workers) {
    if (!target_.workers.contains(id)) removed_.insert(id);
  }
  findRebuilt();
}

void TrafficPlanner::findTasks() {
  for (const auto& [name, module] : live_.modules) {
    if (context_.destroyed.contains(name)) continue;
    for (std::size_t i = 0; i < module.tasks.size(); ++i) {
      if (!module.tasks[i]) continue;
      std::int64_t worker = rootOf(live_, *module.tasks[i]);
      // One that waits may come to a worker that goes, with any call that pauses before.
      if (worker < 0 && !removed_.empty()) {
        worker = *removed_.begin();
      } else if (worker < 0 && !rebuilt_.empty()) {
        worker = *rebuilt_.begin();
      }
      if (worker >= 0) tasksOf_[worker].push_back({name, i, *module.tasks[i]});
    }
  }
}

std::set<std::string> TrafficPlanner::withoutWorker(const LiveSwitch& live, const Switch& target) {
  std::set<std::string> names;
  if (!target.workers.empty()) return names;
  for (const auto& [name, module] : live.modules) {
    const bool placed = std::any_of(module.tasks.begin(), module.tasks.end(),
                                    [](const auto& place) { return place && place->stated(); });
    if (placed && target.modules.contains(name)) names.insert(name);
  }
  return names;
}

std::string TrafficPlanner::whyChanges(const TrafficClass& live, const TrafficClass& target) const {
  if (live.policy != target.policy) return "policy: " + live.policy + " -> " + target.policy;
  if (!samePlace(live.place, target.place)) {
    return "place: " + placeText(live.place) + " -> " + placeText(target.place);
  }
  return "";
}

void TrafficPlanner::findRebuilt() {
  for (const auto& [name, one] : live_.trafficClasses) {
    const std::int64_t worker = rootOf(live_, one.place);
    const auto target = target_.trafficClasses.find(name);
    const bool goes = target == target_.trafficClasses.end();
    if (worker < 0 || removed_.contains(worker)) continue;
    if (goes || !whyChanges(one, target->second).empty()) rebuilt_.insert(worker);
  }
  for (const auto& [id, worker] : live_.workers) {
    const auto target = target_.workers.find(id);
    if (target == target_.workers.end()) continue;
    if (target->second.core != worker.core || schedulerChanges(id)) rebuilt_.insert(id);
  }
}

bool TrafficPlanner::schedulerChanges(std::int64_t worker) const {
  const auto& stated = target_.workers.at(worker).scheduler;
  const auto& live = live_.workers.at(worker).scheduler;
  if (!stated) return false;
  if (live) return *live != *stated;
  return context_.recreateUnknown || live_.doubtfulSchedulers.contains(worker);
}

// Whether the class has to be added: it is not there, or goes with its worker.
bool TrafficPlanner::fresh(const std::string& name) const {
  const auto live = live_.trafficClasses.find(name);
  if (live == live_.trafficClasses.end()) return true;
  const std::int64_t worker = rootOf(live_, live->second.place);
  return worker >= 0 && (rebuilt_.contains(worker) || removed_.contains(worker));
}

bool TrafficPlanner::runsThroughout(std::int64_t worker) const {
  const auto live = live_.workers.find(worker);
  const auto target = target_.workers.find(worker);
  const bool goes = rebuilt_.contains(worker) && !blocked_.contains(worker);
  return live != live_.workers.end() && target != target_.workers.end() && !goes &&
         live->second.running.value_or(false) && target->second.running.value_or(true);
}

std::optional<std::size_t> TrafficPlanner::stopped(std::int64_t worker) const {
  for (const auto* steps : {&workerPaused_, &workerDestroyed_}) {
    if (const auto step = steps->find(worker); step != steps->end()) return step->second;
  }
  return {};
}

std::int64_t TrafficPlanner::freeWorker() const {
  for (std::int64_t id = workerLimit - 1; id >= 0; --id) {
    const bool held = std::any_of(holdingOf_.begin(), holdingOf_.end(),
                                  [&](const auto& one) { return one.second == id; });
    if (!held && !live_.workers.contains(id) && !target_.workers.contains(id)) return id;
  }
  return -1;
}

std::size_t TrafficPlanner::addWorker(std::int64_t worker, const Worker& as, std::size_t change,
                                      std::vector<std::size_t> after) {
  auto request = std::make_unique<bess::pb::AddWorkerRequest>();
  request->set_wid(worker);
  request->set_core(as.core);
  if (as.scheduler) request->set_scheduler(*as.scheduler);
  return builder_.step(Norv::addWorker, std::move(request), Kind::worker, change, std::move(after));
}

void TrafficPlanner::addWorkers() {
  for (const auto& [id, worker] : target_.workers) {
    if (live_.workers.contains(id)) continue;
    const std::size_t change = builder_.change({Kind::worker, std::to_string(id)}, Action::create);
    workerAdded_[id] = addWorker(id, worker, change, {});
  }
}

void TrafficPlanner::changeWorkers() {
  findTasks();
  for (const auto& [id, worker] : live_.workers) {
    const auto target = target_.workers.find(id);
    const bool unknown = target != target_.workers.end() && target->second.scheduler &&
                         !worker.scheduler && !rebuilt_.contains(id);
    if (unknown) {
      builder_.assume({Kind::worker, std::to_string(id)}, "scheduler");
    }
  }
  for (const auto& [id, worker] : live_.workers) {
    const auto target = target_.workers.find(id);
    const bool stops = target != target_.workers.end() && !rebuilt_.contains(id) &&
                       worker.running.value_or(false) && !target->second.running.value_or(true);
    if (!stops) continue;
    const std::size_t change = builder_.change({Kind::worker, std::to_string(id)}, Action::change);
    builder_.detail(change, "running: true -> false");
    auto request = std::make_unique<bess::pb::PauseWorkerRequest>();
    request->set_wid(id);
    workerPaused_[id] = builder_.step(pauseWorker, std::move(request), Kind::worker, change);
  }
  for (const std::int64_t worker : rebuilt_) rebuild(worker);
  for (const std::int64_t worker : removed_) removeWorker(worker);
}

// Moves the tasks of modules that stay to another worker's top; the steps that end it, and those
// that destroy the modules of the others.
std::vector<std::size_t> TrafficPlanner::moveAway(std::int64_t worker, std::int64_t to,
                                                  std::size_t change,
                                                  const std::vector<std::size_t>& after) {
  std::vector<std::size_t> steps;
  Place place;
  place.worker = to;
  for (const Task& task : tasksOf_[worker]) {
    steps.push_back(moveTask(task.module, task.number, place, change, after));
  }
  for (const auto& [name, step] : context_.destroyed) {
    for (const auto& task : live_.modules.at(name).tasks) {
      if (task && rootOf(live_, *task) == worker) steps.push_back(step);
    }
  }
  return steps;
}

void TrafficPlanner::rebuild(std::int64_t worker) {
  const Worker& target = target_.workers.at(worker);
  const std::size_t change =
      builder_.change({Kind::worker, std::to_string(worker)}, Action::recreate);
  std::string why = " while its traffic classes are made anew";
  const Worker& live = live_.workers.at(worker);
  if (schedulerChanges(worker)) {
    const auto shown = [](const std::string& name) { return name.empty() ? "the usual" : name; };
    builder_.detail(change, "scheduler: " + (live.scheduler ? shown(*live.scheduler) : "not told") +
                                " -> " + shown(*target.scheduler));
    why = " while it is made anew with another scheduler";
  }
  if (target.core != live.core) {
    builder_.detail(change,
                    "core: " + std::to_string(live.core) + " -> " + std::to_string(target.core));
    why = " while it moves to another core";
  }
  for (const auto& [name, one] : live_.trafficClasses) {
    if (rootOf(live_, one.place) != worker) continue;
    const auto now = target_.trafficClasses.find(name);
    if (now == target_.trafficClasses.end()) {
      builder_.detail(change,
                      "traffic class " + name + " goes, and only its worker can take it away");
      builder_.change({Kind::trafficClass, name}, Action::remove);
    } else if (const std::string other = whyChanges(one, now->second); !other.empty()) {
      builder_.detail(change, "traffic class " + name + " changes, and cannot while it is there");
      builder_.detail(builder_.change({Kind::trafficClass, name}, Action::recreate), other);
    }
    if (now == target_.trafficClasses.end()) continue;
    if (const std::string whyNot = unmakeable(name); !whyNot.empty()) {
      blocked_[worker] = builder_.impossible(
          "its traffic class " + name + " would go with it and not come back: " + whyNot, change);
    }
  }
  if (blocked_.contains(worker)) return;
  std::vector<std::size_t> gone;
  if (!tasksOf_[worker].empty()) {
    const std::int64_t holding = freeWorker();
    if (holding < 0) {
      blocked_[worker] = builder_.impossible(
          "all 64 workers are there, and one more is needed to hold its tasks meanwhile", change);
      return;
    }
    holdingOf_[worker] = holding;
    holdingChange_[worker] = change;
    const std::size_t held = addWorker(holding, {target.core, {}, {}}, change, {});
    gone = moveAway(worker, holding, change, {held});
  } else {
    gone = moveAway(worker, worker, change, {});
  }
  auto request = std::make_unique<bess::pb::DestroyWorkerRequest>();
  request->set_wid(worker);
  const std::size_t destroyed =
      builder_.step(destroyWorker, std::move(request), Kind::worker, change, gone);
  workerDestroyed_[worker] = destroyed;
  workerAdded_[worker] = addWorker(worker, target, change, {destroyed});
  builder_.plan.pauses.push_back("worker " + std::to_string(worker) + why);
}

std::vector<std::size_t> TrafficPlanner::workersDestroyed() const {
  std::vector<std::size_t> steps;
  for (const auto& [worker, step] : workerDestroyed_) steps.push_back(step);
  return steps;
}

void TrafficPlanner::removeWorker(std::int64_t worker) {
  const std::size_t change =
      builder_.change({Kind::worker, std::to_string(worker)}, Action::remove);
  if (live_.unfinished.holding.contains(worker)) {
    builder_.detail(change, "it held tasks for a change that was cut short");
  }
  for (const auto& [name, one] : live_.trafficClasses) {
    if (rootOf(live_, one.place) == worker && !target_.trafficClasses.contains(name)) {
      builder_.change({Kind::trafficClass, name}, Action::remove);
    }
  }
  std::vector<std::size_t> gone;
  if (target_.workers.empty()) {
    gone = moveAway(worker, worker, change, {});  // there are no tasks of modules that stay
  } else {
    const std::int64_t to = target_.workers.begin()->first;
    std::vector<std::size_t> after;
    if (const auto added = workerAdded_.find(to); added != workerAdded_.end()) {
      after.push_back(added->second);
    }
    gone = moveAway(worker, to, change, after);
    for (Task& task : tasksOf_[worker]) task.live = {"", to, {}, {}};
  }
  auto request = std::make_unique<bess::pb::DestroyWorkerRequest>();
  request->set_wid(worker);
  workerDestroyed_[worker] =
      builder_.step(destroyWorker, std::move(request), Kind::worker, change, gone);
}

std::size_t TrafficPlanner::moveTask(const std::string& module, std::uint64_t number,
                                     const Place& place, std::size_t change,
                                     std::vector<std::size_t> after,
                                     std::vector<std::size_t> behind) {
  auto request = std::make_unique<bess::pb::UpdateTcParentRequest>();
  auto& message = *request->mutable_class_();
  message.set_leaf_module_name(module);
  message.set_leaf_module_taskid(number);
  fill(message, place);
  return builder_.reachingStep(updateTcParent, std::move(request), Kind::trafficClass, change,
                               std::move(after), std::move(behind));
}

// The steps that make what the place names.
std::vector<std::size_t> TrafficPlanner::needs(const Place& place) const {
  std::vector<std::size_t> after;
  if (!place.parent.empty()) {
    const auto parent = classAdded_.find(place.parent);
    if (parent != classAdded_.end()) after.push_back(parent->second);
  } else if (const auto added = workerAdded_.find(place.worker); added != workerAdded_.end()) {
    after.push_back(added->second);
  }
  return after;
}

// Where it was, unless it says where.
TrafficClass TrafficPlanner::placedClass(const std::string& name) const {
  TrafficClass placed = target_.trafficClasses.at(name);
  const auto live = live_.trafficClasses.find(name);
  if (!placed.place.stated() && live != live_.trafficClasses.end() &&
      target_.workers.contains(live->second.place.worker)) {
    placed.place = live->second.place;
  }
  return placed;
}

std::string TrafficPlanner::unmakeable(const std::string& name) const {
  const TrafficClass& one = target_.trafficClasses.at(name);
  if (one.resource.empty() && (one.policy == "weighted_fair" || one.policy == "rate_limit")) {
    return "its resource is not known; state it";
  }
  return unfit(placedClass(name).place);
}

void TrafficPlanner::addClass(const std::string& name) {
  if (classAdded_.contains(name)) return;
  const TrafficClass& one = target_.trafficClasses.at(name);
  // The parent first.
  if (!one.place.parent.empty() && target_.trafficClasses.contains(one.place.parent) &&
      fresh(one.place.parent)) {
    addClass(one.place.parent);
  }
  const auto live = live_.trafficClasses.find(name);
  const bool isNew = live == live_.trafficClasses.end();
  const std::size_t change =
      builder_.change({Kind::trafficClass, name}, isNew ? Action::create : Action::recreate);
  if (const std::string why = unmakeable(name); !why.empty()) {
    classAdded_[name] = builder_.impossible(why, change);
    return;
  }
  const TrafficClass placed = placedClass(name);
  auto request = std::make_unique<bess::pb::AddTcRequest>();
  auto& message = *request->mutable_class_();
  message.set_name(name);
  message.set_policy(placed.policy);
  fill(message, placed.place);
  if (!placed.resource.empty()) fillLimits(message, placed);
  std::vector<std::size_t> after = needs(placed.place);
  if (!isNew) {  // its name is free when the worker that it was below is gone
    const std::int64_t worker = rootOf(live_, live->second.place);
    for (const auto* steps : {&workerDestroyed_, &blocked_}) {
      if (const auto step = steps->find(worker); step != steps->end())
        after.push_back(step->second);
    }
  }
  classAdded_[name] =
      builder_.step(addTc, std::move(request), Kind::trafficClass, change, std::move(after));
}

void TrafficPlanner::updateParams(const std::string& name) {
  const TrafficClass& live = live_.trafficClasses.at(name);
  const TrafficClass& one = target_.trafficClasses.at(name);
  std::vector<std::string> details;
  if (!one.resource.empty()) {
    if (live.resource.empty()) {
      builder_.assume({Kind::trafficClass, name}, "resource");
    } else if (live.resource != one.resource) {
      details.push_back("resource: " + live.resource + " -> " + one.resource);
    }
  }
  const auto compare = [&](const char* what, const auto& before, const auto& after) {
    if (one.policy != "rate_limit" || before.value_or(0) == after.value_or(0)) return;
    details.push_back(std::string(what) + ": " + std::to_string(before.value_or(0)) + " -> " +
                      std::to_string(after.value_or(0)));
  };
  compare("limit", live.limit, one.limit);
  compare("max_burst", live.maxBurst, one.maxBurst);
  if (details.empty()) return;
  const std::size_t change = builder_.change({Kind::trafficClass, name}, Action::change);
  for (const std::string& detail : details) builder_.detail(change, detail);
  auto request = std::make_unique<bess::pb::UpdateTcParamsRequest>();
  auto& message = *request->mutable_class_();
  message.set_name(name);
  TrafficClass all = one;  // what is left out would keep its value
  all.limit = one.limit.value_or(0);
  all.maxBurst = one.maxBurst.value_or(0);
  fillLimits(message, all);
  builder_.step(updateTcParams, std::move(request), Kind::trafficClass, change);
}

void TrafficPlanner::planClasses(const std::map<std::string, std::size_t>& created) {
  for (const auto& [name, one] : target_.trafficClasses) {
    if (fresh(name)) {
      addClass(name);
    } else {
      updateParams(name);
    }
  }
  planTasks(created);
}

void TrafficPlanner::findUnfinished(const Switch& wanted, Unfinished& unfinished) const {
  const Switch& before = live_.unfinished.comesBack;
  Switch& back = unfinished.comesBack;
  for (const auto& [worker, holding] : holdingOf_) unfinished.holding.insert(holding);
  for (const std::int64_t worker : live_.unfinished.holding) {
    if (removed_.contains(worker)) unfinished.holding.insert(worker);
  }
  for (const auto& [id, worker] : target_.workers) {
    const bool away = rebuilt_.contains(id) || before.workers.contains(id);
    if (!away || wanted.workers.contains(id)) continue;
    const auto live = live_.workers.find(id);
    back.workers[id] = worker;
    const bool ran = live != live_.workers.end() && live->second.running.value_or(false);
    back.workers[id].running = worker.running.value_or(ran);
  }
  for (const auto& [name, one] : target_.trafficClasses) {
    const bool away = live_.trafficClasses.contains(name) || before.trafficClasses.contains(name);
    const auto stated = wanted.trafficClasses.find(name);
    const bool spokenOf = stated != wanted.trafficClasses.end() && stated->second.place.stated();
    if (fresh(name) && away && !spokenOf) back.trafficClasses[name] = placedClass(name);
  }
  for (const auto& [task, place] : movedTo_) {
    const auto& [name, number] = task;
    const auto stated = wanted.modules.find(name);
    const bool spokenOf = stated != wanted.modules.end() && number < stated->second.tasks.size() &&
                          stated->second.tasks[number];
    if (spokenOf) continue;
    Module& module = back.modules[name];
    module.moduleClass = target_.modules.at(name).moduleClass;
    if (module.tasks.size() <= number) module.tasks.resize(number + 1);
    module.tasks[number] = place;
  }
}

void TrafficPlanner::planRunning() {
  for (const auto& [id, worker] : target_.workers) {
    const auto live = live_.workers.find(id);
    const bool before = live != live_.workers.end() && live->second.running.value_or(false);
    const bool anew = workerAdded_.contains(id);
    const bool wanted = worker.running.value_or(before);
    if (!wanted || (before && !anew)) continue;
    const std::size_t change = builder_.change({Kind::worker, std::to_string(id)}, Action::change);
    if (!anew) builder_.detail(change, "running: false -> true");
    auto request = std::make_unique<bess::pb::ResumeWorkerRequest>();
    request->set_wid(id);
    std::vector<std::size_t> after;
    if (anew) after.push_back(workerAdded_.at(id));
    std::vector<std::size_t> behind;
    for (std::size_t i = 0; i < builder_.plan.steps.size(); ++i) {
      if (builder_.plan.steps[i].request) behind.push_back(i);
    }
    builder_.step(resumeWorker, std::move(request), Kind::worker, change, std::move(after),
                  std::move(behind));
  }
}

}  // namespace Norv::State
