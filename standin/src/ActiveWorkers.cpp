#include "ActiveWorkers.h"

namespace Standin {

namespace {

// Lets the workers reach `first` and what it hands packets to. A module with tasks of its own is
// reached, and what is behind it is not.
void reach(Module& first, const WorkerSet& workers) {
  std::vector<Module*> open = {&first};
  while (!open.empty()) {
    Module& module = *open.back();
    open.pop_back();
    if ((workers & ~module.activeWorkers).none()) continue;
    module.activeWorkers |= workers;
    if (module.tasks() > 0) continue;
    for (const auto& [number, gate] : module.outputs) open.push_back(gate.target);
  }
}

void start(Module& module, int worker) {
  WorkerSet workers;
  workers.set(static_cast<std::size_t>(worker));
  module.activeWorkers |= workers;
  for (const auto& [number, gate] : module.outputs) reach(*gate.target, workers);
}

}  // namespace

void ActiveWorkers::takenAway() {
  known_ = false;
  connections_.clear();
  leaves_.clear();
}

void ActiveWorkers::find(const Pipeline& pipeline, const TrafficClasses& classes) {
  if (!known_) {
    known_ = true;
    for (const auto& [name, module] : pipeline.all()) module->activeWorkers.reset();
    classes.forEachAttachedLeaf([this](const TrafficNode& leaf) { attached(leaf); });
  }
  for (const auto& [module, worker] : leaves_)
    if (Module* found = pipeline.find(module)) start(*found, worker);
  for (const auto& [from, to] : connections_)
    reach(*to, from->tasks() > 0 ? classes.workersOf(from->name) : from->activeWorkers);
  connections_.clear();
  leaves_.clear();
}

}  // namespace Standin
