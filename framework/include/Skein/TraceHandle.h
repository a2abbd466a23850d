#pragma once

#include <atomic>

#include <Skein/TraceFile.h>

namespace Skein {

// Opens a trace file for writing, on behalf of the agent. The library only ever uses the default
// handle.
class TraceHandle {
 public:
  // Throws as TraceFile does.
  explicit TraceHandle(const std::string& path, TraceOptions options = {});
  // Takes the handle out of its place as default first. In multi-threaded mode it then waits until
  // no thread is inside a trace point, so that it may be destroyed while others trace.
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  TraceFile* traceFile() { return file_.multiThreaded() ? mtTraceFile() : &file_; }
  TraceFile* mtTraceFile() { return file_.multiThreaded() ? &file_ : nullptr; }

 private:
  TraceFile file_;
};

extern std::atomic<TraceHandle*> defaultHandle_;

// Makes trace points write into this handle's file; null makes them write none. The handle stays
// the caller's. Any thread.
void defaultSkeinHandleIs(TraceHandle* handle);

// The process's default file, or null.
inline TraceFile* defaultSkeinFile() {
  TraceHandle* const handle = defaultHandle_.load(std::memory_order_acquire);
  return handle ? handle->traceFile() : nullptr;
}

// Marks the calling thread as inside a trace point: a file that was the default when or after this
// was made is not destroyed before this is. Not to be nested.
class InTracePoint {
 public:
  InTracePoint();
  ~InTracePoint() { inside_.store(false, std::memory_order_release); }
  InTracePoint(const InTracePoint&) = delete;
  InTracePoint& operator=(const InTracePoint&) = delete;

 private:
  std::atomic<bool>& inside_;
};

}  // namespace Skein
