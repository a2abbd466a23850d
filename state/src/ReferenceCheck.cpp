#include <algorithm>

#include <Norv/State/ClassTable.h>
#include <Norv/State/Document.h>
#include <Norv/State/LiveSwitch.h>

#include "Modules.h"
#include "Values.h"

// What a document refers to, and whether what it says goes together.

namespace Norv::State {

namespace {

class ReferenceCheck {
 public:
  ReferenceCheck(const Document& document, const LiveSwitch* live, bool prune)
      : document_(document), wanted_(document.wanted), all_(live), live_(prune ? nullptr : live) {}

  std::vector<Problem> problems;

  void run() {
    for (const auto& [name, module] : wanted_.modules) checkModule(name, module);
    for (const auto& [from, to] : wanted_.connections) checkConnection(from, to);
    for (const auto& [name, entered] : wanted_.trafficClasses) {
      const Mark& mark = document_.marks.at({Kind::trafficClass, name});
      checkPlace("traffic class " + name, entered.place, mark);
      checkCycle(name, mark);
    }
    for (const auto& [point, arg] : wanted_.hooks) checkHook(point);
    checkRoom();
  }

 private:
  const Module* module(const std::string& name) const { return find(name, &Switch::modules); }
  const TrafficClass* trafficClass(const std::string& name) const {
    return find(name, &Switch::trafficClasses);
  }

  template <class Map>
  const typename Map::mapped_type* find(const typename Map::key_type& name,
                                        Map Switch::*member) const {
    const auto found = (wanted_.*member).find(name);
    if (found != (wanted_.*member).end()) return &found->second;
    if (live_ == nullptr) return nullptr;
    const auto there = (live_->*member).find(name);
    return there == (live_->*member).end() ? nullptr : &there->second;
  }

  // With the nearest name there is, as long as somebody looks at it.
  template <class Map>
  std::string missing(const std::string& what, const std::string& name, Map Switch::*member) {
    std::string text =
        "no " + what + " \"" + name + "\"" + (live_ ? " here or on the switch" : " here");
    if (problems.size() >= shownProblems) return text;
    std::vector<std::string>& names = names_[what];
    if (names.empty()) {
      for (const auto& one : wanted_.*member) names.push_back(one.first);
      if (live_ != nullptr) {
        for (const auto& one : live_->*member) names.push_back(one.first);
      }
    }
    return text + didYouMean(name, names);
  }

  void checkModule(const std::string& name, const Module& entered) {
    const Mark& mark = document_.marks.at({Kind::module, name});
    const std::string port = portOf(entered);
    if (!port.empty() && find(port, &Switch::ports) == nullptr) {
      problems.push_back({mark, "module " + name + ": " + missing("port", port, &Switch::ports)});
    }
    for (const auto& place : entered.tasks) {
      if (place) checkPlace("module " + name, *place, mark);
    }
  }

  void checkGate(const Gate& gate, bool output, const Mark& mark) {
    const Module* entered = module(gate.module);
    if (entered == nullptr) {
      problems.push_back({mark, missing("module", gate.module, &Switch::modules)});
      return;
    }
    const ClassRow* row = classRow(entered->moduleClass);
    if (row == nullptr || gate.number < (output ? row->outputs : row->inputs)) return;
    const std::uint32_t limit = output ? row->outputs : row->inputs;
    problems.push_back(
        {mark,
         "module " + gate.module + " has no " + (output ? "output " : "input ") +
             std::to_string(gate.number) + ": class " + entered->moduleClass + " has " +
             (limit == 0 ? "none"
                         : std::to_string(limit) + ", the last is " + std::to_string(limit - 1))});
  }

  void checkConnection(const Gate& from, const Gate& to) {
    const Mark& mark = document_.marks.at(objectOf(from));
    checkGate(from, true, mark);
    checkGate(to, false, mark);
  }

  void checkHook(const HookPoint& point) {
    const auto mark = document_.marks.find(objectOf(point));
    if (mark == document_.marks.end()) return;  // a connection's own
    if (module(point.gate.module) == nullptr) {
      problems.push_back({mark->second, missing("module", point.gate.module, &Switch::modules)});
      return;
    }
    if (connected(point)) return;
    problems.push_back({mark->second, "a hook needs a connection: nothing is connected to " +
                                          std::string(point.output ? "output " : "input ") +
                                          point.gate.module + ":" +
                                          std::to_string(point.gate.number)});
  }

  bool connected(const HookPoint& point) {
    if (point.output) {
      return wanted_.connections.contains(point.gate) ||
             (live_ != nullptr && live_->connections.contains(point.gate));
    }
    if (!inputs_) {
      inputs_.emplace();
      for (const auto& [from, to] : wanted_.connections) inputs_->insert(to);
      if (live_ != nullptr) {
        for (const auto& [from, to] : live_->connections) inputs_->insert(to);
      }
    }
    return inputs_->contains(point.gate);
  }

  bool hasWorker(std::int64_t id) const {
    if (wanted_.workersStated) return find(id, &Switch::workers) != nullptr;
    if (all_ == nullptr) return true;  // as far as can be told
    const auto& comingBack = all_->unfinished.comesBack.workers;
    if (all_->workers.contains(id) || comingBack.contains(id)) return true;
    // Where there is none, the daemon launches its first.
    return id == 0 && all_->workers.empty() && comingBack.empty();
  }

  void checkPlace(const std::string& what, const Place& place, const Mark& mark) {
    if (place.worker >= 0 && !hasWorker(place.worker)) {
      const bool looked = wanted_.workersStated ? live_ != nullptr : all_ != nullptr;
      problems.push_back({mark, what + ": no worker " + std::to_string(place.worker) + " here" +
                                    (looked ? " or on the switch" : "") +
                                    "; state it under \"workers\""});
    }
    if (place.parent.empty()) return;
    const TrafficClass* parent = trafficClass(place.parent);
    if (parent == nullptr) {
      problems.push_back(
          {mark, what + ": " + missing("traffic class", place.parent, &Switch::trafficClasses)});
      return;
    }
    if (parent->policy == "priority" && place.priority && *place.priority < 0) {
      problems.push_back({mark, what + ": a \"priority\" is 0 or more"});
    }
    if (parent->policy == "weighted_fair" && place.share && *place.share < 1) {
      problems.push_back({mark, what + ": a \"share\" is 1 or more"});
    } else if (const std::string field = lacking(place, parent->policy); !field.empty()) {
      problems.push_back({mark, what + " needs a \"" + field + "\" below " + place.parent});
    }
  }

  // A rate_limit class takes one child, a priority class one at each priority.
  void checkRoom() {
    std::map<std::pair<std::string, std::optional<std::int64_t>>, std::string> taken;
    const auto take = [&](const Place& place, const Object& object) {
      const TrafficClass* parent = trafficClass(place.parent);
      if (parent == nullptr) return;
      const bool priorities = parent->policy == "priority" && place.priority;
      if (!priorities && parent->policy != "rate_limit") return;
      const auto [first, isFirst] = taken.emplace(
          std::pair(place.parent, priorities ? place.priority : std::nullopt), text(object));
      if (isFirst) return;
      problems.push_back({document_.marks.at(object),
                          text(object) + ": " + first->second + " is below " + place.parent +
                              (priorities ? " at this priority, too" : ", and it takes one only")});
    };
    for (const auto& [name, one] : wanted_.trafficClasses) {
      take(one.place, {Kind::trafficClass, name});
    }
    for (const auto& [name, module] : wanted_.modules) {
      for (const auto& place : module.tasks) {
        if (place) take(*place, {Kind::module, name});
      }
    }
  }

  void checkCycle(const std::string& name, const Mark& mark) {
    std::set<std::string> seen;
    std::string at = name;
    while (!at.empty()) {
      if (!seen.insert(at).second) {
        if (at == name) problems.push_back({mark, "traffic class " + name + " is below itself"});
        return;
      }
      const auto found = wanted_.trafficClasses.find(at);
      at = found == wanted_.trafficClasses.end() ? "" : found->second.place.parent;
    }
  }

  const Document& document_;
  const Switch& wanted_;
  const LiveSwitch* const all_;                            // null: not known
  const LiveSwitch* const live_;                           // what of it stays; null: nothing
  std::map<std::string, std::vector<std::string>> names_;  // of what there is, by what it is
  std::optional<std::set<Gate>> inputs_;                   // that something leads to
};

}  // namespace

std::vector<Problem> checkReferences(const Document& document, const LiveSwitch* live, bool prune) {
  ReferenceCheck check(document, live, prune);
  check.run();
  return std::move(check.problems);
}

std::vector<std::string> gateWarnings(const Switch& wanted) {
  std::vector<std::string> warnings;
  for (const auto& [name, module] : wanted.modules) {
    const ClassRow* row = classRow(module.moduleClass);
    if (row == nullptr) continue;
    const std::string last =
        ", and the last of class " + module.moduleClass + " is " + std::to_string(row->outputs - 1);
    const std::string who = "module " + name + ": its ";
    for (const std::int64_t gate : gatesBeyond(module)) {
      warnings.push_back(who + "argument names gate " + std::to_string(gate) + last);
    }
    const auto gate = module.settings.find("default_gate");
    const bool beyond =
        gate != module.settings.end() && gate->second >= row->outputs && gate->second != dropGate;
    if (beyond) {
      warnings.push_back(who + "default gate is " + std::to_string(gate->second) + last +
                         "; drop says that none is meant");
    }
  }
  return warnings;
}

}  // namespace Norv::State
