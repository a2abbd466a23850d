#include "HookPlan.h"

#include <algorithm>

#include "Target.h"

namespace Norv::State {

namespace {

using Action = Change::Action;

std::unique_ptr<Message> hookRequest(const HookPoint& point, const std::optional<Any>& arg,
                                     bool enable) {
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

}  // namespace

bool PlanContext::stays(const std::string& module) const {
  return live.modules.contains(module) && target.modules.contains(module) &&
         !recreated.contains(module);
}

bool PlanContext::connectionStays(const Gate& from) const {
  const auto before = live.connections.find(from);
  if (before == live.connections.end()) return false;
  const auto after = target.connections.find(from);
  return after != target.connections.end() && before->second == after->second &&
         stays(from.module) && stays(before->second.module);
}

HookPlanner::HookPlanner(PlanBuilder& builder, const PlanContext& context)
    : builder_(builder), context_(context), live_(context.live), target_(context.target) {}

bool HookPlanner::comesWithConnection(const HookPoint& point, const std::optional<Any>& arg) {
  return point == defaultHook(point.gate) && (!arg || arg->value().empty());
}

// Whether something stays connected to the gate of the hook.
bool HookPlanner::gateStays(const HookPoint& point) {
  if (point.output) return context_.connectionStays(point.gate);
  if (!stayingInputs_) {
    stayingInputs_.emplace();
    for (const auto& [from, to] : live_.connections) {
      if (context_.connectionStays(from)) stayingInputs_->insert(to);
    }
  }
  return stayingInputs_->contains(point.gate);
}

void HookPlanner::remove() {
  for (const auto& [point, arg] : live_.hooks) {
    if (matches(target_.hooks, point)) continue;
    const bool gateRemains = gateStays(point);
    if (!gateRemains && point == defaultHook(point.gate)) continue;  // goes with its connection
    const std::size_t change = builder_.change(objectOf(point), Action::remove);
    if (!gateRemains) continue;
    removed_.push_back(
        builder_.step(configureGateHook, hookRequest(point, {}, false), Kind::hook, change));
  }
}

void HookPlanner::add(const Connected& connected) {
  for (const auto& [point, arg] : target_.hooks) addOne(point, arg, connected);
}

void HookPlanner::addOne(const HookPoint& point, const std::optional<Any>& arg,
                         const Connected& connected) {
  const bool stayed = gateStays(point);
  const auto before = matching(live_.hooks, point);
  const bool known = before != live_.hooks.end();
  std::string why;
  if (stayed && known) {
    why = whyAnew(before->first, before->second, arg);
    if (why.empty()) return;
  } else if (stayed ? !canBeTold(point) : comesWithConnection(point, arg)) {
    return;
  }
  const Object object = known && !stayed ? ownerOf(point) : objectOf(point);
  const std::size_t change = builder_.change(object, known ? Action::recreate : Action::create);
  if (!why.empty()) builder_.detail(change, why);
  if (!arg && point.hookClass != defaultHookClass) {
    builder_.impossible("the argument of its class " + point.hookClass + " is not known; state it",
                        change);
    return;
  }
  std::vector<std::size_t> after = connectionsTo(point, connected);
  if (!why.empty()) {  // no command changes the argument of a hook that is there
    after.push_back(builder_.step(configureGateHook, hookRequest(before->first, {}, false),
                                  Kind::hook, change, {}, removed_));
  }
  const std::size_t added = builder_.step(configureGateHook, hookRequest(point, arg, true),
                                          Kind::hook, change, std::move(after), removed_);
  if (removed_.size() > 1) removed_ = {added};
}

// Why the hook has to be put there again; empty: it has not.
std::string HookPlanner::whyAnew(const HookPoint& point, const std::optional<Any>& live,
                                 const std::optional<Any>& wanted) {
  if (!wanted) return "";
  if (live) return same(*live, *wanted) ? "" : "another argument";
  if (context_.options.recreateUnknown || live_.doubtful.contains(objectOf(point))) {
    return "the daemon does not tell its argument";
  }
  builder_.assume(objectOf(point), "arg");
  return "";
}

// The module that is made anew, and with it the gate of the hook.
Object HookPlanner::ownerOf(const HookPoint& point) const {
  if (context_.recreated.contains(point.gate.module)) return {Kind::module, point.gate.module};
  return objectOf(point);
}

// A daemon that does not tell hooks tells of the default one alone, by its counters.
bool HookPlanner::canBeTold(const HookPoint& point) {
  if (live_.tellsHooks || point == defaultHook(point.gate)) return true;
  if (live_.unfinished.comesBack.hooks.contains(point)) return true;  // and it was told before
  builder_.assume(objectOf(point), "");
  return false;
}

std::vector<std::size_t> HookPlanner::connectionsTo(const HookPoint& point,
                                                    const Connected& connected) {
  if (point.output) {
    const auto made =
        std::lower_bound(connected.begin(), connected.end(), point.gate,
                         [](const auto& one, const Gate& gate) { return *one.first < gate; });
    if (made == connected.end() || *made->first != point.gate) return {};
    return {made->second};
  }
  if (!connectedInputs_) {
    connectedInputs_.emplace();
    for (const auto& [from, step] : connected) {
      (*connectedInputs_)[target_.connections.at(*from)].push_back(step);
    }
  }
  const auto made = connectedInputs_->find(point.gate);
  return made == connectedInputs_->end() ? std::vector<std::size_t>() : made->second;
}

}  // namespace Norv::State
