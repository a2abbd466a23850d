#pragma once

#include <Lumo/AttrTable.h>
#include <Lumo/Entity.h>

#include "../SecondThread.h"

// The objects that the benchmarks of the framework work on.
namespace bench {

// The least an object can be.
class Bare : public Lumo::PtrInterface {
  LUMO_OBJECT(Bare)
};

// An entity without attributes of its own that can be followed.
class Empty : public Lumo::Entity {
  LUMO_OBJECT(Empty)

 public:
  class NotifieeConst : public Lumo::NotifieeConst {
    LUMO_OBJECT(NotifieeConst)

   public:
    ~NotifieeConst() override { doZombieReactor(true); }
    virtual void onValue() {}

   protected:
    explicit NotifieeConst(const Lumo::Ptr<Empty const>& entity) { startFollowing(entity); }
  };

  Lumo::NotifieeList* notifieeList() const override { return &notifiees_; }

 protected:
  mutable Lumo::TypedNotifieeList<NotifieeConst> notifiees_;
};

// The same with one integer.
class Sample : public Empty {
  LUMO_OBJECT(Sample)

 public:
  int value() const { return value_; }
  void valueIs(int value) {
    fwkEntityVersionInc();
    if (value_ == value) return;
    value_ = value;
    assertNoReadsPreserved();
    notifiees_.notify(&NotifieeConst::onValue);
  }

 private:
  int value_ = 0;
};

}  // namespace bench
