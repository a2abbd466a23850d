#include <algorithm>

#include "PlanBuilder.h"

// Workers, traffic classes and the places of tasks. No command takes a class away or changes where
// it hangs; it goes with its worker. So a worker whose classes have to change is made anew, while
// another one, which does not run, holds its tasks.

namespace Norv::State {

namespace {

using Action = Change::Action;
constexpr std::int64_t workerLimit = 64;

std::string placeText(const Place& place) {
  if (!place.stated()) return "any worker";
  std::string text = place.parent.empty() ? "worker " + std::to_string(place.worker) : place.parent;
  if (place.priority) text += " at priority " + std::to_string(*place.priority);
  if (place.share) text += " with share " + std::to_string(*place.share);
  return text;
}

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

// What the wanted place leaves open agrees.
bool samePlace(const Place& live, const Place& wanted) {
  if (!wanted.stated()) return true;
  if (live.parent != wanted.parent) return false;
  if (wanted.parent.empty() && live.worker != wanted.worker) return false;
  if (wanted.priority && live.priority != wanted.priority) return false;
  return !wanted.share || live.share == wanted.share;
}

}  // namespace

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
    if (target != target_.workers.end() && target->second.core != worker.core) rebuilt_.insert(id);
  }
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
  return live != live_.workers.end() && target != target_.workers.end() &&
         !rebuilt_.contains(worker) && live->second.running.value_or(false) &&
         target->second.running.value_or(true);
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
  if (target.core != live_.workers.at(worker).core) {
    builder_.detail(change, "core: " + std::to_string(live_.workers.at(worker).core) + " -> " +
                                std::to_string(target.core));
  }
  for (const auto& [name, one] : live_.trafficClasses) {
    if (rootOf(live_, one.place) != worker) continue;
    const auto now = target_.trafficClasses.find(name);
    if (now == target_.trafficClasses.end()) {
      builder_.detail(change,
                      "traffic class " + name + " goes, and only its worker can take it away");
      builder_.change({Kind::trafficClass, name}, Action::remove);
    } else if (const std::string why = whyChanges(one, now->second); !why.empty()) {
      builder_.detail(change, "traffic class " + name + " changes, and cannot while it is there");
      builder_.detail(builder_.change({Kind::trafficClass, name}, Action::recreate), why);
    }
  }
  std::vector<std::size_t> gone;
  if (!tasksOf_[worker].empty()) {
    const std::int64_t holding = freeWorker();
    if (holding < 0) {
      workerAdded_[worker] = builder_.impossible(
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
  builder_.plan.pauses.push_back("worker " + std::to_string(worker) +
                                 " while its traffic classes are made anew");
}

std::vector<std::size_t> TrafficPlanner::workersDestroyed() const {
  std::vector<std::size_t> steps;
  for (const auto& [worker, step] : workerDestroyed_) steps.push_back(step);
  return steps;
}

void TrafficPlanner::removeWorker(std::int64_t worker) {
  const std::size_t change =
      builder_.change({Kind::worker, std::to_string(worker)}, Action::remove);
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
  if (one.resource.empty() && (one.policy == "weighted_fair" || one.policy == "rate_limit")) {
    classAdded_[name] = builder_.impossible("its resource is not known; state it", change);
    return;
  }
  TrafficClass placed = one;
  // Where it was, unless it says where.
  if (!placed.place.stated() && !isNew && target_.workers.contains(live->second.place.worker)) {
    placed.place = live->second.place;
  }
  auto request = std::make_unique<bess::pb::AddTcRequest>();
  auto& message = *request->mutable_class_();
  message.set_name(name);
  message.set_policy(placed.policy);
  fill(message, placed.place);
  if (!placed.resource.empty()) fillLimits(message, placed);
  std::vector<std::size_t> after = needs(placed.place);
  if (!isNew) {  // its name is free when the worker that it was below is gone
    const auto gone = workerDestroyed_.find(rootOf(live_, live->second.place));
    if (gone != workerDestroyed_.end()) after.push_back(gone->second);
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
      builder_.plan.assumed.push_back("traffic class " + name + ": resource");
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

std::optional<Place> TrafficPlanner::wantedPlace(const std::string& module,
                                                 std::uint64_t number) const {
  const auto found = target_.modules.find(module);
  if (found == target_.modules.end() || number >= found->second.tasks.size()) return {};
  const auto& place = found->second.tasks[number];
  return place && place->stated() ? place : std::nullopt;
}

// Where the task shall be that is held or moved: as wanted, or where it was as far as that is.
Place TrafficPlanner::placeAfter(const Task& task) const {
  if (const auto wanted = wantedPlace(task.module, task.number)) return *wanted;
  if (!task.live.parent.empty() && target_.trafficClasses.contains(task.live.parent))
    return task.live;
  const std::int64_t worker = rootOf(live_, task.live);
  Place top;
  top.worker = target_.workers.contains(worker) || target_.workers.empty()
                   ? worker
                   : target_.workers.begin()->first;
  return top;
}

bool TrafficPlanner::anyRunning() const {
  return std::any_of(target_.workers.begin(), target_.workers.end(), [&](const auto& one) {
    const auto live = live_.workers.find(one.first);
    const bool before = live != live_.workers.end() && live->second.running.value_or(false);
    return one.second.running.value_or(before);
  });
}

// Why the place has no room: a daemon that refuses loses the task's class.
std::string TrafficPlanner::crowded(const Place& place, const std::string& module,
                                    std::uint64_t number) const {
  const auto parent = target_.trafficClasses.find(place.parent);
  if (parent == target_.trafficClasses.end()) return "";
  const bool one = parent->second.policy == "rate_limit";
  const bool priorities = parent->second.policy == "priority";
  if (!one && !priorities) return "";
  const auto clashes = [&](const Place& other) {
    return other.parent == place.parent && (one || other.priority == place.priority);
  };
  for (const auto& [name, other] : target_.trafficClasses) {
    if (clashes(other.place)) return "traffic class " + name;
  }
  for (const auto& [name, entered] : target_.modules) {
    const auto live = live_.modules.find(name);
    const std::size_t tasks =
        std::max(entered.tasks.size(), live == live_.modules.end() ? 0 : live->second.tasks.size());
    for (std::size_t i = 0; i < tasks; ++i) {
      if (name == module && i == number) continue;
      auto other = wantedPlace(name, i);
      if (!other && live != live_.modules.end() && i < live->second.tasks.size()) {
        other = live->second.tasks[i];
      }
      if (other && clashes(*other)) return "task " + std::to_string(i) + " of " + name;
    }
  }
  return "";
}

void TrafficPlanner::planTasks(const std::map<std::string, std::size_t>& created) {
  struct Move {
    std::string module;
    std::uint64_t number;
    Place place;
    std::size_t change;
    std::vector<std::size_t> after;
    std::optional<Place> from;  // out of a class that others may come into
  };
  std::vector<Move> moves;
  const auto modify = [&](const std::string& name) {
    return builder_.change({Kind::module, name}, Action::change);
  };
  // A task that waits for a place is not worked on: on a switch that runs it gets one.
  const bool running = anyRunning();
  std::set<std::pair<std::string, std::uint64_t>> seen;
  for (const std::int64_t worker : rebuilt_) {
    for (const Task& task : tasksOf_[worker]) {
      seen.insert({task.module, task.number});
      // Not before it was moved away, which would take it back.
      std::vector<std::size_t> after;
      if (const auto gone = workerDestroyed_.find(worker); gone != workerDestroyed_.end()) {
        after.push_back(gone->second);
      }
      moves.push_back(
          {task.module, task.number, placeAfter(task), holdingChange_[worker], after, {}});
    }
  }
  for (const auto& [name, module] : target_.modules) {
    const auto live = live_.modules.find(name);
    const bool there = live != live_.modules.end();
    const std::size_t tasks = std::max(module.tasks.size(), there ? live->second.tasks.size() : 0);
    const auto made = created.find(name);
    for (std::size_t i = 0; i < tasks; ++i) {
      if (seen.contains({name, i})) continue;
      auto before = there && i < live->second.tasks.size() ? live->second.tasks[i] : std::nullopt;
      if (before && removed_.contains(rootOf(live_, *before)) && !target_.workers.empty()) {
        before = Place{"", target_.workers.begin()->first, {}, {}};  // where it was moved to
      }
      if (made != created.end()) {
        // Made anew, its task comes back where it was.
        if (there && live->second.moduleClass != module.moduleClass) before.reset();
        const auto wanted = wantedPlace(name, i);
        if (!wanted && (!before || !before->stated())) continue;
        const Place place = wanted ? *wanted : placeAfter({name, i, *before});
        if (place.parent.empty() && !target_.workers.contains(place.worker)) continue;
        moves.push_back({name,
                         i,
                         place,
                         builder_.change({Kind::module, name}, Action::create),
                         {made->second},
                         {}});
        continue;
      }
      auto wanted = wantedPlace(name, i);
      if (!wanted && before && !before->stated() && running) wanted = Place();
      if (!wanted || (before && before->stated() && samePlace(*before, *wanted))) continue;
      const std::size_t change = modify(name);
      builder_.detail(
          change, "task " + std::to_string(i) + ": " +
                      (before && before->stated() ? placeText(*before) : "nowhere yet") + " -> " +
                      placeText(*wanted));
      moves.push_back({name, i, *wanted, change, {}, before});
    }
  }
  // The daemon gives all that wait a place with the first call that does for one.
  for (const auto& one : created) {
    const std::string& name = one.first;
    const std::size_t step = one.second;
    const ClassRow* row = classRow(target_.modules.at(name).moduleClass);
    const bool moved = std::any_of(moves.begin(), moves.end(),
                                   [&](const Move& move) { return move.module == name; });
    if (!running || row == nullptr || !row->tasks || moved) continue;
    moves.push_back(
        {name, 0, {}, builder_.change({Kind::module, name}, Action::create), {step}, {}});
    break;
  }
  // Tasks that make room for others go to their worker's top first.
  std::vector<std::size_t> out;
  for (Move& move : moves) {
    if (!move.from || move.from->parent.empty() ||
        !target_.trafficClasses.contains(move.from->parent)) {
      continue;
    }
    const bool awaited = std::any_of(moves.begin(), moves.end(), [&](const Move& other) {
      return &other != &move && other.place.parent == move.from->parent;
    });
    const std::int64_t worker = rootOf(live_, *move.from);
    if (!awaited || worker < 0) continue;
    Place top;
    top.worker = worker;
    out.push_back(moveTask(move.module, move.number, top, move.change, {}));
    move.after.push_back(out.back());
  }
  std::map<std::int64_t, std::vector<std::size_t>> leftHolding;
  for (Move& move : moves) {
    const bool nowhere = move.place.parent.empty() && move.place.worker >= 0 &&
                         !target_.workers.contains(move.place.worker);
    if (nowhere) {  // a daemon that refuses loses the task's class
      builder_.impossible("no worker " + std::to_string(move.place.worker) +
                              " is there for its task; state one under \"workers\"",
                          move.change);
      continue;
    }
    if (const std::string who = crowded(move.place, move.module, move.number); !who.empty()) {
      builder_.impossible("there is no room for it below " + move.place.parent + ": " + who +
                              " is there; state its place, too",
                          move.change);
      continue;
    }
    std::vector<std::size_t> after = needs(move.place);
    after.insert(after.end(), move.after.begin(), move.after.end());
    const std::size_t step =
        moveTask(move.module, move.number, move.place, move.change, after, out);
    for (const std::int64_t worker : rebuilt_) {
      for (const Task& task : tasksOf_[worker]) {
        if (task.module == move.module && task.number == move.number)
          leftHolding[worker].push_back(step);
      }
    }
  }
  for (const auto& [worker, holding] : holdingOf_) {
    auto request = std::make_unique<bess::pb::DestroyWorkerRequest>();
    request->set_wid(holding);
    builder_.step(destroyWorker, std::move(request), Kind::worker, holdingChange_[worker],
                  leftHolding[worker]);
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
