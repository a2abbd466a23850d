#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>

#include <Lumo/Assert.h>
#include <Lumo/Exception.h>
#include <Lumo/MainLoop.h>

namespace Lumo {

namespace {

using namespace std::chrono_literals;

// How long runUntil goes without looking at its condition.
constexpr auto conditionInterval = 2ms;

void assertActivityLockFree() {
  const ActivityLockAnchor activity;
  LUMO_ASSERT(activity.locked(), "the main loop runs outside of any ActivityLockAnchor");
}

}  // namespace

MainLoop::MainLoop()
    : clock_(Clock::ClockIs("MainLoop")),
      wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      timerFd_(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  if (wakeFd_ >= 0 && timerFd_ >= 0) {
    clock_->earlierRequestHookIs([this] {
      if (waiting_) wake();
    });
    return;
  }
  const int error = errno;
  close(wakeFd_);  // of the two, the one that there is
  close(timerFd_);
  throw ErrnoException("The main loop's event descriptors could not be made", error);
}

MainLoop::~MainLoop() {
  {
    ActivityLockAnchor activity;
    clock_->earlierRequestHookIs(nullptr);  // the clock may live on
    while (!takeTasks().empty()) {
    }  // what goes may post
  }
  close(wakeFd_);
  close(timerFd_);
}

void MainLoop::post(Task task) {
  {
    LockAnchor anchor(&queueLock_);
    tasks_.push_back(std::move(task));
  }
  wake();
}

void MainLoop::stop() {
  {
    LockAnchor anchor(&queueLock_);
    stop_ = true;
  }
  wake();
}

void MainLoop::run() {
  assertActivityLockFree();
  while (true) {
    turn();
    if (takeStop()) return;
    waitForEvent(TimePoint::max());
  }
}

bool MainLoop::runUntil(const std::function<bool()>& condition, Duration timeout) {
  assertActivityLockFree();
  const TimePoint start = std::chrono::steady_clock::now();
  const bool endless = timeout > TimePoint::max() - start;
  const TimePoint deadline = endless ? TimePoint::max() : start + timeout;
  while (true) {
    turn();
    {
      ActivityLockAnchor anchor;
      if (condition()) {
        takeStop();  // it was for this run
        return true;
      }
    }
    const TimePoint now = std::chrono::steady_clock::now();
    if (takeStop() || now >= deadline) return false;
    waitForEvent(std::min(deadline, now + conditionInterval));
  }
}

double MainLoop::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::vector<MainLoop::Task> MainLoop::takeTasks() {
  LockAnchor anchor(&queueLock_);
  return std::exchange(tasks_, {});
}

// Everything that is due now: the tasks posted so far, then the clock.
void MainLoop::turn() {
  ActivityLockAnchor activity;  // also while what the tasks hold goes
  std::vector<Task> tasks = takeTasks();
  waiting_ = false;
  for (std::size_t done = 0; done < tasks.size(); ++done) {
    try {
      tasks[done]();
    } catch (...) {
      LockAnchor anchor(&queueLock_);
      tasks_.insert(tasks_.begin(), std::make_move_iterator(tasks.begin() + done + 1),
                    std::make_move_iterator(tasks.end()));
      throw;
    }
  }
  clock_->timeIs(seconds());
}

bool MainLoop::takeStop() {
  LockAnchor anchor(&queueLock_);
  return std::exchange(stop_, false);
}

// When the clock's next request is due. An earlier one that is made from now on wakes the loop.
MainLoop::TimePoint MainLoop::startWaiting() {
  ActivityLockAnchor activity;
  waiting_ = true;
  const double next = clock_->nextTimeout();
  // Later than any of our times may be: by then another request is due, or nothing ever.
  constexpr double farAway = 1e9;
  if (next < 0 || next > farAway) return TimePoint::max();
  return start_ + std::chrono::duration_cast<Duration>(std::chrono::duration<double>(next));
}

// Waits, without the activity lock, for a post, a stop, the clock's next request or `until`.
void MainLoop::waitForEvent(TimePoint until) {
  const TimePoint wakeAt = std::min(until, startWaiting());
  itimerspec timer{};  // zero: disarmed
  if (wakeAt != TimePoint::max()) {
    const auto wait =
        std::max<std::chrono::nanoseconds>(wakeAt - std::chrono::steady_clock::now(), 1ns);
    timer.it_value.tv_sec = wait / 1s;
    timer.it_value.tv_nsec = (wait % 1s).count();
  }
  timerfd_settime(timerFd_, 0, &timer, nullptr);
  pollfd events[] = {{wakeFd_, POLLIN, 0}, {timerFd_, POLLIN, 0}};
  poll(events, 2, -1);
  eventfd_t count = 0;
  eventfd_read(wakeFd_, &count);
}

void MainLoop::wake() {
  eventfd_write(wakeFd_, 1);
}

}  // namespace Lumo
