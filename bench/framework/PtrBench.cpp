// A counted pointer beside boost::intrusive_ptr to an object with the same kind of counter, and the
// size of the objects.

#include <benchmark/benchmark.h>

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>

#include "Bench.h"

namespace {

using boost::intrusive_ref_counter;

template <class Counter>
struct Peer : intrusive_ref_counter<Peer<Counter>, Counter> {
  virtual ~Peer() = default;
};
using AtomicPeer = Peer<boost::thread_safe_counter>;
using PlainPeer = Peer<boost::thread_unsafe_counter>;

// The peer with our counter: a word that asks at each change how to count.
struct ChoosingPeer {
  virtual ~ChoosingPeer() = default;
  Lumo::ReferenceWord references;
};
void intrusive_ptr_add_ref(ChoosingPeer* object) {
  object->references.inc();
}
void intrusive_ptr_release(ChoosingPeer* object) {
  if (Lumo::ReferenceWord::isZeroReference(object->references.dec())) delete object;
}

// Pointers count as `threadSafe` says while it lives.
class Counting {
 public:
  explicit Counting(bool threadSafe) { Lumo::enableThreadSafePointers = threadSafe; }
  ~Counting() { Lumo::enableThreadSafePointers = true; }
};

template <class Pointer>
void copyAndRelease(benchmark::State& state, const Pointer& pointer) {
  for (auto _ : state) {
    Pointer copy = pointer;
    benchmark::DoNotOptimize(copy);
  }
}

void PtrCopyAtomic(benchmark::State& state) {
  const Counting counting(true);
  copyAndRelease(state, Lumo::allocate<bench::Sample>());
}
void PtrCopyPlain(benchmark::State& state) {
  const Counting counting(false);
  copyAndRelease(state, Lumo::allocate<bench::Sample>());
}
void BoostCopyAtomic(benchmark::State& state) {
  copyAndRelease(state, boost::intrusive_ptr<AtomicPeer>(new AtomicPeer));
}
void BoostCopyPlain(benchmark::State& state) {
  copyAndRelease(state, boost::intrusive_ptr<PlainPeer>(new PlainPeer));
}
void BoostCopyChoosingPlain(benchmark::State& state) {
  const Counting counting(false);
  copyAndRelease(state, boost::intrusive_ptr<ChoosingPeer>(new ChoosingPeer, false));
}
BENCHMARK(PtrCopyAtomic);
BENCHMARK(BoostCopyAtomic);
BENCHMARK(PtrCopyPlain);
BENCHMARK(BoostCopyChoosingPlain);
BENCHMARK(BoostCopyPlain);

// The whole life of a small object.
void PtrLife(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Lumo::allocate<bench::Bare>());
}
void BoostLife(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(boost::intrusive_ptr<AtomicPeer>(new AtomicPeer));
  }
}
BENCHMARK(PtrLife);
BENCHMARK(BoostLife);

// Bytes, not time: what an object takes beyond the pointer to its virtual table.
void Sizes(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(state.iterations());
  state.counters["PtrInterface"] = sizeof(Lumo::PtrInterface) - sizeof(void*);
  state.counters["Entity"] = sizeof(Lumo::Entity) - sizeof(void*);
  state.counters["EntityWithList"] = sizeof(bench::Empty) - sizeof(void*);
  state.counters["Reactor"] = sizeof(Lumo::NotifieeConst) - sizeof(void*);
}
BENCHMARK(Sizes)->Iterations(1);

}  // namespace
