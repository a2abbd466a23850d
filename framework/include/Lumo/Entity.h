#pragma once

#include <Lumo/Assert.h>
#include <Lumo/FwkEntityReadsPreserve.h>
#include <Lumo/Name.h>
#include <Lumo/Notifiee.h>
#include <Lumo/PtrInterface.h>

namespace Lumo {

// Base of the objects that have attributes to follow. A mutator of an entity does, in this order:
// step the entity version, compare, store if different, assert that nobody on this thread relies on
// the old value, notify. An entity is changed on the main thread, unless its own header says more.
// Handlers may drop the last pointer to the entity: it stays until its mutator is done.
class Entity : public PtrInterface {
  LUMO_OBJECT(Entity)

 public:
  // Hook of restoring from a backup, called before the entity enters a collection. No persistence
  // is built: the base does nothing, and a named entity takes the name.
  virtual void nameIsFromBackup(Name name);
  virtual Name name() const;  // the base has none: empty

  // The other hooks of backup and restore; none does anything.
  virtual void reconstruct();
  virtual void saveConstructParams();
  virtual void entBackupDel();
  virtual bool lumoHasAttrLogInterface() const;
  virtual void lumoNboAttrLogSaIs();

  // Counts the calls of mutators, whether they changed anything or not.
  U64 fwkEntityVersion() const { return version_.load(std::memory_order_relaxed); }
  // One thread changes an entity at a time, so a load and a store do; the atomic lets others read.
  void fwkEntityVersionInc() {
    version_.store(version_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  // For the mutators of an entity that several threads may change at once.
  void fwkEntityVersionIncShared() { version_.fetch_add(1, std::memory_order_relaxed); }

 protected:
  Entity() = default;

  // Before a notification is fired: aborts if this thread is inside a scope that preserves reads.
  void assertNoReadsPreserved() const {
    LUMO_ASSERT(!FwkEntityReadsPreserve::anyActive(this),
                "!Lumo::FwkEntityReadsPreserve::anyActive( this )");
  }

  // For a mutator to hold while others are told: a pointer to this entity, or null where the list
  // says that nobody will be.
  Ptr<Entity const> keptFor(const NotifieeList& list) const {
    return list.members() == 0 ? nullptr : this;
  }

  // The zero-references step of an entity with this list: tells every reactor on it.
  void notifyZeroReferences(NotifieeList& list) const;

 private:
  std::atomic<U64> version_{0};
};

}  // namespace Lumo
