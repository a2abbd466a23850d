#include <Lumo/Entity.h>

namespace Lumo {

namespace {

// The innermost open scope of this thread.
thread_local constinit FwkEntityReadsPreserve* innermost = nullptr;

}  // namespace

FwkEntityReadsPreserve::FwkEntityReadsPreserve(const Entity* entity)
    : entity_(entity), outer_(innermost) {
  innermost = this;
}

FwkEntityReadsPreserve::~FwkEntityReadsPreserve() {
  innermost = outer_;
}

bool FwkEntityReadsPreserve::anyActive(const Entity* entity) {
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
