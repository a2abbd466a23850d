#include "Completer.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include <Bess/Facts.h>

#include "../Verb.h"
#include "../look/Live.h"
#include "../manual/Options.h"
#include "../protocol/Requests.h"
#include "Words.h"

namespace Norvctl {

namespace {

constexpr std::chrono::milliseconds patience{500};
constexpr std::chrono::seconds freshFor{2};

std::vector<std::string> workerIds(Direct& direct) {
  std::vector<std::string> ids;
  for (const auto& worker : readWorkers(direct)) ids.push_back(std::to_string(worker.wid()));
  return ids;
}

std::vector<std::string> portNames(Direct& direct) {
  const auto list =
      direct.ask<bess::pb::ListPortsResponse>(Norv::listPorts, bess::pb::EmptyRequest());
  std::vector<std::string> names;
  for (const auto& port : list.ports()) names.push_back(port.name());
  return names;
}

std::vector<std::string> tcNames(Direct& direct) {
  std::vector<std::string> names;
  for (const auto& one : readTcs(direct)) names.push_back(one.class_().name());
  return names;
}

void addFields(const google::protobuf::Descriptor* message, std::vector<std::string>& names,
               int depth = 0) {
  constexpr int deepest = 4;
  if (!message || depth > deepest || message->full_name() == "google.protobuf.Any") return;
  for (int i = 0; i < message->field_count(); ++i) {
    names.push_back(message->field(i)->json_name());
    if (!message->field(i)->is_map()) {
      addFields(message->field(i)->message_type(), names, depth + 1);
    }
  }
}

// The key whose value stands at the end of the line; empty where a key stands there itself.
std::string keyOfValue(const std::string& line, std::size_t wordStart) {
  std::size_t at = wordStart;
  while (at > 0 && (line[at - 1] == ' ' || line[at - 1] == '\n' || line[at - 1] == '"')) --at;
  if (at == 0 || line[at - 1] != ':') return {};
  const std::size_t end = line.rfind('"', at - 1);
  if (end == std::string::npos || end == 0) return {};
  const std::size_t begin = line.rfind('"', end - 1);
  return begin == std::string::npos ? std::string() : line.substr(begin + 1, end - begin - 1);
}

void append(std::vector<std::string>& all, const std::vector<std::string>& more) {
  all.insert(all.end(), more.begin(), more.end());
}

}  // namespace

Completer::Completer(const CLI::App& app, const std::string& host, U16 port)
    : app_(app), direct_(host, port, patience) {}

std::size_t Completer::wordStart(const std::string& line) {
  const std::size_t at = line.find_last_of(" \t\n\"{}[]:,=");
  return at == std::string::npos ? 0 : at + 1;
}

std::vector<std::string> Completer::candidates(const std::string& line) {
  const std::size_t start = wordStart(line);
  const std::string word = line.substr(start);
  const Words before = wordsOf(line.substr(0, start));
  std::vector<std::string> all;
  if (before.words.empty()) {
    all = firstWords();
  } else {
    const std::string& first = before.words.front();
    std::string type = requestInfo(first) ? first : "";
    if (first == "call" && before.words.size() > 1) type = before.words[1];
    const std::size_t brace = line.find('{');
    if (!type.empty() && brace != std::string::npos && brace < start) {
      all = jsonWords(line, type);
    } else {
      all = optionWords(first, before.words.back());
      if (first == "watch" && before.words.size() == 1)
        append(all, live("modules", &readModuleNames));
    }
  }
  std::erase_if(all, [&](const std::string& one) { return !one.starts_with(word); });
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  return all;
}

std::vector<std::string> Completer::firstWords() const {
  std::vector<std::string> all = requestNames();
  for (const Verb& one : verbs()) all.push_back(one.name);
  append(all, {"exit", "quit"});
  return all;
}

std::vector<std::string> Completer::optionWords(const std::string& verbName,
                                                const std::string& before) const {
  const bool known = verb(verbName) != nullptr;
  const CLI::App* command = known ? app_.get_subcommand(verbName) : app_.get_subcommand("call");
  std::vector<std::string> all;
  for (const OptionText& option : optionsOf(*command)) {
    if (std::find(option.names.begin(), option.names.end(), before) != option.names.end() &&
        !option.value.empty()) {
      return option.words;
    }
    append(all, option.names);
    if (option.names.empty() && known) append(all, option.words);
  }
  return all;
}

// Keys, or values of the key before: those of the request's fields, of the argument of a class,
// driver or message that the line names, and of what is in the switch.
std::vector<std::string> Completer::jsonWords(const std::string& line, const std::string& type) {
  const std::string key = keyOfValue(line, wordStart(line));
  if (!key.empty()) return valuesOf(key);
  std::vector<std::string> all;
  const RequestInfo* info = requestInfo(type);
  if (!info) return all;
  addFields(Bess::message(info->requestMessage), all);
  const auto named = [&](std::string_view name) {
    return line.find('"' + std::string(name) + '"') != std::string::npos;
  };
  const auto addArgument = [&](const Bess::Taker& taker) {
    if (named(taker.name) && !taker.argument.empty()) addFields(Bess::message(taker.argument), all);
  };
  for (const Bess::ModuleClass& one : Bess::moduleClasses()) addArgument(one);
  for (const Bess::Taker& one : Bess::portDrivers()) addArgument(one);
  all.push_back("@type");
  return all;
}

std::vector<std::string> Completer::valuesOf(const std::string& key) {
  if (key == "mclass") return live("classes", &readClassNames);
  if (key == "driver" || key == "driverName") return live("drivers", &readDriverNames);
  if (key == "wid") return live("workers", &workerIds);
  if (key == "port") return live("ports", &portNames);
  if (key == "parent") return live("tcs", &tcNames);
  if (key == "m1" || key == "m2" || key == "moduleName" || key == "leafModuleName") {
    return live("modules", &readModuleNames);
  }
  if (key == "@type") {
    std::vector<std::string> all;
    for (const auto* message : Bess::messages()) {
      // As a word ends at a colon, the name behind the slash goes with it.
      all.push_back("type.googleapis.com/" + message->full_name());
    }
    return all;
  }
  std::vector<std::string> all;
  if (key == "name") {
    append(all, live("modules", &readModuleNames));
    append(all, live("ports", &portNames));
    append(all, live("classes", &readClassNames));
    append(all, live("tcs", &tcNames));
  }
  return all;
}

const std::vector<std::string>& Completer::live(const std::string& what,
                                                std::vector<std::string> (*read)(Direct&)) {
  Known& known = known_[what];
  const auto now = std::chrono::steady_clock::now();
  if (known.at.time_since_epoch().count() != 0 && now - known.at < freshFor) return known.names;
  known.at = now;
  try {
    known.names = read(direct_);
  } catch (const std::exception&) {
    known.names.clear();  // nothing to offer; what is sent will tell why
  }
  return known.names;
}

}  // namespace Norvctl
