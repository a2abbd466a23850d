#pragma once

#include <atomic>

#include <Lumo/Types.h>

namespace Lumo {

// Whether reference words are changed by atomic read-modify-writes. True by default, because
// commands and the pending queue are shared by two threads; an agent that is certain to have one
// thread may clear it before it creates its first object. It is read at every change.
extern std::atomic<bool> enableThreadSafePointers;

// The one 32-bit word of a PtrInterface: two flags and the reference count.
//
//   bit 31          marked for deletion
//   bit 30, 28..0   the count
//   bit 29          notification active
//
// The count spans bit 30 and skips the flag at bit 29, on purpose.
class ReferenceWord {
 public:
  static constexpr U32 countMask = 0x5FFFFFFF;
  static constexpr U32 activeBit = 0x20000000;
  static constexpr U32 markedBit = 0x80000000;

  static constexpr bool isZeroReference(U32 word) { return (word & countMask) == 0; }

  // An object starts with one reference: the one its creator is handed.
  constexpr ReferenceWord() = default;

  U32 word() const { return word_.load(std::memory_order_relaxed); }
  U32 count() const { return word() & countMask; }
  bool marked() const { return static_cast<int>(word()) < 0; }
  bool active() const { return (word() & activeBit) != 0; }

  // Relaxed: whoever adds a reference already holds one, so the object cannot go meanwhile.
  void inc() {
    if (threadSafe()) {
      word_.fetch_add(1, std::memory_order_relaxed);
    } else {
      word_.store(word() + 1, std::memory_order_relaxed);
    }
  }

  // Returns the word after the change. Release and acquire on every decrement: what any holder did
  // to the object happens before its destruction, and which decrement is the last shows only after.
  U32 dec() {
    if (threadSafe()) return word_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    const U32 next = word() - 1;
    word_.store(next, std::memory_order_relaxed);
    return next;
  }

  // Adds a reference unless there is none left. For a holder of a lock that the object's
  // destructor takes: the memory is valid, but the object may already be on its way out.
  bool incUnlessZero() {
    U32 seen = word();
    while (!isZeroReference(seen)) {
      if (word_.compare_exchange_weak(seen, seen + 1, std::memory_order_relaxed)) return true;
    }
    return false;
  }

  // As activeIs(true), right after the object was made. Who else knows it holds a reference: where
  // there is one alone, no count can be lost.
  void activateFresh() {
    if (word() == 1) {
      word_.store(activeBit | 1, std::memory_order_relaxed);
    } else {
      activeIs(true);
    }
  }

  void markedIs(bool marked) { flagIs(markedBit, marked); }
  void activeIs(bool active) { flagIs(activeBit, active); }

 private:
  static bool threadSafe() { return enableThreadSafePointers.load(std::memory_order_relaxed); }

  void flagIs(U32 bit, bool on) {
    if (threadSafe()) {
      // Atomic, as a plain store would lose a count made meanwhile on another thread.
      on ? word_.fetch_or(bit, std::memory_order_relaxed)
         : word_.fetch_and(~bit, std::memory_order_relaxed);
    } else {
      word_.store(on ? word() | bit : word() & ~bit, std::memory_order_relaxed);
    }
  }

  std::atomic<U32> word_{1};
};

}  // namespace Lumo
