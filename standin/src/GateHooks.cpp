#include "GateHooks.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <unordered_set>

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

constexpr GateHookClass classTable[] = {
    {"PcapNg", "pcapng", checkFifo<bess::pb::PcapngArg>},
    {"TcpDump", "tcpdump", checkFifo<bess::pb::TcpdumpArg>},
    {"Track", "track", [](const google::protobuf::Any&) {}},
};

const GateHookClass& existingClass(const std::string& name) {
  for (const GateHookClass& row : classTable)
    if (name == row.name) return row;
  throw Refusal(ENOENT, "No such gate hook: " + name);
}

bool taken(const std::vector<GateHook>& hooks, const std::string& name) {
  return std::any_of(hooks.begin(), hooks.end(),
                     [&](const GateHook& hook) { return hook.name == name; });
}

std::string freeName(const std::vector<GateHook>& hooks, const std::string& prefix) {
  std::unordered_set<std::string_view> names;
  for (const GateHook& hook : hooks) names.insert(hook.name);
  for (unsigned i = 0;; ++i) {
    std::string name = prefix + std::to_string(i);
    if (names.count(name) == 0) return name;
  }
}

// Answers the name of a hook that was added.
std::string change(std::vector<GateHook>& hooks, const ConfigureGateHookRequest& request) {
  const GateHookInfo& wanted = request.hook();
  if (request.enable()) {
    const GateHookClass& hookClass = existingClass(wanted.class_name());
    const std::string name =
        wanted.hook_name().empty() ? freeName(hooks, hookClass.namePrefix) : wanted.hook_name();
    if (taken(hooks, name)) throw Refusal(EEXIST, "Fail to Add Hook");
    hookClass.check(wanted.arg());
    hooks.push_back({wanted.class_name(), name});
    return name;
  }
  const auto found = std::find_if(hooks.begin(), hooks.end(), [&](const GateHook& hook) {
    return wanted.hook_name().empty() ? hook.className == wanted.class_name()
                                      : hook.name == wanted.hook_name();
  });
  if (found != hooks.end()) hooks.erase(found);
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
