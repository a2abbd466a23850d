#include <algorithm>

#include <Norv/State/ClassTable.h>
#include <Norv/State/Document.h>

#include "Modules.h"
#include "Node.h"
#include "Values.h"

namespace Norv::State {

namespace {

class Writer {
 public:
  Writer(const Switch& described, const Notes& notes) : described_(described), notes_(notes) {}

  std::vector<std::string> notTold;

  Node document() {
    Node root = Node::map();
    if (!described_.plugins.empty()) put(root, "plugins", plugins());
    if (described_.workersStated) put(root, "workers", workers());
    if (!described_.ports.empty()) put(root, "ports", ports());
    if (!described_.modules.empty()) put(root, "modules", modules());
    if (!described_.connections.empty()) put(root, "connections", connections());
    if (!described_.trafficClasses.empty()) put(root, "traffic_classes", trafficClasses());
    if (Node list = hooks(); !list.empty()) put(root, "hooks", std::move(list));
    return root;
  }

 private:
  static void put(Node& map, const std::string& key, Node value) {
    map.keys.push_back(key);
    map.children.push_back(std::move(value));
  }
  template <class Number>
  static Node number(Number value) {
    return Node::plain(std::to_string(value));
  }

  // Says what is missing, beside the object and to the person.
  void miss(Node& node, const Object& object, const std::string& what) {
    node.comment += (node.comment.empty() ? "" : "; ") + what;
    notTold.push_back(text(object) + ": " + what);
  }

  void missNoted(Node& node, const Object& object) {
    if (const auto note = notes_.find(object); note != notes_.end())
      miss(node, object, note->second);
  }

  Node plugins() const {
    Node list = Node::list();
    for (const std::string& path : described_.plugins) list.children.push_back(Node::text(path));
    return list;
  }

  Node workers() const {
    Node map = Node::map();
    for (const auto& [id, worker] : described_.workers) {
      Node node = Node::map(true);
      put(node, "core", number(worker.core));
      if (worker.scheduler && !worker.scheduler->empty())
        put(node, "scheduler", Node::text(*worker.scheduler));
      if (worker.running && !*worker.running) put(node, "running", Node::plain("false"));
      put(map, std::to_string(id), std::move(node));
    }
    return map;
  }

  Node ports() {
    Node map = Node::map();
    for (const auto& [name, port] : described_.ports) {
      Node node = Node::map(true);
      put(node, "driver", Node::text(port.driver));
      if (!port.arg) {
        put(node, "arg", Node::text(unknownWord));
        miss(node, {Kind::port, name},
             "the daemon does not tell the driver's argument; state it before this is applied "
             "elsewhere");
      } else if (!port.arg->value().empty()) {
        putArgument(node, {Kind::port, name}, *port.arg);
      }
      if (port.incQueues && *port.incQueues != 1) put(node, "num_inc_q", number(*port.incQueues));
      if (port.outQueues && *port.outQueues != 1) put(node, "num_out_q", number(*port.outQueues));
      if (port.incSize) put(node, "size_inc_q", number(*port.incSize));
      if (port.outSize) put(node, "size_out_q", number(*port.outSize));
      if (port.mac) put(node, "mac_addr", Node::text(*port.mac));
      if (port.mtu) put(node, "mtu", number(*port.mtu));
      if (port.adminUp && !*port.adminUp) put(node, "admin_up", Node::plain("false"));
      missNoted(node, {Kind::port, name});
      put(map, name, std::move(node));
    }
    return map;
  }

  void putArgument(Node& node, const Object& object, const Any& arg) {
    const auto message = unpacked(arg);
    if (!message) {
      const std::string type = arg.type_url().substr(arg.type_url().rfind('/') + 1);
      miss(node, object,
           "its argument is a " + (type.empty() ? "message without type" : type) +
               " that is not known here");
      return;
    }
    Node written = nodeOf(*message);
    if (!written.empty()) put(node, "arg", std::move(written));
  }

  Node modules() {
    Node map = Node::map();
    for (const auto& [name, module] : described_.modules) {
      put(map, name, moduleNode({Kind::module, name}, module));
    }
    return map;
  }

  Node moduleNode(const Object& object, const Module& module) {
    Node node = Node::map(true);
    put(node, "class", Node::text(module.moduleClass));
    if (!module.arg) {
      put(node, "arg", Node::text(unknownWord));
      miss(node, object, "the daemon does not tell its argument");
    } else if (!module.arg->value().empty()) {
      putArgument(node, object, *module.arg);
    }
    if (const ClassRow* row = classRow(module.moduleClass)) putRuntime(node, object, module, *row);
    putTasks(node, module);
    missNoted(node, object);
    // Only a class: the short form.
    if (node.keys.size() > 1) return node;
    Node only = Node::text(module.moduleClass);
    only.comment = node.comment;
    return only;
  }

  void putRuntime(Node& node, const Object& object, const Module& module, const ClassRow& row) {
    for (const Setting& setting : row.settings) {
      const auto found = module.settings.find(std::string(setting.fields));
      if (setting.inArgument() || found == module.settings.end()) continue;
      const bool drop = found->first == "default_gate" && found->second == dropGate;
      put(node, found->first, drop ? Node::text("drop") : number(found->second));
    }
    if (row.entryTable == nullptr) return;
    if (!module.table) {
      const bool gate = std::any_of(row.settings.begin(), row.settings.end(), [&](const auto& one) {
        return one.fields == "default_gate" && !module.settings.contains("default_gate");
      });
      return miss(node, object,
                  "the daemon does not tell its " + std::string(row.entryTable->name) +
                      (gate ? " and default_gate" : ""));
    }
    Node list = Node::list();
    const Widths widths = entryWidths(row, module);
    for (const auto& [key, bytes] : *module.table) {
      const auto entry = newEntry(row);
      entry->ParseFromString(bytes);
      list.children.push_back(entryNode(*entry, widths));
    }
    node.flow = list.empty();
    put(node, std::string(row.entryTable->name), std::move(list));
  }

  // {prefix: 10.0.0.0, prefix_len: 8} as {prefix: 10.0.0.0/8}.
  static Node entryNode(const Message& entry, const Widths& widths) {
    Node node = nodeOf(entry, widths);
    const auto* length = entry.GetDescriptor()->FindFieldByName("prefix_len");
    if (length == nullptr) return node;
    Node joined = Node::map(true);
    for (std::size_t i = 0; i < node.keys.size(); ++i) {
      if (node.keys[i] == "prefix_len") continue;
      Node value = node.children[i];
      if (node.keys[i] == "prefix") {
        value.scalar += "/" + std::to_string(entry.GetReflection()->GetUInt64(entry, length));
      }
      put(joined, node.keys[i], std::move(value));
    }
    return joined;
  }

  static void putTasks(Node& node, const Module& module) {
    const auto stated = [](const std::optional<Place>& place) { return place.has_value(); };
    if (std::none_of(module.tasks.begin(), module.tasks.end(), stated)) return;
    Node list = Node::list(true);
    for (const auto& place : module.tasks) {
      list.children.push_back(place ? placeNode(*place) : Node());
    }
    while (list.children.back().kind == Node::Kind::null) list.children.pop_back();
    put(node, "tasks", list.children.size() == 1 ? list.children[0] : list);
  }

  static Node placeNode(const Place& place) {
    if (!place.parent.empty() && !place.priority && !place.share) return Node::text(place.parent);
    Node node = Node::map(true);
    putPlace(node, place);
    return node;
  }

  static void putPlace(Node& node, const Place& place) {
    if (!place.parent.empty()) put(node, "parent", Node::text(place.parent));
    if (place.worker >= 0) put(node, "wid", number(place.worker));
    if (place.priority) put(node, "priority", number(*place.priority));
    if (place.share) put(node, "share", number(*place.share));
  }

  bool hasDefaultHook(const Gate& from) const {
    return described_.hooks.contains(defaultHook(from));
  }

  Node connections() const {
    Node list = Node::list();
    for (const auto& [from, to] : described_.connections) {
      const std::string text = connectionText(from, to);
      if (!text.empty() && hasDefaultHook(from)) {
        list.children.push_back(Node::text(text));
        continue;
      }
      Node node = Node::map(true);
      put(node, "from", Node::text(from.module));
      if (from.number != 0) put(node, "ogate", number(from.number));
      put(node, "to", Node::text(to.module));
      if (to.number != 0) put(node, "igate", number(to.number));
      if (!hasDefaultHook(from)) put(node, "skip_default_hooks", Node::plain("true"));
      list.children.push_back(std::move(node));
    }
    return list;
  }

  Node hooks() {
    Node list = Node::list();
    for (const auto& [point, arg] : described_.hooks) {
      if (point == defaultHook(point.gate) && described_.connections.contains(point.gate)) continue;
      Node node = Node::map(true);
      put(node, "class", Node::text(point.hookClass));
      put(node, "module", Node::text(point.gate.module));
      put(node, point.output ? "ogate" : "igate", number(point.gate.number));
      if (!point.name.empty()) put(node, "name", Node::text(point.name));
      if (!arg) {
        put(node, "arg", Node::text(unknownWord));
        miss(node, objectOf(point), "the daemon does not tell its argument");
      } else if (arg && !arg->value().empty()) {
        putArgument(node, objectOf(point), *arg);
      }
      list.children.push_back(std::move(node));
    }
    return list;
  }

  Node trafficClasses() {
    Node map = Node::map();
    for (const auto& [name, one] : described_.trafficClasses) {
      Node node = Node::map(true);
      put(node, "policy", Node::text(one.policy));
      const bool measures = one.policy == "weighted_fair" || one.policy == "rate_limit";
      if (!one.resource.empty()) {
        put(node, "resource", Node::text(one.resource));
      } else if (measures) {
        put(node, "resource", Node::text(unknownWord));
        miss(node, {Kind::trafficClass, name}, "the daemon does not tell its resource");
      }
      putAmount(node, "limit", one.limit, one.resource);
      putAmount(node, "max_burst", one.maxBurst, one.resource);
      putPlace(node, one.place);
      put(map, name, std::move(node));
    }
    return map;
  }

  static void putAmount(Node& node, const char* key, const std::optional<std::int64_t>& amount,
                        const std::string& resource) {
    if (!amount || *amount == 0) return;
    Node map = Node::map(true);
    put(map, resource, number(*amount));
    put(node, key, std::move(map));
  }

  const Switch& described_;
  const Notes& notes_;
};

}  // namespace

std::string yaml(const Switch& described, std::vector<std::string>* notTold, const Notes& notes) {
  Writer writer(described, notes);
  const Node document = writer.document();
  if (notTold != nullptr) *notTold = std::move(writer.notTold);
  return writeYaml(document);
}

std::string json(const Switch& described) {
  const Notes none;
  return writeJson(Writer(described, none).document());
}

}  // namespace Norv::State
