// A lock anchor beside a bare error-checking mutex of the platform.

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <Lumo/Lock.h>

namespace {

void Anchor(benchmark::State& state) {
  Lumo::Lock lock;
  for (auto _ : state) {
    Lumo::LockAnchor anchor(&lock);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(Anchor);

void BareMutex(benchmark::State& state) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &attributes);
  for (auto _ : state) {
    pthread_mutex_lock(&mutex);
    benchmark::ClobberMemory();
    pthread_mutex_unlock(&mutex);
  }
  pthread_mutex_destroy(&mutex);
  pthread_mutexattr_destroy(&attributes);
}
BENCHMARK(BareMutex);

// One more on a lock that the thread holds already, which the analysis takes for a mistake.
LUMO_NO_THREAD_SAFETY_ANALYSIS void NestedAnchor(benchmark::State& state) {
  Lumo::Lock lock;
  const Lumo::LockAnchor outer(&lock);
  for (auto _ : state) {
    Lumo::LockAnchor anchor(&lock);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(NestedAnchor);

}  // namespace
