#include "Status.h"

#include <nlohmann/json.hpp>

namespace Norvd {

using Json = nlohmann::ordered_json;
using Norv::State::Change;

const char* standingName(Standing standing) {
  static constexpr const char* names[standings] = {"in sync",     "pending",   "refused", "blocked",
                                                   "quarantined", "contested", "differs"};
  return names[static_cast<std::size_t>(standing)];
}

namespace {

// Text of a switch need not be UTF-8.
std::string written(const Json& json) {
  return json.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json queueJson(const QueueStatus& queue) {
  return {{"depth", queue.now}, {"maximum", queue.maximum}};
}

}  // namespace

std::string statusJson(const Status& status) {
  Json json;
  json["in_sync"] = status.inSync;
  json["state"] = status.sentence;
  json["since"] = text(status.since);
  json["daemon"] = {{"address", status.address}, {"version", status.version}};
  json["document"] = status.document;
  json["observes"] = status.observes;
  json["notices"] = status.notices;
  json["started"] = text(status.started);
  json["restarts"] = status.restarts;
  json["under_way"] = nullptr;
  if (const auto& one = status.underWay) {
    json["under_way"] = {{"command", one->command},
                         {"object", one->object},
                         {"since", text(one->since)},
                         {"seconds", one->seconds}};
  }
  json["queues"] = Json::object();
  for (const auto& [name, queue] : status.queues) json["queues"][name] = queueJson(queue);
  json["pending"] = queueJson(status.pending);
  json["outcomes"] = Json::object();
  for (std::size_t i = 0; i < Norv::Agent::outcomes; ++i) {
    json["outcomes"][outcomeName(static_cast<Norv::Agent::Outcome>(i))] = status.outcomes[i];
  }
  json["failures"] = Json::array();
  for (const Event& one : status.failures) {
    json["failures"].push_back({{"time", text(one.time)}, {"text", one.text}});
  }
  json["counts"] = Json::object();
  Json::object_t objects;  // filled as the vector it is: a look at each key would be quadratic
  if (status.picture) {
    json["compared"] = text(status.picture->time);
    for (std::size_t i = 0; i < standings; ++i) {
      json["counts"][standingName(static_cast<Standing>(i))] = status.picture->counts[i];
    }
    for (const auto& [object, one] : status.picture->objects) {
      Json entry = {{"state", standingName(one.standing)}};
      if (!one.text.empty()) entry["text"] = one.text;
      if (one.standing != Standing::inSync) entry["since"] = text(one.since);
      objects.emplace_back(Norv::State::text(object), std::move(entry));
    }
  }
  json["objects"] = std::move(objects);
  return written(json);
}

std::string planJson(const Picture& picture) {
  static constexpr const char* actions[] = {"create", "change", "recreate", "delete"};
  Json json;
  json["changes"] = Json::array();
  json["commands"] = picture.plan ? picture.plan->commands() : 0;
  if (!picture.plan) return written(json);
  for (const Change& change : picture.plan->changes) {
    json["changes"].push_back({{"object", Norv::State::text(change.object)},
                               {"action", actions[static_cast<int>(change.action)]},
                               {"details", change.details}});
  }
  json["left_alone"] = picture.plan->leftAlone;
  json["assumed"] = Json::array();
  for (const auto& one : picture.plan->assumed) json["assumed"].push_back(text(one));
  json["warnings"] = picture.plan->warnings;
  json["pauses"] = picture.plan->pauses;
  return written(json);
}

std::map<Norv::State::Gate, Picture::Rate> ratesOf(const Norv::State::LiveSwitch* before,
                                                   const Norv::State::LiveSwitch& now) {
  std::map<Norv::State::Gate, Picture::Rate> rates;
  if (before == nullptr) return rates;
  for (const auto& [gate, traffic] : now.traffic) {
    const auto former = before->traffic.find(gate);
    if (former == before->traffic.end()) continue;
    const double seconds = traffic.time - former->second.time;
    // Counters begin anew with a connection.
    if (seconds <= 0 || traffic.packets < former->second.packets) continue;
    rates[gate] = {static_cast<double>(traffic.packets - former->second.packets) / seconds,
                   static_cast<double>(traffic.bytes - former->second.bytes) * 8 / seconds};
  }
  return rates;
}

}  // namespace Norvd
