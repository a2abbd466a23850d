#include <Lumo/Entity.h>

namespace Lumo {

namespace {

// The innermost open scope of this thread.
thread_local constinit FwkEntityReadsPreserve* innermost = nullptr;

}  // namespace

constinit std::atomic<U32> FwkEntityReadsPreserve::open_{0};

FwkEntityReadsPreserve::FwkEntityReadsPreserve(const Entity* entity)
    : entity_(entity), outer_(innermost) {
  innermost = this;
  open_.fetch_add(1, std::memory_order_relaxed);
}

FwkEntityReadsPreserve::~FwkEntityReadsPreserve() {
  open_.fetch_sub(1, std::memory_order_relaxed);
  innermost = outer_;
}

bool FwkEntityReadsPreserve::activeOnThisThread(const Entity* entity) {
  for (const FwkEntityReadsPreserve* scope = innermost; scope; scope = scope->outer_) {
    if (!scope->entity_ || scope->entity_ == entity) return true;
  }
  return false;
}

void Entity::nameIsFromBackup(Name) {}

Name Entity::name() const {
  return Name();
}

void Entity::reconstruct() {}

void Entity::saveConstructParams() {}

void Entity::entBackupDel() {}

bool Entity::lumoHasAttrLogInterface() const {
  return false;
}

void Entity::lumoNboAttrLogSaIs() {}

void Entity::notifyZeroReferences(NotifieeList& list) const {
  if (list.members() == 0) return;
  const ZeroStep step(*this);
  list.doVisit([](NotifieeConst* notifiee) { notifiee->onZeroReferences(); });
}

}  // namespace Lumo
