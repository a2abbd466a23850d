#include <cerrno>

#include <Lumo/Exception.h>
#include <Lumo/Lock.h>

namespace Lumo {

static_assert(EDEADLK == 35, "the value that Lock::lock() takes for 'held by this thread already'");

void Lock::initialize(bool releasable) {
  releasable_ = releasable;
  pthread_mutexattr_t attributes;
  check(pthread_mutexattr_init(&attributes));
  check(pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_PRIVATE));
  check(pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK));
  check(pthread_mutex_init(&mutex_, &attributes));
  pthread_mutexattr_destroy(&attributes);
}

void Lock::throwErrno(const char* text, int errnoValue) {
  throw ErrnoException(text, errnoValue);
}

void LockAnchor::refuse() {
  if (locked_) lock_->unlock();
  throw InternalException("Lock Protocol violation xxx", ExceptionIdSet());
}

Lock* ActivityLockAnchor::lock() {
  // Never destroyed: a worker may still be inside a handler when the process exits.
  static Lock* const activityLock = new Lock();
  return activityLock;
}

Condition::Condition() {
  check(pthread_cond_init(&condition_, nullptr));
}

Condition::~Condition() {
  check(pthread_cond_destroy(&condition_));
}

void Condition::wait(Lock* lock) {
  const int result = pthread_cond_wait(&condition_, &lock->mutex_);
  if (result != 0) throw ErrnoException("Condition variable wait failed", result);
}

void Condition::signal() {
  const int result = pthread_cond_broadcast(&condition_);
  if (result != 0) throw ErrnoException("Condition variable signal failed", result);
}

}  // namespace Lumo
