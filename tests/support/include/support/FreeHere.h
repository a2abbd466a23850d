#pragma once

#include <Lumo/Lock.h>

namespace support {

// Whether this thread may take the lock, that is, does not hold it already.
inline bool freeHere(Lumo::Lock* lock) LUMO_NO_THREAD_SAFETY_ANALYSIS {
  const bool taken = lock->lock();
  if (taken) lock->unlock();
  return taken;
}

}  // namespace support
