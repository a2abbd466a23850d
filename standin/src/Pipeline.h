#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <bess/pb/service.pb.h>

#include "AutomaticNames.h"
#include "HookList.h"
#include "ModuleClass.h"
#include "Workers.h"

namespace Standin {

struct Module;

// An input gate that at least one output gate leads to.
struct InputGate {
  std::vector<std::pair<Module*, std::uint16_t>> sources;  // In the order of connecting.
  HookList hooks;
};

// A connected output gate.
struct OutputGate {
  Module* target = nullptr;
  std::uint16_t inputGate = 0;
  HookList hooks;
};

// A module with its connected gates.
struct Module {
  std::string name;
  const ModuleClass* moduleClass;
  std::unique_ptr<ModuleState> state;
  std::map<std::uint16_t, InputGate> inputs;
  std::map<std::uint16_t, OutputGate> outputs;
  WorkerSet activeWorkers;          // Whose tasks reached it when the daemon last looked.
  std::uint64_t resumesBefore = 0;  // Its making; see Metadata.

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
  // Those that read or write metadata, by name.
  const std::map<std::string, Module*>& withMetadata() const { return withMetadata_; }
  // To be told of a module that may have got attributes.
  void attributesChanged(Module& module) {
    if (!module.state->attributes.empty()) withMetadata_[module.name] = &module;
  }
  // Null when there is none of that name.
  Module* find(const std::string& name) const;
  // Refuses with ENOENT when there is none of that name.
  Module& existing(const std::string& name) const;

 private:
  void free(Module& module, std::uint16_t outputGate);

  Ports& ports_;
  Modules modules_;
  std::map<std::string, Module*> withMetadata_;
  AutomaticNames names_;
};

}  // namespace Standin
