#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <bess/pb/service.pb.h>

namespace Standin {

// A node of a worker's scheduling tree. A leaf stands for one task of a module.
struct TrafficNode {
  std::string name;
  std::string policy;
  TrafficNode* parent = nullptr;
  std::vector<std::unique_ptr<TrafficNode>> children;
  int worker = -1;  // -1 while not attached.
  bool listed = true;
  std::int64_t priority = 0;  // Below a priority node.
  std::int64_t share = 0;     // Below a weighted_fair node.
  std::string resource;
  std::int64_t limit = 0;
  std::int64_t maxBurst = 0;
  std::string leafModule;
  std::uint64_t leafTask = 0;

  bool leaf() const { return policy == "leaf"; }
};

// The scheduling trees, one for each worker, and the leaves that no worker has yet. Which workers
// exist is the caller's business. Not thread safe; see Daemon.
class TrafficClasses {
 public:
  // Makes the unattached leaf of a module's task.
  void addLeaf(const std::string& module, std::uint64_t task);
  void removeLeaves(const std::string& module);

  // Checks a class to add and makes it, not attached. Refuses as addTc does.
  std::unique_ptr<TrafficNode> make(const bess::pb::TrafficClass& wanted) const;
  void updateParams(const bess::pb::TrafficClass& wanted);
  // Takes a leaf, named directly or by module and task, out of its place. Refuses for other nodes.
  std::unique_ptr<TrafficNode> detach(TrafficNode& leaf);
  // Hangs `node` below the parent that `wanted` names; a refused node is destroyed.
  void attachToParent(std::unique_ptr<TrafficNode> node, const bess::pb::TrafficClass& wanted);
  void attachToWorker(std::unique_ptr<TrafficNode> node, int worker);
  // Ends a node that was taken out or made and can be attached nowhere.
  void lose(std::unique_ptr<TrafficNode> node);
  // Puts a node among those that wait for a worker.
  void leaveWaiting(std::unique_ptr<TrafficNode> node);
  bool anyWaiting() const { return !waiting_.empty(); }
  // Gives each waiting node to the worker that `nextWorker` answers.
  void attachWaiting(const std::function<int()>& nextWorker);

  // Ends the round robins that were put on top of a worker's roots and have one child left.
  void dropNeedlessTops();

  // Null when there is none of that name.
  TrafficNode* find(const std::string& name) const;
  // Unlists everything. Leaves in a tree stay there, with what is above them, until their modules
  // go.
  void reset();
  // Ends a worker's tree with all that is in it.
  void dropTree(int worker);
  // The first leaf in a worker's tree; null when it has none.
  const TrafficNode* firstLeaf(int worker) const;
  // Nodes in a worker's tree.
  std::int64_t count(int worker) const;
  // Calls `visit` for every leaf in a worker's tree.
  void forEachLeaf(int worker, const std::function<void(const TrafficNode&)>& visit) const;
  // Calls `visit` for every listed node of the worker, or of all when it is negative: siblings
  // stand together in their order, and a node without parent stands after its children.
  void forEachListed(int worker, const std::function<void(const TrafficNode&)>& visit) const;

 private:
  std::unique_ptr<TrafficNode> take(TrafficNode& node);
  void prune(TrafficNode* node);
  void unlist(TrafficNode& node);
  void list(TrafficNode& node) { listed_[node.name] = &node; }

  std::map<int, std::unique_ptr<TrafficNode>> roots_;  // By worker.
  std::vector<std::unique_ptr<TrafficNode>> waiting_;
  // The order of listTcs comes from the order of this map: the daemon's own does.
  std::unordered_map<std::string, TrafficNode*> listed_;
};

}  // namespace Standin
