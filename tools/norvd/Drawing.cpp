#include "Drawing.h"

#include <chrono>
#include <set>
#include <thread>

#include "look/Graphviz.h"
#include "text/Text.h"

namespace Norvd {

using Norv::State::Gate;
using Norv::State::Kind;

namespace {

constexpr std::size_t mostModules = 300;
constexpr std::chrono::seconds patience{2};
constexpr std::size_t labelWidth = 11;

// What the picture shows: live and wanted together.
struct Graph {
  std::map<std::string, std::string> modules;  // with their classes
  std::map<Gate, Gate> connections;
};

Graph graphOf(const Picture& picture) {
  Graph graph;
  const auto add = [&](const Norv::State::Switch& one) {
    for (const auto& [name, module] : one.modules) graph.modules[name] = module.moduleClass;
    graph.connections.insert(one.connections.begin(), one.connections.end());
  };
  add(*picture.live);
  if (picture.wanted) add(*picture.wanted);
  std::erase_if(graph.connections, [&](const auto& one) {
    return !graph.modules.contains(one.first.module) || !graph.modules.contains(one.second.module);
  });
  return graph;
}

// Stands for the rate of a connection until one is filled in; as wide as it.
std::string placeholder(std::size_t number) {
  const std::string digits = std::to_string(number);
  return "@" + std::string(labelWidth - 2 - std::min(labelWidth - 2, digits.size()), '0') + digits +
         "@";
}

// Names are told apart by numbers, so that no name means anything to graphviz.
std::string dotOf(const Graph& graph) {
  std::string out =
      "digraph pipeline {\nrankdir=LR; bgcolor=transparent; nodesep=0.3;\n"
      "node [shape=box, style=rounded, fontname=\"sans-serif\", fontsize=12];\n"
      "edge [fontname=\"sans-serif\", fontsize=10];\n";
  std::map<std::string, std::size_t> numbers;
  for (const auto& [name, moduleClass] : graph.modules) {
    const std::size_t number = numbers.size();
    numbers[name] = number;
    out += "n" + std::to_string(number) + " [id=\"m" + std::to_string(number) + "\", label=\"" +
           Norvctl::dotText(name) + "\\n" + Norvctl::dotText(moduleClass) + "\", tooltip=\" \"];\n";
  }
  std::size_t number = 0;
  for (const auto& [from, to] : graph.connections) {
    out += "n" + std::to_string(numbers[from.module]) + " -> n" +
           std::to_string(numbers[to.module]) + " [id=\"c" + std::to_string(number) +
           "\", taillabel=\"" + std::to_string(from.number) + "\", headlabel=\"" +
           std::to_string(to.number) + "\", label=\"" + placeholder(number) +
           "\", tooltip=\" \"];\n";
    ++number;
  }
  return out + "}\n";
}

// What stands in the page: from the picture's own element on, with a class and a name.
std::string embedded(const std::string& svg, const Graph& graph) {
  const auto start = svg.find("<svg");
  if (start == std::string::npos) return "";
  return "<svg class=\"pipeline\" role=\"img\" aria-label=\"Pipeline of " +
         std::to_string(graph.modules.size()) + " modules and " +
         std::to_string(graph.connections.size()) + " connections; the table below has the same\"" +
         svg.substr(start + 4);
}

std::string rateText(const Picture& picture, const Gate& gate) {
  const auto rate = picture.rates.find(gate);
  return rate == picture.rates.end() ? "" : Norvctl::scaled(rate->second.packets) + " p/s";
}

void fillRates(std::string& svg, const Graph& graph, const Picture& picture) {
  std::size_t number = 0;
  std::size_t at = 0;
  std::map<std::string, std::string> texts;
  for (const auto& [from, to] : graph.connections) {
    texts[placeholder(number++)] = rateText(picture, from);
  }
  std::string out;
  while (at < svg.size()) {
    const std::size_t next = svg.find('@', at);
    out.append(svg, at, next == std::string::npos ? std::string::npos : next - at);
    if (next == std::string::npos) break;
    const auto text = texts.find(svg.substr(next, labelWidth));
    if (text == texts.end()) {
      out += '@';
      at = next + 1;
    } else {
      out += text->second;
      at = next + labelWidth;
    }
  }
  svg = out;
}

// Marks what differs: dashed what is wanted and not there, faint what is there and not wanted.
std::string marks(const Graph& graph, const Picture& picture) {
  if (!picture.wanted) return "";
  std::string out = "<style>";
  const auto mark = [&](const std::string& id, bool there, bool wanted,
                        const Norv::State::Object& object) {
    const auto found = picture.objects.find(object);
    const bool right = found == picture.objects.end() || found->second.standing == Standing::inSync;
    if (there && wanted && right) return;
    std::string rule = there && !wanted ? "opacity:.5" : "stroke-width:2.5;stroke:var(--";
    if (!there || wanted) {
      const bool waits = !right && (found->second.standing == Standing::pending ||
                                    found->second.standing == Standing::differs);
      rule += std::string(waits ? "warn" : "bad") + ")";
    }
    if (!there) rule += ";stroke-dasharray:5 3";
    out += "svg.pipeline #" + id + " path{" + rule + "}";
  };
  std::size_t number = 0;
  for (const auto& [name, moduleClass] : graph.modules) {
    mark("m" + std::to_string(number++), picture.live->modules.contains(name),
         picture.wanted->modules.contains(name), {Kind::module, name});
  }
  number = 0;
  for (const auto& [from, to] : graph.connections) {
    mark("c" + std::to_string(number++), picture.live->connections.contains(from),
         picture.wanted->connections.contains(from), objectOf(from));
  }
  return out + "</style>";
}

}  // namespace

std::string Page::Drawing::html(const Picture& picture) {
  const Graph graph = graphOf(picture);
  const std::string head = "<p id=\"modules\" class=\"faint\">" +
                           Norvctl::grouped(graph.modules.size()) + " modules, " +
                           Norvctl::grouped(graph.connections.size()) + " connections</p>\n";
  if (graph.modules.empty()) return "<p class=\"faint\">There are no modules.</p>\n";
  if (graph.modules.size() > mostModules) {
    return head + "<p class=\"faint\">More than " + std::to_string(mostModules) +
           " modules are not drawn.</p>\n";
  }
  const std::string dot = dotOf(graph);
  std::string svg, trouble;
  {
    std::unique_lock lock(mutex_);
    wantedDot_ = dot;
    if (dot_ != dot && !busy_) {
      busy_ = true;
      std::thread([this, dot] { layOut(dot); }).detach();
    }
    laidOut_.wait_for(lock, patience, [&] { return dot_ == dot || wantedDot_ != dot; });
    if (dot_ == dot) {
      svg = svg_;
      trouble = trouble_;
    }
  }
  if (!trouble.empty()) return head + "<p class=\"faint\">" + htmlEscaped(trouble) + "</p>\n";
  if (svg.empty()) return head + "<p class=\"faint\">The picture is being drawn.</p>\n";
  svg = embedded(svg, graph);
  fillRates(svg, graph, picture);
  return head + marks(graph, picture) +
         "<div class=\"scroll\" id=\"picture\" tabindex=\"0\" role=\"region\" "
         "aria-label=\"Pipeline\">" +
         svg + "</div>\n";
}

void Page::Drawing::layOut(const std::string& dot) {
  std::string svg, trouble;
  try {
    svg = Norvctl::svgOf(dot);
  } catch (const std::exception& error) {
    trouble = error.what();
  }
  const std::lock_guard guard(mutex_);
  dot_ = dot;
  svg_ = std::move(svg);
  trouble_ = std::move(trouble);
  busy_ = false;
  laidOut_.notify_all();
}

}  // namespace Norvd
