#pragma once

#include <Lumo/Types.h>

namespace Skein {

// The monotonic clock in nanoseconds, cheaper than the kernel's where the processor has a steady
// counter: the counter carries on from the kernel's time for up to a millisecond, which keeps the
// two within some ten nanoseconds. Never goes backwards. One thread at a time.
class RecordClock {
 public:
  U64 now();

 private:
  U64 fromKernel(U64 ticks);

  U64 anchorTicks_ = 0;
  U64 anchorNs_ = 0;
  U64 lastNs_ = 0;
};

}  // namespace Skein
