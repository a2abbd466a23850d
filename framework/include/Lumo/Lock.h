#pragma once

#include <pthread.h>

#include <Lumo/Assert.h>
#include <Lumo/PtrInterface.h>
#include <Lumo/ThreadAnnotations.h>

namespace Lumo {

// A process-private, error-checking mutex. A thread that takes a lock it already holds is told so
// and goes on; it is never a deadlock. Not a framework object: made by `new` or as a member.
//
//   state of the mutex     lock()            unlock()
//   free                   true, taken       ErrnoException "Failed to release the lock"
//   held by this thread    false             released
//   held by another        waits, then true  ErrnoException "Failed to release the lock"
class LUMO_CAPABILITY("mutex") Lock {
 public:
  static const LumoType _lumoType;

  Lock() { initialize(true); }
  ~Lock() { check(pthread_mutex_destroy(&mutex_)); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  // Sets the mutex up; a failure while doing so is ignored. The constructor has called it.
  void initialize(bool releasable);

  // True: taken now. False: this thread held it already, and the caller must not undo it. Anything
  // else raises ErrnoException "Failed to grab lock".
  bool lock() LUMO_ACQUIRE() {
    const int result = pthread_mutex_lock(&mutex_);
    if (result == 0) return true;
    if (result == alreadyHeld) return false;
    throwErrno("Failed to grab lock", result);
  }
  // Raises ErrnoException "Failed to release the lock" when this thread does not hold it.
  void unlock() LUMO_RELEASE() {
    const int result = pthread_mutex_unlock(&mutex_);
    if (result != 0) throwErrno("Failed to release the lock", result);
  }

  // Whether a holder further in may insist on releasing it (see LockAnchor). Under the lock only.
  bool releasable() const { return releasable_; }
  void releasableIs(bool releasable) { releasable_ = releasable; }

 private:
  friend class Condition;

  static constexpr int alreadyHeld = 35;  // EDEADLK
  static void check(int) {}               // Kept on purpose: set-up failures are ignored.
  [[noreturn]] static void throwErrno(const char* text, int errnoValue);

  pthread_mutex_t mutex_;
  bool releasable_ = false;
};

// Holds a lock for the life of a local object. Anchors nest on one thread: only the one that took
// the mutex releases it. The destructor ends the process if the release fails.
class LUMO_SCOPED_CAPABILITY LockAnchor {
 public:
  typedef unsigned Flags;
  // While this anchor lives, the lock is marked not releasable.
  static constexpr Flags notReleasable = 1;
  // The lock must be releasable, or the anchor refuses: InternalException "Lock Protocol violation
  // xxx", with the mutex given back if the anchor took it, and the mark as it was.
  static constexpr Flags requireReleasable = 2;

  explicit LockAnchor(Lock* lock, Flags flags = 0) LUMO_ACQUIRE(lock) LUMO_NO_THREAD_SAFETY_ANALYSIS
      : lock_(lock),
        locked_(checked(lock)->lock()),
        savedReleasable_(lock->releasable()) {
    if ((flags & requireReleasable) && !savedReleasable_) refuse();
    lock_->releasableIs(!(flags & notReleasable));
  }
  ~LockAnchor() LUMO_RELEASE() LUMO_NO_THREAD_SAFETY_ANALYSIS {
    lock_->releasableIs(savedReleasable_);
    if (locked_) lock_->unlock();
  }
  LockAnchor(const LockAnchor&) = delete;
  LockAnchor& operator=(const LockAnchor&) = delete;

  // Whether this anchor took the mutex; false when the thread held it already.
  bool locked() const { return locked_; }

 private:
  static Lock* checked(Lock* lock) {
    LUMO_ASSERT(lock, "lock");
    return lock;
  }
  [[noreturn]] void refuse() LUMO_NO_THREAD_SAFETY_ANALYSIS;

  Lock* lock_;
  bool locked_;
  bool savedReleasable_;
};

// A LockAnchor on the process's one activity lock: whoever holds it runs as if on the main thread.
// The main loop holds it while it runs reactors and releases it while it waits. It is taken before
// any other lock.
class LUMO_SCOPED_CAPABILITY ActivityLockAnchor : public LockAnchor {
 public:
  explicit ActivityLockAnchor(Flags flags = 0) LUMO_NO_THREAD_SAFETY_ANALYSIS
      : LockAnchor(lock(), flags) {}
  ~ActivityLockAnchor() LUMO_NO_THREAD_SAFETY_ANALYSIS = default;

  // The activity lock; it lives until the process ends.
  static Lock* lock();
};

// A condition variable to be used with a Lock. Made by plain `new`, freed by plain `delete`; nobody
// may be waiting then. A signal wakes every thread that waits at that moment and is not remembered.
class Condition : public PtrInterface {
 public:
  static const LumoType _lumoType;
  const LumoType* fwkType() const override { return &_lumoType; }

  Condition();
  ~Condition() override;

  // Releases `lock`, waits, takes it again. May also return without a signal. Raises ErrnoException
  // "Condition variable wait failed", for one when this thread does not hold the lock.
  void wait(Lock* lock) LUMO_REQUIRES(lock);
  // Kept on purpose: wakes all waiters; there is no signal to a single one.
  void signal();

 private:
  static void check(int) {}  // Kept on purpose: set-up failures are ignored.

  pthread_cond_t condition_;
};

}  // namespace Lumo
