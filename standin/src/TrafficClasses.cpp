#include "TrafficClasses.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "Refusal.h"

namespace Standin {

namespace {

constexpr std::uint32_t reservedPriority = 0xffffffff;
constexpr const char* policies[] = {"priority", "weighted_fair", "round_robin", "rate_limit"};
constexpr const char* resources[] = {"count", "cycle", "packet", "bit"};

template <std::size_t N>
bool contains(const char* const (&list)[N], const std::string& word) {
  return std::find(std::begin(list), std::end(list), word) != std::end(list);
}

bool measuresResource(const std::string& policy) {
  return policy == "weighted_fair" || policy == "rate_limit";
}

// Takes resource and limits over; a limit that is not given for the resource keeps its value.
void setLimits(TrafficNode& node, const bess::pb::TrafficClass& wanted) {
  if (!contains(resources, wanted.resource())) throw Refusal(EINVAL, "Invalid resource");
  node.resource = wanted.resource();
  const auto take = [&](const auto& byResource, std::int64_t& value) {
    const auto found = byResource.find(wanted.resource());
    if (found != byResource.end()) value = found->second;
  };
  take(wanted.limit(), node.limit);
  take(wanted.max_burst(), node.maxBurst);
}

// Sets what the parent's policy wants of a child; refuses when the parent cannot take it.
void placeBelow(TrafficNode& parent, TrafficNode& node, const bess::pb::TrafficClass& wanted) {
  if (parent.leaf()) throw Refusal(EPERM, "Parent tc doesn't support children");
  if (parent.policy == "priority") {
    if (wanted.arg_case() != bess::pb::TrafficClass::kPriority)
      throw Refusal(EINVAL, "No priority specified");
    const auto priority = static_cast<std::uint32_t>(wanted.priority());
    if (priority == reservedPriority) throw Refusal(EINVAL, "Priority -1 is reserved");
    if (!parent.priorities.insert(priority).second) throw Refusal(EINVAL, "AddChild() failed");
    node.priority = priority;
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

// `Node` is TrafficNode, const or not.
template <class Node, class Visit>
void forEachNode(Node& node, const Visit& visit) {
  visit(node);
  for (TrafficNode* child : node.children) forEachNode<Node>(*child, visit);
}

void forEachLeaf(const TrafficNode& top, const std::function<void(const TrafficNode&)>& visit) {
  forEachNode(top, [&](const TrafficNode& node) {
    if (node.leaf()) visit(node);
  });
}

void setWorker(TrafficNode& node, int worker) {
  forEachNode(node, [worker](TrafficNode& each) { each.worker = worker; });
}

}  // namespace

TrafficNode& TrafficClasses::add(const std::string& name, const std::string& policy) {
  nodes_.emplace_back();
  TrafficNode& node = nodes_.back();
  node.self = std::prev(nodes_.end());
  node.name = name;
  node.policy = policy;
  listed_[name] = &node;
  return node;
}

void TrafficClasses::enter(TrafficNode& node, std::list<TrafficNode*>& row) {
  node.row = &row;
  node.place = row.insert(row.end(), &node);
}

void TrafficClasses::leavePlace(TrafficNode& node) {
  if (node.row != nullptr) node.row->erase(node.place);
  const auto root = roots_.find(node.worker);
  if (root != roots_.end() && root->second == &node) roots_.erase(root);
  if (node.parent != nullptr) node.parent->priorities.erase(node.priority);
  node.row = nullptr;
  node.parent = nullptr;
  setWorker(node, -1);
}

void TrafficClasses::forgetName(TrafficNode& node) {
  const auto found = listed_.find(node.name);
  if (found != listed_.end() && found->second == &node) listed_.erase(found);
}

void TrafficClasses::end(TrafficNode& node) {
  if (node.leaf()) {
    const auto leaves = tasks_.find(node.leafModule);
    if (leaves != tasks_.end()) leaves->second[node.leafTask] = nullptr;
  }
  forgetName(node);
  nodes_.erase(node.self);
}

void TrafficClasses::addLeaves(const std::string& module, int tasks) {
  for (int task = 0; task < tasks; ++task) {
    TrafficNode& leaf = add("!leaf_" + module + ":" + std::to_string(task), "leaf");
    leaf.leafModule = module;
    leaf.leafTask = static_cast<std::uint64_t>(task);
    tasks_[module].push_back(&leaf);
    leaveWaiting(leaf, -1);
  }
}

void TrafficClasses::removeLeaves(const std::string& module) {
  const auto leaves = tasks_.find(module);
  if (leaves == tasks_.end()) return;
  for (TrafficNode* leaf : leaves->second) {
    if (leaf == nullptr) continue;
    leavePlace(*leaf);
    end(*leaf);
  }
  tasks_.erase(leaves);
}

TrafficNode& TrafficClasses::leafOf(const std::string& module, std::uint64_t task) const {
  const auto leaves = tasks_.find(module);
  if (leaves == tasks_.end() || task >= leaves->second.size())
    throw Refusal(ENOENT, "Task " + module + ":" + std::to_string(task) + " does not exist");
  TrafficNode* leaf = leaves->second[task];
  if (leaf == nullptr) throw Refusal(ENOENT, "Error finding TC");
  return *leaf;
}

TrafficNode& TrafficClasses::make(const bess::pb::TrafficClass& wanted) {
  if (wanted.name().empty()) throw Refusal(EINVAL, "Missing 'name' field");
  if (wanted.name()[0] == '!') throw Refusal(EINVAL, "TC names starting with '!' are reserved");
  if (find(wanted.name()) != nullptr)
    throw Refusal(EINVAL, "Name '" + wanted.name() + "' already exists");
  if (wanted.policy() == "leaf")
    throw Refusal(EINVAL, "Cannot create leaf TC. Use UpdateTcParentRequest message");
  if (!contains(policies, wanted.policy())) throw Refusal(EINVAL, "Invalid traffic policy");
  TrafficNode limits;
  if (measuresResource(wanted.policy())) setLimits(limits, wanted);
  TrafficNode& node = add(wanted.name(), wanted.policy());
  node.resource = limits.resource;
  node.limit = limits.limit;
  node.maxBurst = limits.maxBurst;
  return node;
}

void TrafficClasses::updateParams(TrafficNode& node, const bess::pb::TrafficClass& wanted) {
  if (!measuresResource(node.policy))
    throw Refusal(EINVAL, "Only 'rate_limit' and 'weighted_fair' can be updated");
  setLimits(node, wanted);
}

void TrafficClasses::detach(TrafficNode& leaf) {
  if (!leaf.leaf())
    throw Refusal(EINVAL, "Cannot detach '" + leaf.name + "'. while it is part of a worker");
  leavePlace(leaf);
}

void TrafficClasses::attachToParent(TrafficNode& node, const bess::pb::TrafficClass& wanted) {
  if (wanted.wid() != -1) throw Refusal(EINVAL, "Both 'parent' and 'wid'have been specified");
  // A new class has its name by now, so that it may name itself.
  TrafficNode* parent = find(wanted.parent());
  if (parent == nullptr) throw Refusal(ENOENT, "Parent TC '" + wanted.parent() + "' not found");
  placeBelow(*parent, node, wanted);
  setWorker(node, parent->worker);
  node.parent = parent;
  enter(node, parent->children);
}

void TrafficClasses::lose(TrafficNode& node) {
  end(node);
}

void TrafficClasses::attachToWorker(TrafficNode& node, int worker) {
  setWorker(node, worker);
  TrafficNode*& root = roots_[worker];
  if (root == nullptr) {
    root = &node;
    return;
  }
  const std::string name = topName(worker);
  if (root->name != name) {
    TrafficNode& top = add(name, "round_robin");
    top.worker = worker;
    root->parent = &top;
    enter(*root, top.children);
    root = &top;
  }
  node.parent = root;
  enter(node, root->children);
}

void TrafficClasses::leaveWaiting(TrafficNode& node, int wantedWorker) {
  node.wantedWorker = wantedWorker;
  enter(node, waiting_);
}

void TrafficClasses::attachWaiting(const std::function<int()>& anyWorker,
                                   const std::function<void(const TrafficNode&)>& attached) {
  while (!waiting_.empty()) {
    TrafficNode& node = *waiting_.front();
    leavePlace(node);
    attachToWorker(node, node.wantedWorker >= 0 ? node.wantedWorker : anyWorker());
    forEachLeaf(node, attached);
  }
}

void TrafficClasses::dropNeedlessTop(int worker) {
  const auto root = roots_.find(worker);
  if (root == roots_.end()) return;
  TrafficNode& top = *root->second;
  if (top.name != topName(worker) || top.children.size() > 1) return;
  if (top.children.empty()) {
    roots_.erase(root);
  } else {
    TrafficNode& only = *top.children.front();
    leavePlace(only);
    setWorker(only, worker);
    root->second = &only;
  }
  end(top);
}

TrafficNode* TrafficClasses::find(const std::string& name) const {
  const auto found = listed_.find(name);
  return found == listed_.end() ? nullptr : found->second;
}

void TrafficClasses::reset() {
  while (!waiting_.empty()) {
    TrafficNode& leaf = *waiting_.front();
    leavePlace(leaf);
    end(leaf);
  }
  listed_.clear();
}

void TrafficClasses::dropTree(int worker) {
  const auto root = roots_.find(worker);
  if (root == roots_.end()) return;
  std::vector<TrafficNode*> nodes;
  forEachNode(*root->second, [&](TrafficNode& node) { nodes.push_back(&node); });
  roots_.erase(root);
  for (TrafficNode* node : nodes) end(*node);
}

const TrafficNode* TrafficClasses::leafIn(int worker) const {
  for (const auto& [name, node] : listed_)
    if (node->leaf() && node->worker == worker) return node;
  const TrafficNode* any = nullptr;  // It may be one that reset has taken the name from.
  const auto root = roots_.find(worker);
  if (root != roots_.end())
    forEachLeaf(*root->second, [&](const TrafficNode& leaf) { any = &leaf; });
  return any;
}

std::int64_t TrafficClasses::count(int worker) const {
  std::int64_t nodes = 0;
  const auto root = roots_.find(worker);
  if (root != roots_.end()) forEachNode(*root->second, [&](const TrafficNode&) { ++nodes; });
  return nodes;
}

void TrafficClasses::forEachAttachedLeaf(
    const std::function<void(const TrafficNode&)>& visit) const {
  for (const auto& [worker, root] : roots_) forEachLeaf(*root, visit);
}

WorkerSet TrafficClasses::workersOf(const std::string& module) const {
  WorkerSet workers;
  const auto leaves = tasks_.find(module);
  if (leaves == tasks_.end()) return workers;
  for (const TrafficNode* leaf : leaves->second)
    if (leaf != nullptr && leaf->worker >= 0) workers.set(static_cast<std::size_t>(leaf->worker));
  return workers;
}

void TrafficClasses::forEachListed(int worker,
                                   const std::function<void(const TrafficNode&)>& visit) const {
  // Seen: with a class that is its own parent, nothing is listed.
  for (const auto& entry : listed_)
    if (entry.second->parent == entry.second) return;
  for (const auto& [name, node] : listed_) {
    if (worker >= 0 && node->worker != worker) continue;
    for (const TrafficNode* child : node->children) visit(*child);
    if (node->parent == nullptr) visit(*node);
  }
}

}  // namespace Standin
