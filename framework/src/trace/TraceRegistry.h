#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <Lumo/String.h>
#include <Lumo/ThreadAnnotations.h>
#include <Lumo/TraceFacility.h>

namespace Lumo {

// Guards the settings and standard error. Never destroyed, and free in a forked child.
class LUMO_CAPABILITY("mutex") TraceMutex {
 public:
  static TraceMutex& instance();
  void lock() LUMO_ACQUIRE() { mutex_.lock(); }
  void unlock() LUMO_RELEASE() { mutex_.unlock(); }

 private:
  TraceMutex();
  std::mutex mutex_;
};

class LUMO_SCOPED_CAPABILITY TraceMutexAnchor {
 public:
  TraceMutexAnchor() LUMO_ACQUIRE(TraceMutex::instance()) { TraceMutex::instance().lock(); }
  ~TraceMutexAnchor() LUMO_RELEASE() { TraceMutex::instance().unlock(); }
  TraceMutexAnchor(const TraceMutexAnchor&) = delete;
  TraceMutexAnchor& operator=(const TraceMutexAnchor&) = delete;
};

// The settings and the records of the facilities. Never destroyed: handles point into it.
class TraceRegistry {
 public:
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
  TraceRegistry();
  U32 wanted(const std::string& name, bool onByDefault) const LUMO_REQUIRES(TraceMutex::instance());
  void publish() LUMO_REQUIRES(TraceMutex::instance());
  bool partIs(std::string_view part) LUMO_REQUIRES(TraceMutex::instance());

  std::map<std::string, Facility> facilities_ LUMO_GUARDED_BY(TraceMutex::instance());
  std::vector<String> handleNames_ LUMO_GUARDED_BY(TraceMutex::instance());
  // Levels of the facilities that a setting names, and of "*".
  std::map<std::string, U32> named_ LUMO_GUARDED_BY(TraceMutex::instance());
  std::optional<U32> all_ LUMO_GUARDED_BY(TraceMutex::instance());
};

}  // namespace Lumo
