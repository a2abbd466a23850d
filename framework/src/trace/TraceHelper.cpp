#include <ctime>
#include <new>

#include <Lumo/Trace.h>

#include "KernelThreadId.h"
#include "LineStream.h"
#include "TraceOutput.h"
#include "TraceRegistry.h"

namespace Lumo {

constinit std::atomic<std::ostream*> coverageStream_{nullptr};

TraceHandle::TraceHandle(String facility, bool onByDefault) {
  const TraceRegistry::Facility& record = TraceRegistry::instance().handleIs(facility, onByDefault);
  levels_ = &record.levels;
  name_ = &record.name;
}

// Nothing to release; threads that outlive the handle go on reading its two pointers.
TraceHandle::~TraceHandle() = default;

TraceHelper::TraceHelper(TraceHandle& handle, unsigned level)
    : handle_(handle), stream_(LineStream::borrow()), level_(level) {}

TraceHelper::~TraceHelper() {
  LineStream::giveBack(stream_);
}

TraceHelper* TraceHelper::createIfEnabled(TraceHandle& handle, unsigned level, void* storage) {
  if (!handle.enabled(level)) return nullptr;
  return new (storage) TraceHelper(handle, level);
}

std::ostream& TraceHelper::stringstream() {
  return *stream_;
}

void TraceHelper::trace(char const* file, int line, char const* function) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  TraceLine record;
  record.facility = {handle_.name().charPtr(), handle_.name().length()};
  record.level = level_;
  record.file = file;
  record.line = line;
  record.function = function;
  record.text = stream_->text();
  record.timeNs = static_cast<U64>(now.tv_sec) * 1000000000ULL + static_cast<U64>(now.tv_nsec);
  record.thread = kernelThreadId();
  deliverTraceLine(record);
}

}  // namespace Lumo
