#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

namespace Lumo {

class PtrInterface;
template <class T>
class ValidPtr;

// Selects construction without counting: for the one reference a fresh object is born with.
struct __NoRefcountIncrement {};
using NoRefcountIncrement = __NoRefcountIncrement;

// A counted pointer to a PtrInterface, as large as a raw pointer. One Ptr object belongs to one
// thread at a time; the object pointed to may be shared (see enableThreadSafePointers).
//
// The life of an object: `allocate` (or an XIs creator) makes it with a count of one and hands that
// one out in a Ptr; copies add, destroyed Ptrs subtract; the subtraction that reaches zero deletes
// it. `Ptr<X>(new X)` counts once more than anyone will subtract, and so leaks: create through
// `allocate`.
//
// Assignment and destruction never let an exception out: a destructor that throws there ends the
// process.
template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* object) : object_(object) { inc(object_); }
  Ptr(T* object, __NoRefcountIncrement) : object_(object) {}
  Ptr(const Ptr& other) : object_(other.object_) { inc(object_); }
  Ptr(Ptr&& other) noexcept { ptrCopyRvalue(other); }

  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& other) : object_(other.ptr()) {
    inc(object_);
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& other) noexcept : object_(other.release()) {}
  // A ValidPtr is never null, so moving out of one copies.
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(ValidPtr<U>&& other) : Ptr(static_cast<const Ptr<U>&>(other)) {}

  ~Ptr() { dec(object_); }

  Ptr& operator=(const Ptr& other) noexcept {
    ptrAssign(other.object_);
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    ptrAssignRvalue(other);
    return *this;
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr& operator=(ValidPtr<U>&& other) noexcept {
    ptrAssign(other.ptr());
    return *this;
  }

  // Holds `object` from now on. The new one is counted before the old one is released, and the old
  // one's destructor, if it runs, already sees the new value here. Assigning the object already
  // held changes nothing.
  void ptrAssign(T* object) noexcept {
    if (object == object_) return;
    inc(object);
    dec(std::exchange(object_, object));
  }

  // Takes over what `source` holds and leaves it null. If both hold the same object, the source's
  // reference is given back, so that this Ptr keeps exactly one. Moving to itself does nothing.
  void ptrAssignRvalue(Ptr& source) noexcept {
    if (this == &source) return;
    T* taken = std::exchange(source.object_, nullptr);
    if (taken == object_) {
      dec(taken);
    } else {
      dec(std::exchange(object_, taken));
    }
  }

  // Move construction: takes over without a change of the count.
  void ptrCopyRvalue(Ptr& source) noexcept { object_ = std::exchange(source.object_, nullptr); }

  explicit operator bool() const { return object_ != nullptr; }
  T* ptr() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }

 private:
  template <class U>
  friend class Ptr;

  T* release() { return std::exchange(object_, nullptr); }
  static void inc(T* object) {
    if (object) object->referencesInc();
  }
  static void dec(T* object) noexcept {
    if (object) object->referencesDec();
  }

  T* object_ = nullptr;
};

template <class T, class U>
bool operator==(const Ptr<T>& a, const Ptr<U>& b) {
  return a.ptr() == b.ptr();
}
template <class T>
bool operator==(const Ptr<T>& a, std::nullptr_t) {
  return a.ptr() == nullptr;
}
template <class T>
bool operator==(const Ptr<T>& a, const T* b) {
  return a.ptr() == b;
}

}  // namespace Lumo
