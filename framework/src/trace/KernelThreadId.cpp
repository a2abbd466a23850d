#include "KernelThreadId.h"

#include <pthread.h>
#include <unistd.h>

namespace Lumo::detail {

thread_local constinit int keptThreadId = 0;

int askThreadId() {
  // Only the forking thread lives on in a child, under another id.
  static const int registered = pthread_atfork(nullptr, nullptr, [] { keptThreadId = 0; });
  (void)registered;
  keptThreadId = gettid();
  return keptThreadId;
}

}  // namespace Lumo::detail
