#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <bess/pb/service.pb.h>

#include "AutomaticNames.h"
#include "ModuleClass.h"

namespace Standin {

struct Module;

// A hook that watches the packets of a gate.
struct GateHook {
  std::string className;
  std::string name;  // Unique at its gate.
};

// An input gate that at least one output gate leads to.
struct InputGate {
  std::vector<std::pair<Module*, std::uint16_t>> sources;  // In the order of connecting.
  std::vector<GateHook> hooks;
};

// A connected output gate.
struct OutputGate {
  Module* target;
  std::uint16_t inputGate;
  std::vector<GateHook> hooks;
};

// A module with its connected gates.
struct Module {
  std::string name;
  const ModuleClass* moduleClass;
  std::unique_ptr<ModuleState> state;
  std::map<std::uint16_t, InputGate> inputs;
  std::map<std::uint16_t, OutputGate> outputs;
  std::set<int> activeWorkers;  // Whose tasks reached it when the daemon last looked.

  int tasks() const { return state->tasks() >= 0 ? state->tasks() : moduleClass->tasks; }
};

// The modules and their connections. Not thread safe; see Daemon.
class Pipeline {
 public:
  using Modules = std::map<std::string, std::unique_ptr<Module>>;

  explicit Pipeline(Ports& ports) : ports_(ports) {}

  Module& create(const bess::pb::CreateModuleRequest& request);
  // Disconnects its neighbours first.
  void destroy(Module& module);
  void connect(const bess::pb::ConnectModulesRequest& request);
  void disconnect(const bess::pb::DisconnectModulesRequest& request);

  const Modules& all() const { return modules_; }
  // Null when there is none of that name.
  Module* find(const std::string& name) const;
  // Refuses with ENOENT when there is none of that name.
  Module& existing(const std::string& name) const;
  // Calls `visit` once for each module that a task of `start` reaches, `start` included; a module
  // with tasks of its own is reached, and what is behind it is not.
  static void forEachReached(Module& start, const std::function<void(Module&)>& visit);

 private:
  void free(Module& module, std::uint16_t outputGate);

  Ports& ports_;
  Modules modules_;
  AutomaticNames names_;
};

// Gives every attribute of every module its place in the packet's metadata.
void assignMetadata(const Pipeline& pipeline);

}  // namespace Standin
