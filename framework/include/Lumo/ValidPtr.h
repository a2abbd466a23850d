#pragma once

#include <Lumo/Exception.h>
#include <Lumo/Ptr.h>

namespace Lumo {

// A Ptr that is made and assigned without becoming null. It is made from a Ptr by move; a null one
// is refused with the range exception "null ValidPtr" and stays as it was. A ValidPtr that is moved
// from is copied. Only whoever treats it as the Ptr that it also is (ptrAssign, a reference to its
// base) can empty it.
template <class T>
class ValidPtr : public Ptr<T> {
 public:
  ValidPtr(Ptr<T>&& pointer) : Ptr<T>(checked(pointer)) {}
  ValidPtr(const ValidPtr& other) : Ptr<T>(static_cast<const Ptr<T>&>(other)) {}
  ValidPtr& operator=(const ValidPtr& other) noexcept {
    Ptr<T>::operator=(static_cast<const Ptr<T>&>(other));
    return *this;
  }

 private:
  static Ptr<T>&& checked(Ptr<T>& pointer) {
    if (!pointer) throwRangeException("null ValidPtr");
    return std::move(pointer);
  }
};

}  // namespace Lumo
