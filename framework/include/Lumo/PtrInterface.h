#pragma once

#include <cstddef>

#include <Lumo/AllocTrackTypeInfo.h>
#include <Lumo/Allocate.h>
#include <Lumo/Ptr.h>
#include <Lumo/ReferenceWord.h>
#include <Lumo/TypeRegistry.h>
#include <Lumo/ValidPtr.h>

namespace Lumo {

class NotifieeList;

// Base of every framework object: a reference count with two flags, and the operations that the
// framework calls through the virtual table. The order of the virtual functions is part of the
// binary interface; new ones go into derived classes.
//
// An object is created through `allocate`, held through Ptr and deletes itself when the last Ptr
// goes, on the thread that let it go. A destructor must not make a Ptr to its own object.
class PtrInterface {
 public:
  // Deletes the object if its count is zero.
  virtual void maybeDelete() const;
  // The reactors registered on this object; null where the class has none.
  virtual NotifieeList* notifieeList() const;
  virtual bool referenceTrackingEnabled() const;
  // Switches notification on or off; the base only keeps the flag.
  virtual void hasNotificationActiveIs(bool active);
  // Told, with true, when the last reference has gone and before the object is deleted.
  virtual void zeroReferencesIs(bool zero);
  virtual const LumoType* fwkType() const;
  virtual ~PtrInterface();

  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  void referencesInc() const { references_.inc(); }
  void referencesDec() const {
    recordReferenceRemove();
    if (isZeroReference(references_.dec())) handleZeroRef();
  }
  U32 references() const { return references_.count(); }
  static constexpr bool isZeroReference(U32 word) { return ReferenceWord::isZeroReference(word); }
  // Adds a reference unless the object is already on its way out; false if it is. Only for a caller
  // that keeps the memory valid by other means.
  bool referencesIncUnlessZero() const { return references_.incUnlessZero(); }

  bool lumoMarkedForDeletion() const { return references_.marked(); }
  void lumoMarkedForDeletionIs(bool marked) { references_.markedIs(marked); }
  bool hasNotificationActive() const { return references_.active(); }

  // Hook of reference tracking, which is off: it does nothing.
  void recordReferenceRemove() const {}

  // The ordinary heap, with the class's allocation record kept.
  static void* operator new(std::size_t size);
  static void operator delete(void* memory);
  static void* operator new[](std::size_t size);
  static void operator delete[](void* memory);
  // The heap itself; throws std::bad_alloc.
  static void* lumoMemAlloc(std::size_t size);
  static void lumoMemDealloc(void* memory);

  static AllocTrackTypeInfo lumoAllocTrackTypeInfo_;
  static const LumoType _lumoType;

 protected:
  PtrInterface() = default;

  // Keeps an object whose last reference has gone from being deleted while others are told: they
  // may point at it for the length of a call.
  class ZeroStep {
   public:
    explicit ZeroStep(const PtrInterface& object) : references_(object.references_) {
      references_.inc();
    }
    ~ZeroStep() { references_.dec(); }
    ZeroStep(const ZeroStep&) = delete;
    ZeroStep& operator=(const ZeroStep&) = delete;

   private:
    ReferenceWord& references_;
  };

  void handleZeroRef() const;

 private:
  friend struct Confidant;

  mutable ReferenceWord references_;
};

}  // namespace Lumo
