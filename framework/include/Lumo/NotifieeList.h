#pragma once

#include <vector>

#include <Lumo/Ptr.h>
#include <Lumo/SpinLock.h>
#include <Lumo/Types.h>

namespace Lumo {

class NotifieeConst;

// The reactors registered on one object, in the order of their registration. It does not own them:
// a reactor leaves the list in its own destructor.
//
// Any thread may change the list and visit it. The structure is guarded; the calls of a visit are
// made without the guard, each with a counted reference on the reactor called. During a visit a
// reactor that was removed is skipped, and one that was added waits for the next visit.
class NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;

  // `notifiee` is entered once; entering it again does nothing.
  void newMember(NotifieeConst* notifiee);
  void deleteMember(NotifieeConst* notifiee);
  void deleteAll();
  U32 members() const { return members_.load(std::memory_order_relaxed); }

  // Calls visitor(NotifieeConst*) for each member. An exception of the visitor ends the visit and
  // goes on to the caller, with the list in order.
  template <class Visitor>
  void doVisit(Visitor visitor) {
    if (members() == 0) return;
    Visit visit(*this);
    while (const Ptr<NotifieeConst> notifiee = visit.next()) visitor(notifiee.ptr());
  }

 protected:
  // Whether a reactor has the handlers of this list's owner. Asked once, at registration.
  using Accepts = bool (*)(const NotifieeConst*);
  explicit NotifieeList(Accepts accepts) : accepts_(accepts) {}

  // As doVisit, over the reactors that have the owner's handlers.
  template <class Visitor>
  void doVisitTyped(Visitor visitor) {
    if (members() == 0) return;
    Visit visit(*this);
    while (const Ptr<NotifieeConst> notifiee = visit.nextTyped()) visitor(notifiee.ptr());
  }

 private:
  struct Member {
    NotifieeConst* notifiee;  // null: removed during a visit, the place is closed up after it
    bool typed;
  };

  // One walk over the members that were there at its start.
  class Visit {
   public:
    explicit Visit(NotifieeList& list);
    ~Visit();
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    Ptr<NotifieeConst> next() { return step(false); }
    Ptr<NotifieeConst> nextTyped() { return step(true); }

   private:
    Ptr<NotifieeConst> step(bool typedOnly);

    NotifieeList& list_;
    U32 position_ = 0;
    U32 end_ = 0;
  };

  void closeUp() LUMO_REQUIRES(guard_);

  std::vector<Member> list_ LUMO_GUARDED_BY(guard_);
  Accepts accepts_ = nullptr;
  // A hint for the common case of no reactor at all: relaxed. Whoever registers on one thread and
  // wants the very next notification of another orders the two by other means.
  std::atomic<U32> members_{0};
  U16 visits_ LUMO_GUARDED_BY(guard_) = 0;
  SpinLock guard_;
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
      try {
        (notifiee->*handler)(args...);
      } catch (...) {
        notifiee->onNotificationException();
      }
    });
  }
};

}  // namespace Lumo
