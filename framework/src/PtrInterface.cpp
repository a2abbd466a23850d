#include <cstdlib>
#include <new>

#include <Lumo/PtrInterface.h>

namespace Lumo {

std::atomic<bool> enableThreadSafePointers{true};

constinit AllocTrackTypeInfo PtrInterface::lumoAllocTrackTypeInfo_{};

void PtrInterface::maybeDelete() const {
  if (isZeroReference(references_.word())) delete this;
}

NotifieeList* PtrInterface::notifieeList() const {
  return nullptr;
}

bool PtrInterface::referenceTrackingEnabled() const {
  return false;
}

void PtrInterface::hasNotificationActiveIs(bool active) {
  references_.activeIs(active);
}

void PtrInterface::zeroReferencesIs(bool) {}

const LumoType* PtrInterface::fwkType() const {
  return &_lumoType;
}

PtrInterface::~PtrInterface() = default;

void PtrInterface::handleZeroRef() const {
  const_cast<PtrInterface*>(this)->zeroReferencesIs(true);
  maybeDelete();
}

void* PtrInterface::operator new(std::size_t size) {
  AllocTrackTypeInfo::trackAllocation(&lumoAllocTrackTypeInfo_, typeid(PtrInterface),
                                      sizeof(PtrInterface));
  return ::operator new(size);
}

void PtrInterface::operator delete(void* memory) {
  AllocTrackTypeInfo::trackDeallocation(&lumoAllocTrackTypeInfo_);
  ::operator delete(memory);
}

void* PtrInterface::operator new[](std::size_t size) {
  AllocTrackTypeInfo::trackArrayAllocation(&lumoAllocTrackTypeInfo_, typeid(PtrInterface), size);
  return ::operator new[](size);
}

void PtrInterface::operator delete[](void* memory) {
  AllocTrackTypeInfo::trackArrayDeallocation(&lumoAllocTrackTypeInfo_);
  ::operator delete[](memory);
}

void* PtrInterface::lumoMemAlloc(std::size_t size) {
  return ::operator new(size);
}

void PtrInterface::lumoMemDealloc(void* memory) {
  ::operator delete(memory);
}

}  // namespace Lumo
