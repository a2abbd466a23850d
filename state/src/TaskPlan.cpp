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

// What the place needs and nobody says: its class may be of another policy than it was.
std::string TrafficPlanner::lacking(const Place& place) const {
  const auto parent = target_.trafficClasses.find(place.parent);
  if (parent == target_.trafficClasses.end()) return "";
  const std::string& policy = parent->second.policy;
  const bool share = policy == "weighted_fair" && !place.share;
  if (!share && (policy != "priority" || place.priority)) return "";
  return "it needs a " + std::string(share ? "share" : "priority") + " below " + place.parent +
         "; state its place, too";
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
  for (const auto& [name, module] : target_.modules) {
    const auto live = live_.modules.find(name);
    const bool there = live != live_.modules.end();
    const std::size_t tasks = std::max(module.tasks.size(), there ? live->second.tasks.size() : 0);
    for (std::size_t i = 0; i < tasks; ++i) {
      auto place = wantedPlace(name, i);
      if (!place && there && i < live->second.tasks.size()) place = live->second.tasks[i];
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

void TrafficPlanner::planTasks(const std::map<std::string, std::size_t>& created) {
  findChildren();
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
  std::map<std::pair<std::string, std::uint64_t>, std::int64_t> holders;  // workers made anew
  for (const std::int64_t worker : rebuilt_) {
    for (const Task& task : tasksOf_[worker]) {
      holders.insert({{task.module, task.number}, worker});
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
      if (holders.contains({name, i})) continue;
      auto before = there && i < live->second.tasks.size() ? live->second.tasks[i] : std::nullopt;
      std::vector<std::size_t> after;
      const std::int64_t root = before ? rootOf(live_, *before) : -1;
      if (removed_.contains(root) && !target_.workers.empty()) {
        before = Place{"", target_.workers.begin()->first, {}, {}};  // where it was moved to
        after.push_back(workerDestroyed_.at(root));
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
      moves.push_back({name, i, *wanted, change, after, before});
    }
  }
  std::set<std::string> moved;
  for (const Move& move : moves) moved.insert(move.module);
  // The daemon gives all that wait a place with the first call that does for one.
  for (const auto& one : created) {
    const std::string& name = one.first;
    const std::size_t step = one.second;
    const ClassRow* row = classRow(target_.modules.at(name).moduleClass);
    if (!running || row == nullptr || !row->tasks || moved.contains(name)) continue;
    moves.push_back(
        {name, 0, {}, builder_.change({Kind::module, name}, Action::create), {step}, {}});
    break;
  }
  // Tasks that make room for others go to their worker's top first.
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
    if (const std::string what = lacking(move.place); !what.empty()) {
      builder_.impossible(what, move.change);
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
    if (const auto held = holders.find({move.module, move.number}); held != holders.end()) {
      leftHolding[held->second].push_back(step);
    }
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
