#include "TraceRegistry.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>

namespace Lumo {

namespace {

bool isLevel(char c) {
  return c >= '0' && c <= '9';
}

std::optional<U32> parseLevels(std::string_view text) {
  constexpr U32 everyLevel = TraceRegistry::everyLevel;
  if (text == "*") return everyLevel;
  const bool single = text.size() == 1 && isLevel(text[0]);
  const bool range = text.size() == 3 && isLevel(text[0]) && text[1] == '-' && isLevel(text[2]);
  if (!single && !range) return std::nullopt;
  const auto first = static_cast<unsigned>(text.front() - '0');
  const auto last = static_cast<unsigned>(text.back() - '0');
  if (first > last) return std::nullopt;
  return (everyLevel >> (TraceFacility::levelCount - 1 - last)) & (everyLevel << first);
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

void warn(std::string_view setting) {
  const int errnoOfCaller = errno;  // a first trace may be what reads the setting
  std::fprintf(stderr,
               "Trace setting \"%.*s\": some of it cannot be read and is left out. Write "
               "FACILITY/LEVELS with LEVELS one of *, 5 or 0-5, parts separated by commas, for "
               "example GrpcClient/0-5,NorvConnectionsMgr/*\n",
               static_cast<int>(setting.size()), setting.data());
  errno = errnoOfCaller;
}

// Whether standard error takes what fits into a pipe's atomic write, without a wait.
bool isTakenAtOnce() {
  const int errnoOfCaller = errno;
  pollfd descriptor{STDERR_FILENO, POLLOUT, 0};
  const bool taken = ::poll(&descriptor, 1, 0) == 1 && (descriptor.revents & POLLOUT) != 0;
  errno = errnoOfCaller;
  return taken;
}

}  // namespace

SettingsMutex::SettingsMutex() {
  pthread_atfork([] { SettingsMutex::instance().mutex_.lock(); },
                 [] { SettingsMutex::instance().mutex_.unlock(); },
                 [] { SettingsMutex::instance().mutex_.unlock(); });
}

SettingsMutex& SettingsMutex::instance() {
  static auto* mutex = new SettingsMutex;
  return *mutex;
}

TraceRegistry::TraceRegistry() {
  const char* setting = std::getenv("LUMO_TRACE");
  if (setting) environment_ = setting;
  warningDue_ = !readSetting(environment_);
}

// The first caller makes the handle of a module, for which others wait: the warning goes out with
// the first call that need not wait for who reads standard error.
TraceRegistry& TraceRegistry::instance() {
  static auto* registry = new TraceRegistry;
  if (registry->warningDue_.load(std::memory_order_relaxed) && isTakenAtOnce() &&
      registry->warningDue_.exchange(false)) {
    warn(std::string_view(registry->environment_).substr(0, 2000));
  }
  return *registry;
}

const TraceRegistry::Facility& TraceRegistry::handleIs(const String& name, bool onByDefault) {
  SettingsMutexAnchor anchor;
  const auto [known, fresh] = facilities_.try_emplace(name.stdString());
  Facility& facility = known->second;
  if (fresh) facility.name = name;  // never again: other threads read it
  facility.onByDefault = facility.onByDefault || onByDefault;
  facility.levels.store(wanted(name.stdString(), facility.onByDefault), std::memory_order_relaxed);
  if (std::find(handleNames_.begin(), handleNames_.end(), name) == handleNames_.end()) {
    handleNames_.push_back(name);
  }
  return facility;
}

std::vector<String> TraceRegistry::handleNames() {
  SettingsMutexAnchor anchor;
  return handleNames_;
}

U32 TraceRegistry::levels(const String& name) {
  SettingsMutexAnchor anchor;
  const auto known = facilities_.find(name.stdString());
  return wanted(name.stdString(), known != facilities_.end() && known->second.onByDefault);
}

U32 TraceRegistry::wanted(const std::string& name, bool onByDefault) const {
  const auto named = setting_.named.find(name);
  if (named != setting_.named.end()) return named->second;
  return onByDefault ? setting_.on : setting_.off;
}

void TraceRegistry::publish() {
  for (auto& [name, facility] : facilities_) {
    facility.levels.store(wanted(name, facility.onByDefault), std::memory_order_relaxed);
  }
}

bool TraceRegistry::partIs(Setting& setting, std::string_view part) {
  const auto slash = part.rfind('/');
  if (slash == std::string_view::npos || slash == 0) return false;
  const auto levels = parseLevels(trimmed(part.substr(slash + 1)));
  if (!levels) return false;
  const std::string_view name = trimmed(part.substr(0, slash));
  if (name == "*") {
    setting.off |= *levels;
    setting.on = setting.off;
  } else {
    setting.named[std::string(name)] |= *levels;
  }
  return true;
}

bool TraceRegistry::readSetting(std::string_view text) {
  bool good = true;
  Setting setting;
  for (std::string_view rest = text; !rest.empty();) {
    const auto comma = std::min(rest.find(','), rest.size());
    const std::string_view part = trimmed(rest.substr(0, comma));
    if (!part.empty() && !partIs(setting, part)) good = false;
    rest.remove_prefix(std::min(comma + 1, rest.size()));
  }
  for (auto& [name, levels] : setting.named) levels |= setting.off;
  SettingsMutexAnchor anchor;
  setting_ = std::move(setting);
  publish();
  return good;
}

bool TraceRegistry::settingIs(std::string_view setting) {
  const bool good = readSetting(setting);
  if (!good) warn(setting);
  return good;
}

void TraceRegistry::levelIs(const String& name, int level, bool on) {
  if (level < -1 || level >= static_cast<int>(TraceFacility::levelCount)) return;
  const U32 bits = level < 0 ? everyLevel : 1U << level;
  const auto changed = [&](U32 levels) { return on ? levels | bits : levels & ~bits; };
  SettingsMutexAnchor anchor;
  if (name == String("*")) {
    setting_.off = changed(setting_.off);
    setting_.on = changed(setting_.on);
    for (auto& [named, levels] : setting_.named) levels = changed(levels);
  } else {
    const auto known = facilities_.find(name.stdString());
    const bool onByDefault = known != facilities_.end() && known->second.onByDefault;
    setting_.named[name.stdString()] = changed(wanted(name.stdString(), onByDefault));
  }
  publish();
}

bool TraceFacility::facilityEnabled(const String& facility) {
  return TraceRegistry::instance().levels(facility) != 0;
}

bool TraceFacility::levelEnabled(FacilityLevel facilityLevel) {
  return facilityLevel.level < levelCount &&
         ((TraceRegistry::instance().levels(facilityLevel.facility) >> facilityLevel.level) & 1) !=
             0;
}

std::vector<String> TraceFacility::handleNames() {
  return TraceRegistry::instance().handleNames();
}

bool traceSettingIs(const String& setting) {
  return TraceRegistry::instance().settingIs({setting.charPtr(), setting.length()});
}

void traceLevelIs(const String& facility, int level, bool on) {
  TraceRegistry::instance().levelIs(facility, level, on);
}

}  // namespace Lumo
