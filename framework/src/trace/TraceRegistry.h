#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <Lumo/String.h>
#include <Lumo/ThreadAnnotations.h>
#include <Lumo/TraceFacility.h>

namespace Lumo {

// Guards the settings, and nothing that could wait for anybody. Never destroyed, and free in a
// forked child.
class LUMO_CAPABILITY("mutex") SettingsMutex {
 public:
  static SettingsMutex& instance();
  void lock() LUMO_ACQUIRE() { mutex_.lock(); }
  void unlock() LUMO_RELEASE() { mutex_.unlock(); }

 private:
  SettingsMutex();
  std::mutex mutex_;
};

class LUMO_SCOPED_CAPABILITY SettingsMutexAnchor {
 public:
  SettingsMutexAnchor() LUMO_ACQUIRE(SettingsMutex::instance()) {
    SettingsMutex::instance().lock();
  }
  ~SettingsMutexAnchor() LUMO_RELEASE() { SettingsMutex::instance().unlock(); }
  SettingsMutexAnchor(const SettingsMutexAnchor&) = delete;
  SettingsMutexAnchor& operator=(const SettingsMutexAnchor&) = delete;
};

// The settings and the records of the facilities. Never destroyed: handles point into it.
class TraceRegistry {
 public:
  static constexpr U32 everyLevel = (1U << TraceFacility::levelCount) - 1;

  struct Facility {
    String name;
    std::atomic<U32> levels{0};  // what the handles read
    bool onByDefault = false;
  };

  // Reads LUMO_TRACE at the first call.
  static TraceRegistry& instance();

  const Facility& handleIs(const String& name, bool onByDefault);
  std::vector<String> handleNames();
  U32 levels(const String& name);
  bool settingIs(std::string_view setting);
  void levelIs(const String& name, int level, bool on);

 private:
  // Levels of the facilities that a setting names, and of all others: by default off and by default
  // on.
  struct Setting {
    std::map<std::string, U32> named;
    U32 off = 0;
    U32 on = everyLevel;
  };

  TraceRegistry();
  bool readSetting(std::string_view text);  // whether all of it can be read
  U32 wanted(const std::string& name, bool onByDefault) const
      LUMO_REQUIRES(SettingsMutex::instance());
  void publish() LUMO_REQUIRES(SettingsMutex::instance());
  static bool partIs(Setting& setting, std::string_view part);

  std::map<std::string, Facility> facilities_ LUMO_GUARDED_BY(SettingsMutex::instance());
  std::vector<String> handleNames_ LUMO_GUARDED_BY(SettingsMutex::instance());
  Setting setting_ LUMO_GUARDED_BY(SettingsMutex::instance());
  std::string environment_;  // the setting that the process was started with; never changed
  std::atomic<bool> warningDue_{false};
};

}  // namespace Lumo
