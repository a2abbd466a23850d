#include "TrafficClasses.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::int64_t reservedPriority = 0xffffffff;
constexpr const char* policies[] = {"priority", "weighted_fair", "round_robin", "rate_limit"};
constexpr const char* resources[] = {"count", "cycle", "packet", "bit"};

template <std::size_t N>
bool contains(const char* const (&list)[N], const std::string& word) {
  return std::find(std::begin(list), std::end(list), word) != std::end(list);
}

void setLimits(TrafficNode& node, const bess::pb::TrafficClass& wanted) {
  const auto value = [&](const auto& byResource) {
    const auto found = byResource.find(wanted.resource());
    return found == byResource.end() ? std::int64_t{0} : found->second;
  };
  node.resource = wanted.resource();
  node.limit = value(wanted.limit());
  node.maxBurst = value(wanted.max_burst());
}

bool measuresResource(const std::string& policy) {
  return policy == "weighted_fair" || policy == "rate_limit";
}

// Sets the node's place below `parent` from the request; refuses when the parent cannot take it.
void placeBelow(const TrafficNode& parent, TrafficNode& node,
                const bess::pb::TrafficClass& wanted) {
  const auto taken = [&](std::int64_t priority) {
    return std::any_of(parent.children.begin(), parent.children.end(),
                       [&](const auto& child) { return child->priority == priority; });
  };
  if (parent.leaf()) throw Refusal(EPERM, "Parent tc doesn't support children");
  if (parent.policy == "priority") {
    if (wanted.arg_case() != bess::pb::TrafficClass::kPriority)
      throw Refusal(EINVAL, "No priority specified");
    if (wanted.priority() == reservedPriority) throw Refusal(EINVAL, "Priority -1 is reserved");
    if (taken(wanted.priority())) throw Refusal(EINVAL, "AddChild() failed");
    node.priority = wanted.priority();
  } else if (parent.policy == "weighted_fair") {
    if (wanted.arg_case() != bess::pb::TrafficClass::kShare)
      throw Refusal(EINVAL, "No share specified");
    if (wanted.share() < 1) throw Refusal(EINVAL, "AddChild() failed");
    node.share = wanted.share();
  } else if (parent.policy == "rate_limit" && !parent.children.empty()) {
    throw Refusal(EINVAL, "AddChild() failed");
  }
}

std::string topName(int worker) {
  return "!default_rr_" + std::to_string(worker);
}

void setWorker(TrafficNode& node, int worker) {
  node.worker = worker;
  for (const auto& child : node.children) setWorker(*child, worker);
}

// `Node` is TrafficNode, const or not.
template <class Node, class Visit>
void forEachNode(Node& node, const Visit& visit) {
  visit(node);
  for (const auto& child : node.children) forEachNode<Node>(*child, visit);
}

}  // namespace

void TrafficClasses::addLeaf(const std::string& module, std::uint64_t task) {
  auto leaf = std::make_unique<TrafficNode>();
  leaf->name = "!leaf_" + module + ":" + std::to_string(task);
  leaf->policy = "leaf";
  leaf->leafModule = module;
  leaf->leafTask = task;
  leaveWaiting(std::move(leaf));
}

void TrafficClasses::removeLeaves(const std::string& module) {
  const auto ofModule = [&](const TrafficNode& node) {
    return node.leaf() && node.leafModule == module;
  };
  std::vector<TrafficNode*> found;
  for (const auto& node : waiting_)
    if (ofModule(*node)) found.push_back(node.get());
  for (const auto& [worker, root] : roots_)
    forEachNode(*root, [&](TrafficNode& node) {
      if (ofModule(node)) found.push_back(&node);
    });
  for (TrafficNode* leaf : found) {
    unlist(*leaf);
    TrafficNode* parent = leaf->parent;
    take(*leaf);
    prune(parent);
  }
}

std::unique_ptr<TrafficNode> TrafficClasses::make(const bess::pb::TrafficClass& wanted) const {
  if (wanted.name().empty()) throw Refusal(EINVAL, "Missing 'name' field");
  if (wanted.name()[0] == '!') throw Refusal(EINVAL, "TC names starting with '!' are reserved");
  if (find(wanted.name()) != nullptr)
    throw Refusal(EINVAL, "Name '" + wanted.name() + "' already exists");
  if (wanted.policy() == "leaf")
    throw Refusal(EINVAL, "Cannot create leaf TC. Use UpdateTcParentRequest message");
  if (!contains(policies, wanted.policy())) throw Refusal(EINVAL, "Invalid traffic policy");
  auto node = std::make_unique<TrafficNode>();
  node->name = wanted.name();
  node->policy = wanted.policy();
  if (measuresResource(wanted.policy())) {
    if (!contains(resources, wanted.resource())) throw Refusal(EINVAL, "Invalid resource");
    setLimits(*node, wanted);
  }
  return node;
}

void TrafficClasses::updateParams(const bess::pb::TrafficClass& wanted) {
  if (wanted.name().empty()) throw Refusal(EINVAL, "Missing 'name' field");
  TrafficNode* node = find(wanted.name());
  if (node == nullptr) throw Refusal(ENOENT, "Tc '" + wanted.name() + "' doesn't exist");
  if (!measuresResource(node->policy))
    throw Refusal(EINVAL, "Only 'rate_limit' and 'weighted_fair' can be updated");
  if (!contains(resources, wanted.resource())) throw Refusal(EINVAL, "Invalid resource");
  setLimits(*node, wanted);
}

std::unique_ptr<TrafficNode> TrafficClasses::take(TrafficNode& node) {
  std::unique_ptr<TrafficNode> owned;
  const auto takeFrom = [&](std::vector<std::unique_ptr<TrafficNode>>& nodes) {
    const auto found = std::find_if(nodes.begin(), nodes.end(),
                                    [&](const auto& entry) { return entry.get() == &node; });
    if (found == nodes.end()) return;
    owned = std::move(*found);
    nodes.erase(found);
  };
  if (node.parent != nullptr) {
    takeFrom(node.parent->children);
  } else if (node.worker < 0) {
    takeFrom(waiting_);
  } else {
    owned = std::move(roots_[node.worker]);
    roots_.erase(node.worker);
  }
  owned->parent = nullptr;
  setWorker(*owned, -1);
  return owned;
}

// Ends unlisted nodes that nothing hangs from any more, from `node` upwards.
void TrafficClasses::prune(TrafficNode* node) {
  while (node != nullptr && !node->listed && node->children.empty()) {
    TrafficNode* parent = node->parent;
    take(*node);
    node = parent;
  }
}

void TrafficClasses::unlist(TrafficNode& node) {
  const auto found = listed_.find(node.name);
  if (found != listed_.end() && found->second == &node) listed_.erase(found);
  node.listed = false;
}

std::unique_ptr<TrafficNode> TrafficClasses::detach(TrafficNode& leaf) {
  if (!leaf.leaf())
    throw Refusal(EINVAL, "Cannot detach '" + leaf.name + "'. while it is part of a worker");
  return take(leaf);
}

void TrafficClasses::attachToParent(std::unique_ptr<TrafficNode> node,
                                    const bess::pb::TrafficClass& wanted) {
  try {
    TrafficNode* parent = find(wanted.parent());
    if (parent == nullptr) throw Refusal(ENOENT, "Parent TC '" + wanted.parent() + "' not found");
    if (wanted.wid() != -1) throw Refusal(EINVAL, "Both 'parent' and 'wid'have been specified");
    placeBelow(*parent, *node, wanted);
    node->parent = parent;
    setWorker(*node, parent->worker);
    list(*node);
    parent->children.push_back(std::move(node));
  } catch (const Refusal&) {
    lose(std::move(node));
    throw;
  }
}

void TrafficClasses::lose(std::unique_ptr<TrafficNode> node) {
  unlist(*node);
}

void TrafficClasses::attachToWorker(std::unique_ptr<TrafficNode> node, int worker) {
  setWorker(*node, worker);
  list(*node);
  std::unique_ptr<TrafficNode>& root = roots_[worker];
  if (!root) {
    root = std::move(node);
    return;
  }
  const std::string name = topName(worker);
  if (root->name != name) {
    auto top = std::make_unique<TrafficNode>();
    top->name = name;
    top->policy = "round_robin";
    top->worker = worker;
    list(*top);
    root->parent = top.get();
    top->children.push_back(std::move(root));
    root = std::move(top);
  }
  node->parent = root.get();
  root->children.push_back(std::move(node));
}

void TrafficClasses::leaveWaiting(std::unique_ptr<TrafficNode> node) {
  list(*node);
  waiting_.push_back(std::move(node));
}

void TrafficClasses::attachWaiting(const std::function<int()>& nextWorker) {
  std::vector<std::unique_ptr<TrafficNode>> nodes;
  nodes.swap(waiting_);
  for (auto& node : nodes) attachToWorker(std::move(node), nextWorker());
}

void TrafficClasses::dropNeedlessTops() {
  for (auto& [worker, root] : roots_) {
    if (root->name != topName(worker) || root->children.size() != 1) continue;
    std::unique_ptr<TrafficNode> only = std::move(root->children.front());
    only->parent = nullptr;
    unlist(*root);
    root = std::move(only);
  }
}

TrafficNode* TrafficClasses::find(const std::string& name) const {
  const auto found = listed_.find(name);
  return found == listed_.end() ? nullptr : found->second;
}

void TrafficClasses::reset() {
  waiting_.clear();
  listed_.clear();
  std::vector<TrafficNode*> ends;
  for (const auto& [worker, root] : roots_)
    forEachNode(*root, [&](TrafficNode& node) {
      node.listed = false;
      if (!node.leaf() && node.children.empty()) ends.push_back(&node);
    });
  for (TrafficNode* node : ends) prune(node);
}

void TrafficClasses::dropTree(int worker) {
  const auto found = roots_.find(worker);
  if (found == roots_.end()) return;
  forEachNode(*found->second, [this](TrafficNode& node) { unlist(node); });
  roots_.erase(found);
}

const TrafficNode* TrafficClasses::firstLeaf(int worker) const {
  const TrafficNode* first = nullptr;
  forEachLeaf(worker, [&](const TrafficNode& leaf) {
    if (first == nullptr) first = &leaf;
  });
  return first;
}

std::int64_t TrafficClasses::count(int worker) const {
  std::int64_t nodes = 0;
  const auto found = roots_.find(worker);
  if (found != roots_.end()) forEachNode(*found->second, [&](const TrafficNode&) { ++nodes; });
  return nodes;
}

void TrafficClasses::forEachLeaf(int worker,
                                 const std::function<void(const TrafficNode&)>& visit) const {
  const auto found = roots_.find(worker);
  if (found == roots_.end()) return;
  forEachNode(*found->second, [&](const TrafficNode& node) {
    if (node.leaf()) visit(node);
  });
}

void TrafficClasses::forEachListed(int worker,
                                   const std::function<void(const TrafficNode&)>& visit) const {
  for (const auto& [name, node] : listed_) {
    if (worker >= 0 && node->worker != worker) continue;
    for (const auto& child : node->children) visit(*child);
    if (node->parent == nullptr) visit(*node);
  }
}

}  // namespace Standin
