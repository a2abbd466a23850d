#pragma once

#include <pthread.h>

namespace support {

// Runs `work` on a thread of its own. Whether the thread was cancelled in it.
template <class Work>
bool isCancelledIn(Work work) {
  pthread_t thread;
  const auto run = [](void* argument) -> void* {
    (*static_cast<Work*>(argument))();
    return nullptr;
  };
  if (::pthread_create(&thread, nullptr, run, &work) != 0) return false;
  void* result = nullptr;
  ::pthread_join(thread, &result);
  return result == PTHREAD_CANCELED;
}

}  // namespace support
