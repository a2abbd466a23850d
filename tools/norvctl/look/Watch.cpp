// The verb watch.

#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "../Options.h"
#include "../Verb.h"
#include "../run/Session.h"
#include "../text/Table.h"
#include "../text/Text.h"
#include "Live.h"

namespace Norvctl {

namespace {

struct WatchArguments {
  TargetOptions target;
  std::string what = "ports";
  bool asJson = false;
  double interval = 1;
  std::size_t count = 0;
};

std::vector<Flow> readFlows(Direct& direct, const std::string& what) {
  if (what == "ports") return portFlows(direct);
  if (what == "tcs") return tcFlows(direct);
  if (what == "pipeline") return connectionFlows(readModules(direct));
  bess::pb::GetModuleInfoRequest request;
  request.set_name(what);
  const auto module = direct.ask<bess::pb::GetModuleInfoResponse>(Norv::getModuleInfo, request);
  if (module.error().code() == 0) return moduleFlows(module);
  std::vector<std::string> names = readModuleNames(direct);
  names.insert(names.end(), {"ports", "tcs", "pipeline"});
  throw std::invalid_argument("there is no module \"" + what + "\"; the nearest is \"" +
                              nearest(what, names) + "\"");
}

const Flow* sameIn(const std::vector<Flow>& flows, const Flow& flow) {
  for (const Flow& one : flows) {
    if (one.name == flow.name) return &one;
  }
  return nullptr;
}

std::string tableOf(const std::vector<Flow>& before, const std::vector<Flow>& now,
                    const Colours& colours, std::size_t width) {
  if (now.empty()) return "there is nothing to watch yet\n";
  std::vector<Table::Column> columns{{"name"}, {""}};
  for (const Counter& counter : now.front().counters) {
    columns.push_back({counter.title, Table::Align::right});
  }
  Table table(columns);
  for (const Flow& flow : now) {
    const Flow* was = sameIn(before, flow);
    const auto rates = was ? ratesOf(*was, flow) : std::nullopt;
    std::vector<Table::Cell> row{escaped(flow.name), escaped(flow.detail)};
    for (std::size_t i = 0; i < flow.counters.size(); ++i) {
      const bool drops = flow.counters[i].title.find("drop") != std::string::npos;
      const bool some = rates && rates->at(i) > 0;
      row.emplace_back(rates ? scaled(rates->at(i)) : "-", drops && some ? Table::Tone::bad
                                                           : some        ? Table::Tone::plain
                                                                         : Table::Tone::faint);
    }
    table.add(row);
  }
  return table.text(colours, width);
}

std::string jsonLine(const std::vector<Flow>& before, const std::vector<Flow>& now) {
  std::string line = "{\"time\":\"" + timeOfDay() + "\",\"rates\":[";
  for (const Flow& flow : now) {
    if (line.back() != '[') line += ",";
    line += "{\"name\":" + jsonText(flow.name);
    if (!flow.detail.empty()) line += ",\"detail\":" + jsonText(flow.detail);
    const Flow* was = sameIn(before, flow);
    const auto rates = was ? ratesOf(*was, flow) : std::nullopt;
    for (std::size_t i = 0; i < flow.counters.size(); ++i) {
      char number[48] = "null";
      if (rates) std::snprintf(number, sizeof number, "%.3f", rates->at(i));
      line += "," + jsonText(flow.counters[i].title) + ":" + number;
    }
    line += "}";
  }
  return line + "]}\n";
}

// Waits, but not beyond a signal; whether the time is over.
bool wait(std::chrono::nanoseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (!endingSignal() && std::chrono::steady_clock::now() < end) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    poll(nullptr, 0, static_cast<int>(std::min<long long>(left.count(), 50)));
  }
  return !endingSignal();
}

// Shows one table in the place of the one before.
class Screen {
 public:
  Screen() : inPlace_(isatty(STDOUT_FILENO)) {}

  bool show(const std::string& text) {
    if (inPlace_ && lines_ != 0) {
      std::printf("\033[%zuA", lines_);
    } else if (!inPlace_ && shown_) {
      std::printf("\n");
    }
    lines_ = 0;
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t end = text.find('\n', at);
      std::printf("%s%s\n", text.substr(at, end - at).c_str(), inPlace_ ? "\033[K" : "");
      at = end + 1;
      ++lines_;
    }
    if (inPlace_) std::printf("\033[J");  // what the one before had below
    shown_ = true;
    return flushOutput();
  }
  std::size_t width() const { return inPlace_ ? columnsAt(STDOUT_FILENO) : 0; }

 private:
  const bool inPlace_;
  bool shown_ = false;
  std::size_t lines_ = 0;
};

int watch(const WatchArguments& arguments) {
  const Target target(arguments.target);
  Direct direct(target.host(), target.port(), std::chrono::milliseconds(2000));
  endOnSignals();
  direct.endOn(&endingSignal);
  const Colours colours(coloursAt(STDOUT_FILENO));
  Screen screen;
  const std::string head = escaped(arguments.what) + " at " + escaped(target.address());
  const auto showTable = [&](const std::vector<Flow>& before, const std::vector<Flow>& now) {
    return screen.show(head + "  " + timeOfDay().substr(11, 8) + " UTC\n" +
                       tableOf(before, now, colours, screen.width()));
  };
  std::vector<Flow> before = readFlows(direct, arguments.what);
  if (!arguments.asJson && !showTable({}, before)) return badInput;
  for (std::size_t round = 0; arguments.count == 0 || round < arguments.count; ++round) {
    if (!wait(durationOf(arguments.interval))) break;
    std::vector<Flow> now;
    std::string trouble;
    try {
      now = readFlows(direct, arguments.what);
    } catch (const std::exception& error) {
      if (endingSignal()) break;
      trouble = escaped(error.what());
    }
    bool written = true;
    if (!trouble.empty()) {
      // It may come back: the table goes on then.
      if (arguments.asJson) {
        std::printf("{\"time\":\"%s\",\"error\":%s}\n", timeOfDay().c_str(),
                    jsonText(trouble).c_str());
        written = flushOutput();
      } else {
        written = screen.show(head + "\n" + trouble + "\n");
      }
    } else if (arguments.asJson) {
      std::fputs(jsonLine(before, now).c_str(), stdout);
      written = flushOutput();
    } else {
      written = showTable(before, now);
    }
    if (!written) return badInput;
    before = std::move(now);
  }
  return endingSignal() ? 128 + endingSignal() : static_cast<int>(allOk);
}

Action defineWatch(CLI::App& command) {
  const auto arguments = std::make_shared<WatchArguments>();
  completes(
      command.add_option("WHAT", arguments->what, "ports, tcs, pipeline, or the name of a module"),
      {"ports", "tcs", "pipeline"})
      ->capture_default_str();
  command.add_flag("--json", arguments->asJson, "a JSON object per round");
  command.add_option("--interval", arguments->interval, "SECONDS between two rounds")
      ->check(CLI::Range(0.01, 3600.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  command.add_option("--count", arguments->count, "end after so many rounds of rates; 0: never")
      ->type_name("ROUNDS")
      ->capture_default_str();
  addTarget(command, arguments->target);
  return [arguments] { return watch(*arguments); };
}

}  // namespace

Verb watchVerb() {
  return {
      "watch",
      "show rates as they change",
      {"Shows packets, bits and drops per second of the ports, what the traffic classes run, the "
       "connections of the pipeline or the gates of one module, again and again in the same place "
       "on a terminal, one table after the other elsewhere. The first table comes at once, without "
       "rates; --count counts those behind it. ^C ends it and leaves the last table. A daemon that "
       "goes away and comes back is waited for. Rates come from the daemon's own "
       "clock; - stands where it does not count."},
      {{"norvctl watch ports", "until ^C"},
       {"norvctl watch pipeline --json --count 10", "ten rounds for a program"}},
      &defineWatch};
}

}  // namespace Norvctl
