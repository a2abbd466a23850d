#include "Volatile.h"

#include <string>

namespace Norvctl {

namespace {

using nlohmann::json;

// A field of a response; `*` stands for every element of a list, and at the end of a path for the
// elements themselves, of which the number stays. Where `key` is given, only in
// objects whose field of that name has the value, or (ofRequest) in answers to requests of which
// that is so.
struct Rule {
  std::string_view type;
  std::string_view path;
  std::string_view key = {};
  std::string_view value = {};
  bool ofRequest = false;
};

constexpr Rule rules[] = {
    {"getVersion", "version"},
    {"getTcStats", "timestamp"},
    {"getTcStats", "count"},
    {"getTcStats", "cycles"},
    {"getTcStats", "packets"},
    {"getTcStats", "bits"},
    {"getPortStats", "timestamp"},
    {"getPortStats", "inc/packets"},
    {"getPortStats", "inc/dropped"},
    {"getPortStats", "inc/bytes"},
    {"getPortStats", "inc/requestedHist/*"},
    {"getPortStats", "inc/actualHist/*"},
    {"getPortStats", "inc/diffHist/*"},
    {"getPortStats", "out/packets"},
    {"getPortStats", "out/dropped"},
    {"getPortStats", "out/bytes"},
    {"getPortStats", "out/requestedHist/*"},
    {"getPortStats", "out/actualHist/*"},
    {"getPortStats", "out/diffHist/*"},
    {"getModuleInfo", "igates/*/timestamp"},
    {"getModuleInfo", "igates/*/cnt"},
    {"getModuleInfo", "igates/*/pkts"},
    {"getModuleInfo", "igates/*/bytes"},
    {"getModuleInfo", "ogates/*/timestamp"},
    {"getModuleInfo", "ogates/*/cnt"},
    {"getModuleInfo", "ogates/*/pkts"},
    {"getModuleInfo", "ogates/*/bytes"},
    {"getModuleInfo", "desc", "mclass", "Queue"},
    {"getModuleInfo", "desc", "mclass", "FlowGen"},
    {"getModuleInfo", "metadata", "mclass", "MetadataTest"},
    {"listModules", "modules/*/desc", "mclass", "Queue"},
    {"listModules", "modules/*/desc", "mclass", "FlowGen"},
    {"listWorkers", "workersStatus/*/silentDrops"},
    {"listTcs", "classesStatus/*/class/blocked"},
    {"createPort", "macAddr"},
    {"listPorts", "ports/*/macAddr"},
    {"getPortConf", "conf/macAddr"},
    {"dumpMempool", "dumps/*/mpAvailableCount"},
    {"dumpMempool", "dumps/*/mpInUseCount"},
    {"dumpMempool", "dumps/*/ringCount"},
    {"dumpMempool", "dumps/*/ringFreeCount"},
    {"moduleCommand", "data/count", "cmd", "get_status", true},
    {"moduleCommand", "data/enqueued", "cmd", "get_status", true},
    {"moduleCommand", "data/dequeued", "cmd", "get_status", true},
    {"moduleCommand", "data/dropped", "cmd", "get_status", true},
    {"moduleCommand", "data", "cmd", "get_summary", true},
};

bool has(const json& object, std::string_view key, std::string_view value) {
  const auto found = object.find(std::string(key));
  return found != object.end() && *found == std::string(value);
}

void remove(json& value, std::string_view path, const Rule& rule) {
  const std::size_t end = path.find('/');
  const std::string name(path.substr(0, end));
  if (name == "*" && value.is_array()) {
    for (json& element : value) {
      if (end == std::string_view::npos) {
        element = nullptr;
      } else {
        remove(element, path.substr(end + 1), rule);
      }
    }
  } else if (!value.is_object() || !value.contains(name)) {
    return;
  } else if (end != std::string_view::npos) {
    remove(value[name], path.substr(end + 1), rule);
  } else if (rule.key.empty() || rule.ofRequest || has(value, rule.key, rule.value)) {
    value.erase(name);
  }
}

}  // namespace

void removeVolatile(std::string_view type, const json& request, json& response) {
  for (const Rule& rule : rules) {
    if (rule.type != type) continue;
    if (rule.ofRequest && !has(request, rule.key, rule.value)) continue;
    remove(response, rule.path, rule);
  }
}

}  // namespace Norvctl
