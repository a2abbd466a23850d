// Module classes, modules, their connections, commands and gate hooks.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>

#include "Daemon.h"
#include "GateHooks.h"
#include "NewerReplies.h"
#include "Refusal.h"

namespace Standin {

namespace {

using Info = bess::pb::GetModuleInfoResponse;

const char* modeName(Attribute::Mode mode) {
  switch (mode) {
    case Attribute::Mode::Read:
      return "read";
    case Attribute::Mode::Write:
      return "write";
    case Attribute::Mode::Update:
      return "update";
  }
  return "";
}

template <class Gate>
void fillHooks(Gate& shown, const HookList& hooks, const Options& options) {
  const bool tracked = std::any_of(hooks.begin(), hooks.end(),
                                   [](const GateHook& hook) { return hook.className == "Track"; });
  if (tracked) {
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    shown.set_timestamp(now.count());
    constexpr std::uint64_t packetBytes = 60, batch = 32;
    const std::chrono::duration<double> running = std::chrono::steady_clock::now() - options.began;
    const auto packets = static_cast<std::uint64_t>(running.count() * options.traffic);
    shown.set_pkts(packets);
    shown.set_bytes(packets * packetBytes);
    shown.set_cnt(packets / batch);
  }
  for (const GateHook& hook : hooks) {
    Info::GateHook entry;
    entry.set_class_name(hook.className);
    entry.set_hook_name(hook.name);
    if (options.newerReplies) NewerReplies::tell(entry, shown);
    if (options.reportGateHooks) *shown.add_gatehooks() = entry;
  }
}

void fillGates(Info& response, const Module& module, const Options& options) {
  for (const auto& [number, gate] : module.inputs) {
    Info::IGate& shown = *response.add_igates();
    shown.set_igate(number);
    for (const auto& [source, output] : gate.sources) {
      auto& from = *shown.add_ogates();
      from.set_ogate(output);
      from.set_name(source->name);
    }
    fillHooks(shown, gate.hooks, options);
  }
  for (const auto& [number, gate] : module.outputs) {
    Info::OGate& shown = *response.add_ogates();
    shown.set_ogate(number);
    shown.set_name(gate.target->name);
    shown.set_igate(gate.inputGate);
    fillHooks(shown, gate.hooks, options);
  }
}

}  // namespace

void Daemon::listMclass(const bess::pb::EmptyRequest&, bess::pb::ListMclassResponse& response) {
  for (const ModuleClass& moduleClass : moduleClasses()) response.add_names(moduleClass.name);
}

void Daemon::getMclassInfo(const bess::pb::GetMclassInfoRequest& request,
                           bess::pb::GetMclassInfoResponse& response) {
  if (request.name().empty()) throw Refusal(EINVAL, "Argument must be a name in str");
  const ModuleClass* moduleClass = findModuleClass(request.name());
  if (moduleClass == nullptr)
    throw Refusal(ENOENT, "No module class '" + request.name() + "' found");
  response.set_name(moduleClass->name);
  response.set_help(moduleClass->help);
  for (const ModuleCommand& command : moduleClass->commands) {
    response.add_cmds(command.name);
    response.add_cmd_args(command.argument);
  }
}

void Daemon::resetModules(const bess::pb::EmptyRequest&, bess::pb::EmptyResponse&) {
  const Pause pause(*this);
  while (!pipeline_.all().empty()) destroyModuleNamed(pipeline_.all().begin()->first);
}

void Daemon::listModules(const bess::pb::EmptyRequest&, bess::pb::ListModulesResponse& response) {
  for (const auto& [name, module] : pipeline_.all()) {
    auto& shown = *response.add_modules();
    shown.set_name(name);
    shown.set_mclass(module->moduleClass->name);
    shown.set_desc(module->state->description());
  }
}

void Daemon::createModule(const bess::pb::CreateModuleRequest& request,
                          bess::pb::CreateModuleResponse& response) {
  Module& module = pipeline_.create(request);
  metadata_.made(module);
  classes_.addLeaves(module.name, module.tasks());
  response.mutable_error();
  response.set_name(module.name);
}

void Daemon::destroyModuleNamed(const std::string& name) {
  Module& module = pipeline_.existing(name);
  if (module.tasks() > 0 || !module.inputs.empty() || !module.outputs.empty()) active_.takenAway();
  classes_.removeLeaves(module.name);
  pipeline_.destroy(module);
}

void Daemon::destroyModule(const bess::pb::DestroyModuleRequest& request,
                           bess::pb::EmptyResponse&) {
  const Pause pause(*this);
  if (request.name().empty()) throw Refusal(EINVAL, "Argument must be a name in str");
  destroyModuleNamed(request.name());
}

void Daemon::getModuleInfo(const bess::pb::GetModuleInfoRequest& request, Info& response) {
  if (request.name().empty()) throw Refusal(EINVAL, "Argument must be a name in str");
  const Module& module = pipeline_.existing(request.name());
  response.set_name(module.name);
  response.set_mclass(module.moduleClass->name);
  response.set_desc(module.state->description());
  fillGates(response, module, options_);
  if (!module.state->attributes.empty()) metadata_.settle();
  for (const Attribute& attribute : module.state->attributes) {
    Info::Attribute& shown = *response.add_metadata();
    shown.set_name(attribute.name);
    shown.set_size(attribute.size);
    shown.set_mode(modeName(attribute.mode));
    shown.set_offset(attribute.offset);
  }
}

void Daemon::connectModules(const bess::pb::ConnectModulesRequest& request,
                            bess::pb::EmptyResponse&) {
  Module& from = pipeline_.existing(request.m1());
  Module& to = pipeline_.existing(request.m2());
  std::optional<Pause> pause;
  if (workers_.anyRunning()) {
    active_.find(pipeline_, classes_);
    if (activeInRunningWorker(from) || activeInRunningWorker(to)) pause.emplace(*this);
  }
  if (!pause) metadata_.beforeConnecting(from, to);
  pipeline_.connect(request);
  active_.connected(from, to);
}

void Daemon::disconnectModules(const bess::pb::DisconnectModulesRequest& request,
                               bess::pb::EmptyResponse&) {
  const Pause pause(*this);
  pipeline_.disconnect(request);
  active_.takenAway();
}

void Daemon::moduleCommand(const bess::pb::CommandRequest& request,
                           bess::pb::CommandResponse& response) {
  if (request.name().empty()) throw Refusal(EINVAL, "Missing module name field 'name'");
  Module& module = pipeline_.existing(request.name());
  const ModuleClass& moduleClass = *module.moduleClass;
  const ModuleCommand* command = moduleClass.command(request.cmd());
  if (command == nullptr) {
    if (request.cmd() != "get_initial_arg")
      throw Refusal(EOPNOTSUPP, std::string("'") + moduleClass.name +
                                    "' does not support command '" + request.cmd() + "'");
    // Every class has this one, listed or not.
    *response.mutable_data() = module.state->initialArg;
    return;
  }
  if (!command->threadSafe && activeInRunningWorker(module))
    throw Refusal(EBUSY,
                  "There is a running worker and command '" + request.cmd() + "' is not MT safe");
  if (module.state->commandsChangeAttributes()) metadata_.settle();
  command->handler(*module.state, request.arg(), response);
  pipeline_.attributesChanged(module);
}

void Daemon::configureGateHook(const bess::pb::ConfigureGateHookRequest& request,
                               bess::pb::CommandResponse& response) {
  const Pause pause(*this);
  const std::string name = Standin::configureGateHook(pipeline_, request);
  if (!request.enable()) return;
  response.mutable_error();
  if (options_.newerReplies && !name.empty()) NewerReplies::tellHookName(name, response);
}

}  // namespace Standin
