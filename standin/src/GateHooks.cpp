#include "GateHooks.h"

#include <sys/stat.h>

#include <cerrno>

#include "Arg.h"
#include "Refusal.h"

namespace Standin {

namespace {

using bess::pb::ConfigureGateHookRequest;
using bess::pb::GateHookInfo;

template <class Arg>
void checkFifo(const google::protobuf::Any& any) {
  const Arg arg = unpack<Arg>(any);
  struct stat info;
  const bool usable = stat(arg.fifo().c_str(), &info) == 0 && S_ISFIFO(info.st_mode);
  if (!arg.defer() && !usable) throw Refusal(-ENOENT, "Failed to open FIFO");
}

struct GateHookClass {
  const char* name;
  const char* namePrefix;
  void (*check)(const google::protobuf::Any& arg);
};

constexpr GateHookClass hookTable[] = {
    {"PcapNg", "pcapng", checkFifo<bess::pb::PcapngArg>},
    {"TcpDump", "tcpdump", checkFifo<bess::pb::TcpdumpArg>},
    {"Track", "track", [](const google::protobuf::Any&) {}},
};

const GateHookClass& existingClass(const std::string& name) {
  for (const GateHookClass& row : hookTable)
    if (name == row.name) return row;
  throw Refusal(ENOENT, "No such gate hook: " + name);
}

// Answers the name of a hook that was added.
std::string change(HookList& hooks, const ConfigureGateHookRequest& request) {
  const GateHookInfo& wanted = request.hook();
  if (request.enable()) {
    const GateHookClass& hookClass = existingClass(wanted.class_name());
    std::string name =
        wanted.hook_name().empty() ? hooks.freeName(hookClass.namePrefix) : wanted.hook_name();
    if (hooks.has(name)) throw Refusal(EEXIST, "Fail to Add Hook");
    hookClass.check(wanted.arg());
    hooks.add(wanted.class_name(), name);
    return name;
  }
  if (wanted.hook_name().empty())
    hooks.removeFirst(wanted.class_name());
  else
    hooks.remove(wanted.hook_name());
  return "";
}

template <class Gates>
std::string changeGates(const std::string& module, const char* kind, Gates& gates,
                        std::int64_t number, const ConfigureGateHookRequest& request) {
  if (number < 0) {
    for (auto& entry : gates) change(entry.second.hooks, request);
    return "";
  }
  const auto found = gates.find(gateCut(static_cast<std::uint64_t>(number)));
  if (found == gates.end())
    throw Refusal(request.enable() ? ENOENT : EINVAL,
                  "'" + module + "': " + kind + " '" + std::to_string(number) + "' does not exist");
  return change(found->second.hooks, request);
}

std::string changeModule(Module& module, const ConfigureGateHookRequest& request) {
  const GateHookInfo& hook = request.hook();
  if (hook.gate_case() == GateHookInfo::kIgate)
    return changeGates(module.name, "igate", module.inputs, hook.igate(), request);
  return changeGates(module.name, "ogate", module.outputs, hook.ogate(), request);
}

}  // namespace

std::string configureGateHook(Pipeline& pipeline, const ConfigureGateHookRequest& request) {
  existingClass(request.hook().class_name());
  const std::string& name = request.hook().module_name();
  if (!name.empty()) return changeModule(pipeline.existing(name), request);
  for (const auto& entry : pipeline.all()) changeModule(*entry.second, request);
  return "";
}

}  // namespace Standin
