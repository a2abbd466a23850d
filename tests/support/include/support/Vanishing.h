#pragma once

#include <sys/mman.h>

#include <new>
#include <utility>

namespace support {

// An object in memory of its own that nobody can reach once the object has ended: whoever looks at
// it all the same ends the process, also without a sanitizer.
template <class T>
class Vanishing {
 public:
  Vanishing()
      : memory_(::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1,
                       0)) {
    if (memory_ == MAP_FAILED) throw std::bad_alloc();
    object_ = ::new (memory_) T;
  }
  ~Vanishing() {
    if (object_) end();
    ::munmap(memory_, sizeof(T));
  }
  Vanishing(const Vanishing&) = delete;
  Vanishing& operator=(const Vanishing&) = delete;

  T* operator->() const { return object_; }
  void end() {
    std::exchange(object_, nullptr)->~T();
    ::mprotect(memory_, sizeof(T), PROT_NONE);
  }

 private:
  void* const memory_;
  T* object_ = nullptr;
};

}  // namespace support
