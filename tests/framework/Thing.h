#pragma once

#include <functional>
#include <string>
#include <vector>

#include <Lumo/Entity.h>

// A small entity and a reactor on it, for the tests of the framework.
namespace sample {

class Thing : public Lumo::Entity {
  LUMO_OBJECT(Thing)

 public:
  class NotifieeConst : public Lumo::NotifieeConst {
    LUMO_OBJECT(NotifieeConst)

   public:
    ~NotifieeConst() override { doZombieReactor(true); }
    virtual void onValue() {}
    virtual void onPart(Lumo::Name /*name*/) {}
    virtual void lumoDoZombieReactors(bool zombie) { doZombieReactor(zombie); }

   protected:
    NotifieeConst() : Lumo::NotifieeConst(&follows<Thing>) {}
    explicit NotifieeConst(const Lumo::Ptr<Thing const>& thing) : NotifieeConst() {
      startFollowing(thing);
    }
  };

  explicit Thing(Lumo::Name name = Lumo::Name()) : name_(name) {}
  ~Thing() override;

  Lumo::NotifieeList* notifieeList() const override { return &notifiees_; }
  void zeroReferencesIs(bool zero) override {
    if (zero) notifyZeroReferences(notifiees_);
  }
  Lumo::Name name() const override { return name_; }
  void nameIsFromBackup(Lumo::Name name) override { name_ = name; }

  int value() const { return value_; }
  void valueIs(int value) {
    fwkEntityVersionInc();
    if (value_ == value) return;
    value_ = value;
    const auto kept = keptFor(notifiees_);
    assertNoReadsPreserved();
    notifiees_.notify(&NotifieeConst::onValue);
  }
  void partNotify(const Lumo::Name& part) { notifiees_.notify(&NotifieeConst::onPart, part); }

  std::function<void()> onDestruction;

 private:
  Lumo::Name name_;
  int value_ = 0;
  mutable Lumo::TypedNotifieeList<NotifieeConst> notifiees_;
};

// A reactor that enters its number into a log when it is called, and then does what the test wants.
class Reactor : public Thing::NotifieeConst {
  LUMO_OBJECT(Reactor)

 public:
  using Log = std::vector<int>;

  Reactor(const Lumo::Ptr<Thing const>& thing, Log* log, int number)
      : NotifieeConst(thing), log_(log), number_(number) {}
  ~Reactor() override { lumoDoZombieReactors(true); }
  void onValue() override {
    log_->push_back(number_);
    if (then) then();
  }
  void onNotificationException() override {
    if (!onException) throw;
    onException();
  }

  std::function<void()> then;
  std::function<void()> onException;

 private:
  Log* log_;
  int number_;
};

inline Lumo::Ptr<Thing> thing(Lumo::Name name = Lumo::Name()) {
  return Lumo::allocate<Thing>(name);
}

}  // namespace sample
