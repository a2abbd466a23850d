#include <algorithm>
#include <string_view>
#include <unordered_map>

#include <Norv/State/Plan.h>

#include "CommandPlan.h"
#include "HookPlan.h"
#include "PlanBuilder.h"
#include "Target.h"

namespace Norv::State {

std::string text(const Assumed& assumed) {
  return text(assumed.object) + (assumed.what.empty() ? "" : ": " + assumed.what);
}

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
  const std::size_t bytes = request->ByteSizeLong();
  plan.steps.push_back(
      {type, std::move(request), queue, change, std::move(after), std::move(behind), "", {}, 1});
  if (bytes > mostRequestBytes) {  // the call would fail, and with it all that is not sent yet
    plan.steps.back().request.reset();
    plan.steps.back().impossible = "it takes a request of " + std::to_string(bytes) +
                                   " bytes, and a daemon takes " +
                                   std::to_string(mostRequestBytes) + "; make it smaller";
  }
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
      : live_(live),
        wanted_(wanted),
        options_(options),
        target_(targetOf(live, wanted, options)),
        context_{live_, target_, recreated_, options},
        hooks_(builder_, context_) {}

  Plan plan() {
    // As many as there are when all is made: what grows is copied.
    builder_.plan.steps.reserve(target_.objects());
    builder_.plan.changes.reserve(target_.objects());
    builder_.plan.liveObjects = live_.objects();
    countLeftAlone();
    builder_.plan.warnings = gateWarnings(wanted_);
    findRecreated();

    const TrafficContext context{live_, target_, destroyed_, options_.recreateUnknown};
    TrafficPlanner traffic(builder_, context);
    // Before anything pauses: a task that waits for a place would make the daemon launch worker 0.
    traffic.addWorkers();
    importPlugins();
    disconnect();
    hooks_.remove();
    destroyModules();
    destroyPorts();
    unloadPlugins();
    removeLaunchedWorker();
    traffic.changeWorkers();
    createPorts();
    createModules(traffic.workersDestroyed());
    CommandPlanner commands(builder_, live_, target_, traffic);
    commands.fillNew(commandsForNew_, created_);
    commands.change(differences_);
    connect();
    hooks_.add(connected_);
    traffic.planClasses(created_);
    traffic.planRunning();
    findUnfinished(traffic);
    for (const Change& change : builder_.plan.changes) {
      builder_.plan.deletions += change.action == Action::remove;
    }
    return std::move(builder_.plan);
  }

 private:
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
      const bool doubtful = live_.doubtful.contains({Kind::module, name});
      ModuleDifference found = doubtful
                                   ? difference(doubted(module), target->second, true)
                                   : difference(module, target->second, options_.recreateUnknown);
      for (const std::string& what : found.assumed) {
        builder_.assume({Kind::module, name}, what);
      }
      if (live_.lostTasks.contains(name)) found.recreate = "its task has lost its traffic class";
      const std::string port = portOf(module);
      if (portReasons_.contains(port)) found.recreate = "port " + port + " is made anew";
      if (!found.recreate.empty()) remake(name, found.recreate, found.details);
      differences_[name] = std::move(found);
    }
    for (const std::string& name : TrafficPlanner::withoutWorker(live_, target_)) {
      if (recreated_.contains(name)) continue;
      differences_[name].recreate = "no worker is left for its task";
      remake(name, differences_[name].recreate, {});
    }
  }

  // What was begun and not ended may have changed the argument that the daemon tells.
  static Module doubted(const Module& module) {
    Module known = module;
    const ClassRow* row = classRow(module.moduleClass);
    const bool changeable = row != nullptr && !row->readsBack &&
                            (row->argumentTable != nullptr ||
                             std::any_of(row->settings.begin(), row->settings.end(),
                                         [](const Setting& one) { return one.inArgument(); }));
    if (changeable) known.arg.reset();
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

  std::string whyPortIsRemade(const std::string& name, const Port& live, const Port& target) {
    if (live.driver != target.driver) return "driver: " + live.driver + " -> " + target.driver;
    std::string why;
    if (target.arg && !live.arg) {
      if (options_.recreateUnknown || live_.doubtful.contains({Kind::port, name})) {
        return "the daemon does not tell its argument";
      }
      builder_.assume({Kind::port, name}, "arg");
    } else if (target.arg && !same(*live.arg, *target.arg)) {
      why = "another argument";
    }
    const auto compare = [&](const std::string& what, const std::optional<std::uint64_t>& told,
                             const std::optional<std::uint64_t>& stated) {
      if (!stated || (told && *told == *stated)) return;
      if (!told && !options_.recreateUnknown) {
        builder_.assume({Kind::port, name}, what);
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
      builder_.plan.leftAlone += point != defaultHook(point.gate) && !matches(wanted_.hooks, point);
    }
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
    all.reserve(steps.size());
    for (const auto& one : steps) all.push_back(one.second);
    return all;
  }

  static std::string targetText(const Gate& to) {
    return "-> " + (to.number == 0 ? "" : std::to_string(to.number) + ":") + to.module;
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
      if (!context_.stays(from.module) || !context_.stays(to.module)) continue;
      auto request = std::make_unique<bess::pb::DisconnectModulesRequest>();
      request->set_name(from.module);
      request->set_ogate(from.number);
      disconnected_[from] =
          builder_.step(disconnectModules, std::move(request), Kind::connection, change);
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
      const std::string port = portOf(module);
      if (!port.empty()) usersDestroyed_[port].push_back(destroyed_[name]);
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
      portDestroyed_[name] =
          builder_.step(destroyPort, std::move(request), Kind::port, change, usersDestroyed_[name]);
    }
  }

  void createPorts() {
    auto before = ends(portDestroyed_);  // one of them may hold the device
    before.insert(before.end(), imported_.begin(), imported_.end());
    for (const auto& [name, port] : target_.ports) {
      const bool there = live_.ports.contains(name) && !portReasons_.contains(name);
      if (!there) createOnePort(name, port, before);
      configurePort(name, port, there);
    }
  }

  // `before`: steps that must have ended; for the ports that follow, the first port is one for all.
  void createOnePort(const std::string& name, const Port& port, std::vector<std::size_t>& before) {
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
    portCreated_[name] =
        builder_.step(createPort, std::move(request), Kind::port, change, std::move(after), before);
    if (before.size() > 1) before = {portCreated_[name]};
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
      if (context_.stays(name)) continue;
      const std::size_t change = builder_.change({Kind::module, name}, Action::create);
      if (!module.arg) {
        created_[name] = builder_.impossible("its argument is not known; state it", change);
        continue;
      }
      auto request = std::make_unique<bess::pb::CreateModuleRequest>();
      request->set_name(name);
      request->set_mclass(module.moduleClass);
      NewModule fresh = newModule(module);
      if (!fresh.argument.type_url().empty()) *request->mutable_arg() = std::move(fresh.argument);
      if (!fresh.commands.empty()) commandsForNew_[name] = std::move(fresh.commands);
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
      if (const auto users = usersDestroyed_.find(port); users != usersDestroyed_.end()) {
        behind.insert(behind.end(), users->second.begin(), users->second.end());
      }
      created_[name] = builder_.step(createModule, std::move(request), Kind::module, change,
                                     std::move(after), std::move(behind));
    }
  }

  // --- connections and hooks --------------------------------------------------------------------

  void connect() {
    // Both ends of each are looked for, in no order that a tree could keep near.
    const std::unordered_map<std::string_view, std::size_t> makers(created_.begin(),
                                                                   created_.end());
    for (const auto& [from, to] : target_.connections) {
      if (context_.connectionStays(from)) continue;
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
      const auto hook = matching(target_.hooks, defaultHook(from));
      const bool withDefault = hook != target_.hooks.end() &&
                               HookPlanner::comesWithConnection(defaultHook(from), hook->second);
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

  // --- what a next plan has to bring back, should this one be cut short --------------------------

  void findUnfinished(const TrafficPlanner& traffic) {
    Switch& back = builder_.plan.unfinished.comesBack;
    for (const auto& [name, step] : created_) {
      const bool before =
          live_.modules.contains(name) || live_.unfinished.comesBack.modules.contains(name);
      if (!wanted_.modules.contains(name) && before) back.modules[name] = target_.modules.at(name);
    }
    for (const auto& [name, module] : live_.unfinished.comesBack.modules) {
      const auto half = differences_.find(name);
      const bool goesOn = module.arg && !wanted_.modules.contains(name) &&
                          half != differences_.end() && !half->second.commands.empty();
      if (goesOn) back.modules[name] = target_.modules.at(name);
    }
    std::set<Gate> outputs, inputs;  // with what they had, they were away
    for (const auto& [from, step] : connected_) {
      const Gate& to = target_.connections.at(*from);
      outputs.insert(*from);
      inputs.insert(to);
      if (!wanted_.connections.contains(*from)) back.connections[*from] = to;
    }
    for (const auto& [point, arg] : target_.hooks) {
      const bool away = (point.output ? outputs : inputs).contains(point.gate);
      const bool missing =
          live_.unfinished.comesBack.hooks.contains(point) && !matches(live_.hooks, point);
      if ((away || missing) && !matches(wanted_.hooks, point)) back.hooks[point] = arg;
    }
    traffic.findUnfinished(wanted_, builder_.plan.unfinished);
    if (back.objects() != 0) back.plugins = target_.plugins;  // of which its classes may be
  }

  const LiveSwitch& live_;
  const Switch& wanted_;
  const PlanOptions options_;
  const Switch target_;
  PlanBuilder builder_;
  std::map<std::string, std::string> portReasons_;  // why a port is made anew
  std::set<std::string> recreated_;                 // modules
  std::map<std::string, std::vector<std::string>> reasons_;
  std::map<std::string, ModuleDifference> differences_;
  std::vector<std::size_t> imported_;
  std::map<std::string, std::size_t> destroyed_, created_, portDestroyed_, portCreated_;
  CommandPlanner::Commands commandsForNew_;
  std::map<Gate, std::size_t> disconnected_;
  std::map<std::string, std::vector<std::size_t>> usersDestroyed_;  // by their port
  HookPlanner::Connected connected_;
  const PlanContext context_;
  HookPlanner hooks_;
};

}  // namespace

Plan makePlan(const LiveSwitch& live, const Switch& wanted, const PlanOptions& options) {
  return Planner(live, wanted, options).plan();
}

}  // namespace Norv::State
