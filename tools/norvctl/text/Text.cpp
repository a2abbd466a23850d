#include "Text.h"

#include <string.h>
#include <time.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include <Bess/Text.h>
#include <Lumo/TraceSink.h>

namespace Norvctl {

using nlohmann::ordered_json;

namespace {

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string out;
  Lumo::appendTraceText(out, text);
  return out;
}

std::string jsonText(std::string_view text) {
  return oneLineJson(std::string(text));
}

std::string oneLineJson(const ordered_json& value) {
  return withoutCommands(value.dump(-1, ' ', false, ordered_json::error_handler_t::replace));
}

std::string jsonForPerson(const ordered_json& value) {
  return withoutCommands(value.dump(2, ' ', false, ordered_json::error_handler_t::replace)) + "\n";
}

std::string withoutCommands(const std::string& json) {
  std::string out;
  for (std::size_t at = 0; at < json.size();) {
    // It is UTF-8 and has no control characters of ASCII in it but DEL.
    const auto first = static_cast<unsigned char>(json[at]);
    const std::size_t length = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if (first == 0x7f) {
      out += "\\u007f";
    } else if (length == 1) {
      out += json[at];
    } else {
      out += escaped(std::string_view(json).substr(at, length));
    }
    at += length;
  }
  return out;
}

std::string refusalText(int code, const std::string& text) {
  if (code == 0) return text;
  const char* name = strerrorname_np(code);
  return (name ? std::string(name) : std::to_string(code)) + ": " + text;
}

std::vector<std::string> nearestNames(std::string_view name, const std::vector<std::string>& names,
                                      std::size_t most) {
  const std::string wanted = lower(name);
  std::vector<std::pair<std::size_t, std::string>> ranked;
  for (const std::string& candidate : names) {
    const bool part = wanted.size() > 2 && lower(candidate).find(wanted) != std::string::npos;
    ranked.emplace_back(part ? 1 : Bess::unlikeness(wanted, candidate), candidate);
  }
  std::stable_sort(ranked.begin(), ranked.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> result;
  for (const auto& [distance, candidate] : ranked) {
    if (result.size() == most) break;
    result.push_back(candidate);
  }
  return result;
}

std::string nearest(std::string_view name, const std::vector<std::string>& names) {
  const auto found = nearestNames(name, names, 1);
  return found.empty() ? std::string() : found.front();
}

std::vector<std::string> namesWith(std::string_view word, const std::vector<std::string>& names) {
  const std::string wanted = lower(word);
  std::vector<std::string> result;
  for (const std::string& name : names) {
    if (lower(name).find(wanted) == std::string::npos) continue;
    if (std::find(result.begin(), result.end(), name) == result.end()) result.push_back(name);
  }
  std::stable_sort(result.begin(), result.end(),
                   [](const std::string& a, const std::string& b) { return a.size() < b.size(); });
  return result;
}

std::string listed(const std::vector<std::string>& words) {
  std::string text;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i != 0) text += i + 1 == words.size() ? " and " : ", ";
    text += words[i];
  }
  return text;
}

std::string grouped(unsigned long long number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, 1, ',');
  return digits;
}

std::string scaled(double value) {
  constexpr const char* prefixes[] = {"", " k", " M", " G", " T", " P", " E"};
  std::size_t prefix = 0;
  while (value >= 999.5 && prefix + 1 < std::size(prefixes)) {
    value /= 1000;
    ++prefix;
  }
  char text[32];
  const int decimals = prefix == 0 ? 0 : value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
  std::snprintf(text, sizeof text, "%.*f%s", decimals, value, prefixes[prefix]);
  return text;
}

std::string timeOfDay() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  std::tm parts;
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", gmtime_r(&now.tv_sec, &parts));
  char fraction[32];
  std::snprintf(fraction, sizeof fraction, ".%06ldZ", now.tv_nsec / 1000);
  return std::string(text) + fraction;
}

}  // namespace Norvctl
