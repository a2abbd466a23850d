#pragma once

#include <vector>

#include <Lumo/Catching.h>
#include <Lumo/Ptr.h>
#include <Lumo/SpinLock.h>
#include <Lumo/Types.h>

namespace Lumo {

class NotifieeConst;

// The reactors registered on one object, in the order of their registration. It does not own them:
// a reactor leaves every list it is on in its own destructor, whoever entered it, and a list may go
// before its members.
//
// Any thread may change the list and visit it. The structure is guarded; the calls of a visit are
// made without the guard, each with a counted reference on the reactor called. During a visit a
// reactor that was removed is skipped, and one that was added waits for the next visit.
class NotifieeList {
 public:
  NotifieeList() = default;
  ~NotifieeList();
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;

  // `notifiee` is entered once; entering it again does nothing. For one that follows the owner
  // without holding it; others enter by isRegisteredNotifieeIs.
  void newMember(NotifieeConst* notifiee);
  // Taken out here, a reactor is not told, and no visit calls it any more though
  // isRegisteredNotifiee() stays true: it goes back only after isRegisteredNotifieeIs(false).
  // Reactors use that one to leave; a clock's request, which is not of this list, goes with that
  // one alone.
  void deleteMember(NotifieeConst* notifiee);
  void deleteAll();
  U32 members() const { return members_.load(std::memory_order_relaxed); }

  // Calls visitor(NotifieeConst*) for each member. An exception of the visitor ends the visit and
  // goes on to the caller, with the list in order.
  template <class Visitor>
  void doVisit(Visitor visitor) {
    visit(false, visitor);
  }

 protected:
  // Whether a reactor has the handlers of this list's owner. Asked once, at registration.
  using Accepts = bool (*)(const NotifieeConst*);
  explicit NotifieeList(Accepts accepts) : accepts_(accepts) {}

  // As doVisit, over the reactors that have the owner's handlers.
  template <class Visitor>
  void doVisitTyped(Visitor visitor) {
    visit(true, visitor);
  }

 private:
  friend class NotifieeConst;

  struct Member {
    NotifieeConst* notifiee;
    U64 number : 63;  // ascends along the list
    U64 typed : 1;
  };

  // One walk over the members that were there at its start.
  struct Visit {
    explicit Visit(bool onlyTyped) : typedOnly(onlyTyped) {}
    const bool typedOnly;
    bool begun = false;
    bool atEnd = false;
    // Set when the walk begins.
    std::size_t position;
    U64 changes;  // of the list, when `position` was right
    U64 done;     // number of the member looked at last
    U64 last;     // the highest number that was given when the walk began
  };

  template <class Visitor>
  void visit(bool typedOnly, Visitor& visitor) {
    if (members() == 0) return;
    Visit walk(typedOnly);
    while (!walk.atEnd) {
      if (const Ptr<NotifieeConst> notifiee = next(walk)) visitor(notifiee.ptr());
    }
  }

  // False if it is there already.
  bool enter(NotifieeConst* notifiee);
  void leave(const NotifieeConst* notifiee);
  // Takes a reactor that goes out of the lists that it was entered in by newMember.
  static void leaveAll(const NotifieeConst* notifiee);

  // The next one to call, null if there is none; tells when it was the last. Takes the guard once.
  Ptr<NotifieeConst> next(Visit& walk);
  static Ptr<NotifieeConst> taken(const Visit& walk, const Member& member);
  void findPlace(Visit& walk) LUMO_REQUIRES(guard_);
  bool due(const Visit& walk) const LUMO_REQUIRES(guard_) {
    return walk.position < list_.size() && list_[walk.position].number <= walk.last;
  }

  std::vector<Member> list_ LUMO_GUARDED_BY(guard_);
  Accepts accepts_ = nullptr;
  // Counts what was entered and removed; a member's number is the count at its entry.
  U64 changes_ LUMO_GUARDED_BY(guard_) = 0;
  // A hint for the common case of no reactor at all: relaxed. Whoever registers on one thread and
  // wants the very next notification of another orders the two by other means.
  std::atomic<U32> members_{0};
  SpinLock guard_;
  std::atomic<bool> enteredByHand_{false};  // newMember was called some time; relaxed
};

// The list of an entity type whose reactors are `Notifiee`s.
template <class Notifiee>
class TypedNotifieeList : public NotifieeList {
 public:
  TypedNotifieeList()
      : NotifieeList([](const NotifieeConst* notifiee) {
          return dynamic_cast<const Notifiee*>(notifiee) != nullptr;
        }) {}

  // Calls handler(args...) of each reactor on this thread. What a handler throws is given to its
  // onNotificationException(), which passes it on unless the reactor overrides it.
  template <class... Params, class... Args>
  void notify(void (Notifiee::*handler)(Params...), const Args&... args) {
    this->doVisitTyped([&](NotifieeConst* member) {
      Notifiee* notifiee = static_cast<Notifiee*>(member);
      catching([&] { (notifiee->*handler)(args...); },
               [&] { notifiee->onNotificationException(); });
    });
  }
};

}  // namespace Lumo
