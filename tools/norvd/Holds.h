#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>

#include <Norv/State/Switch.h>

#include "Log.h"

namespace Norvd {

using Time = std::chrono::steady_clock::time_point;
inline Time now() {
  return std::chrono::steady_clock::now();
}

// Objects that have to wait before they are tried again: one that the daemon refused, after growing
// pauses; one that somebody else changes back each time it is repaired, after growing pauses, too.
// What is known of an object holds for what was wanted of it (its value); another value starts
// anew. Time is given. For the main thread.
class Holds {
 public:
  explicit Holds(std::chrono::milliseconds interval) : interval_(interval) {}

  struct Hold {
    enum class Why { refused, contested };
    Why why;
    std::string text;
    WallTime since;  // when it first was so
    bool waits;      // not to be tried now
  };
  std::optional<Hold> hold(const Norv::State::Object& object, const std::string& value,
                           Time now) const;

  void refused(const Norv::State::Object& object, const std::string& value, const std::string& text,
               Time now);
  // It was made as wanted.
  void done(const Norv::State::Object& object, const std::string& value, Time now);
  // The switch was looked at, and these are not as wanted; what is right for long enough is
  // forgotten.
  void seen(const std::set<Norv::State::Object>& differing, Time now);
  // Tries it at the next occasion; false when nothing is known of it.
  bool lift(const Norv::State::Object& object);
  // The switch may be another one.
  void forget() { entries_.clear(); }

  static constexpr std::chrono::minutes longest{5};

 private:
  struct Entry {
    std::string value;
    unsigned refusals = 0;  // in a row
    std::string text;
    WallTime since;
    unsigned repairs = 0;  // in a row, each after it was right
    Time next;
  };
  Entry& entry(const Norv::State::Object& object, const std::string& value);
  std::chrono::milliseconds pause(unsigned times) const;

  const std::chrono::milliseconds interval_;
  std::map<Norv::State::Object, Entry> entries_;
};

}  // namespace Norvd
