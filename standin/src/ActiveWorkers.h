#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Pipeline.h"
#include "TrafficClasses.h"

namespace Standin {

// Finds out for each module which workers' tasks reach it. The daemon looks at some requests only,
// and goes by what it found last; so this is told of every change, and shows nothing of it before
// `find`. What was added is then followed from where it was added; after anything was taken away,
// all is looked through. Not thread safe; see Daemon.
class ActiveWorkers {
 public:
  void connected(Module& from, Module& to) {
    if (known_) connections_.emplace_back(&from, &to);
  }
  void attached(const TrafficNode& leaf) {
    if (known_) leaves_.emplace_back(leaf.leafModule, leaf.worker);
  }
  // A leaf, a connection or a module that was in one is gone from its place.
  void takenAway();
  void find(const Pipeline& pipeline, const TrafficClasses& classes);

 private:
  bool known_ = false;  // What was found holds, but for what is listed below.
  std::vector<std::pair<Module*, Module*>> connections_;
  std::vector<std::pair<std::string, int>> leaves_;  // Module and worker.
};

}  // namespace Standin
