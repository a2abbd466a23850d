#pragma once

#include <atomic>

#include <Lumo/Types.h>

namespace Lumo {

class Entity;

// A scope in which the reading thread relies on an entity not changing (null: on none changing). A
// mutator that changes the entity on the same thread meanwhile is a programming error and aborts;
// other threads are not concerned. Scopes nest, and end in the reverse order of their beginning.
class FwkEntityReadsPreserve {
 public:
  explicit FwkEntityReadsPreserve(const Entity* entity = nullptr);
  ~FwkEntityReadsPreserve();
  FwkEntityReadsPreserve(const FwkEntityReadsPreserve&) = delete;
  FwkEntityReadsPreserve& operator=(const FwkEntityReadsPreserve&) = delete;

  // Whether a scope on `entity`, or on all entities, is open on this thread.
  static bool anyActive(const Entity* entity) {
    return open_.load(std::memory_order_relaxed) != 0 && activeOnThisThread(entity);
  }

 private:
  static bool activeOnThisThread(const Entity* entity);

  // The scopes open on all threads: spares every mutator a look at its thread's own. Relaxed, as a
  // thread sees its own scopes in any case and is not concerned by others'.
  static std::atomic<U32> open_;

  const Entity* entity_;
  FwkEntityReadsPreserve* outer_;
};

}  // namespace Lumo
