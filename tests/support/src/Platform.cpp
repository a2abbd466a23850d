#include <dlfcn.h>
#include <pthread.h>
#include <support/Platform.h>

#include <atomic>
#include <cstdlib>

namespace support {

namespace {

std::atomic<const Platform::Observer*> current{nullptr};
thread_local constinit bool inside = false;

std::optional<int> tell(const char* function, const void* object, int argument) {
  const Platform::Observer* observer = current.load(std::memory_order_acquire);
  if (!observer || inside) return std::nullopt;
  inside = true;
  const std::optional<int> answer = (*observer)(function, object, argument);
  inside = false;
  return answer;
}

// The platform's own function of a name.
class Own {
 public:
  // Of the functions for conditions there are older ones of the same name.
  explicit Own(const char* name) : name_(name), function_(dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2")) {
    if (!function_) function_ = dlsym(RTLD_NEXT, name);
  }
  // Calls it unless the observer answers for it.
  template <class... Args>
  int call(const void* object, int argument, Args... args) const {
    const std::optional<int> answer = tell(name_, object, argument);
    return answer ? *answer : reinterpret_cast<int (*)(Args...)>(function_)(args...);
  }
  void* function() const { return function_; }

 private:
  const char* const name_;
  void* function_;
};

}  // namespace

// Not freed: a thread may still be calling it when it is replaced.
Platform::Platform(Observer observer) {
  current.store(new Observer(std::move(observer)), std::memory_order_release);
}

Platform::~Platform() {
  current.store(nullptr, std::memory_order_release);
}

}  // namespace support

// These take the place of the platform's functions for every library of the program.
extern "C" {

using support::Own;

int pthread_mutexattr_init(pthread_mutexattr_t* attributes) noexcept {
  static const Own own(__func__);
  return own.call(attributes, 0, attributes);
}

int pthread_mutexattr_setpshared(pthread_mutexattr_t* attributes, int shared) noexcept {
  static const Own own(__func__);
  return own.call(attributes, shared, attributes, shared);
}

int pthread_mutexattr_settype(pthread_mutexattr_t* attributes, int type) noexcept {
  static const Own own(__func__);
  return own.call(attributes, type, attributes, type);
}

int pthread_mutexattr_destroy(pthread_mutexattr_t* attributes) noexcept {
  static const Own own(__func__);
  return own.call(attributes, 0, attributes);
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
  static const Own own(__func__);
  return own.call(mutex, 0, mutex, attributes);
}

int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
  static const Own own(__func__);
  return own.call(mutex, 0, mutex);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const Own own(__func__);
  return own.call(mutex, 0, mutex);
}

int pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) noexcept {
  static const Own own(__func__);
  return own.call(condition, 0, condition, attributes);
}

int pthread_cond_destroy(pthread_cond_t* condition) noexcept {
  static const Own own(__func__);
  return own.call(condition, 0, condition);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  static const Own own(__func__);
  return own.call(condition, 0, condition, mutex);
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
  static const Own own(__func__);
  return own.call(condition, 0, condition);
}

char* getenv(const char* name) noexcept {
  static const Own own(__func__);
  support::tell("getenv", name, 0);
  return reinterpret_cast<char* (*)(const char*)>(own.function())(name);
}

}  // extern "C"
