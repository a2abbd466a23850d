#include <algorithm>
#include <string_view>
#include <unordered_map>

#include <Norv/State/Plan.h>

#include "PlanBuilder.h"

namespace Norv::State {

std::size_t Plan::commands() const {
  return static_cast<std::size_t>(std::count_if(
      steps.begin(), steps.end(), [](const Step& step) { return step.request != nullptr; }));
}

std::size_t PlanBuilder::change(const Object& object, Change::Action action) {
  const auto [entered, isNew] = changeOf_.emplace(object, plan.changes.size());
  if (isNew) plan.changes.push_back({action, object, {}});
  return entered->second;
}

std::size_t PlanBuilder::step(GrpcRequestType type, std::unique_ptr<Message> request, Kind queue,
                              std::size_t change, std::vector<std::size_t> after,
                              std::vector<std::size_t> behind) {
  plan.steps.push_back(
      {type, std::move(request), queue, change, std::move(after), std::move(behind), ""});
  return plan.steps.size() - 1;
}

std::size_t PlanBuilder::reachingStep(GrpcRequestType type, std::unique_ptr<Message> request,
                                      Kind queue, std::size_t change,
                                      std::vector<std::size_t> after,
                                      std::vector<std::size_t> behind) {
  behind.insert(behind.end(), standing.begin(), standing.end());
  const std::size_t made =
      step(type, std::move(request), queue, change, std::move(after), std::move(behind));
  if (standing.size() > 1) standing = {made};
  return made;
}

std::size_t PlanBuilder::impossible(const std::string& why, std::size_t change) {
  Step step;
  step.change = change;
  step.impossible = why;
  plan.steps.push_back(std::move(step));
  return plan.steps.size() - 1;
}

namespace {

using Action = Change::Action;

class Planner {
 public:
  Planner(const LiveSwitch& live, const Switch& wanted, const PlanOptions& options)
      : live_(live), wanted_(wanted), options_(options) {}

  Plan plan() {
    findTarget();
    // As many as there are when all is made: what grows is copied.
    builder_.plan.steps.reserve(target_.objects() - target_.hooks.size());
    builder_.plan.changes.reserve(target_.objects() - target_.hooks.size());
    findRecreated();
    builder_.plan.liveObjects = live_.objects();
    countLeftAlone();
    warnOfGates();

    const TrafficContext context{live_, target_, destroyed_};
    TrafficPlanner traffic(builder_, context);
    // Before anything pauses: a task that waits for a place would make the daemon launch worker 0.
    traffic.addWorkers();
    importPlugins();
    disconnect();
    removeHooks();
    destroyModules();
    destroyPorts();
    unloadPlugins();
    removeLaunchedWorker();
    traffic.changeWorkers();
    createPorts();
    createModules(traffic.workersDestroyed());
    commandModules(traffic);
    connect();
    addHooks();
    traffic.planClasses(created_);
    traffic.planRunning();
    for (const Change& change : builder_.plan.changes) {
      builder_.plan.deletions += change.action == Action::remove;
    }
    return std::move(builder_.plan);
  }

 private:
  // --- what the switch shall be -----------------------------------------------------------------

  // The wanted switch, and of the live one what it does not speak of.
  void findTarget() {
    target_ = wanted_;
    for (auto& [name, module] : target_.modules) {
      const auto live = live_.modules.find(name);
      if (live == live_.modules.end() || live->second.moduleClass != module.moduleClass) continue;
      for (const auto& setting : live->second.settings) module.settings.insert(setting);
      if (!module.table) module.table = live->second.table;
      if (!module.arg) module.arg = live->second.arg;
    }
    if (!options_.prune) {
      target_.plugins.insert(live_.plugins.begin(), live_.plugins.end());
      target_.ports.insert(live_.ports.begin(), live_.ports.end());
      target_.modules.insert(live_.modules.begin(), live_.modules.end());
      target_.connections.insert(live_.connections.begin(), live_.connections.end());
      target_.trafficClasses.insert(live_.trafficClasses.begin(), live_.trafficClasses.end());
      for (const auto& [point, arg] : live_.hooks) keepHook(point, arg);
    }
    if (!options_.prune || !wanted_.workersStated) {
      target_.workers.insert(live_.workers.begin(), live_.workers.end());
    }
    // What ran before a change that was cut short runs again.
    for (auto& [id, worker] : target_.workers) {
      const bool cutShort = live_.doubtful.contains({Kind::worker, std::to_string(id)});
      if (cutShort && !wanted_.workers.contains(id)) worker.running = true;
    }
    if (!wanted_.workersStated && target_.workers.empty() && anyTask()) {
      target_.workers[0] = {0, true, {}};  // the one that the daemon would launch
    }
  }

  // A hook that the document does not speak of stays, but not the default hook of a connection that
  // is stated without.
  void keepHook(const HookPoint& point, const std::optional<Any>& arg) {
    const bool statedWithout =
        point == defaultHook(point.gate) && wanted_.connections.contains(point.gate);
    if (!statedWithout && !matches(target_.hooks, point)) target_.hooks[point] = arg;
  }

  // The hook of the same point, under the same name or under none.
  static const std::optional<Any>* matches(const std::map<HookPoint, std::optional<Any>>& hooks,
                                           const HookPoint& point) {
    if (const auto found = hooks.find(point); found != hooks.end()) return &found->second;
    auto other = hooks.lower_bound({point.gate, point.output, point.hookClass, ""});
    for (; other != hooks.end() && other->first.gate == point.gate &&
           other->first.output == point.output && other->first.hookClass == point.hookClass;
         ++other) {
      if (other->first.name.empty() || point.name.empty()) return &other->second;
    }
    return nullptr;
  }

  bool anyTask() const {
    return std::any_of(target_.modules.begin(), target_.modules.end(), [](const auto& one) {
      const ClassRow* row = classRow(one.second.moduleClass);
      return row != nullptr && row->tasks;
    });
  }

  // --- what cannot stay as it is ----------------------------------------------------------------

  void findRecreated() {
    for (const auto& [name, port] : live_.ports) {
      const auto target = target_.ports.find(name);
      if (target == target_.ports.end()) continue;
      const std::string why = whyPortIsRemade(name, port, target->second);
      if (!why.empty()) portReasons_[name] = why;
    }
    for (const auto& [name, module] : live_.modules) {
      const auto target = target_.modules.find(name);
      if (target == target_.modules.end()) continue;
      const bool sure = options_.recreateUnknown || live_.doubtful.contains({Kind::module, name});
      ModuleDifference found = difference(doubted(name, module), target->second, sure);
      for (const std::string& what : found.assumed) {
        builder_.plan.assumed.push_back("module " + name + ": " + what);
      }
      if (live_.lostTasks.contains(name)) found.recreate = "its task has lost its traffic class";
      const std::string port = portOf(module);
      if (portReasons_.contains(port)) found.recreate = "port " + port + " is made anew";
      if (!found.recreate.empty()) remake(name, found.recreate, found.details);
      differences_[name] = std::move(found);
    }
    for (const std::string& name : TrafficPlanner::withoutWorker(live_, target_)) {
      if (!recreated_.contains(name)) remake(name, "no worker is left for its task", {});
    }
  }

  // What was begun and not ended may have changed the argument that the daemon tells.
  Module doubted(const std::string& name, const Module& module) const {
    Module known = module;
    const ClassRow* row = classRow(module.moduleClass);
    const bool changeable = row != nullptr && !row->readsBack &&
                            (row->argumentTable != nullptr ||
                             std::any_of(row->settings.begin(), row->settings.end(),
                                         [](const Setting& one) { return one.inArgument(); }));
    if (live_.doubtful.contains({Kind::module, name}) && changeable) known.arg.reset();
    return known;
  }

  void remake(const std::string& name, const std::string& why,
              const std::vector<std::string>& details) {
    recreated_.insert(name);
    reasons_[name] = {why};
    reasons_[name].insert(reasons_[name].end(), details.begin(), details.end());
    const Module& live = live_.modules.at(name);
    const Module& target = target_.modules.at(name);
    const ClassRow* row = classRow(target.moduleClass);
    if (row != nullptr && row->entryTable != nullptr && !target.table &&
        live.moduleClass == target.moduleClass) {
      builder_.plan.warnings.push_back("module " + name + ": its " +
                                       std::string(row->entryTable->name) +
                                       " are lost, as the daemon does not tell them; state them");
    }
  }

  void warnOfGates() {
    for (const auto& [name, module] : wanted_.modules) {
      for (const std::int64_t gate : gatesBeyond(module)) {
        const std::uint32_t outputs = classRow(module.moduleClass)->outputs;
        builder_.plan.warnings.push_back("module " + name + ": its argument names gate " +
                                         std::to_string(gate) + ", and the last of a " +
                                         module.moduleClass + " is " + std::to_string(outputs - 1));
      }
    }
  }

  std::string whyPortIsRemade(const std::string& name, const Port& live, const Port& target) {
    if (live.driver != target.driver) return "driver: " + live.driver + " -> " + target.driver;
    std::string why;
    if (target.arg && !live.arg) {
      if (options_.recreateUnknown) return "the daemon does not tell its argument";
      builder_.plan.assumed.push_back("port " + name + ": arg");
    } else if (target.arg && !same(*live.arg, *target.arg)) {
      why = "another argument";
    }
    const auto compare = [&](const std::string& what, const std::optional<std::uint64_t>& told,
                             const std::optional<std::uint64_t>& stated) {
      if (!stated || (told && *told == *stated)) return;
      if (!told && !options_.recreateUnknown) {
        builder_.plan.assumed.push_back("port " + name + ": " + what);
        return;
      }
      why += (why.empty() ? "" : ", ") + what + ": " + (told ? std::to_string(*told) : "not told") +
             " -> " + std::to_string(*stated);
    };
    compare("num_inc_q", live.incQueues, target.incQueues);
    compare("num_out_q", live.outQueues, target.outQueues);
    compare("size_inc_q", live.incSize, target.incSize);
    compare("size_out_q", live.outSize, target.outSize);
    return why;
  }

  void countLeftAlone() {
    const auto count = [&](const auto& live, const auto& wanted) {
      for (const auto& one : live) builder_.plan.leftAlone += !wanted.contains(one.first);
    };
    if (options_.prune) return;
    for (const std::string& path : live_.plugins) {
      builder_.plan.leftAlone += !wanted_.plugins.contains(path);
    }
    if (wanted_.workersStated) count(live_.workers, wanted_.workers);
    count(live_.ports, wanted_.ports);
    count(live_.modules, wanted_.modules);
    count(live_.connections, wanted_.connections);
    count(live_.trafficClasses, wanted_.trafficClasses);
    for (const auto& [point, arg] : live_.hooks) {
      builder_.plan.leftAlone +=
          point != defaultHook(point.gate) && matches(wanted_.hooks, point) == nullptr;
    }
  }

  bool stays(const std::string& module) const {
    return live_.modules.contains(module) && target_.modules.contains(module) &&
           !recreated_.contains(module);
  }

  // --- steps, in their order --------------------------------------------------------------------

  void importPlugins() {
    for (const std::string& path : target_.plugins) {
      if (live_.plugins.contains(path)) continue;
      auto request = std::make_unique<bess::pb::ImportPluginRequest>();
      request->set_path(path);
      imported_.push_back(builder_.step(importPlugin, std::move(request), Kind::plugin,
                                        builder_.change({Kind::plugin, path}, Action::create)));
    }
  }

  void unloadPlugins() {
    for (const std::string& path : live_.plugins) {
      if (target_.plugins.contains(path)) continue;
      auto request = std::make_unique<bess::pb::UnloadPluginRequest>();
      request->set_path(path);
      builder_.step(unloadPlugin, std::move(request), Kind::plugin,
                    builder_.change({Kind::plugin, path}, Action::remove), {}, ends(destroyed_));
    }
  }

  template <class Map>
  static std::vector<std::size_t> ends(const Map& steps) {
    std::vector<std::size_t> all;
    for (const auto& one : steps) all.push_back(one.second);
    return all;
  }

  static std::string targetText(const Gate& to) {
    return "-> " + (to.number == 0 ? "" : std::to_string(to.number) + ":") + to.module;
  }

  // Whether the connection is there and need not be touched.
  bool connectionStays(const Gate& from) const {
    const auto live = live_.connections.find(from);
    if (live == live_.connections.end()) return false;
    const auto target = target_.connections.find(from);
    return target != target_.connections.end() && live->second == target->second &&
           stays(from.module) && stays(live->second.module);
  }

  void disconnect() {
    for (const auto& [from, to] : live_.connections) {
      const auto target = target_.connections.find(from);
      const bool kept = target != target_.connections.end();
      if (kept && target->second == to) continue;
      const bool remove = !kept || !target_.modules.contains(from.module);
      const std::size_t change =
          builder_.change(objectOf(from), remove ? Action::remove : Action::change);
      builder_.detail(change,
                      targetText(to) + (remove ? "" : " becomes " + targetText(target->second)));
      // With a module its connections go.
      if (!stays(from.module) || !stays(to.module)) continue;
      auto request = std::make_unique<bess::pb::DisconnectModulesRequest>();
      request->set_name(from.module);
      request->set_ogate(from.number);
      disconnected_[from] =
          builder_.step(disconnectModules, std::move(request), Kind::connection, change);
    }
  }

  std::unique_ptr<Message> hookRequest(const HookPoint& point, const std::optional<Any>& arg,
                                       bool enable) const {
    auto request = std::make_unique<bess::pb::ConfigureGateHookRequest>();
    request->set_enable(enable);
    auto& hook = *request->mutable_hook();
    hook.set_class_name(point.hookClass);
    hook.set_module_name(point.gate.module);
    hook.set_hook_name(point.name);
    const auto gate = static_cast<std::int64_t>(point.gate.number);
    point.output ? hook.set_ogate(gate) : hook.set_igate(gate);
    if (arg && enable) *hook.mutable_arg() = *arg;
    return request;
  }

  // Whether something stays connected to the gate of the hook.
  bool gateStays(const HookPoint& point) const {
    if (point.output) return connectionStays(point.gate);
    return std::any_of(live_.connections.begin(), live_.connections.end(), [&](const auto& one) {
      return one.second == point.gate && connectionStays(one.first);
    });
  }

  void removeHooks() {
    for (const auto& [point, arg] : live_.hooks) {
      if (matches(target_.hooks, point) != nullptr) continue;
      const bool gateRemains = gateStays(point);
      if (!gateRemains && point == defaultHook(point.gate)) continue;  // goes with its connection
      const std::size_t change = builder_.change(objectOf(point), Action::remove);
      if (!gateRemains) continue;
      hookRemoved_.push_back(
          builder_.step(configureGateHook, hookRequest(point, {}, false), Kind::hook, change));
    }
  }

  void destroyModules() {
    for (const auto& [name, module] : live_.modules) {
      const bool remade = recreated_.contains(name);
      if (target_.modules.contains(name) && !remade) continue;
      const std::size_t change =
          builder_.change({Kind::module, name}, remade ? Action::recreate : Action::remove);
      if (remade) {
        for (const std::string& detail : reasons_[name]) builder_.detail(change, detail);
      }
      auto request = std::make_unique<bess::pb::DestroyModuleRequest>();
      request->set_name(name);
      destroyed_[name] = builder_.step(destroyModule, std::move(request), Kind::module, change);
    }
  }

  // Where no worker is and none is wanted, a call that pauses makes the daemon launch worker 0 for
  // a task that waits for its place.
  void removeLaunchedWorker() {
    if (!live_.workers.empty() || !target_.workers.empty()) return;
    std::set<std::string> waiting;
    for (const auto& [name, module] : live_.modules) {
      if (!module.tasks.empty()) waiting.insert(name);
    }
    bool launched = false;
    for (const Step& step : builder_.plan.steps) {
      if (step.type == destroyModule) {
        waiting.erase(static_cast<const bess::pb::DestroyModuleRequest&>(*step.request).name());
      }
      const bool pauses = step.type == destroyModule || step.type == disconnectModules ||
                          step.type == configureGateHook || step.type == importPlugin ||
                          step.type == unloadPlugin;
      launched = launched || (pauses && !waiting.empty());
    }
    // With the task of a module that stays it has to stay, too.
    if (!launched || !waiting.empty()) return;
    auto request = std::make_unique<bess::pb::DestroyWorkerRequest>();
    builder_.step(destroyWorker, std::move(request), Kind::worker, Step::none, ends(destroyed_));
  }

  void destroyPorts() {
    for (const auto& [name, port] : live_.ports) {
      const auto reason = portReasons_.find(name);
      const bool remade = reason != portReasons_.end();
      if (target_.ports.contains(name) && !remade) continue;
      const std::size_t change =
          builder_.change({Kind::port, name}, remade ? Action::recreate : Action::remove);
      if (remade) builder_.detail(change, reason->second);
      auto request = std::make_unique<bess::pb::DestroyPortRequest>();
      request->set_name(name);
      std::vector<std::size_t> after;
      for (const auto& [module, step] : destroyed_) {
        if (portOf(live_.modules.at(module)) == name) after.push_back(step);
      }
      portDestroyed_[name] =
          builder_.step(destroyPort, std::move(request), Kind::port, change, std::move(after));
    }
  }

  void createPorts() {
    const auto allDestroyed = ends(portDestroyed_);  // one of them may hold the device
    for (const auto& [name, port] : target_.ports) {
      const bool there = live_.ports.contains(name) && !portReasons_.contains(name);
      if (!there) createOnePort(name, port, allDestroyed);
      configurePort(name, port, there);
    }
  }

  void createOnePort(const std::string& name, const Port& port,
                     const std::vector<std::size_t>& allDestroyed) {
    const std::size_t change = builder_.change({Kind::port, name}, Action::create);
    if (!port.arg) {
      portCreated_[name] = builder_.impossible(
          "the argument of its driver " + port.driver + " is not known; state it", change);
      return;
    }
    auto request = std::make_unique<bess::pb::CreatePortRequest>();
    request->set_name(name);
    request->set_driver(port.driver);
    request->set_num_inc_q(port.incQueues.value_or(0));
    request->set_num_out_q(port.outQueues.value_or(0));
    request->set_size_inc_q(port.incSize.value_or(0));
    request->set_size_out_q(port.outSize.value_or(0));
    if (!port.arg->type_url().empty()) *request->mutable_arg() = *port.arg;
    std::vector<std::size_t> after;
    if (const auto own = portDestroyed_.find(name); own != portDestroyed_.end()) {
      after.push_back(own->second);
    }
    std::vector<std::size_t> behind = allDestroyed;
    behind.insert(behind.end(), imported_.begin(), imported_.end());
    portCreated_[name] = builder_.step(createPort, std::move(request), Kind::port, change,
                                       std::move(after), std::move(behind));
  }

  void configurePort(const std::string& name, const Port& port, bool there) {
    const Port none;
    const Port& live = there ? live_.ports.at(name) : none;
    constexpr std::uint32_t usualMtu = 1500;
    const std::uint32_t mtu = live.mtu.value_or(usualMtu);
    const bool up = live.adminUp.value_or(true);
    std::vector<std::string> details;
    if (port.mtu && *port.mtu != mtu) {
      details.push_back("mtu: " + std::to_string(mtu) + " -> " + std::to_string(*port.mtu));
    }
    if (port.adminUp && *port.adminUp != up) {
      details.push_back(std::string("admin_up: ") + (up ? "true" : "false") + " -> " +
                        (*port.adminUp ? "true" : "false"));
    }
    if (port.mac && (!live.mac || *live.mac != *port.mac)) {
      details.push_back("mac_addr: " + live.mac.value_or("of the device") + " -> " + *port.mac);
    }
    if (details.empty()) return;
    auto request = std::make_unique<bess::pb::SetPortConfRequest>();
    request->set_name(name);
    request->mutable_conf()->set_mtu(port.mtu.value_or(0));
    request->mutable_conf()->set_admin_up(port.adminUp.value_or(up));
    // The daemon wants one; at zero it keeps what it has.
    request->mutable_conf()->set_mac_addr(port.mac.value_or("00:00:00:00:00:00"));
    const std::size_t change = builder_.change({Kind::port, name}, Action::change);
    for (const std::string& detail : details) builder_.detail(change, detail);
    std::vector<std::size_t> after;
    if (!there) after.push_back(portCreated_.at(name));
    builder_.step(setPortConf, std::move(request), Kind::port, change, std::move(after));
  }

  // `workersDestroyed`: a task that waits would come to a worker that is about to go.
  void createModules(const std::vector<std::size_t>& workersDestroyed) {
    for (const auto& [name, module] : target_.modules) {
      if (stays(name)) continue;
      const std::size_t change = builder_.change({Kind::module, name}, Action::create);
      if (!module.arg) {
        created_[name] = builder_.impossible("its argument is not known; state it", change);
        continue;
      }
      auto request = std::make_unique<bess::pb::CreateModuleRequest>();
      request->set_name(name);
      request->set_mclass(module.moduleClass);
      if (!module.arg->type_url().empty()) *request->mutable_arg() = *module.arg;
      std::vector<std::size_t> after;
      const std::string port = portOf(module);
      if (const auto own = destroyed_.find(name); own != destroyed_.end())
        after.push_back(own->second);
      if (const auto made = portCreated_.find(port); made != portCreated_.end()) {
        after.push_back(made->second);
      }
      std::vector<std::size_t> behind = imported_;
      behind.insert(behind.end(), workersDestroyed.begin(), workersDestroyed.end());
      // One of them may use the queue that this one takes.
      if (!port.empty()) {
        for (const auto& [other, step] : destroyed_) {
          if (portOf(live_.modules.at(other)) == port) behind.push_back(step);
        }
      }
      created_[name] = builder_.step(createModule, std::move(request), Kind::module, change,
                                     std::move(after), std::move(behind));
    }
  }

  // --- what commands change ---------------------------------------------------------------------

  void commandModules(const TrafficPlanner& traffic) {
    for (const auto& [name, step] : created_) {
      const std::size_t change = builder_.change({Kind::module, name}, Action::create);
      sendCommands(name, commandsForNew(target_.modules.at(name)), change, {step}, {});
    }
    // By the workers that have to stand still for it.
    std::map<std::set<std::int64_t>, std::vector<std::string>> windows;
    const auto reached = reachedByRunning();
    for (const auto& [name, found] : differences_) {
      if (found.commands.empty() || recreated_.contains(name)) continue;
      const bool pause = std::any_of(found.commands.begin(), found.commands.end(),
                                     [](const ModuleCommand& one) { return !one.whileRunning; });
      const auto workers = reached.find(name);
      std::set<std::int64_t> standing;
      if (pause && workers != reached.end()) {
        for (const std::int64_t worker : workers->second) {
          if (traffic.runsThroughout(worker)) standing.insert(worker);
          // One that stops anyway has to have stopped.
          if (const auto step = traffic.stopped(worker)) stops_[name].push_back(*step);
        }
      }
      if (pause && othersRun(standing, traffic)) findReached(stops_[name]);
      windows[standing].push_back(name);
    }
    for (const auto& [workers, names] : windows) window(workers, names);
  }

  bool othersRun(const std::set<std::int64_t>& standing, const TrafficPlanner& traffic) const {
    return std::any_of(live_.workers.begin(), live_.workers.end(), [&](const auto& one) {
      return traffic.runsThroughout(one.first) && !standing.contains(one.first);
    });
  }

  // A daemon goes by what it found last when it refuses: a worker that was cut off from a module
  // still counts until it is told to look again.
  void findReached(std::vector<std::size_t>& before) {
    if (!found_) {
      found_ = builder_.step(checkSchedulingConstraints, std::make_unique<bess::pb::EmptyRequest>(),
                             Kind::worker, Step::none);
    }
    before.push_back(*found_);
  }

  // The entries of a table do not need each other, but what comes before them.
  std::vector<std::size_t> sendCommands(const std::string& name,
                                        const std::vector<ModuleCommand>& commands,
                                        std::size_t change, std::vector<std::size_t> after,
                                        const std::vector<std::size_t>& behind) {
    std::vector<std::size_t> sent;
    for (const ModuleCommand& command : commands) {
      sent.push_back(builder_.step(moduleCommand, commandRequest(name, command), Kind::module,
                                   change, after, behind));
      if (!command.whileRunning) builder_.standing.push_back(sent.back());
      if (command.command != "add" && command.command != "delete") after = {sent.back()};
    }
    return sent;
  }

  void window(const std::set<std::int64_t>& workers, const std::vector<std::string>& names) {
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
      const ModuleDifference& found = differences_[name];
      for (const std::string& detail : found.details) builder_.detail(change, detail);
      std::vector<std::size_t> behind = stops_[name];
      behind.insert(behind.end(), paused.begin(), paused.end());
      const auto sent = sendCommands(name, found.commands, change, {}, behind);
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
    std::string what;
    for (const std::string& name : names) what += (what.empty() ? "" : ", ") + name;
    builder_.plan.pauses.push_back((workers.size() == 1 ? "worker " : "workers ") + who +
                                   " while " + what + (names.size() == 1 ? " is" : " are") +
                                   " changed");
  }

  // The workers that run and come to a module, as the daemon finds them: along the connections from
  // a task's module, up to modules with a task of their own.
  std::map<std::string, std::set<std::int64_t>> reachedByRunning() const {
    std::map<std::string, std::set<std::string>> next;
    for (const auto& [from, to] : live_.connections) next[from.module].insert(to.module);
    std::map<std::string, std::set<std::int64_t>> reached;
    for (const auto& [name, module] : live_.modules) {
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

  // --- connections and hooks --------------------------------------------------------------------

  void connect() {
    // Both ends of each are looked for, in no order that a tree could keep near.
    const std::unordered_map<std::string_view, std::size_t> makers(created_.begin(),
                                                                   created_.end());
    for (const auto& [from, to] : target_.connections) {
      if (connectionStays(from)) continue;
      std::vector<std::size_t> after;
      const auto there = [&](const std::string& module) {
        const auto made = makers.find(module);
        if (made != makers.end()) after.push_back(made->second);
        return made != makers.end() || target_.modules.contains(module);
      };
      if (!there(from.module) || !there(to.module)) continue;
      auto request = std::make_unique<bess::pb::ConnectModulesRequest>();
      request->set_m1(from.module);
      request->set_m2(to.module);
      request->set_ogate(from.number);
      request->set_igate(to.number);
      const bool withDefault = matches(target_.hooks, defaultHook(from)) != nullptr;
      request->set_skip_default_hooks(!withDefault);
      if (const auto before = disconnected_.find(from); before != disconnected_.end()) {
        after.push_back(before->second);
      }
      const std::size_t step =
          builder_.reachingStep(connectModules, std::move(request), Kind::connection,
                                changeOfConnection(from, to), std::move(after));
      connected_.emplace_back(&from, step);
    }
  }

  // A connection that only comes back belongs to the module that is made anew.
  std::size_t changeOfConnection(const Gate& from, const Gate& to) {
    const auto live = live_.connections.find(from);
    if (live != live_.connections.end() && live->second == to) {
      return builder_.change(
          {Kind::module, recreated_.contains(from.module) ? from.module : to.module},
          Action::recreate);
    }
    if (live != live_.connections.end()) return builder_.change(objectOf(from), Action::change);
    const std::size_t change = builder_.newChange(objectOf(from), Action::create);
    builder_.detail(change, targetText(to));
    return change;
  }

  void addHooks() {
    for (const auto& [point, arg] : target_.hooks) {
      const bool stayed = gateStays(point);
      const bool isDefault =
          point.output && point.hookClass == defaultHookClass && point.name == defaultHookName;
      if (stayed && (matches(live_.hooks, point) != nullptr || !canBeTold(point))) continue;
      if (!stayed && isDefault) continue;  // comes with its connection
      const bool comesBack = matches(live_.hooks, point) != nullptr;
      const std::size_t change = builder_.change(comesBack ? hookOwner(point) : objectOf(point),
                                                 comesBack ? Action::recreate : Action::create);
      if (!arg && point.hookClass != defaultHookClass) {
        builder_.impossible(
            "the argument of its class " + point.hookClass + " is not known; state it", change);
        continue;
      }
      builder_.step(configureGateHook, hookRequest(point, arg, true), Kind::hook, change,
                    connectionsTo(point), hookRemoved_);
    }
  }

  // The module that is made anew, and with it the gate of the hook.
  Object hookOwner(const HookPoint& point) const {
    if (recreated_.contains(point.gate.module)) return {Kind::module, point.gate.module};
    return objectOf(point);
  }

  // A daemon that does not tell hooks tells of the default one alone, by its counters.
  bool canBeTold(const HookPoint& point) {
    if (live_.tellsHooks || point.hookClass == defaultHookClass) return true;
    builder_.plan.assumed.push_back(text(objectOf(point)));
    return false;
  }

  std::vector<std::size_t> connectionsTo(const HookPoint& point) const {
    std::vector<std::size_t> after;
    if (point.output) {
      const auto made =
          std::lower_bound(connected_.begin(), connected_.end(), point.gate,
                           [](const auto& one, const Gate& gate) { return *one.first < gate; });
      if (made != connected_.end() && *made->first == point.gate) after.push_back(made->second);
      return after;
    }
    for (const auto& [from, step] : connected_) {
      if (target_.connections.at(*from) == point.gate) after.push_back(step);
    }
    return after;
  }

  const LiveSwitch& live_;
  const Switch& wanted_;
  const PlanOptions options_;
  Switch target_;
  PlanBuilder builder_;
  std::map<std::string, std::string> portReasons_;  // why a port is made anew
  std::set<std::string> recreated_;                 // modules
  std::map<std::string, std::vector<std::string>> reasons_;
  std::map<std::string, ModuleDifference> differences_;
  std::vector<std::size_t> imported_;
  std::map<std::string, std::size_t> destroyed_, created_, portDestroyed_, portCreated_;
  std::map<Gate, std::size_t> disconnected_;
  std::vector<std::pair<const Gate*, std::size_t>> connected_;  // in the order of the gates
  std::vector<std::size_t> hookRemoved_;
  std::map<std::string, std::vector<std::size_t>> stops_;  // of workers that come to a module
  std::optional<std::size_t> found_;                       // the daemon has looked who does
  std::vector<std::size_t> resumed_;                       // by the last window
};

}  // namespace

Plan makePlan(const LiveSwitch& live, const Switch& wanted, const PlanOptions& options) {
  return Planner(live, wanted, options).plan();
}

}  // namespace Norv::State
