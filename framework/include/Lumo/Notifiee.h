#pragma once

#include <atomic>

#include <Lumo/BitSet.h>
#include <Lumo/NotifieeList.h>
#include <Lumo/PtrInterface.h>

namespace Lumo {

// The activity a reactor belongs to. The framework has one, the main thread's, and no object for
// it.
class ActivityConfig;

// Base of every reactor: it follows one object, its notifier, and is called when that object
// changes. A reactor type derives from the nested NotifieeConst of the type it follows and
// overrides the handlers it wants.
//
// A reactor holds a counted pointer to its notifier and is itself held by its owner; the notifier
// does not own it. Its states:
//   active       (bit of the reference word) notification is on
//   registered   it stands in its notifier's list; only then is it called
//   wasNotified  remembered over an inactive time: whether it goes back into the list
//   enabled      set by construction, for the owner's use; delivery goes by registration alone
//   zombie       marked for deletion, and out of the list
//
// Reactors are made, changed and destroyed on the main thread. Handlers run on the thread that
// changed the notifier, and hold their reactor meanwhile: where that is another thread, and the
// main one drops its last pointer, the reactor goes there, when its handler is through.
class NotifieeConst : public PtrInterface {
  LUMO_OBJECT(NotifieeConst)

 public:
  ~NotifieeConst() override;

  virtual bool lumoReactor() const;
  // Enters the reactor into its notifier's list, or takes it out. Without a notifier it stays out.
  virtual void isRegisteredNotifieeIs(bool registered) const;
  // Follows `notifier` from now on (null: nothing); a registered reactor moves to the new list.
  // RangeException, and nothing changed, for an object that the reactor's type cannot follow.
  virtual void notifierIs(Ptr<PtrInterface const> const& notifier);
  virtual void handleNotification(ActivityConfig* activity);
  // Called inside the handler of an exception that left one of the reactor's handlers. The base
  // throws it again, so that it reaches whoever changed the notifier.
  virtual void onNotificationException();
  // The notifier's last reference has gone. Only reaches a reactor that does not hold its notifier.
  virtual void onZeroReferences();
  virtual ActivityConfig* lumoFwkActivity() const;
  virtual PtrInterface* actsm();

  // Off: out of the list, remembering whether it was in. On: back in, if it was.
  void hasNotificationActiveIs(bool active) override;

  bool isRegisteredNotifiee() const { return registered_; }
  bool wasNotified() const { return Lumo_BitSet.bit(wasNotifiedBit); }
  void wasNotifiedIs(bool was) { Lumo_BitSet.bitIs(wasNotifiedBit, was); }
  bool enabled() const { return Lumo_BitSet.bit(enabledBit); }
  void enabledIs(bool enabled) { Lumo_BitSet.bitIs(enabledBit, enabled); }
  const PtrInterface* lumoRawNotifier() const { return notifier_.ptr(); }

 protected:
  // Whether an object, never null, is of the type that a reactor type follows.
  using Follows = bool (*)(const PtrInterface* object);
  template <class Notifier>
  static bool follows(const PtrInterface* object) {
    return dynamic_cast<const Notifier*>(object) != nullptr;
  }

  // All flags clear, no notifier. Where nothing is said, the reactor may follow any object.
  explicit NotifieeConst(Follows mayFollow = nullptr) : follows_(mayFollow) {}

  // The steps that make a reactor ready, for the constructor of a derived class to call once its
  // own members stand: active, enabled, following `notifier`, registered. Virtual functions that
  // react to a change of notifier are not called. Handlers may be called from here on: where
  // another thread changes the notifier, the most derived constructor calls this, last.
  void startFollowing(Ptr<PtrInterface const> const& notifier);

  // The common body of every reactor's lumoDoZombieReactors: a zombie leaves the list, a revived
  // reactor goes back. A second call with the same value does nothing.
  void doZombieReactor(bool zombie);

  static constexpr int wasNotifiedBit = 19;
  static constexpr int enabledBit = 26;

  BitSet<31, unsigned int> Lumo_BitSet;
  Ptr<PtrInterface const> notifier_;

 private:
  friend class NotifieeList;

  void checkFollows(const PtrInterface* notifier) const;

  const Follows follows_;
  mutable bool registered_ = false;
  std::atomic<bool> enteredByHand_{false};  // by NotifieeList::newMember, some time; relaxed
};

}  // namespace Lumo
