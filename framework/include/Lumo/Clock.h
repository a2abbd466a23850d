#pragma once

#include <functional>
#include <map>
#include <optional>

#include <Lumo/Entity.h>
#include <Lumo/Notifiee.h>

namespace Lumo {

class NotifieeListClockLinkNode;

// When a clock reactor is due: a time in seconds, and a number that keeps reactors of the same time
// in the order in which they asked.
struct NotifieeListClockKey {
  NotifieeListClockKey() = default;
  NotifieeListClockKey(double dueTime, int number) : time(dueTime), seq(number) {}

  double time = 0;
  int seq = 0;
  bool operator<(const NotifieeListClockKey& other) const {
    return time < other.time || (time == other.time && seq < other.seq);
  }
};

// A source of time events. Time is in seconds and only moves when timeIs is called: by a test, or
// by Lumo::MainLoop for the clock it drives.
//
// A clock and its reactors have no lock of their own: they are for the main thread, and where a
// MainLoop drives the clock, for any thread that holds the activity lock.
class Clock : public Entity {
  LUMO_OBJECT(Clock)

 public:
  // A reactor on a clock. Registered, it is due at the next time event; after that, and whenever it
  // likes, it says by timeoutIs when it wants to be called next. Each call uses the request up.
  class NotifieeConst : public Lumo::NotifieeConst {
    LUMO_OBJECT(NotifieeConst)

   public:
    ~NotifieeConst() override;
    void isRegisteredNotifieeIs(bool registered) const override;
    virtual void onTime();

    Ptr<Clock const> notifier() const;
    // Absolute time of the next call; in the past means at the next time event, infinity never.
    // RangeException, and the former request stays, for what is no number, and where two or more
    // reactors have asked 2^31 times for the same time while none of it was served.
    void timeoutIs(double time);

   protected:
    NotifieeConst() : Lumo::NotifieeConst(&follows<Clock>) {}
    explicit NotifieeConst(Ptr<Clock const> const& clock);

   private:
    friend class Clock;
    std::optional<NotifieeListClockKey> request_;  // its place in the clock's schedule
  };

  static Ptr<Clock> ClockIs(Name name);
  ~Clock() override;

  Name name() const override { return name_; }
  NotifieeList* notifieeList() const override { return &notifiees_; }
  void zeroReferencesIs(bool zero) override;

  double time() const { return time_; }
  // Moves time and calls the reactors due up to and including it, in the order of their keys. A
  // reactor leaves the schedule before its call, so its handler may ask for another; one that asks
  // for a time already past is called again by the next event, not by this one. RangeException for
  // what is no number.
  void timeIs(double time);
  // The time of the earliest request, 0 for one before 0; a negative number when nobody waits, or
  // only for infinity.
  double nextTimeout() const;
  // `hook` is called by whoever makes a request that moves nextTimeout() to an earlier time, on
  // that thread, once it is in place. For the one who drives the clock and sleeps until
  // nextTimeout(); empty: nobody wants to know.
  void earlierRequestHookIs(std::function<void()> hook) { earlierRequestHook_ = std::move(hook); }

 private:
  friend class NotifieeConst;

  explicit Clock(Name name) : name_(name) {}
  void scheduleIs(NotifieeConst* reactor, double time) const;
  void scheduleDel(NotifieeConst* reactor) const;
  NotifieeListClockKey nextKey(const NotifieeConst* reactor, double time) const;

  Name name_;
  double time_ = 0;
  mutable U64 requests_ = 0;  // made so far
  mutable TypedNotifieeList<NotifieeConst> notifiees_;
  mutable std::map<NotifieeListClockKey, NotifieeListClockLinkNode> schedule_;
  std::function<void()> earlierRequestHook_;
};

// One request in a clock's schedule. It does not own the reactor, which leaves the schedule when it
// is unregistered.
class NotifieeListClockLinkNode {
 public:
  NotifieeListClockLinkNode(Clock::NotifieeConst* reactor, U64 number)
      : reactor_(reactor), number_(number) {}
  Clock::NotifieeConst* reactor() const { return reactor_; }
  U64 number() const { return number_; }  // of the request, among all the clock ever had

 private:
  Clock::NotifieeConst* reactor_;
  U64 number_;
};

}  // namespace Lumo
