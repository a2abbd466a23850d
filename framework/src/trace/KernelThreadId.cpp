#include "KernelThreadId.h"

#include <pthread.h>
#include <unistd.h>

namespace Lumo {

namespace {

thread_local int id = 0;

int firstUse() {
  // Only the forking thread lives on in a child, under another id.
  static const int registered = pthread_atfork(nullptr, nullptr, [] { id = 0; });
  (void)registered;
  id = gettid();
  return id;
}

}  // namespace

int kernelThreadId() {
  return id ? id : firstUse();
}

}  // namespace Lumo
