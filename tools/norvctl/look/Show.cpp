// The verb show.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <thread>

#include "../Options.h"
#include "../Verb.h"
#include "../protocol/Requests.h"
#include "../text/Terminal.h"
#include "../text/Text.h"
#include "Graphviz.h"
#include "Live.h"
#include "Pipeline.h"
#include "Tables.h"

namespace Norvctl {

namespace {

using nlohmann::ordered_json;

struct ShowArguments {
  TargetOptions target;
  double timeoutSeconds = 5;
  std::string what = "pipeline";
  bool asJson = false;
  bool dot = false;
  bool svg = false;
  double interval = 0.5;
};

std::vector<std::string> names() {
  std::vector<std::string> all{"pipeline"};
  for (const Shown& one : shownThings()) all.push_back(one.name);
  return all;
}

// As in "12 packet/s", "1.5 Mbit/s".
std::string withUnit(double value, const char* unit) {
  const std::string number = scaled(value);
  return number + (number.find(' ') == std::string::npos ? " " : "") + unit;
}

// Rates between two readings, where the daemon counts.
ConnectionTexts ratesBetween(const std::vector<Flow>& before, const std::vector<Flow>& now) {
  std::map<std::string, const Flow*> byName;
  for (const Flow& flow : before) byName[flow.name] = &flow;
  ConnectionTexts texts;
  for (const Flow& flow : now) {
    const auto was = byName.find(flow.name);
    if (was == byName.end()) continue;
    if (const auto rates = ratesOf(*was->second, flow)) {
      texts[flow.name] =
          withUnit(rates->at(0), "packet/s") + ", " + withUnit(rates->at(1), "bit/s");
    }
  }
  return texts;
}

int showPipeline(Direct& direct, const ShowArguments& arguments) {
  auto modules = readModules(direct);
  const std::vector<Flow> before = connectionFlows(modules);
  const bool counted = std::any_of(before.begin(), before.end(),
                                   [](const Flow& flow) { return flow.timestamp != 0; });
  ConnectionTexts rates;
  if (counted && arguments.interval > 0) {
    std::this_thread::sleep_for(durationOf(arguments.interval));
    modules = readModules(direct);
    rates = ratesBetween(before, connectionFlows(modules));
  }
  if (arguments.asJson) {
    ordered_json all = ordered_json::array();
    for (const auto& module : modules) {
      all.push_back(ordered_json::parse(messageJson(module, true)));
    }
    print(jsonForPerson({{"modules", all}, {"rates", rates}}));
  } else if (arguments.dot) {
    print(pipelineDot(modules, rates));
  } else if (arguments.svg) {
    print(svgOf(pipelineDot(modules, rates)));
  } else {
    print(pipelineText(modules, rates, Colours(coloursAt(STDOUT_FILENO))));
  }
  return allOk;
}

int show(const ShowArguments& arguments) {
  if ((arguments.dot || arguments.svg) && arguments.what != "pipeline") {
    std::cerr << "norvctl: --dot and --svg are for the pipeline\n";
    return badInput;
  }
  const Target target(arguments.target);
  Direct direct(target.host(), target.port(),
                std::chrono::ceil<std::chrono::milliseconds>(durationOf(arguments.timeoutSeconds)));
  if (arguments.what == "pipeline") return showPipeline(direct, arguments);
  for (const Shown& one : shownThings()) {
    if (one.name != arguments.what) continue;
    if (arguments.asJson) {
      print(jsonForPerson(one.json(direct)));
      return allOk;
    }
    const Table table = one.table(direct);
    if (table.empty()) {
      std::cerr << one.none << '\n';
      return allOk;
    }
    const std::size_t width = isatty(STDOUT_FILENO) ? columnsAt(STDOUT_FILENO) : 0;
    print(table.text(Colours(coloursAt(STDOUT_FILENO)), width));
  }
  return allOk;
}

Action defineShow(CLI::App& command) {
  const auto arguments = std::make_shared<ShowArguments>();
  completes(command.add_option("WHAT", arguments->what, listed(names())), names())
      ->check(CLI::IsMember(names()))
      ->type_name("")
      ->capture_default_str();
  CLI::Option* json = command.add_flag("--json", arguments->asJson, "as JSON");
  CLI::Option* dot = command.add_flag("--dot", arguments->dot, "the pipeline as graphviz takes it");
  command.add_flag("--svg", arguments->svg, "the pipeline as a picture, drawn by graphviz")
      ->excludes(json)
      ->excludes(dot);
  dot->excludes(json);
  command
      .add_option("--interval", arguments->interval,
                  "SECONDS between the two looks that give the pipeline's rates; 0: no rates")
      ->check(CLI::Range(0.0, 3600.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  addTarget(command, arguments->target);
  addTimeout(command, arguments->timeoutSeconds, "SECONDS to wait for each answer");
  return [arguments] { return show(*arguments); };
}

}  // namespace

Verb showVerb() {
  std::vector<std::string> things{"What there is to be shown:",
                                  "pipeline: modules, connections and "
                                  "their packet rates."};
  for (const Shown& one : shownThings()) {
    things.push_back(std::string(one.name) + ": " + one.what + ".");
  }
  std::vector<std::string> description{
      "Reads the switch beside the library and shows it for a person; --json for a program. What "
      "is "
      "down or lost is coloured on a terminal. Rates are shown where the daemon counts, which "
      "takes a "
      "Track hook on the gate."};
  description.insert(description.end(), things.begin(), things.end());
  return {"show",
          "show the pipeline, ports, workers and so on",
          description,
          {{"norvctl show --standin", "the pipeline of a daemon that has none"},
           {"norvctl show ports", "a table"},
           {"norvctl show pipeline --svg > pipeline.svg", "a picture"}},
          &defineShow};
}

}  // namespace Norvctl
