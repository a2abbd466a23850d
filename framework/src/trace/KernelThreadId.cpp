#include "KernelThreadId.h"

#include <pthread.h>
#include <unistd.h>

namespace Lumo::detail {

thread_local constinit int keptThreadId = 0;

namespace {
// No local static: a child that is forked while another thread is at it would wait for ever.
pthread_once_t forksWatched = PTHREAD_ONCE_INIT;
}  // namespace

int askThreadId() {
  // Only the forking thread lives on in a child, under another id.
  pthread_once(&forksWatched, [] { pthread_atfork(nullptr, nullptr, [] { keptThreadId = 0; }); });
  keptThreadId = gettid();
  return keptThreadId;
}

}  // namespace Lumo::detail
