#include "Values.h"

#include <nlohmann/json.hpp>

#include <Norv/State/Document.h>

#include "agent/ObjectNames.h"

namespace Norvd {

using Norv::State::Kind;
using Norv::State::Object;
using Norv::State::Switch;

std::vector<Object> objectsOf(const Switch& wanted) {
  std::vector<Object> objects;
  for (const std::string& path : wanted.plugins) objects.push_back({Kind::plugin, path});
  for (const auto& [id, worker] : wanted.workers) {
    objects.push_back({Kind::worker, std::to_string(id)});
  }
  for (const auto& [name, port] : wanted.ports) objects.push_back({Kind::port, name});
  for (const auto& [name, module] : wanted.modules) objects.push_back({Kind::module, name});
  for (const auto& [from, to] : wanted.connections) objects.push_back(objectOf(from));
  for (const auto& [point, arg] : wanted.hooks) {
    // What comes with a connection is part of it.
    const bool usual = point.output && wanted.connections.contains(point.gate) &&
                       point.hookClass == Norv::State::defaultHookClass;
    if (!usual) objects.push_back(objectOf(point));
  }
  for (const auto& [name, one] : wanted.trafficClasses) {
    objects.push_back({Kind::trafficClass, name});
  }
  return objects;
}

std::map<Object, std::string> valuesOf(const Switch& wanted, const std::set<Object>& objects) {
  std::map<Object, std::string> values;
  for (const Object& object : objects) values[object] = "absent";
  const auto enter = [&](const Object& object, const auto& from, auto Switch::*section) {
    if (!objects.contains(object)) return;
    Switch alone;
    (alone.*section).insert(from);
    values[object] = Norvctl::fingerprint(yaml(alone));
  };
  for (const auto& one : wanted.plugins) enter({Kind::plugin, one}, one, &Switch::plugins);
  for (const auto& one : wanted.workers) {
    enter({Kind::worker, std::to_string(one.first)}, one, &Switch::workers);
  }
  for (const auto& one : wanted.ports) enter({Kind::port, one.first}, one, &Switch::ports);
  for (const auto& one : wanted.modules) enter({Kind::module, one.first}, one, &Switch::modules);
  for (const auto& one : wanted.connections) {
    enter(objectOf(one.first), one, &Switch::connections);
  }
  for (const auto& one : wanted.hooks) enter(objectOf(one.first), one, &Switch::hooks);
  for (const auto& one : wanted.trafficClasses) {
    enter({Kind::trafficClass, one.first}, one, &Switch::trafficClasses);
  }
  return values;
}

std::string written(const DeathNote& note) {
  const nlohmann::json json = {
      {"object", note.object}, {"value", note.value}, {"command", note.command}};
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::optional<DeathNote> parsedDeathNote(const std::string& note) {
  const auto json = nlohmann::json::parse(note, nullptr, false);
  const auto word = [&](const char* name) -> std::optional<std::string> {
    if (!json.is_object() || !json.contains(name) || !json[name].is_string()) return {};
    return json[name].get<std::string>();
  };
  const auto object = word("object"), value = word("value"), command = word("command");
  if (!object || object->empty() || !value || !command) return {};
  return DeathNote{*object, *value, *command};
}

}  // namespace Norvd
