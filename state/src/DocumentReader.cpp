#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include <Bess/Facts.h>
#include <Norv/State/ClassTable.h>
#include <Norv/State/Document.h>

#include "Modules.h"
#include "Node.h"
#include "Values.h"

namespace Norv::State {

namespace {

constexpr const char* sections[] = {"plugins",     "workers",         "ports", "modules",
                                    "connections", "traffic_classes", "hooks"};

template <class Range>
std::vector<std::string> namesOf(const Range& range) {
  std::vector<std::string> names;
  names.reserve(std::size(range));
  for (const auto& one : range) names.emplace_back(one.name);
  return names;
}

class Reader {
 public:
  explicit Reader(const Offer& offer) : offer_(offer) {}

  Document document;
  std::vector<Problem> problems;

  void read(const Node& root) {
    if (root.kind == Node::Kind::null) return;
    if (root.kind != Node::Kind::map) return problem(root.mark, "a map of sections belongs here");
    for (std::size_t i = 0; i < root.keys.size(); ++i) {
      const std::string& name = root.keys[i];
      const Node& section = root.children[i];
      if (name == "plugins") {
        eachOfList(section, [&](const Node& item) { plugin(item); });
      } else if (name == "workers") {
        document.wanted.workersStated = true;
        eachOfMap(section, [&](auto&... place) { worker(place...); });
      } else if (name == "ports") {
        eachOfMap(section, [&](auto&... place) { port(place...); });
      } else if (name == "modules") {
        eachOfMap(section, [&](auto&... place) { module(place...); });
      } else if (name == "connections") {
        eachOfList(section, [&](const Node& item) { connection(item); });
      } else if (name == "traffic_classes") {
        eachOfMap(section, [&](auto&... place) { trafficClass(place...); });
      } else if (name == "hooks") {
        eachOfList(section, [&](const Node& item) { hook(item); });
      } else {
        problem(root.keyMarks[i], "no section \"" + name + "\"" +
                                      didYouMean(name, {std::begin(sections), std::end(sections)}));
      }
    }
  }

 private:
  void problem(const Mark& mark, const std::string& text) { problems.push_back({mark, text}); }

  template <class Visit>
  void eachOfMap(const Node& section, const Visit& visit) {
    if (section.kind == Node::Kind::null) return;
    if (section.kind != Node::Kind::map) return problem(section.mark, "a map belongs here");
    for (std::size_t i = 0; i < section.keys.size(); ++i) {
      visit(section.keys[i], section.children[i], section.keyMarks[i]);
    }
  }
  template <class Visit>
  void eachOfList(const Node& section, const Visit& visit) {
    if (section.kind == Node::Kind::null) return;
    if (section.kind != Node::Kind::list) return problem(section.mark, "a list belongs here");
    for (const Node& item : section.children) visit(item);
  }

  // Enters where the object is stated; false, and a problem, when that is the second time.
  bool enter(const Object& object, const Mark& mark) {
    const auto [before, first] = document.marks.emplace(object, mark);
    if (!first) {
      problem(mark, State::text(object) + " is stated a second time; first at " +
                        State::text(before->second));
    }
    return first;
  }

  // Complains about keys that are none of these.
  void allow(const Node& map, const std::string& of, const std::vector<std::string>& names) {
    for (std::size_t i = 0; i < map.keys.size(); ++i) {
      if (std::find(names.begin(), names.end(), map.keys[i]) != names.end()) continue;
      problem(map.keyMarks[i],
              "no \"" + map.keys[i] + "\" in " + of + didYouMean(map.keys[i], names));
    }
  }

  // The value of a key; none, without a problem, when it is not there.
  std::optional<std::string> scalar(const Node& map, const char* key) {
    const Node* node = map.find(key);
    if (node == nullptr || node->kind == Node::Kind::null) return {};
    if (node->kind == Node::Kind::scalar) return node->scalar;
    problem(node->mark, std::string("a value belongs here, of \"") + key + "\"");
    return {};
  }
  std::optional<std::uint64_t> number(const Node& map, const char* key, std::uint64_t most) {
    const auto text = scalar(map, key);
    if (!text) return {};
    const auto value = numberOf(*text);
    if (value && *value <= most) return value;
    problem(map.find(key)->mark, std::string("\"") + key + "\" is a number up to " +
                                     std::to_string(most) + ", not \"" + *text + "\"");
    return {};
  }
  std::optional<std::int64_t> signedNumber(const Node& map, const char* key) {
    const auto text = scalar(map, key);
    if (!text) return {};
    const bool negative = !text->empty() && (*text)[0] == '-';
    const auto value = numberOf(negative ? text->substr(1) : *text);
    if (value && *value <= static_cast<std::uint64_t>(INT64_MAX)) {
      return negative ? -static_cast<std::int64_t>(*value) : static_cast<std::int64_t>(*value);
    }
    problem(map.find(key)->mark, std::string("\"") + key + "\" is a number, not \"" + *text + "\"");
    return {};
  }
  std::optional<bool> truth(const Node& map, const char* key) {
    const auto text = scalar(map, key);
    if (!text) return {};
    if (*text == "true" || *text == "false") return *text == "true";
    problem(map.find(key)->mark, std::string("\"") + key + "\" is true or false");
    return {};
  }

  // The argument under "arg" as its message; empty when there is none, nullopt when it is said to
  // be unknown.
  std::optional<Any> argument(const Node& map, const std::string& of, std::string_view type) {
    Any any;
    const Node* node = map.find("arg");
    if (node == nullptr || node->kind == Node::Kind::null) return any;
    if (node->kind == Node::Kind::scalar && node->scalar == unknownWord) return {};
    const auto* descriptor = type.empty() ? nullptr : Bess::message(type);
    if (descriptor == nullptr) {
      problem(node->mark, "what argument " + of + " takes is not known here; leave it out");
      return any;
    }
    const std::unique_ptr<Message> message(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(descriptor)->New());
    readMessage(*node, *message, problems);
    any.PackFrom(*message);
    any.set_value(serialized(*message));
    return any;
  }

  void plugin(const Node& item) {
    if (item.kind != Node::Kind::scalar) return problem(item.mark, "a path belongs here");
    if (enter({Kind::plugin, item.scalar}, item.mark)) document.wanted.plugins.insert(item.scalar);
  }

  void worker(const std::string& name, const Node& node, const Mark& mark) {
    const auto id = numberOf(name);
    if (!id || *id >= workerLimit) {
      return problem(mark, "a worker is a number from 0 to 63, not \"" + name + "\"");
    }
    if (!enter({Kind::worker, std::to_string(*id)}, mark)) return;
    Worker& worker = document.wanted.workers[static_cast<std::int64_t>(*id)];
    worker.running = true;
    if (node.kind == Node::Kind::null) return;
    if (node.kind != Node::Kind::map) return problem(node.mark, "a map belongs here: {core: 0}");
    allow(node, "a worker", {"core", "running", "scheduler"});
    worker.core = static_cast<std::int64_t>(number(node, "core", INT32_MAX).value_or(0));
    worker.running = truth(node, "running").value_or(true);
    worker.scheduler = scalar(node, "scheduler");
    if (worker.scheduler && !worker.scheduler->empty() && *worker.scheduler != "experimental") {
      problem(node.find("scheduler")->mark, "no scheduler is called \"" + *worker.scheduler +
                                                "\"; there is experimental, or leave it out");
    }
  }

  void port(const std::string& name, const Node& node, const Mark& mark) {
    if (name.empty()) return problem(mark, "a port needs a name");
    if (!enter({Kind::port, name}, mark)) return;
    Port& port = document.wanted.ports[name];
    if (node.kind == Node::Kind::scalar) {
      port.driver = node.scalar;
      port.arg = Any();
      port.adminUp = true;
      return checkDriver(port.driver, node.mark);
    }
    if (node.kind != Node::Kind::map) {
      return problem(mark, "port " + name + " needs a driver: {driver: PMDPort, arg: {...}}");
    }
    allow(node, "a port",
          {"driver", "arg", "num_inc_q", "num_out_q", "size_inc_q", "size_out_q", "mac_addr", "mtu",
           "admin_up"});
    const auto driver = scalar(node, "driver");
    if (!driver) return problem(mark, "port " + name + " needs a \"driver\"");
    port.driver = *driver;
    checkDriver(port.driver, node.find("driver")->mark);
    const Bess::Taker* known = Bess::portDriver(port.driver);
    port.arg = argument(node, port.driver, known == nullptr ? "" : known->argument);
    port.incQueues = number(node, "num_inc_q", 65535);
    port.outQueues = number(node, "num_out_q", 65535);
    port.incSize = number(node, "size_inc_q", UINT32_MAX);
    port.outSize = number(node, "size_out_q", UINT32_MAX);
    if (const auto mtu = number(node, "mtu", 65535)) port.mtu = static_cast<std::uint32_t>(*mtu);
    port.adminUp = truth(node, "admin_up").value_or(true);
    if (const auto mac = scalar(node, "mac_addr")) {
      port.mac = macText(*mac);
      if (!port.mac) problem(node.find("mac_addr")->mark, "no MAC address: \"" + *mac + "\"");
    }
  }

  void checkDriver(const std::string& driver, const Mark& mark) {
    if (Bess::portDriver(driver) != nullptr || offer_.drivers.contains(driver) ||
        !document.wanted.plugins.empty()) {
      return;
    }
    problem(mark,
            "no port driver \"" + driver + "\"" + didYouMean(driver, namesOf(Bess::portDrivers())));
  }

  void module(const std::string& name, const Node& node, const Mark& mark) {
    if (name.empty()) return problem(mark, "a module needs a name");
    if (!enter({Kind::module, name}, mark)) return;
    Module& module = document.wanted.modules[name];
    module.arg = Any();
    if (node.kind == Node::Kind::scalar) {
      module.moduleClass = node.scalar;
      return checkClass(module.moduleClass, node.mark);
    }
    if (node.kind != Node::Kind::map) {
      return problem(mark, "module " + name + " needs a class: \"" + name +
                               ": Sink\", or {class: Source, arg: {pkt_size: 60}}");
    }
    const auto moduleClass = scalar(node, "class");
    if (!moduleClass) return problem(mark, "module " + name + " needs a \"class\"");
    module.moduleClass = *moduleClass;
    checkClass(module.moduleClass, node.find("class")->mark);
    const Bess::ModuleClass* known = Bess::moduleClass(module.moduleClass);
    module.arg =
        argument(node, module.moduleClass, known == nullptr ? std::string_view() : known->argument);
    tasks(node, module);
    std::vector<std::string> names{"class", "arg", "tasks"};
    if (const ClassRow* row = classRow(module.moduleClass)) runtime(*row, node, module, names);
    allow(node, "a module of class " + module.moduleClass, names);
  }

  void checkClass(const std::string& name, const Mark& mark) {
    if (classRow(name) != nullptr || offer_.moduleClasses.contains(name) ||
        !document.wanted.plugins.empty()) {
      return;
    }
    problem(mark, "no module class \"" + name + "\"" + didYouMean(name, namesOf(classRows())));
  }

  // What commands set: the numbers and the table of the class.
  void runtime(const ClassRow& row, const Node& node, Module& module,
               std::vector<std::string>& names) {
    for (const Setting& setting : row.settings) {
      if (setting.inArgument()) continue;
      const std::string key(setting.fields);
      names.push_back(key);
      const auto text = scalar(node, key.c_str());
      if (!text) continue;
      const bool drops = key == "default_gate" && *text == "drop";
      const auto value = drops ? dropGate : numberOf(*text);
      if (value) {
        module.settings[key] = *value;
      } else {
        problem(node.find(key)->mark, "\"" + key + "\" is a number, not \"" + *text + "\"");
      }
      if (value && *value > UINT16_MAX) {
        problem(node.find(key)->mark, "\"" + key + "\" is a number up to 65535, not " + *text);
      }
    }
    if (row.entryTable == nullptr) return;
    const std::string key(row.entryTable->name);
    names.push_back(key);
    const Node* list = node.find(key);
    if (list == nullptr) return;
    module.table.emplace();
    std::map<std::string, Mark> first;
    eachOfList(*list, [&](const Node& item) { entry(row, item, module, first); });
  }

  void entry(const ClassRow& row, const Node& item, Module& module,
             std::map<std::string, Mark>& first) {
    const std::unique_ptr<Message> message = newEntry(row);
    const std::size_t before = problems.size();
    const Widths widths = entryWidths(row, module);
    readMessage(withPrefix(item), *message, problems, widths);
    if (problems.size() != before) return;
    makeCanonical(*message, widths);
    std::string complaint;
    if (!normaliseEntry(row, *message, widths.size(), complaint)) {
      return problem(item.mark, complaint);
    }
    const std::string key = entryKey(row, *message);
    const auto [earlier, isFirst] = first.emplace(key, item.mark);
    if (!isFirst) {
      return problem(item.mark, "this entry is stated a second time; first at " +
                                    State::text(earlier->second));
    }
    (*module.table)[key] = serialized(*message);
  }

  // {prefix: 10.0.0.0/8} as {prefix: 10.0.0.0, prefix_len: 8}.
  static Node withPrefix(const Node& item) {
    const Node* prefix = item.find("prefix");
    const std::size_t slash = prefix == nullptr ? std::string::npos : prefix->scalar.find('/');
    if (slash == std::string::npos || item.find("prefix_len") != nullptr) return item;
    Node split = item;
    Node length = *prefix;
    length.scalar = prefix->scalar.substr(slash + 1);
    split.at("prefix").scalar.resize(slash);
    split.at("prefix_len") = length;
    split.keyMarks.back() = length.mark;
    return split;
  }

  void tasks(const Node& node, Module& module) {
    const Node* tasks = node.find("tasks");
    if (tasks == nullptr || tasks->kind == Node::Kind::null) return;
    if (tasks->kind == Node::Kind::list) {
      for (const Node& item : tasks->children) module.tasks.push_back(taskPlace(item));
    } else {
      module.tasks.push_back(taskPlace(*tasks));
    }
    const ClassRow* row = classRow(module.moduleClass);
    if (row != nullptr && !row->tasks) {
      problem(tasks->mark, "class " + module.moduleClass + " has no tasks");
    }
  }

  // A class by its name, or {wid: 1}, or {parent: x, priority: 1}.
  std::optional<Place> taskPlace(const Node& node) {
    if (node.kind == Node::Kind::null) return {};
    Place place;
    if (node.kind == Node::Kind::scalar) {
      place.parent = node.scalar;
      return place;
    }
    if (node.kind != Node::Kind::map) {
      problem(node.mark, "the name of a traffic class belongs here, or {wid: 0}");
      return {};
    }
    allow(node, "the place of a task", {"parent", "wid", "priority", "share"});
    readPlace(node, place);
    if (!place.stated()) problem(node.mark, "a task needs a \"parent\" or a \"wid\"");
    return place;
  }

  void readPlace(const Node& node, Place& place) {
    place.parent = scalar(node, "parent").value_or("");
    place.priority = signedNumber(node, "priority");
    place.share = signedNumber(node, "share");
    if (const auto worker = number(node, "wid", workerLimit - 1)) {
      place.worker = static_cast<std::int64_t>(*worker);
    }
    if (!place.parent.empty() && place.worker >= 0) {
      problem(node.find("wid")->mark, "\"wid\" beside \"parent\"; one of them");
    }
    for (const char* key : {"priority", "share"}) {
      const bool meant = place.parent.empty() && node.find(key) != nullptr;
      if (meant) {
        problem(node.find(key)->mark,
                std::string("a \"") + key + "\" counts only below a \"parent\"");
      }
    }
  }

  void connection(const Node& item) {
    Gate from, to;
    bool defaultHooks = true;
    if (item.kind == Node::Kind::scalar) {
      if (!parseConnection(item.scalar, from, to)) {
        return problem(
            item.mark,
            "\"" + item.scalar + "\" is no connection; as in \"in -> fib\" or \"fib:1 -> 0:drop\"");
      }
    } else if (item.kind == Node::Kind::map) {
      allow(item, "a connection", {"from", "ogate", "to", "igate", "skip_default_hooks"});
      from.module = scalar(item, "from").value_or("");
      to.module = scalar(item, "to").value_or("");
      from.number = number(item, "ogate", 65535).value_or(0);
      to.number = number(item, "igate", 65535).value_or(0);
      defaultHooks = !truth(item, "skip_default_hooks").value_or(false);
      if (from.module.empty() || to.module.empty()) {
        return problem(item.mark, "a connection needs \"from\" and \"to\"");
      }
    } else {
      return problem(item.mark, "a connection belongs here, as in \"in -> fib\"");
    }
    if (!enter(objectOf(from), item.mark)) return;
    document.wanted.connections[from] = to;
    if (defaultHooks) document.wanted.hooks[defaultHook(from)] = Any();
  }

  void hook(const Node& item) {
    if (item.kind != Node::Kind::map) {
      return problem(item.mark, "a map belongs here: {class: Track, module: fib, ogate: 0}");
    }
    allow(item, "a hook", {"class", "module", "igate", "ogate", "name", "arg"});
    HookPoint point;
    point.hookClass = scalar(item, "class").value_or("");
    point.gate.module = scalar(item, "module").value_or("");
    point.name = scalar(item, "name").value_or("");
    if (point.hookClass.empty() || point.gate.module.empty()) {
      return problem(item.mark, "a hook needs a \"class\" and a \"module\"");
    }
    const auto input = number(item, "igate", 65535);
    const auto output = number(item, "ogate", 65535);
    if (input.has_value() == output.has_value()) {
      return problem(item.mark, "a hook needs either an \"igate\" or an \"ogate\"");
    }
    point.output = output.has_value();
    point.gate.number = output ? *output : *input;
    const auto known = hookClass(point.hookClass);
    if (!known) {
      std::vector<std::string> names;
      for (const Bess::Taker& one : Bess::gateHooks()) names.push_back(daemonHookName(one.name));
      return problem(item.find("class")->mark, "no hook class \"" + point.hookClass + "\"" +
                                                   didYouMean(point.hookClass, names));
    }
    point.hookClass = daemonHookName(known->name);
    if (!enter(objectOf(point), item.mark)) return;
    document.wanted.hooks[point] = argument(item, point.hookClass, known->argument);
  }

  void trafficClass(const std::string& name, const Node& node, const Mark& mark) {
    if (name.empty() || name[0] == '!') {
      return problem(mark, "a traffic class needs a name that does not begin with \"!\"");
    }
    if (!enter({Kind::trafficClass, name}, mark)) return;
    TrafficClass& entered = document.wanted.trafficClasses[name];
    if (node.kind == Node::Kind::scalar) {
      entered.policy = node.scalar;
      return checkPolicy(entered, node.mark);
    }
    if (node.kind != Node::Kind::map)
      return problem(mark, "traffic class " + name + " needs a policy");
    allow(node, "a traffic class",
          {"policy", "parent", "wid", "priority", "share", "resource", "limit", "max_burst"});
    const auto policy = scalar(node, "policy");
    if (!policy) return problem(mark, "traffic class " + name + " needs a \"policy\"");
    entered.policy = *policy;
    readPlace(node, entered.place);
    entered.resource = scalar(node, "resource").value_or("");
    const bool unknownResource = entered.resource == unknownWord;
    if (unknownResource) entered.resource.clear();
    entered.limit = amount(node, "limit", entered);
    entered.maxBurst = amount(node, "max_burst", entered);
    checkPolicy(entered, node.mark, unknownResource);
  }

  // {packet: 1000}, or 1000 of the class's resource.
  std::optional<std::int64_t> amount(const Node& node, const char* key, TrafficClass& entered) {
    const Node* value = node.find(key);
    if (value == nullptr || value->kind != Node::Kind::map) return signedNumber(node, key);
    if (value->keys.size() != 1) {
      problem(value->mark,
              std::string("one resource belongs into \"") + key + "\", as in {packet: 1000}");
      return {};
    }
    const std::string& resource = value->keys[0];
    if (entered.resource.empty()) entered.resource = resource;
    if (entered.resource != resource) {
      problem(value->keyMarks[0], "resource \"" + resource + "\" is not that of the class, \"" +
                                      entered.resource + "\"");
    }
    return signedNumber(*value, resource.c_str());
  }

  void checkPolicy(const TrafficClass& entered, const Mark& mark, bool unknownResource = false) {
    static const std::vector<std::string> policies{"priority", "weighted_fair", "round_robin",
                                                   "rate_limit"};
    static const std::vector<std::string> resources{"count", "cycle", "packet", "bit"};
    const auto in = [](const std::vector<std::string>& words, const std::string& word) {
      return std::find(words.begin(), words.end(), word) != words.end();
    };
    if (!in(policies, entered.policy)) {
      return problem(mark,
                     "no policy \"" + entered.policy + "\"" + didYouMean(entered.policy, policies));
    }
    const bool measures = entered.policy == "weighted_fair" || entered.policy == "rate_limit";
    if (measures && !unknownResource && !in(resources, entered.resource)) {
      problem(mark, entered.resource.empty()
                        ? entered.policy + " needs a \"resource\": count, cycle, packet or bit"
                        : "no resource \"" + entered.resource + "\"" +
                              didYouMean(entered.resource, resources));
    }
    if (!measures && (!entered.resource.empty() || entered.limit || entered.maxBurst)) {
      problem(mark, entered.policy + " takes no resource, limit or max_burst");
    }
    if (entered.policy == "weighted_fair" && (entered.limit || entered.maxBurst)) {
      problem(mark, "weighted_fair takes no limit or max_burst");
    }
  }

  const Offer& offer_;
};

// No more than shows that it is too much.
std::string textOf(std::istream& stream) {
  const std::size_t most = Limits().bytes + 1;
  std::string text;
  char part[1 << 16];
  while (text.size() < most && (stream.read(part, sizeof part) || stream.gcount() > 0)) {
    text.append(part, static_cast<std::size_t>(stream.gcount()));
  }
  return text;
}

std::string joined(const std::vector<Problem>& problems) {
  std::string text;
  for (const Problem& problem : problems) {
    text += (text.empty() ? "" : "\n") + State::text(problem.mark) + ": " + problem.text;
  }
  return text;
}

}  // namespace

DocumentError::DocumentError(std::vector<Problem> problems)
    : std::runtime_error(joined(problems)), problems_(std::move(problems)) {}

Document readDocument(const std::vector<Source>& sources, const Offer& offer) {
  Reader reader(offer);
  reader.document.wanted.workersStated = false;
  std::vector<Node> roots;
  for (const Source& source : sources) {
    const std::size_t before = reader.problems.size();
    Node root = readYaml(source.text, source.name, reader.problems);
    // What was read of a file that is no document would only lead to more problems.
    if (reader.problems.size() == before) roots.push_back(std::move(root));
  }
  // Plugins first: with one, classes and drivers that are not known here may be right.
  for (const Node& root : roots) {
    if (root.find("plugins") == nullptr) continue;
    for (const Node& item : root.find("plugins")->children) {
      reader.document.wanted.plugins.insert(item.scalar);
    }
  }
  for (const Node& root : roots) reader.read(root);
  if (!reader.problems.empty()) throw DocumentError(std::move(reader.problems));
  return std::move(reader.document);
}

Document readFiles(const std::vector<std::string>& files, const Offer& offer) {
  std::vector<Source> sources;
  std::vector<Problem> problems;
  const auto unreadable = [&](const std::string& file, const std::string& why) {
    problems.push_back({{file, 1, 1}, "cannot be read: " + why});
  };
  for (const std::string& file : files) {
    if (file == "-") {
      sources.push_back({"standard input", textOf(std::cin)});
      continue;
    }
    std::error_code unknown;
    if (std::filesystem::is_directory(file, unknown)) {  // which opens, and seems to be empty
      unreadable(file, "it is a folder; name its files");
      continue;
    }
    std::ifstream stream(file, std::ios::binary);
    std::string text;
    if (stream) text = textOf(stream);
    if (!stream.is_open() || stream.bad()) unreadable(file, std::strerror(errno));
    sources.push_back({file, std::move(text)});
  }
  if (!problems.empty()) throw DocumentError(std::move(problems));
  return readDocument(sources, offer);
}

}  // namespace Norv::State
