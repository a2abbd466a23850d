#pragma once

#include <atomic>
#include <thread>

#include <Lumo/ThreadAnnotations.h>

namespace Lumo {

// For sections of a few instructions that are hardly ever contended, such as a step over a notifiee
// list. Acquire on taking and release on leaving order everything done inside.
class LUMO_CAPABILITY("mutex") SpinLock {
 public:
  void lock() LUMO_ACQUIRE() {
    while (taken_.exchange(true, std::memory_order_acquire)) std::this_thread::yield();
  }
  void unlock() LUMO_RELEASE() { taken_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> taken_{false};
};

class LUMO_SCOPED_CAPABILITY SpinLockAnchor {
 public:
  explicit SpinLockAnchor(SpinLock& lock) LUMO_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
  ~SpinLockAnchor() LUMO_RELEASE() { lock_.unlock(); }
  SpinLockAnchor(const SpinLockAnchor&) = delete;
  SpinLockAnchor& operator=(const SpinLockAnchor&) = delete;

 private:
  SpinLock& lock_;
};

}  // namespace Lumo
