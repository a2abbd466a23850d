#include <algorithm>

#include "PlanBuilder.h"

// Where the tasks of modules go.

namespace Norv::State {

namespace {

using Action = Change::Action;
constexpr std::uint64_t noTask = UINT64_MAX;  // in the place of its number: a traffic class

}  // namespace

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

// Why its class, which may be of another policy than it was, does not take what comes to the place.
std::string TrafficPlanner::unfit(const Place& place) const {
  const auto parent = target_.trafficClasses.find(place.parent);
  if (parent == target_.trafficClasses.end()) return "";
  const std::string field = lacking(place, parent->second.policy);
  if (field.empty()) return "";
  return "it needs a " + field + " below " + place.parent + "; state its place, too";
}

std::optional<Place> TrafficPlanner::livePlace(const std::string& module,
                                               std::uint64_t number) const {
  const auto live = live_.modules.find(module);
  if (live == live_.modules.end() || number >= live->second.tasks.size()) return {};
  return live->second.tasks[number];
}

// How many tasks of the module are spoken of, here or at the daemon.
std::size_t TrafficPlanner::taskCount(const std::string& module) const {
  const auto live = live_.modules.find(module);
  return std::max(target_.modules.at(module).tasks.size(),
                  live != live_.modules.end() ? live->second.tasks.size() : 0);
}

// What there is, or shall be, below classes that do not take any number of children.
void TrafficPlanner::findChildren() {
  const auto enter = [&](const Place& place, const std::string& module, std::uint64_t number) {
    const auto parent = target_.trafficClasses.find(place.parent);
    if (parent == target_.trafficClasses.end()) return;
    const bool priorities = parent->second.policy == "priority";
    if (!priorities && parent->second.policy != "rate_limit") return;
    children_[{place.parent, priorities ? place.priority : std::nullopt}].push_back(
        {module, number});
  };
  for (const auto& [name, one] : target_.trafficClasses) enter(one.place, name, noTask);
  for (const auto& one : target_.modules) {
    const std::string& name = one.first;
    const std::size_t tasks = taskCount(name);
    for (std::size_t i = 0; i < tasks; ++i) {
      auto place = wantedPlace(name, i);
      if (!place) place = livePlace(name, i);
      if (place) enter(*place, name, i);
    }
  }
}

// Why the place has no room: a daemon that refuses loses the task's class.
std::string TrafficPlanner::crowded(const Place& place, const std::string& module,
                                    std::uint64_t number) const {
  const auto parent = target_.trafficClasses.find(place.parent);
  if (parent == target_.trafficClasses.end()) return "";
  const bool priorities = parent->second.policy == "priority";
  const auto found = children_.find({place.parent, priorities ? place.priority : std::nullopt});
  if (found == children_.end()) return "";
  for (const auto& [other, task] : found->second) {
    if (other == module && task == number) continue;
    return task == noTask ? "traffic class " + other
                          : "task " + std::to_string(task) + " of " + other;
  }
  return "";
}

// Tasks of workers that are made anew come back when these are there.
void TrafficPlanner::returnHeld(std::vector<Move>& moves) {
  for (const std::int64_t worker : rebuilt_) {
    if (blocked_.contains(worker)) continue;  // its tasks are where they were
    for (const Task& task : tasksOf_[worker]) {
      held_.insert({{task.module, task.number}, worker});
      // Not before it was moved away, which would take it back.
      std::vector<std::size_t> after;
      if (const auto gone = workerDestroyed_.find(worker); gone != workerDestroyed_.end()) {
        after.push_back(gone->second);
      }
      moves.push_back(
          {task.module, task.number, placeAfter(task), holdingChange_[worker], after, {}});
    }
  }
}

// The task of a module that is made, or made anew: it comes back where it was.
std::optional<TrafficPlanner::Move> TrafficPlanner::createdMove(const std::string& name,
                                                                std::uint64_t number,
                                                                const std::optional<Place>& before,
                                                                std::size_t created) {
  const auto live = live_.modules.find(name);
  const bool comesBack = before && before->stated() && live != live_.modules.end() &&
                         live->second.moduleClass == target_.modules.at(name).moduleClass;
  const auto wanted = wantedPlace(name, number);
  if (!wanted && !comesBack) return {};
  const Place place = wanted ? *wanted : placeAfter({name, number, *before});
  if (place.parent.empty() && !target_.workers.contains(place.worker)) return {};
  const std::size_t change = builder_.change({Kind::module, name}, Action::create);
  return Move{name, number, place, change, {created}, {}};
}

std::optional<TrafficPlanner::Move> TrafficPlanner::changedMove(const std::string& name,
                                                                std::uint64_t number,
                                                                std::optional<Place> before) {
  std::vector<std::size_t> after;
  const std::int64_t root = before ? rootOf(live_, *before) : -1;
  if (removed_.contains(root) && !target_.workers.empty()) {
    before = Place{"", target_.workers.begin()->first, {}, {}};  // where it was moved to
    after.push_back(workerDestroyed_.at(root));
  }
  const bool hasPlace = before && before->stated();
  auto wanted = wantedPlace(name, number);
  // A task that waits for a place is not worked on: on a switch that runs it gets one.
  if (!wanted && before && !hasPlace && anyRunning()) wanted = Place();
  if (!wanted || (hasPlace && samePlace(*before, *wanted))) return {};
  const std::size_t change = builder_.change({Kind::module, name}, Action::change);
  builder_.detail(change, "task " + std::to_string(number) + ": " +
                              (hasPlace ? placeText(*before) : "nowhere yet") + " -> " +
                              placeText(*wanted));
  return Move{name, number, *wanted, change, after, before};
}

// The daemon gives all tasks that wait a place with the first call that does for one.
void TrafficPlanner::placeWaiting(const Created& created, std::vector<Move>& moves) {
  if (!anyRunning()) return;
  std::set<std::string> moved;
  for (const Move& move : moves) moved.insert(move.module);
  for (const auto& [name, step] : created) {
    const ClassRow* row = classRow(target_.modules.at(name).moduleClass);
    if (row == nullptr || !row->tasks || moved.contains(name)) continue;
    const std::size_t change = builder_.change({Kind::module, name}, Action::create);
    moves.push_back({name, 0, Place(), change, {step}, std::nullopt});
    return;
  }
}

// Tasks that make room for others go to their worker's top first: the steps that take them there.
std::vector<std::size_t> TrafficPlanner::makeRoom(std::vector<Move>& moves) {
  std::vector<std::size_t> out;
  std::map<std::string, std::size_t> comers;
  for (const Move& move : moves) ++comers[move.place.parent];
  for (Move& move : moves) {
    if (!move.from || move.from->parent.empty() ||
        !target_.trafficClasses.contains(move.from->parent)) {
      continue;
    }
    const bool back = move.place.parent == move.from->parent;
    const bool awaited = comers[move.from->parent] > (back ? 1 : 0);
    const std::int64_t worker = rootOf(live_, *move.from);
    if (!awaited || worker < 0) continue;
    Place top;
    top.worker = worker;
    out.push_back(moveTask(move.module, move.number, top, move.change, {}));
    move.after.push_back(out.back());
  }
  return out;
}

// Why the daemon would refuse the move, by which the task loses its class; empty: it would not.
std::string TrafficPlanner::refusal(const Move& move) const {
  const Place& place = move.place;
  if (place.parent.empty() && place.worker >= 0 && !target_.workers.contains(place.worker)) {
    return "no worker " + std::to_string(place.worker) +
           " is there for its task; state one under \"workers\"";
  }
  if (std::string why = unfit(place); !why.empty()) return why;
  const std::string who = crowded(place, move.module, move.number);
  if (who.empty()) return "";
  return "there is no room for it below " + place.parent + ": " + who +
         " is there; state its place, too";
}

void TrafficPlanner::planTasks(const Created& created) {
  findChildren();
  std::vector<Move> moves;
  returnHeld(moves);
  for (const auto& one : target_.modules) {
    const std::string& name = one.first;
    const auto made = created.find(name);
    const std::size_t tasks = taskCount(name);
    for (std::size_t i = 0; i < tasks; ++i) {
      if (held_.contains({name, i})) continue;
      const auto before = livePlace(name, i);
      const auto move = made != created.end() ? createdMove(name, i, before, made->second)
                                              : changedMove(name, i, before);
      if (move) moves.push_back(*move);
    }
  }
  placeWaiting(created, moves);
  const std::vector<std::size_t> out = makeRoom(moves);
  std::map<std::int64_t, std::vector<std::size_t>> leftHolding;
  for (Move& move : moves) {
    const auto held = held_.find({move.module, move.number});
    if (const std::string why = refusal(move); !why.empty()) {
      if (held == held_.end()) {
        builder_.impossible(why, move.change);
        continue;
      }
      // It cannot stay with the worker that holds it, which goes.
      const Place top{"", held->second, {}, {}};
      move.change = builder_.change({Kind::module, move.module}, Action::change);
      builder_.detail(move.change, "task " + std::to_string(move.number) + ": " +
                                       placeText(move.place) + " -> " + placeText(top));
      builder_.impossible(why, move.change);
      move.place = top;
    }
    std::vector<std::size_t> after = needs(move.place);
    after.insert(after.end(), move.after.begin(), move.after.end());
    const std::size_t step =
        moveTask(move.module, move.number, move.place, move.change, after, out);
    if (held != held_.end()) leftHolding[held->second].push_back(step);
    if (move.place.stated()) movedTo_[{move.module, move.number}] = move.place;
  }
  for (const auto& [worker, holding] : holdingOf_) {
    auto request = std::make_unique<bess::pb::DestroyWorkerRequest>();
    request->set_wid(holding);
    builder_.step(destroyWorker, std::move(request), Kind::worker, holdingChange_[worker],
                  leftHolding[worker]);
  }
}

}  // namespace Norv::State
