#pragma once

#include <atomic>

#include <Lumo/String.h>

namespace Lumo {

// A module's switch for its text trace. Each module has one, a function-local static made at the
// module's first trace. The levels live in a record of the process that is never freed, and the
// destructor leaves the object readable: a worker that traces while the process exits is safe.
class TraceHandle {
 public:
  // `onByDefault`: all levels are on unless a setting names the facility.
  TraceHandle(String facility, bool onByDefault);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  // Any thread. Relaxed: a change of the settings reaches other threads soon, not at once.
  bool enabled(unsigned level) const {
    return level < 32 && ((levels_->load(std::memory_order_relaxed) >> level) & 1) != 0;
  }
  const String& name() const { return *name_; }

 private:
  const std::atomic<U32>* levels_;  // bit n is level n; bits above 9 are never set
  const String* name_;
};

}  // namespace Lumo
