#include "Tables.h"

#include <algorithm>
#include <map>

#include "../protocol/Requests.h"
#include "../text/Text.h"
#include "Live.h"

namespace Norvctl {

namespace {

namespace pb = bess::pb;
using nlohmann::ordered_json;
using Cell = Table::Cell;
using Column = Table::Column;
using Tone = Table::Tone;

constexpr auto right = Table::Align::right;

ordered_json jsonOf(const google::protobuf::Message& message) {
  return ordered_json::parse(messageJson(message, true));
}

std::string numberOr(const std::optional<unsigned long long>& number, const char* none) {
  return number ? std::to_string(*number) : none;
}

Cell dropCell(unsigned long long drops) {
  return {grouped(drops), drops ? Tone::warning : Tone::plain};
}

std::string speedText(const pb::GetLinkStatusResponse& link) {
  if (link.speed() == 0) return "-";
  return scaled(link.speed() * 1e6) + "bit/s" + (link.full_duplex() ? "" : " half");
}

Table portTable(Direct& direct) {
  Table table({{"port"},
               {"driver"},
               {"link"},
               {"speed", right},
               {"admin"},
               {"MTU", right},
               {"MAC"},
               {"queues in/out"},
               {"in packets", right},
               {"in dropped", right},
               {"out packets", right},
               {"out dropped", right}});
  for (const LivePort& port : readPorts(direct)) {
    const bool up = port.link.link_up();
    const bool conf = port.conf.has_value();
    const bool enabled = conf && port.conf->admin_up();
    table.add({escaped(port.name),
               escaped(port.driver),
               {up ? "up" : "down", up ? Tone::good : Tone::bad},
               speedText(port.link),
               {!conf     ? "-"
                : enabled ? "up"
                          : "down",
                conf && !enabled ? Tone::warning : Tone::plain},
               conf ? std::to_string(port.conf->mtu()) : "-",
               escaped(port.macAddress),
               numberOr(port.inQueues, "-") + "/" + numberOr(port.outQueues, "-"),
               grouped(port.stats.inc().packets()),
               dropCell(port.stats.inc().dropped()),
               grouped(port.stats.out().packets()),
               dropCell(port.stats.out().dropped())});
  }
  return table;
}

ordered_json portJson(Direct& direct) {
  ordered_json all = ordered_json::array();
  for (const LivePort& port : readPorts(direct)) {
    ordered_json one = {{"name", port.name}, {"driver", port.driver}, {"macAddr", port.macAddress}};
    const auto put = [&](const char* key, const std::optional<unsigned long long>& number) {
      if (number) one[key] = *number;
    };
    put("numIncQ", port.inQueues);
    put("numOutQ", port.outQueues);
    put("sizeIncQ", port.inSize);
    put("sizeOutQ", port.outSize);
    if (port.conf) one["conf"] = jsonOf(*port.conf);
    one["link"] = jsonOf(port.link);
    one["stats"] = jsonOf(port.stats);
    all.push_back(one);
  }
  return all;
}

Table moduleTable(Direct& direct) {
  Table table({{"module"}, {"class"}, {"gates in", right}, {"gates out", right}, {"description"}});
  for (const auto& module : readModules(direct)) {
    const bool alone = module.igates().empty() && module.ogates().empty();
    table.add({{escaped(module.name()), alone ? Tone::warning : Tone::plain},
               escaped(module.mclass()),
               std::to_string(module.igates_size()),
               std::to_string(module.ogates_size()),
               escaped(module.desc())});
  }
  return table;
}

ordered_json moduleJson(Direct& direct) {
  ordered_json all = ordered_json::array();
  for (const auto& module : readModules(direct)) all.push_back(jsonOf(module));
  return all;
}

std::string limitText(const pb::TrafficClass& tc) {
  std::map<std::string, long long> limits(tc.limit().begin(), tc.limit().end());
  std::string text;
  for (const auto& [resource, limit] : limits) {
    if (limit == 0) continue;
    text += (text.empty() ? "" : ", ") + scaled(static_cast<double>(limit)) + " " +
            escaped(resource) + "/s";
  }
  return text.empty() ? "-" : text;
}

std::string placeText(const pb::TrafficClass& tc) {
  if (tc.arg_case() == pb::TrafficClass::kPriority) {
    return "priority " + std::to_string(tc.priority());
  }
  if (tc.arg_case() == pb::TrafficClass::kShare) return "share " + std::to_string(tc.share());
  return "-";
}

// Children below their parents, indented.
Table tcTable(Direct& direct) {
  Table table(
      {{"traffic class"}, {"policy"}, {"resource"}, {"limit", right}, {"place"}, {"worker"}});
  const auto all = readTcs(direct);
  std::multimap<std::string, const pb::ListTcsResponse::TrafficClassStatus*> children;
  std::map<std::string, bool> known;
  for (const auto& one : all) known[one.class_().name()] = true;
  for (const auto& one : all) children.emplace(known.count(one.parent()) ? one.parent() : "", &one);
  const auto add = [&](const auto& self, const std::string& parent, int depth) -> void {
    constexpr int deepest = 64;
    if (depth > deepest) return;
    const auto [first, last] = children.equal_range(parent);
    for (auto one = first; one != last; ++one) {
      const pb::TrafficClass& tc = one->second->class_();
      const bool unattached = depth == 0 && tc.wid() < 0;
      table.add({{std::string(static_cast<std::size_t>(2 * depth), ' ') + escaped(tc.name()),
                  tc.blocked() ? Tone::warning : Tone::plain},
                 escaped(tc.policy()),
                 tc.resource().empty() ? "-" : escaped(tc.resource()),
                 limitText(tc),
                 placeText(tc),
                 {unattached   ? "not attached"
                  : depth == 0 ? std::to_string(tc.wid())
                               : "",
                  unattached ? Tone::warning : Tone::plain}});
      if (!tc.name().empty()) self(self, tc.name(), depth + 1);
    }
  };
  add(add, "", 0);
  return table;
}

ordered_json tcJson(Direct& direct) {
  ordered_json all = ordered_json::array();
  for (const auto& one : readTcs(direct)) all.push_back(jsonOf(one));
  return all;
}

Table workerTable(Direct& direct) {
  Table table({{"worker", right},
               {"core", right},
               {"state"},
               {"traffic classes", right},
               {"packets lost at free gates", right}});
  for (const auto& worker : readWorkers(direct)) {
    const bool running = worker.running();
    table.add({std::to_string(worker.wid()), std::to_string(worker.core()),
               Cell{running ? "running" : "paused", running ? Tone::good : Tone::warning},
               std::to_string(worker.num_tcs()),
               dropCell(static_cast<unsigned long long>(worker.silent_drops()))});
  }
  return table;
}

ordered_json workerJson(Direct& direct) {
  ordered_json all = ordered_json::array();
  for (const auto& worker : readWorkers(direct)) all.push_back(jsonOf(worker));
  return all;
}

pb::GetDriverInfoResponse driverInfo(Direct& direct, const std::string& name) {
  pb::GetDriverInfoRequest request;
  request.set_driver_name(name);
  return direct.ask<pb::GetDriverInfoResponse>(Norv::getDriverInfo, request);
}

Table driverTable(Direct& direct) {
  Table table({{"driver"}, {"what it is"}});
  for (const std::string& name : readDriverNames(direct)) {
    table.add({escaped(name), escaped(driverInfo(direct, name).help())});
  }
  return table;
}

ordered_json driverJson(Direct& direct) {
  ordered_json all = ordered_json::array();
  for (const std::string& name : readDriverNames(direct)) {
    all.push_back(jsonOf(driverInfo(direct, name)));
  }
  return all;
}

pb::GetMclassInfoResponse classInfo(Direct& direct, const std::string& name) {
  pb::GetMclassInfoRequest request;
  request.set_name(name);
  return direct.ask<pb::GetMclassInfoResponse>(Norv::getMclassInfo, request);
}

Table classTable(Direct& direct) {
  Table table({{"class"}, {"what it does"}, {"commands"}});
  for (const std::string& name : readClassNames(direct)) {
    const auto info = classInfo(direct, name);
    std::string commands;
    for (const std::string& command : info.cmds()) {
      commands += (commands.empty() ? "" : " ") + escaped(command);
    }
    table.add({escaped(name), escaped(info.help()), commands});
  }
  return table;
}

ordered_json classJson(Direct& direct) {
  ordered_json all = ordered_json::array();
  for (const std::string& name : readClassNames(direct)) {
    all.push_back(jsonOf(classInfo(direct, name)));
  }
  return all;
}

Table pluginTable(Direct& direct) {
  Table table({{"plugin"}});
  for (const std::string& path : readPlugins(direct)) table.add({escaped(path)});
  return table;
}

ordered_json pluginJson(Direct& direct) {
  return readPlugins(direct);
}

}  // namespace

const std::vector<Shown>& shownThings() {
  static const std::vector<Shown> things{
      {"modules", "modules with their classes and gates", &moduleTable, &moduleJson,
       "there are no modules"},
      {"ports", "ports with link, settings and counters", &portTable, &portJson,
       "there are no ports"},
      {"tcs", "traffic classes as a tree", &tcTable, &tcJson, "there are no traffic classes"},
      {"workers", "workers and whether they run", &workerTable, &workerJson,
       "there are no workers"},
      {"drivers", "port drivers the daemon has", &driverTable, &driverJson, "there are no drivers"},
      {"classes", "module classes the daemon has, with their commands", &classTable, &classJson,
       "there are no classes"},
      {"plugins", "plugins that are loaded", &pluginTable, &pluginJson, "no plugins are loaded"}};
  return things;
}

}  // namespace Norvctl
