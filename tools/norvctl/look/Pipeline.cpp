#include "Pipeline.h"

#include <deque>
#include <set>

#include "../text/Text.h"
#include "Graphviz.h"
#include "Live.h"

namespace Norvctl {

namespace {

using Module = bess::pb::GetModuleInfoResponse;

// In the order in which packets come by: from those that nothing leads to, and what is left, as it
// is in a loop, from the first by name.
std::vector<const Module*> inOrder(const std::vector<Module>& modules) {
  std::map<std::string, const Module*> byName;
  for (const Module& module : modules) byName[module.name()] = &module;
  std::vector<const Module*> order;
  std::set<std::string> seen;
  const auto follow = [&](const Module& first) {
    std::deque<const Module*> next{&first};
    while (!next.empty()) {
      const Module* module = next.front();
      next.pop_front();
      if (!seen.insert(module->name()).second) continue;
      order.push_back(module);
      for (const auto& gate : module->ogates()) {
        if (const auto other = byName.find(gate.name()); other != byName.end()) {
          next.push_back(other->second);
        }
      }
    }
  };
  for (const Module& module : modules) {
    if (module.igates().empty() && !module.ogates().empty()) follow(module);
  }
  for (const Module& module : modules) {
    if (!module.ogates().empty()) follow(module);
  }
  for (const Module& module : modules) follow(module);
  return order;
}

std::string quoted(const std::string& text) {
  return "\"" + dotText(text) + "\"";
}

}  // namespace

std::string pipelineText(const std::vector<Module>& modules, const ConnectionTexts& rates,
                         const Colours& colours) {
  if (modules.empty()) return "there are no modules\n";
  std::string out;
  for (const Module* module : inOrder(modules)) {
    out += colours.strong() + escaped(module->name()) + colours.end() + "  " +
           escaped(module->mclass());
    if (!module->desc().empty()) {
      out += std::string("  ") + colours.faint() + escaped(module->desc()) + colours.end();
    }
    if (module->ogates().empty() && module->igates().empty()) {
      out += std::string("  ") + colours.warning() + "not connected" + colours.end();
    }
    out += "\n";
    for (int i = 0; i < module->ogates_size(); ++i) {
      const auto& gate = module->ogates(i);
      const bool last = i + 1 == module->ogates_size();
      const std::string gateText = std::to_string(gate.ogate());
      out += std::string(last ? "  └─" : "  ├─") + gateText + "─> " + std::to_string(gate.igate()) +
             ":" + escaped(gate.name());
      const auto rate =
          rates.find(connectionName(module->name(), gate.ogate(), gate.name(), gate.igate()));
      if (rate != rates.end()) {
        out += std::string("  ") + colours.good() + rate->second + colours.end();
      }
      out += "\n";
    }
  }
  return out;
}

std::string pipelineDot(const std::vector<Module>& modules, const ConnectionTexts& rates) {
  std::string out =
      "digraph pipeline {\n  rankdir=LR;\n  node [shape=box, style=rounded, "
      "fontname=\"sans-serif\"];\n"
      "  edge [fontname=\"sans-serif\", fontsize=10];\n";
  for (const Module& module : modules) {
    std::string label = quoted(module.name());
    label.pop_back();
    label += "\\n" + quoted(module.mclass()).substr(1);
    out += "  " + quoted(module.name()) + " [label=" + label + "];\n";
  }
  for (const Module& module : modules) {
    for (const auto& gate : module.ogates()) {
      out += "  " + quoted(module.name()) + " -> " + quoted(gate.name()) + " [taillabel=\"" +
             std::to_string(gate.ogate()) + "\", headlabel=\"" + std::to_string(gate.igate()) +
             "\"";
      const auto rate =
          rates.find(connectionName(module.name(), gate.ogate(), gate.name(), gate.igate()));
      if (rate != rates.end()) out += ", label=" + quoted(rate->second);
      out += "];\n";
    }
  }
  return out + "}\n";
}

}  // namespace Norvctl
