#include "Filter.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <set>

#include <Lumo/Trace.h>

namespace {

constexpr unsigned levelCount = Lumo::TraceFacility::levelCount;

bool isIn(const std::vector<std::string>& names, const std::string& name) {
  return names.empty() || std::find(names.begin(), names.end(), name) != names.end();
}

// A moment later than what the records can have stands for the last one of those.
bool parseMoment(const std::string& text, U64& ns) {
  constexpr U64 unitNs = 1000000000;
  constexpr U64 lastSecond = ~U64{0} / unitNs - 1;
  std::tm parts{};
  const char* rest = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (!rest) return false;
  U64 fraction = 0;
  if (*rest == '.') {
    U64 unit = unitNs / 10;
    for (++rest; *rest >= '0' && *rest <= '9'; ++rest, unit /= 10) {
      fraction += static_cast<U64>(*rest - '0') * unit;
    }
  }
  if (*rest == 'Z') ++rest;
  if (*rest != '\0') return false;
  const std::tm asked = parts;
  const std::time_t seconds = ::timegm(&parts);
  // A day or second that its month or minute does not have comes out as another one.
  if (seconds < 0 || parts.tm_mday != asked.tm_mday || parts.tm_sec != asked.tm_sec) return false;
  ns = std::min(static_cast<U64>(seconds), lastSecond) * unitNs + fraction;
  return true;
}

bool parseDuration(const std::string& text, U64& ns) {
  U64 number = 0;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number == 0) return false;
  const std::string unit(rest, text.data() + text.size());
  const struct {
    const char* name;
    U64 ns;
  } units[] = {
      {"ms", 1000000ULL}, {"s", 1000000000ULL}, {"m", 60000000000ULL}, {"h", 3600000000000ULL}};
  for (const auto& known : units) {
    if (unit != known.name) continue;
    if (number > ~0ULL / known.ns) return false;
    ns = number * known.ns;
    return true;
  }
  return false;
}

// One line if the file has nothing of that name, with those there are.
void reportMissing(const char* what, const std::vector<std::string>& wanted,
                   const std::set<std::string>& present) {
  constexpr std::size_t shown = 20;
  for (const std::string& name : wanted) {
    if (present.count(name) != 0) continue;
    std::string line = "skein: the file has no " + std::string(what) + ' ' + name;
    line += present.empty() ? ", nor any other" : ", but";
    std::size_t count = 0;
    for (const std::string& other : present) {
      if (count++ == shown) break;
      line += count == 1 ? " " : ", ";
      Lumo::appendTraceText(line, other);
    }
    if (count > shown) line += ", ...";
    std::fprintf(stderr, "%s\n", line.c_str());
  }
}

}  // namespace

bool Filter::levelsIs(const std::string& text) {
  if (text == "*") return true;
  const auto dash = text.find('-');
  const auto parse = [&](std::size_t from, std::size_t to, unsigned& level) {
    const auto [rest, error] = std::from_chars(text.data() + from, text.data() + to, level);
    return error == std::errc() && rest == text.data() + to && level < levelCount;
  };
  if (dash == std::string::npos) {
    if (!parse(0, text.size(), lowest_)) return false;
    highest_ = lowest_;
    return true;
  }
  return parse(0, dash, lowest_) && parse(dash + 1, text.size(), highest_) && lowest_ <= highest_;
}

bool Filter::sinceIs(const std::string& text) {
  return parseMoment(text, sinceNs_) || parseDuration(text, agoNs_);
}

void Filter::resolve(const std::string& path) {
  if (agoNs_ == 0) return;
  U64 newest = 0;
  Skein::Reader reader(path);
  reader.read([&](const Skein::Record& record) { newest = std::max(newest, record.timeNs); });
  sinceNs_ = newest > agoNs_ ? newest - agoNs_ : 0;
}

void Filter::reportUnmatched(const Skein::Reader& reader) const {
  std::set<std::string> facilities;
  std::set<std::string> functions;
  for (const auto& site : reader.sites()) {
    if (!site) continue;
    facilities.insert(site->facility);
    functions.insert(site->function);
  }
  reportMissing("facility", facilities_, facilities);
  reportMissing("function", functions_, functions);
}

bool Filter::passes(const Skein::Record& record) const {
  return record.level >= lowest_ && record.level <= highest_ && record.timeNs >= sinceNs_ &&
         isIn(facilities_, record.site->facility) && isIn(functions_, record.site->function);
}
