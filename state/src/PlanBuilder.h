#pragma once

#include <map>
#include <unordered_map>

#include <Norv/State/ClassTable.h>
#include <Norv/State/Plan.h>
#include <bess/pb/service.pb.h>

#include "Modules.h"

namespace Norv::State {

// What a daemon takes.
constexpr std::size_t mostRequestBytes = 4 << 20;

// Collects changes and steps.
class PlanBuilder {
 public:
  Plan plan;

  // The index of the object's change, made when there is none.
  std::size_t change(const Object& object, Change::Action action);
  // Of an object that has none yet and that nothing asks for again.
  std::size_t newChange(Object object, Change::Action action) {
    plan.changes.push_back({action, std::move(object), {}});
    return plan.changes.size() - 1;
  }
  void detail(std::size_t change, const std::string& text) {
    plan.changes[change].details.push_back(text);
  }
  void assume(const Object& object, const std::string& what) {
    plan.assumed.push_back({object, what});
  }
  std::size_t step(GrpcRequestType type, std::unique_ptr<Message> request, Kind queue,
                   std::size_t change, std::vector<std::size_t> after = {},
                   std::vector<std::size_t> behind = {});
  // Commands for which no running worker may come to their module. What lets workers come to more
  // modules waits for these: the first such step for all of them, the others for that one.
  std::vector<std::size_t> standing;
  std::size_t reachingStep(GrpcRequestType type, std::unique_ptr<Message> request, Kind queue,
                           std::size_t change, std::vector<std::size_t> after,
                           std::vector<std::size_t> behind = {});
  // A step that cannot be taken; what comes after it is not tried either.
  std::size_t impossible(const std::string& why, std::size_t change);

 private:
  struct Hash {
    std::size_t operator()(const Object& object) const {
      return std::hash<std::string>()(object.name) * 8 + static_cast<std::size_t>(object.kind);
    }
  };
  std::unordered_map<Object, std::size_t, Hash> changeOf_;
};

// A command to a module that is still to become a step.
struct ModuleCommand {
  std::string command;
  std::unique_ptr<Message> argument;
  bool whileRunning = false;
  TableEdit edit{};
  std::size_t parts = 1;
};

// How a module gets from one state to another while it lives.
struct ModuleDifference {
  std::vector<std::string> details;
  std::vector<std::string> assumed;
  std::string recreate;  // why it has to be made anew; empty: it has not
  std::vector<ModuleCommand> commands;
};
ModuleDifference difference(const Module& live, const Module& wanted, bool recreateUnknown);
// How a module is made; its argument is stated.
struct NewModule {
  Any argument;                         // or as much of it as a request takes
  std::vector<ModuleCommand> commands;  // that make it as it is wanted
};
NewModule newModule(const Module& wanted);
std::unique_ptr<Message> commandRequest(const std::string& module, const ModuleCommand& command);

// The steps that the traffic classes and the places of tasks take, workers included.
struct TrafficContext {
  const LiveSwitch& live;
  const Switch& target;
  const std::map<std::string, std::size_t>& destroyed;  // the step that destroys a module
  const bool recreateUnknown;
};
class TrafficPlanner {
 public:
  TrafficPlanner(PlanBuilder& builder, const TrafficContext& context);

  // Modules with a task on a worker that goes, when none is left for it.
  static std::set<std::string> withoutWorker(const LiveSwitch& live, const Switch& target);

  // New workers.
  void addWorkers();
  // Workers that stop, go or are made anew: after modules are destroyed and before others are made.
  void changeWorkers();
  // The steps that destroy workers.
  std::vector<std::size_t> workersDestroyed() const;
  // Classes and tasks: after modules are made. `created`: the step that creates a module.
  void planClasses(const std::map<std::string, std::size_t>& created);
  // Workers that shall run and do not yet: after everything else.
  void planRunning();

  // What has to come back, when all is planned, as far as the document does not state it.
  void findUnfinished(const Switch& wanted, Unfinished& unfinished) const;

  // The step after which it does not run as before, where there is one.
  std::optional<std::size_t> stopped(std::int64_t worker) const;
  // Those that run before and shall run after, and are not touched.
  bool runsThroughout(std::int64_t worker) const;

 private:
  using TaskName = std::pair<std::string, std::uint64_t>;
  struct Task {
    std::string module;
    std::uint64_t number;
    Place live;
  };
  struct Move {
    std::string module;
    std::uint64_t number;
    Place place;
    std::size_t change;
    std::vector<std::size_t> after;
    std::optional<Place> from;  // out of a class that others may come into
  };

  void findTasks();
  void findRebuilt();
  bool schedulerChanges(std::int64_t worker) const;
  void findChildren();
  TrafficClass placedClass(const std::string& name) const;
  // Why there is no command that makes it; empty: there is.
  std::string unmakeable(const std::string& name) const;
  std::string whyChanges(const TrafficClass& live, const TrafficClass& target) const;
  bool fresh(const std::string& name) const;
  std::vector<std::size_t> needs(const Place& place) const;
  void rebuild(std::int64_t worker);
  void removeWorker(std::int64_t worker);
  std::vector<std::size_t> moveAway(std::int64_t worker, std::int64_t to, std::size_t change,
                                    const std::vector<std::size_t>& after);
  std::size_t moveTask(const std::string& module, std::uint64_t number, const Place& place,
                       std::size_t change, std::vector<std::size_t> after,
                       std::vector<std::size_t> behind = {});
  void addClass(const std::string& name);
  void updateParams(const std::string& name);
  using Created = std::map<std::string, std::size_t>;  // the step that creates a module
  void planTasks(const Created& created);
  void returnHeld(std::vector<Move>& moves);
  std::optional<Move> createdMove(const std::string& name, std::uint64_t number,
                                  const std::optional<Place>& before, std::size_t created);
  std::optional<Move> changedMove(const std::string& name, std::uint64_t number,
                                  std::optional<Place> before);
  void placeWaiting(const Created& created, std::vector<Move>& moves);
  std::vector<std::size_t> makeRoom(std::vector<Move>& moves);
  std::string refusal(const Move& move) const;
  std::string unfit(const Place& place) const;
  std::optional<Place> livePlace(const std::string& module, std::uint64_t number) const;
  std::size_t taskCount(const std::string& module) const;
  std::string crowded(const Place& place, const std::string& module, std::uint64_t number) const;
  std::optional<Place> wantedPlace(const std::string& module, std::uint64_t number) const;
  Place placeAfter(const Task& task) const;
  std::size_t addWorker(std::int64_t worker, const Worker& as, std::size_t change,
                        std::vector<std::size_t> after);
  std::int64_t freeWorker() const;
  bool anyRunning() const;

  PlanBuilder& builder_;
  const TrafficContext context_;
  const LiveSwitch& live_;
  const Switch& target_;
  std::set<std::int64_t> rebuilt_;
  std::set<std::int64_t> removed_;
  std::map<std::int64_t, std::vector<Task>> tasksOf_;  // of modules that stay, by worker
  std::map<std::int64_t, std::size_t> workerAdded_;
  std::map<std::int64_t, std::size_t> workerDestroyed_;  // with its classes; before it is made anew
  std::map<std::int64_t, std::size_t> blocked_;  // cannot be made anew, so that it stays as it is
  std::map<std::int64_t, std::size_t> workerPaused_;  // for good
  std::map<std::string, std::size_t> classAdded_;
  std::map<std::int64_t, std::int64_t>
      holdingOf_;  // the worker that holds a worker's tasks meanwhile
  std::map<std::int64_t, std::size_t> holdingChange_;
  std::map<TaskName, std::int64_t> held_;  // the worker made anew that a task comes back to
  // Below classes that take one child, or one at each priority.
  std::map<std::pair<std::string, std::optional<std::int64_t>>, std::vector<TaskName>> children_;
  std::map<TaskName, Place> movedTo_;
};

std::string placeText(const Place& place);
// Whether what the wanted place does not leave open agrees.
bool samePlace(const Place& live, const Place& wanted);
// The worker that a place of the switch belongs to, through the classes above it; -1 for none.
std::int64_t rootOf(const Switch& live, const Place& place);

}  // namespace Norv::State
