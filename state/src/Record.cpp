#include <algorithm>
#include <cerrno>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include <Bess/Text.h>
#include <Norv/State/Document.h>
#include <Norv/State/Files.h>
#include <Norv/State/Record.h>
#include <bess/pb/service.pb.h>

#include "Modules.h"
#include "PlanBuilder.h"
#include "Target.h"

namespace Norv::State {

namespace {

using Json = nlohmann::ordered_json;

constexpr int format = 1;

constexpr std::pair<Kind, const char*> kindNames[] = {
    {Kind::worker, "worker"},
    {Kind::port, "port"},
    {Kind::module, "module"},
    {Kind::hook, "hook"},
    {Kind::trafficClass, "traffic_class"},
};

// The steps of each change.
std::vector<std::vector<std::size_t>> stepsOf(const Plan& plan) {
  std::vector<std::vector<std::size_t>> steps(plan.changes.size());
  for (std::size_t i = 0; i < plan.steps.size(); ++i) {
    if (plan.steps[i].change != Step::none) steps[plan.steps[i].change].push_back(i);
  }
  return steps;
}

// Whether the command may have changed something.
bool mayHaveChanged(const Execution& execution, std::size_t step) {
  const auto end = execution.end(step);
  if (!end || *end == StepEnd::dropped) return false;
  return *end != StepEnd::refused || execution.plan().steps[step].parts > 1;
}

const char* kindName(Kind kind) {
  for (const auto& [one, name] : kindNames) {
    if (one == kind) return name;
  }
  return "";
}

std::optional<Kind> kindNamed(const std::string& name) {
  for (const auto& [kind, one] : kindNames) {
    if (one == name) return kind;
  }
  return {};
}

std::string bytesIn(const Json& text) {
  auto bytes = Bess::fromBase64(text.get<std::string>());
  if (!bytes) throw std::runtime_error("no base64");
  return *bytes;
}

// What a module tells of itself, whatever commands have changed since.
std::string toldBy(const LiveSwitch& live, const std::string& name, const Module& module) {
  const auto description = live.descriptions.find(name);
  std::string told =
      module.moduleClass + "\n" + (module.arg ? module.arg->SerializeAsString() : "");
  return told + "\n" + (description == live.descriptions.end() ? "" : description->second);
}

// As a document, and beside it the workers that hold tasks.
Json jsonOf(const Unfinished& unfinished) {
  Switch written = unfinished.comesBack;
  // An argument that no document can state would come back as another.
  for (auto& [name, module] : written.modules) {
    if (module.arg && !module.arg->value().empty() && !unpacked(*module.arg)) module.arg.reset();
  }
  return {{"document", json(written)}, {"holding", unfinished.holding}};
}

Unfinished unfinishedOf(const Json& json) {
  return {readDocument({{"record", json.at("document")}}).wanted, json.at("holding")};
}

HookPoint pointIn(const bess::pb::GateHookInfo& hook) {
  const bool output = hook.gate_case() == bess::pb::GateHookInfo::kOgate;
  const auto gate = static_cast<std::uint64_t>(output ? hook.ogate() : hook.igate());
  return {{hook.module_name(), gate}, output, hook.class_name(), hook.hook_name()};
}

bool samePlaces(const Module& there, const Module& wanted) {
  for (std::size_t i = 0; i < wanted.tasks.size(); ++i) {
    if (!wanted.tasks[i]) continue;
    if (i >= there.tasks.size() || !there.tasks[i]) return false;
    if (!samePlace(*there.tasks[i], *wanted.tasks[i])) return false;
  }
  return true;
}

}  // namespace

std::string recordName(const std::string& address) {
  std::string name;
  const std::size_t colon = std::min(address.rfind(':'), address.size());
  const std::string host = address.substr(0, colon);
  const bool here = host == "localhost" || host == "127.0.0.1" || host == "[::1]";
  for (const char c : (here ? "localhost" : host) + address.substr(colon)) {
    const bool plain = std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-';
    name += plain ? c : '_';
  }
  return name + ".json";
}

Record Record::load(const std::string& file, std::string* said) {
  Record record;
  std::ifstream stream(file, std::ios::binary);
  if (!stream.is_open()) {
    if (errno == ENOENT) return record;
    failFile("cannot read", file);
  }
  std::ostringstream text;
  text << stream.rdbuf();
  try {
    const Json json = Json::parse(text.str());
    if (json.at("format") != format) throw std::runtime_error("another format");
    for (const auto& [port, address] : json.at("addresses").items())
      record.addresses_[port] = address;
    for (const Json& one : json.at("objects")) {
      const auto kind = kindNamed(one.at("kind"));
      if (!kind) throw std::runtime_error("an unknown kind of object");
      Entry& entry = record.entries_[{*kind, one.at("name").get<std::string>()}];
      entry.told = bytesIn(one.at("told"));
      entry.doubtful = one.value("doubtful", false);
      entry.wordDoubtful = one.value("word_doubtful", false);
      if (one.contains("word")) entry.word = one.at("word").get<std::string>();
      if (one.contains("arg") && !entry.arg.emplace().ParseFromString(bytesIn(one.at("arg")))) {
        throw std::runtime_error("no argument");
      }
      if (one.contains("settings")) entry.settings = one.at("settings");
      if (!one.contains("table")) continue;
      entry.table.emplace();
      for (const Json& row : one.at("table"))
        (*entry.table)[bytesIn(row.at(0))] = bytesIn(row.at(1));
    }
    if (json.contains("unfinished")) record.unfinished_ = unfinishedOf(json.at("unfinished"));
  } catch (const std::exception& error) {
    const std::string aside = file + ".damaged";
    if (std::rename(file.c_str(), aside.c_str()) != 0) failFile("cannot rename", file);
    if (said != nullptr) {
      *said = file + " is no record (" + error.what() + ") and lies aside as " + aside +
              "; what was applied and the daemon does not tell is not known";
    }
    return Record();
  }
  return record;
}

void Record::save(const std::string& file) const {
  Json json;
  json["format"] = format;
  json["addresses"] = addresses_;
  json["objects"] = Json::array();
  for (const auto& [object, entry] : entries_) {
    Json one;
    one["kind"] = kindName(object.kind);
    one["name"] = object.name;
    one["told"] = Bess::base64(entry.told);
    if (entry.doubtful) one["doubtful"] = true;
    if (entry.word) one["word"] = *entry.word;
    if (entry.wordDoubtful) one["word_doubtful"] = true;
    if (entry.arg) one["arg"] = Bess::base64(entry.arg->SerializeAsString());
    if (!entry.settings.empty()) one["settings"] = entry.settings;
    if (entry.table) {
      Json rows = Json::array();
      for (const auto& [key, row] : *entry.table)
        rows.push_back({Bess::base64(key), Bess::base64(row)});
      one["table"] = std::move(rows);
    }
    json["objects"].push_back(std::move(one));
  }
  if (!unfinished_.empty()) json["unfinished"] = jsonOf(unfinished_);
  const std::string text = json.dump(0, ' ', false, Json::error_handler_t::replace) + "\n";
  replaceFile(file, text);
}

void Record::forgetGone(const LiveSwitch& live) {
  std::set<Object> hooks;
  for (const auto& [point, arg] : live.hooks) hooks.insert(objectOf(point));
  for (const auto& [name, address] : addresses_) {
    if (!live.ports.contains(name)) entries_.erase({Kind::port, name});
  }
  std::erase_if(entries_, [&](const auto& one) {
    const Object& object = one.first;
    const Entry& entry = one.second;
    switch (object.kind) {
      case Kind::module: {
        const auto module = live.modules.find(object.name);
        if (module == live.modules.end()) return true;
        // What is in doubt may be half of another.
        return !entry.doubtful && toldBy(live, object.name, module->second) != entry.told;
      }
      case Kind::port:
        return !live.ports.contains(object.name);
      case Kind::worker:
        return !live.workers.contains(std::atoll(object.name.c_str()));
      case Kind::trafficClass:
        return !live.trafficClasses.contains(object.name);
      case Kind::hook:
        return !hooks.contains(object);
      default:
        return true;
    }
  });
}

void Record::complement(LiveSwitch& live) {
  for (const auto& [name, address] : addresses_) {
    const auto port = live.ports.find(name);
    if (port == live.ports.end() || !port->second.mac || *port->second.mac == address) continue;
    entries_.clear();
    unfinished_ = {};
  }
  if (live.objects() == 0) unfinished_ = {};  // a life that has just begun
  forgetGone(live);
  live.unfinished = unfinished_;
  for (auto& [object, entry] : entries_) {
    if (object.kind == Kind::worker) {
      Worker& worker = live.workers.at(std::atoll(object.name.c_str()));
      if (entry.word) worker.scheduler = entry.word;
      if (entry.wordDoubtful) live.doubtfulSchedulers.insert(std::atoll(object.name.c_str()));
      entry.doubtful = entry.doubtful && !worker.running.value_or(false);
    }
    if (entry.doubtful) {
      live.doubtful.insert(object);
      continue;
    }
    if (object.kind == Kind::module) {
      Module& module = live.modules.at(object.name);
      if (entry.arg) module.arg = entry.arg;
      for (const auto& setting : entry.settings) module.settings.insert(setting);
      if (entry.table && !module.table) module.table = entry.table;
    } else if (object.kind == Kind::port) {
      Port& port = live.ports.at(object.name);
      if (!port.arg) port.arg = entry.arg;
    } else if (object.kind == Kind::trafficClass) {
      TrafficClass& one = live.trafficClasses.at(object.name);
      if (one.resource.empty()) one.resource = entry.word.value_or("");
    }
  }
  for (auto& [point, arg] : live.hooks) {
    const auto entry = entries_.find(objectOf(point));
    if (entry == entries_.end()) continue;
    if (entry->second.doubtful) {
      arg.reset();
    } else if (entry->second.arg) {
      arg = entry->second.arg;
    }
  }
}

// Whether it has something that the daemon will not tell.
bool Record::hidden(const Object& object, const Switch& wanted, const Plan& plan) {
  if (object.kind != Kind::module) return false;
  const auto in = [&](const Switch& stated) {
    const auto module = stated.modules.find(object.name);
    if (module == stated.modules.end()) return false;
    return module->second.table || !module->second.settings.empty();
  };
  return in(wanted) || in(plan.unfinished.comesBack);
}

void Record::enter(const Object& object, Entry entry) {
  if (entry.holdsNothing()) {
    entries_.erase(object);
  } else {
    entries_[object] = std::move(entry);
  }
}

// What there is of the object, to be changed; `change` is what changes it.
Record::Entry& Record::opened(const Object& object, std::size_t change) {
  const auto known = entries_.find(object);
  former_.try_emplace(
      object,
      Former{change, known == entries_.end() ? std::nullopt : std::optional(known->second)});
  return entries_[object];
}

void Record::begin(const Execution& execution, const Switch& wanted) {
  const Plan& plan = execution.plan();
  former_.clear();
  unfinished_ = plan.unfinished;
  const auto steps = stepsOf(plan);
  const auto mayGo = [&](std::size_t step) { return execution.mayGo(step); };
  for (std::size_t i = 0; i < plan.changes.size(); ++i) {
    const bool goes = steps[i].empty() || std::any_of(steps[i].begin(), steps[i].end(), mayGo);
    if (goes) beginChange(plan, i, wanted);
  }
  for (std::size_t i = 0; i < plan.steps.size(); ++i) {
    const Step& step = plan.steps[i];
    if (!step.request || !execution.mayGo(i)) continue;
    if (step.type == configureGateHook) {
      const auto& request = static_cast<const bess::pb::ConfigureGateHookRequest&>(*step.request);
      if (!request.enable()) opened(objectOf(pointIn(request.hook())), step.change).doubtful = true;
    } else if (step.type == pauseWorker && step.change == Step::none) {  // only meanwhile
      const auto id = static_cast<const bess::pb::PauseWorkerRequest&>(*step.request).wid();
      entries_[{Kind::worker, std::to_string(id)}].doubtful = true;
    }
  }
}

void Record::beginChange(const Plan& plan, std::size_t number, const Switch& wanted) {
  const auto& [action, object, details] = plan.changes[number];
  const bool anew = action == Change::Action::recreate;
  const bool inPlace = object.kind == Kind::module && action == Change::Action::change;
  const bool portAnew = object.kind == Kind::port && anew;
  const bool unseen = hidden(object, wanted, plan);
  if (action != Change::Action::remove && (inPlace || unseen || portAnew)) {
    Entry& entry = opened(object, number) = {};
    entry.doubtful = true;
  }
  // A class that is made anew is so for its policy or place, which the daemon tells.
  const bool classAnew = object.kind == Kind::trafficClass && anew;
  if (action == Change::Action::create || classAnew) {
    Entry entry = madeWith(object, wanted);
    if (!entry.holdsNothing()) opened(object, number) = std::move(entry);
  }
  // Another address of a port that is made anew is no sign of another life.
  if (object.kind == Kind::port && action != Change::Action::change) addresses_.erase(object.name);
  if (object.kind == Kind::worker && anew) {
    Entry& entry = opened(object, number);
    entry.word.reset();
    entry.wordDoubtful = true;
  }
}

// What an object is made with in one command holds if it is there afterwards.
Record::Entry Record::madeWith(const Object& object, const Switch& wanted) {
  Entry entry;
  if (object.kind == Kind::port) {
    const auto port = wanted.ports.find(object.name);
    if (port != wanted.ports.end()) entry.arg = port->second.arg;
  } else if (object.kind == Kind::trafficClass) {
    const auto one = wanted.trafficClasses.find(object.name);
    const bool stated = one != wanted.trafficClasses.end() && !one->second.resource.empty();
    if (stated) entry.word = one->second.resource;
  } else if (object.kind == Kind::worker) {
    const auto worker = wanted.workers.find(std::atoll(object.name.c_str()));
    if (worker != wanted.workers.end()) entry.word = worker->second.scheduler.value_or("");
  }
  return entry;
}

// A worker that was paused for a change that was cut short is in doubt until it runs again, or
// shall not.
void Record::keepDoubtOfWorkers(const std::set<Object>& doubtful, const Switch& wanted,
                                const LiveSwitch& after) {
  for (const Object& object : doubtful) {
    const auto id = std::atoll(object.name.c_str());
    const auto live = after.workers.find(id);
    const auto stated = wanted.workers.find(id);
    const bool shallPause =
        stated != wanted.workers.end() && !stated->second.running.value_or(true);
    const bool stands = live != after.workers.end() && !live->second.running.value_or(false);
    Entry& entry = entries_[object];
    entry.doubtful = stands && !shallPause;
    if (entry.holdsNothing()) entries_.erase(object);
  }
}

Record::Entry Record::entryOf(const Object& object, const Switch& wanted, const LiveSwitch& after) {
  Entry entry;
  if (object.kind == Kind::module) {
    const Module& stated = wanted.modules.at(object.name);
    const Module& told = after.modules.at(object.name);
    entry.told = toldBy(after, object.name, told);
    if (stated.arg) {
      const auto one = fullArgument(stated);
      const auto other = fullArgument(told);
      const bool agrees = one && other ? serialized(*one) == serialized(*other)
                                       : told.arg && same(*stated.arg, *told.arg);
      if (!agrees) entry.arg = stated.arg;
    }
    for (const auto& setting : stated.settings) {
      if (!told.settings.contains(setting.first)) entry.settings.insert(setting);
    }
    if (!told.table) entry.table = stated.table;
  } else if (object.kind == Kind::port) {
    if (!after.ports.at(object.name).arg) entry.arg = wanted.ports.at(object.name).arg;
  } else if (object.kind == Kind::worker) {
    entry.word = wanted.workers.at(std::atoll(object.name.c_str())).scheduler;
  } else if (object.kind == Kind::trafficClass) {
    const std::string& stated = wanted.trafficClasses.at(object.name).resource;
    if (after.trafficClasses.at(object.name).resource.empty() && !stated.empty()) {
      entry.word = stated;
    }
  }
  return entry;
}

std::vector<Execution::State> Record::settled(const Execution& execution, const LiveSwitch& after,
                                              const Switch& wanted, const PlanOptions& options) {
  const Plan& plan = execution.plan();
  std::vector<Execution::State> states = execution.states();
  const auto unclear = [](const auto& state) {
    return state.kind == Execution::State::Kind::unclear;
  };
  if (std::none_of(states.begin(), states.end(), unclear)) return states;
  std::set<Object> open;
  for (const Change& change : makePlan(after, wanted, options).changes) open.insert(change.object);
  for (std::size_t i = 0; i < plan.steps.size(); ++i) {
    const Step& step = plan.steps[i];
    if (step.type != moduleCommand || execution.end(i) != StepEnd::unclear) continue;
    const Object& object = plan.changes[step.change].object;
    if (hidden(object, wanted, plan)) open.insert(object);
  }
  for (std::size_t i = 0; i < states.size(); ++i) {
    if (unclear(states[i]) && !open.contains(plan.changes[i].object)) states[i] = {};
  }
  return states;
}

// Of what was not done: as it was, where nothing can have changed; else as far as it is known.
void Record::endOpened(const Execution& execution, const std::vector<Execution::State>& states,
                       const Switch& wanted, const LiveSwitch& after) {
  const Plan& plan = execution.plan();
  const auto steps = stepsOf(plan);
  const auto changed = [&](std::size_t step) { return mayHaveChanged(execution, step); };
  for (auto& [object, former] : former_) {
    if (states[former.change].kind == Execution::State::Kind::done) continue;
    const auto& own = steps[former.change];
    std::optional<Entry> known;
    if (std::none_of(own.begin(), own.end(), changed)) {
      known = former.entry.value_or(Entry());
    } else if (object.kind == Kind::module && after.modules.contains(object.name)) {
      const bool stated = wanted.modules.contains(object.name);
      const Switch& goal = stated ? wanted : plan.unfinished.comesBack;
      const bool whole = goal.modules.contains(object.name);
      if (whole)
        known = partly(execution, own, object, former.entry.value_or(Entry()), goal, after);
    }
    if (known) enter(object, std::move(*known));
  }
  former_.clear();
}

namespace {

// What commands have made of a table; none: it is not known.
void carryOut(const TableEdit& edit, const Entries& rows, std::optional<Entries>& table) {
  if (edit.clears) table.emplace();
  if (!table) return;
  for (const std::string& key : edit.removed) table->erase(key);
  for (const std::string& key : edit.added) (*table)[key] = rows.at(key);
}

}  // namespace

// A module of which some commands were done and others were not; none: what it is now is not known.
std::optional<Record::Entry> Record::partly(const Execution& execution,
                                            const std::vector<std::size_t>& steps,
                                            const Object& object, Entry former, const Switch& goal,
                                            const LiveSwitch& after) {
  const Module& stated = goal.modules.at(object.name);
  std::optional<Entries> table = former.doubtful ? std::nullopt : former.table;
  bool made = false;
  std::size_t edits = 0, set = 0, unset = 0;
  for (const std::size_t step : steps) {
    const Step& what = execution.plan().steps[step];
    const bool done = execution.end(step) == StepEnd::done;
    const bool own =
        what.type == moduleCommand || what.type == createModule || what.type == destroyModule;
    if (own && !done && mayHaveChanged(execution, step)) return {};
    if (what.type == createModule && done) {
      made = true;
      former = {};
      table.emplace();
    } else if (what.type == moduleCommand && stated.table && !what.edit.empty()) {
      ++edits;
      if (done) carryOut(what.edit, *stated.table, table);
    } else if (what.type == moduleCommand) {
      ++(done ? set : unset);
    }
  }
  // What it was made with, or set to, is as stated when nothing of it is missing.
  const bool asStated = made || set != 0 || former.doubtful;
  if (asStated && unset != 0) return {};
  if (edits != 0 && !table) return {};
  Entry entry = entryOf(object, goal, after);
  if (!asStated) {
    entry.arg = former.arg;
    entry.settings = former.settings;
  }
  const bool tabled = edits != 0 || (made && stated.table);
  if (!after.modules.at(object.name).table) entry.table = tabled ? table : former.table;
  return entry;
}

// Of the hooks that were put there, the argument is known; of the others, nothing new.
void Record::endHooks(const Plan& plan, const std::vector<Execution::State>& states,
                      const LiveSwitch& after) {
  for (const Step& step : plan.steps) {
    if (step.type != configureGateHook || !step.request) continue;
    const auto& request = static_cast<const bess::pb::ConfigureGateHookRequest&>(*step.request);
    const bool done = states[step.change].kind == Execution::State::Kind::done;
    if (!request.enable() || !done) continue;
    const auto there = matching(after.hooks, pointIn(request.hook()));
    if (there == after.hooks.end()) continue;
    Entry& entry = entries_[objectOf(there->first)] = {};
    entry.arg = request.hook().arg();
  }
}

// What is there again is no longer missing.
void Record::endUnfinished(const std::vector<Execution::State>& states, const LiveSwitch& after) {
  Switch& back = unfinished_.comesBack;
  std::erase_if(unfinished_.holding, [&](auto id) { return !after.workers.contains(id); });
  const bool allDone = std::all_of(states.begin(), states.end(), [](const auto& state) {
    return state.kind == Execution::State::Kind::done;
  });
  if (allDone) back = Switch();
  std::erase_if(back.workers, [&](const auto& one) {
    const auto there = after.workers.find(one.first);
    if (there == after.workers.end()) return false;
    return there->second.running.value_or(false) || !one.second.running.value_or(false);
  });
  std::erase_if(back.trafficClasses,
                [&](const auto& one) { return after.trafficClasses.contains(one.first); });
  std::erase_if(back.connections,
                [&](const auto& one) { return after.connections.contains(one.first); });
  std::erase_if(back.hooks, [&](const auto& one) { return matches(after.hooks, one.first); });
  std::erase_if(back.modules, [&](const auto& one) {
    const auto there = after.modules.find(one.first);
    return there != after.modules.end() && samePlaces(there->second, one.second);
  });
  if (back.objects() == back.plugins.size()) back = Switch();
}

void Record::end(const Execution& execution, const std::vector<Execution::State>& states,
                 const Switch& wanted, const LiveSwitch& after) {
  const Plan& plan = execution.plan();
  endOpened(execution, states, wanted, after);
  std::set<Object> pausedWorkers;
  for (const auto& [object, entry] : entries_) {
    if (object.kind == Kind::worker && entry.doubtful) pausedWorkers.insert(object);
  }
  std::set<Object> failed, made, changed;
  for (std::size_t i = 0; i < plan.changes.size(); ++i) {
    const Change& change = plan.changes[i];
    const bool done = states[i].kind == Execution::State::Kind::done;
    if (!done) failed.insert(change.object);
    if (done) (change.action == Change::Action::change ? changed : made).insert(change.object);
  }
  // What was assumed and not touched is not known to be so.
  std::map<Object, std::set<std::string>> assumed;
  for (const Assumed& one : plan.assumed) assumed[one.object].insert(one.what);
  const auto enterStated = [&](const Object& object, const Switch& stated) {
    if (failed.contains(object)) return;
    const auto unknown = made.contains(object) ? assumed.end() : assumed.find(object);
    const bool inPlace = object.kind == Kind::module && changed.contains(object);
    if (unknown != assumed.end() && !inPlace) return;
    Entry entry = entryOf(object, stated, after);
    if (unknown != assumed.end()) {
      for (const std::string& what : unknown->second) entry.forget(what);
    }
    enter(object, std::move(entry));
  };
  for (const auto& [name, module] : wanted.modules) {
    if (after.modules.contains(name)) enterStated({Kind::module, name}, wanted);
  }
  for (const auto& [name, module] : unfinished_.comesBack.modules) {
    const bool whole = module.arg && !wanted.modules.contains(name);
    if (whole && after.modules.contains(name)) {
      enterStated({Kind::module, name}, unfinished_.comesBack);
    }
  }
  for (const auto& [name, port] : wanted.ports) {
    if (after.ports.contains(name)) enterStated({Kind::port, name}, wanted);
  }
  for (const auto& [id, worker] : wanted.workers) {
    const Object object{Kind::worker, std::to_string(id)};
    // Of one that states none, what it was made with counts on.
    if (after.workers.contains(id) && worker.scheduler) enterStated(object, wanted);
  }
  for (const Step& step : plan.steps) {
    if (step.type != addWorker || !step.request) continue;
    const auto& request = static_cast<const bess::pb::AddWorkerRequest&>(*step.request);
    const Object object{Kind::worker, std::to_string(request.wid())};
    if (plan.changes[step.change].object != object || failed.contains(object)) continue;
    entries_[object].word = request.scheduler();
    entries_[object].wordDoubtful = false;
  }
  keepDoubtOfWorkers(pausedWorkers, wanted, after);
  for (const auto& [name, one] : wanted.trafficClasses) {
    if (after.trafficClasses.contains(name)) enterStated({Kind::trafficClass, name}, wanted);
  }
  endHooks(plan, states, after);
  endUnfinished(states, after);
  addresses_.clear();
  for (const auto& [name, port] : after.ports) {
    if (port.mac) addresses_[name] = *port.mac;
  }
}

}  // namespace Norv::State
