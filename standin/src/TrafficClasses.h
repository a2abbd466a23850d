#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <bess/pb/service.pb.h>

#include "Workers.h"

namespace Standin {

// A node of a worker's scheduling tree. A leaf stands for one task of a module.
struct TrafficNode {
  std::string name;
  std::string policy;
  int worker = -1;            // -1 while not attached.
  int wantedWorker = -1;      // While it waits; -1 for any.
  std::int64_t priority = 0;  // Below a priority node.
  std::int64_t share = 0;     // Below a weighted_fair node.
  std::string resource;
  std::int64_t limit = 0;
  std::int64_t maxBurst = 0;
  std::string leafModule;
  std::uint64_t leafTask = 0;

  TrafficNode* parent = nullptr;
  std::list<TrafficNode*> children;
  std::unordered_set<std::int64_t> priorities;  // Of the children of a priority node.
  // The list that the node stands in, its parent's children or those that wait, and where; null
  // when it is a root or in no place.
  std::list<TrafficNode*>* row = nullptr;
  std::list<TrafficNode*>::iterator place;
  std::list<TrafficNode>::iterator self;

  bool leaf() const { return policy == "leaf"; }
};

// The scheduling trees, one for each worker, and the nodes that no worker has yet. Which workers
// exist is the caller's business. Not thread safe; see Daemon.
class TrafficClasses {
 public:
  TrafficClasses() = default;
  TrafficClasses(const TrafficClasses&) = delete;
  TrafficClasses& operator=(const TrafficClasses&) = delete;

  // Makes the leaves of a module's tasks; they wait.
  void addLeaves(const std::string& module, int tasks);
  void removeLeaves(const std::string& module);
  // The leaf of a task. Refuses when the module has no such task, and when the leaf was lost.
  TrafficNode& leafOf(const std::string& module, std::uint64_t task) const;

  // Checks a class to add and makes it, without a place. Refuses as addTc does.
  TrafficNode& make(const bess::pb::TrafficClass& wanted);
  void updateParams(TrafficNode& node, const bess::pb::TrafficClass& wanted);
  // Takes a leaf out of its place. Refuses for other nodes.
  void detach(TrafficNode& leaf);
  // Hangs `node`, which has no place, below the parent that `wanted` names; refuses as addTc does.
  void attachToParent(TrafficNode& node, const bess::pb::TrafficClass& wanted);
  // Puts a node, which has no place, behind those that wait for one.
  void leaveWaiting(TrafficNode& node, int wantedWorker);
  // Ends a node that has no place and gets none.
  void lose(TrafficNode& node);
  bool anyWaiting() const { return !waiting_.empty(); }
  // Gives each waiting node to the worker that it wants, or else to the one that `anyWorker`
  // answers; calls `attached` for each leaf that so gets a worker.
  void attachWaiting(const std::function<int()>& anyWorker,
                     const std::function<void(const TrafficNode&)>& attached);
  // Ends the round robin that was put on top of a worker's roots when it has one child left, which
  // takes its place, or none.
  void dropNeedlessTop(int worker);

  // Null when there is none of that name.
  TrafficNode* find(const std::string& name) const;
  // Forgets the names of all. What is in a tree stays there and goes on.
  void reset();
  // Ends a worker's tree with all that is in it.
  void dropTree(int worker);
  // A leaf in a worker's tree, the first in the order of listTcs; null when it has none.
  const TrafficNode* leafIn(int worker) const;
  // Nodes in a worker's tree.
  std::int64_t count(int worker) const;
  // Calls `visit` for every leaf in a worker's tree.
  void forEachAttachedLeaf(const std::function<void(const TrafficNode&)>& visit) const;
  // The workers that the module's tasks are with.
  WorkerSet workersOf(const std::string& module) const;
  // Calls `visit` for every listed node of the worker, or of all when it is negative: siblings
  // stand together in their order, and a node without parent stands after its children.
  void forEachListed(int worker, const std::function<void(const TrafficNode&)>& visit) const;

 private:
  void attachToWorker(TrafficNode& node, int worker);
  TrafficNode& add(const std::string& name, const std::string& policy);
  void enter(TrafficNode& node, std::list<TrafficNode*>& row);
  void leavePlace(TrafficNode& node);
  void forgetName(TrafficNode& node);
  void end(TrafficNode& node);

  std::list<TrafficNode> nodes_;
  std::map<int, TrafficNode*> roots_;  // By worker.
  std::list<TrafficNode*> waiting_;
  std::unordered_map<std::string, std::vector<TrafficNode*>> tasks_;  // By module; null when lost.
  // The order of listTcs comes from the order of this map: the daemon's own does.
  std::unordered_map<std::string, TrafficNode*> listed_;
};

}  // namespace Standin
