#pragma once

#include <cstddef>
#include <iosfwd>

#include <Lumo/TraceHandle.h>

namespace Lumo {

class LineStream;

// One line in the making. It lives in storage of the caller and on the caller's thread; its stream
// is lent by the thread and keeps its memory from line to line.
class TraceHelper {
 public:
  static const std::size_t storageSize;  // aligned like a pointer

  // A helper in `storage` when the handle's level is on, else null and the storage stays untouched.
  // The caller destroys the helper, best with EnsureTraceHelperIsDestroyed.
  static TraceHelper* createIfEnabled(TraceHandle& handle, unsigned level, void* storage);
  ~TraceHelper();
  TraceHelper(const TraceHelper&) = delete;
  TraceHelper& operator=(const TraceHelper&) = delete;

  std::ostream& stringstream();
  // Hands the line to the sink, whose exceptions pass through. The texts are only read.
  void trace(char const* file, int line, char const* function);

 private:
  TraceHelper(TraceHandle& handle, unsigned level);

  TraceHandle& handle_;
  LineStream* const stream_;
  const unsigned level_;
};

inline constexpr std::size_t TraceHelper::storageSize = sizeof(TraceHelper);

// Destroys a helper (or nothing, for null) on every way out of the scope.
class EnsureTraceHelperIsDestroyed {
 public:
  explicit EnsureTraceHelperIsDestroyed(TraceHelper* helper) : helper_(helper) {}
  ~EnsureTraceHelperIsDestroyed() {
    if (helper_) helper_->~TraceHelper();
  }
  EnsureTraceHelperIsDestroyed(const EnsureTraceHelperIsDestroyed&) = delete;
  EnsureTraceHelperIsDestroyed& operator=(const EnsureTraceHelperIsDestroyed&) = delete;

 private:
  TraceHelper* const helper_;
};

}  // namespace Lumo
