#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include <Lumo/Clock.h>
#include <Lumo/Lock.h>

namespace Lumo {

// A main thread for an agent that has none of its own: it runs posted tasks and the time events of
// its clock, holding the activity lock while it does and releasing it while it waits. The library
// does not need it; an agent with another loop takes an ActivityLockAnchor around each action
// instead.
//
// post and stop may be called from any thread, and a thread that holds the activity lock may use
// the clock and its reactors: a sleeping loop wakes for a request that comes before those it knew
// of. Everything else belongs to the thread that runs the loop.
class MainLoop {
 public:
  using Task = std::function<void()>;
  using Duration = std::chrono::steady_clock::duration;

  MainLoop();  // ErrnoException when the platform refuses its event descriptors
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  // Runs `task` on the loop's thread, in the order of posting, and destroys it there, under the
  // activity lock too. What is still posted when the loop is destroyed is dropped unrun. An
  // exception of a task leaves run() and runUntil(), with the tasks behind it still posted.
  void post(Task task);

  // A clock whose time() is seconds since the loop was made and whose reactors the loop calls when
  // they are due.
  const Ptr<Clock>& clock() const { return clock_; }

  // Runs until stop(). Both forms are for a thread that does not hold the activity lock, and abort
  // on one that does: the loop could not release it, and no response handler would ever run.
  void run();
  // Runs until `condition` holds, stop() is called or `timeout` has passed; returns whether the
  // condition holds. It is looked at under the activity lock, after every turn of the loop and at
  // least every few milliseconds, so a response handler on another thread need not wake the loop. A
  // stop that comes as the condition comes to hold is used up.
  bool runUntil(const std::function<bool()>& condition, Duration timeout);
  // Ends the running run() or runUntil() once what was posted before the turn at hand, and what is
  // due, has been run; if none runs, or an exception leaves it first, the next one.
  void stop();

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  double seconds() const;
  std::vector<Task> takeTasks();
  void turn();
  bool takeStop();
  TimePoint startWaiting();
  void waitForEvent(TimePoint until);
  void wake();

  const TimePoint start_ = std::chrono::steady_clock::now();
  Ptr<Clock> clock_;
  int wakeFd_;
  int timerFd_;
  bool waiting_ = false;  // since the clock was asked for its next request; under the activity lock
  Lock queueLock_;
  std::vector<Task> tasks_ LUMO_GUARDED_BY(queueLock_);
  bool stop_ LUMO_GUARDED_BY(queueLock_) = false;
};

}  // namespace Lumo
