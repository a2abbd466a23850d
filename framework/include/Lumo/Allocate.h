#pragma once

#include <new>
#include <utility>

#include <Lumo/AllocTrackTypeInfo.h>
#include <Lumo/Ptr.h>

namespace Lumo {

// The one place that creates framework objects; every framework class befriends it.
struct Confidant {
  // Memory from T::operator new, the object constructed in it. When the constructor throws, the
  // memory goes back through T::operator delete and the exception on to the caller.
  template <class T, class... Args>
  static T* allocate(Args&&... args) {
    void* memory = T::operator new(sizeof(T));
    try {
      return ::new (memory) T(std::forward<Args>(args)...);
    } catch (...) {
      T::operator delete(memory);
      throw;
    }
  }

  // A class without a switch of its own only has the flag.
  template <class T>
  static constexpr bool onlyFlag = requires {
    requires std::is_same_v<decltype(&T::hasNotificationActiveIs), void (PtrInterface::*)(bool)>;
  };
  template <class T>
  static void activateFresh(const T& object) {
    object.references_.activateFresh();
  }
};

// Switches notification on for a fresh object that has such a switch.
template <class T>
void maybeCallHasNotificationActiveIsTrue(T* object) {
  if constexpr (Confidant::onlyFlag<T>) {
    Confidant::activateFresh<PtrInterface>(*object);
  } else if constexpr (requires { object->hasNotificationActiveIs(true); }) {
    object->hasNotificationActiveIs(true);
  }
}

// Creates a T. The result holds the only reference; notification becomes active after the
// constructor has run, so nothing in a constructor may depend on it.
template <class T, class... Args>
inline Ptr<T> allocate(Args&&... args) {
  Ptr<T> object(Confidant::allocate<T>(std::forward<Args>(args)...), __NoRefcountIncrement());
  maybeCallHasNotificationActiveIsTrue(object.ptr());
  return object;
}

}  // namespace Lumo

// In the body of every class derived from PtrInterface: its allocation record, its descriptor, and
// operators that keep the record by the class's own size while taking the memory asked for (a
// subclass without operators of its own is recorded as this class). Leaves the access `public`.
// Classes with extended alignment are not covered.
#define LUMO_OBJECT(Class)                                                                    \
 public:                                                                                      \
  friend struct ::Lumo::Confidant;                                                            \
  static inline constinit ::Lumo::AllocTrackTypeInfo lumoAllocTrackTypeInfo_{};               \
  static const ::Lumo::LumoType _lumoType;                                                    \
  const ::Lumo::LumoType* fwkType() const override {                                          \
    return &_lumoType;                                                                        \
  }                                                                                           \
  static void* operator new(std::size_t size) {                                               \
    ::Lumo::AllocTrackTypeInfo::trackAllocation(&lumoAllocTrackTypeInfo_, typeid(Class),      \
                                                sizeof(Class));                               \
    return ::Lumo::PtrInterface::lumoMemAlloc(size);                                          \
  }                                                                                           \
  static void operator delete(void* memory) {                                                 \
    ::Lumo::AllocTrackTypeInfo::trackDeallocation(&lumoAllocTrackTypeInfo_);                  \
    ::Lumo::PtrInterface::lumoMemDealloc(memory);                                             \
  }                                                                                           \
  static void* operator new[](std::size_t size) {                                             \
    ::Lumo::AllocTrackTypeInfo::trackArrayAllocation(&lumoAllocTrackTypeInfo_, typeid(Class), \
                                                     size);                                   \
    return ::Lumo::PtrInterface::lumoMemAlloc(size);                                          \
  }                                                                                           \
  static void operator delete[](void* memory) {                                               \
    ::Lumo::AllocTrackTypeInfo::trackArrayDeallocation(&lumoAllocTrackTypeInfo_);             \
    ::Lumo::PtrInterface::lumoMemDealloc(memory);                                             \
  }
