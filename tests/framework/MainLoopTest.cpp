#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Redirected.h>
#include <support/ThisProcess.h>
#include <support/Vanishing.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <semaphore>
#include <stdexcept>
#include <thread>
#include <vector>

#include <Lumo/MainLoop.h>

namespace {

using namespace std::chrono_literals;
using Lumo::ActivityLockAnchor;
using Lumo::Clock;
using Lumo::MainLoop;
using Lumo::Ptr;
using testing::ElementsAre;

// Longer than any test takes; a loop that needs it has failed.
constexpr auto patience = 30s;

class Caller : public Clock::NotifieeConst {
 public:
  Caller(const Ptr<Clock const>& clock, std::function<void()> action)
      : NotifieeConst(clock), action_(std::move(action)) {}
  ~Caller() override { doZombieReactor(true); }
  void onTime() override { action_(); }

 private:
  std::function<void()> action_;
};

struct MainLoopTest : testing::Test {
  MainLoop loop;
  std::vector<int> log;

  std::function<void()> entry(int number) {
    return [this, number] { log.push_back(number); };
  }
};

TEST_F(MainLoopTest, RunsTasksInTheOrderOfPosting) {
  for (int number : {1, 2, 3}) loop.post(entry(number));
  loop.post([&] { loop.stop(); });
  loop.run();
  EXPECT_THAT(log, ElementsAre(1, 2, 3));
}

TEST_F(MainLoopTest, RunsTasksOnItsThreadUnderTheActivityLock) {
  std::thread::id runner;
  bool taken = true;
  loop.post([&] {
    runner = std::this_thread::get_id();
    taken = ActivityLockAnchor().locked();  // false: this thread holds it already
    loop.stop();
  });
  loop.run();
  EXPECT_EQ(runner, std::this_thread::get_id());
  EXPECT_FALSE(taken);
  EXPECT_TRUE(ActivityLockAnchor().locked());
}

TEST_F(MainLoopTest, TakesTasksFromOtherThreads) {
  constexpr int each = 500;
  std::vector<std::thread> threads;
  int ran = 0;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < each; ++n) loop.post([&] { ++ran; });
    });
  }
  EXPECT_TRUE(loop.runUntil([&] { return ran == 3 * each; }, patience));
  for (std::thread& thread : threads) thread.join();
}

TEST_F(MainLoopTest, ATaskPostedByATaskRunsAfterThoseBeforeIt) {
  loop.post([&] {
    loop.post(entry(3));
    loop.post([&] { loop.stop(); });
    log.push_back(1);
  });
  loop.post(entry(2));
  loop.run();
  EXPECT_THAT(log, ElementsAre(1, 2, 3));
}

// The other thread can only take the lock while the loop waits.
TEST_F(MainLoopTest, ReleasesTheActivityLockWhileItWaits) {
  std::atomic<bool> entered{false};
  std::thread other([&] {
    ActivityLockAnchor anchor;
    entered = anchor.locked();
    loop.stop();
  });
  loop.run();
  other.join();
  EXPECT_TRUE(entered);
}

TEST_F(MainLoopTest, SeesAConditionThatAnotherThreadMakesTrue) {
  bool done = false;
  std::thread other([&] {
    ActivityLockAnchor anchor;
    done = true;
  });
  EXPECT_TRUE(loop.runUntil([&] { return done; }, patience));
  other.join();
}

TEST_F(MainLoopTest, GivesUpAtTheDeadline) {
  int looks = 0;
  const auto never = [&] { return ++looks < 0; };
  EXPECT_FALSE(loop.runUntil(never, 20ms));
  EXPECT_GE(looks, 1);
  EXPECT_LE(looks, 20 / 2 + 2) << "it looks every 2 ms and sleeps between";
  EXPECT_FALSE(loop.runUntil(never, 0ms));
  EXPECT_TRUE(loop.runUntil([] { return true; }, 0ms));
}

TEST_F(MainLoopTest, WaitsForAsLongAsADurationCanSay) {
  int looks = 0;
  EXPECT_TRUE(loop.runUntil([&] { return ++looks == 3; }, Lumo::MainLoop::Duration::max()));
}

TEST_F(MainLoopTest, SleepsAgainOnceItWasWoken) {
  loop.post([] {});
  int looks = 0;
  EXPECT_FALSE(loop.runUntil([&] { return ++looks < 0; }, 20ms));
  EXPECT_LE(looks, 20 / 2 + 3);
}

TEST_F(MainLoopTest, SleepsWhileNothingIsDueYet) {
  const auto alarm = Lumo::allocate<Caller>(loop.clock(), [] {});
  EXPECT_TRUE(loop.runUntil([] { return true; }, patience));  // uses up the first request
  for (const double ahead : {1000.0, 1e18}) {
    {
      const ActivityLockAnchor activity;
      alarm->timeoutIs(loop.clock()->time() + ahead);
    }
    int looks = 0;
    EXPECT_FALSE(loop.runUntil([&] { return ++looks < 0; }, 20ms));
    EXPECT_LE(looks, 20 / 2 + 3) << ahead;
  }
}

TEST_F(MainLoopTest, LooksAtTheConditionUnderTheActivityLock) {
  bool taken = true;
  loop.runUntil(
      [&] {
        taken = ActivityLockAnchor().locked();
        return true;
      },
      patience);
  EXPECT_FALSE(taken);
}

TEST_F(MainLoopTest, AStopEndsTheWaitForACondition) {
  loop.post([&] { loop.stop(); });
  EXPECT_FALSE(loop.runUntil([] { return false; }, patience));
}

TEST_F(MainLoopTest, AStopDoesNotOutliveTheRunThatItWasFor) {
  bool done = false;
  loop.post([&] {
    done = true;
    loop.stop();
  });
  EXPECT_TRUE(loop.runUntil([&] { return done; }, patience));
  const auto alarm = Lumo::allocate<Caller>(loop.clock(), [&] {
    log.push_back(1);
    loop.stop();
  });
  alarm->timeoutIs(loop.clock()->time() + 0.01);
  loop.run();
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(MainLoopTest, AStopEndsTheTurnAtHand) {
  loop.post([&] { loop.stop(); });
  loop.post(entry(1));
  loop.run();
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(MainLoopTest, AStopBeforehandEndsTheNextRunOnly) {
  loop.stop();
  loop.post(entry(1));
  loop.run();
  EXPECT_THAT(log, ElementsAre(1));
  loop.post(entry(2));
  EXPECT_TRUE(loop.runUntil([&] { return log.size() == 2; }, patience));
}

TEST_F(MainLoopTest, MovesItsClock) {
  EXPECT_TRUE(loop.runUntil([&] { return loop.clock()->time() > 0; }, patience));
}

TEST_F(MainLoopTest, CallsTheReactorsOfItsClockWhenTheyAreDue) {
  Ptr<Caller> alarm;
  std::vector<double> times;
  alarm = Lumo::allocate<Caller>(loop.clock(), [&] {
    times.push_back(loop.clock()->time());
    if (times.size() == 3) return loop.stop();
    alarm->timeoutIs(loop.clock()->time() + 0.005);
  });
  loop.run();
  ASSERT_EQ(times.size(), 3u);
  EXPECT_GE(times[1], times[0] + 0.005);
  EXPECT_GE(times[2], times[1] + 0.005);
}

// A handler's request is for the next round, be it for the time at which the clock began.
TEST_F(MainLoopTest, DoesNotWaitForWhatIsDueLongSince) {
  Ptr<Caller> alarm;
  int calls = 0;
  alarm = Lumo::allocate<Caller>(loop.clock(), [&] {
    if (++calls == 3) return loop.stop();
    alarm->timeoutIs(0);
  });
  loop.run();
  EXPECT_EQ(calls, 3);
}

// run() has nothing else to wake it: it sleeps for good if a request of another thread is missed.
TEST_F(MainLoopTest, WakesForATimerThatAnotherThreadSets) {
  std::counting_semaphore<> calls(0);
  const auto alarm = Lumo::allocate<Caller>(loop.clock(), [&] { calls.release(); });
  std::thread other([&] {
    bool called = calls.try_acquire_for(patience);
    for (int round = 0; called && round < 500; ++round) {
      {
        ActivityLockAnchor anchor;
        alarm->timeoutIs(loop.clock()->time());
      }
      called = calls.try_acquire_for(patience);
    }
    EXPECT_TRUE(called);
    loop.stop();
  });
  loop.run();
  other.join();
}

TEST_F(MainLoopTest, WakesForATimerEarlierThanTheOneItSleepsFor) {
  std::counting_semaphore<> calls(0);
  const auto early = Lumo::allocate<Caller>(loop.clock(), [&] { calls.release(); });
  const auto late = Lumo::allocate<Caller>(loop.clock(), [] {});
  std::thread other([&] {
    bool called = calls.try_acquire_for(patience);
    for (int round = 0; called && round < 100; ++round) {
      {
        ActivityLockAnchor anchor;
        late->timeoutIs(loop.clock()->time() + 1e6);
        early->timeoutIs(loop.clock()->time());
      }
      called = calls.try_acquire_for(patience);
    }
    EXPECT_TRUE(called);
    loop.stop();
  });
  loop.run();
  other.join();
}

TEST(MainLoop, LeavesItsClockUsable) {
  Ptr<Clock> clock;
  {
    MainLoop loop;
    clock = loop.clock();
  }
  int calls = 0;
  const auto alarm = Lumo::allocate<Caller>(clock, [&] { ++calls; });
  clock->timeIs(1);
  EXPECT_EQ(calls, 1);
  alarm->timeoutIs(2);  // the first request of all, of which the loop would be told
  clock->timeIs(2);
  EXPECT_EQ(calls, 2);
}

TEST(MainLoop, IsNotToldOfRequestsOnceItHasEnded) {
  support::Vanishing<MainLoop> loop;
  const Ptr<Clock> clock = loop->clock();
  loop.end();
  const auto alarm = Lumo::allocate<Caller>(clock, [] {});
  clock->timeIs(1);
  alarm->timeoutIs(2);
  EXPECT_EQ(clock->nextTimeout(), 2);
}

TEST(MainLoop, DoesNotEndWhileAnotherThreadMayBeAtItsClock) {
  auto loop = std::make_unique<MainLoop>();
  std::atomic<pid_t> ending{0};
  std::atomic<bool> ended{false};
  std::thread other;
  {
    const ActivityLockAnchor activity;
    other = std::thread([&] {
      ending = ::gettid();
      loop = nullptr;
      ended = true;
    });
    while (!ended && (ending == 0 || !support::sleeps(ending))) std::this_thread::yield();
    EXPECT_FALSE(ended);
  }
  other.join();
}

// Whether the clock still asks the loop that has gone is seen by the address sanitizer.
TEST(MainLoop, MayEndWhileAnotherThreadSetsATimer) {
  std::atomic<bool> stop{false};
  std::atomic<int> rounds{0};
  std::thread other;
  {
    MainLoop loop;
    other = std::thread([&, clock = loop.clock()] {
      Ptr<Caller> alarm;
      for (double time = 1e6; !stop; time -= 1) {
        const ActivityLockAnchor activity;
        if (!alarm) alarm = Lumo::allocate<Caller>(clock, [] {});
        alarm->timeoutIs(time);
        ++rounds;
      }
      const ActivityLockAnchor activity;
      alarm = nullptr;
    });
    while (rounds < 3) std::this_thread::yield();
  }
  stop = true;
  other.join();
}

TEST_F(MainLoopTest, AnExceptionOfATaskLeavesTheRestPosted) {
  loop.post(entry(1));
  loop.post([] { throw std::runtime_error("task"); });
  loop.post(entry(2));
  loop.post([&] { loop.stop(); });
  EXPECT_THROW(loop.run(), std::runtime_error);
  EXPECT_THAT(log, ElementsAre(1));
  EXPECT_TRUE(ActivityLockAnchor().locked());
  loop.run();
  EXPECT_THAT(log, ElementsAre(1, 2));
}

TEST_F(MainLoopTest, AnExceptionKeepsTheRestBeforeWhatIsPostedLater) {
  loop.post([&] {
    loop.post(entry(2));
    throw std::runtime_error("task");
  });
  loop.post(entry(1));
  EXPECT_THROW(loop.run(), std::runtime_error);
  EXPECT_TRUE(loop.runUntil([&] { return log.size() == 2; }, patience));
  EXPECT_THAT(log, ElementsAre(1, 2));
}

TEST_F(MainLoopTest, AnExceptionLosesNothingOfWhatOthersPostMeanwhile) {
  constexpr int threads = 3, each = 200;
  int ran = 0;
  std::vector<std::thread> posting;
  for (int i = 0; i < threads; ++i) {
    posting.emplace_back([&] {
      for (int n = 0; n < each; ++n) {
        loop.post([&ran] {
          ++ran;
          throw std::runtime_error("task");
        });
      }
    });
  }
  int caught = 0;
  for (bool over = false; !over;) {
    try {
      loop.runUntil([&] { return ran == threads * each; }, patience);
      over = true;
    } catch (const std::runtime_error&) {
      ++caught;
    }
  }
  for (std::thread& thread : posting) thread.join();
  EXPECT_EQ(ran, threads * each);
  EXPECT_EQ(caught, ran);
}

TEST(MainLoop, DropsWhatIsStillPosted) {
  const auto token = std::make_shared<int>(1);
  {
    MainLoop loop;
    loop.post([token] { ADD_FAILURE() << "ran"; });
    EXPECT_EQ(token.use_count(), 2);
  }
  EXPECT_EQ(token.use_count(), 1);
}

// Held by a task; says, when it goes, whether the activity lock was held.
std::shared_ptr<int> probe(std::vector<bool>& heldAtItsEnd) {
  return {new int(), [&](const int* value) {
            const ActivityLockAnchor activity;
            heldAtItsEnd.push_back(!activity.locked());
            delete value;
          }};
}

TEST(MainLoop, WhatATaskHoldsGoesUnderTheActivityLock) {
  std::vector<bool> held;
  {
    MainLoop loop;
    loop.post([object = probe(held)] {});
    loop.post([object = probe(held), &loop] { loop.stop(); });
    loop.run();
    EXPECT_THAT(held, ElementsAre(true, true));
    loop.post([object = probe(held)] { throw std::runtime_error("no"); });
    EXPECT_THROW(loop.run(), std::runtime_error);
    EXPECT_THAT(held, ElementsAre(true, true, true));
    loop.post([object = probe(held)] {});
  }
  EXPECT_THAT(held, ElementsAre(true, true, true, true));
}

TEST(MainLoop, WhatIsPostedByWhatItDropsGoesUnderTheActivityLockToo) {
  std::vector<bool> held;
  {
    MainLoop loop;
    const auto posts = [&](const int* value) {
      delete value;
      loop.post([object = probe(held)] {});
    };
    loop.post([object = std::shared_ptr<int>(new int(), posts)] {});
  }
  EXPECT_THAT(held, ElementsAre(true));
}

TEST(MainLoopDeathTest, RefusesToRunInsideAnActivityAnchor) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto inside = [](auto&& action) {
    MainLoop loop;
    loop.stop();
    const ActivityLockAnchor activity;
    action(loop);
  };
  const auto text = testing::HasSubstr("the main loop runs outside of any ActivityLockAnchor");
  EXPECT_DEATH(inside([](MainLoop& loop) { loop.run(); }), text);
  EXPECT_DEATH(inside([](MainLoop& loop) { loop.runUntil([] { return true; }, 1s); }), text);
}

TEST_F(MainLoopTest, ARequestFarAwayDoesNotKeepItBusyOrWakeIt) {
  const auto alarm = Lumo::allocate<Caller>(loop.clock(), [&] { log.push_back(1); });
  const auto turns = [&](double timeout) {
    {
      const ActivityLockAnchor activity;
      loop.clock()->timeIs(0);  // uses up the first request
      alarm->timeoutIs(timeout);
    }
    log.clear();
    int looked = 0;
    loop.runUntil([&] { return ++looked == 3; }, patience);
    return log.size();
  };
  EXPECT_EQ(turns(1e18), 0U);
  EXPECT_EQ(turns(1e300), 0U);
  EXPECT_EQ(turns(std::numeric_limits<double>::infinity()), 0U);
}

TEST(MainLoop, RunsWhereStandardInputIsClosed) {
  const support::Redirected closed(STDIN_FILENO);
  {
    MainLoop loop;  // one of its descriptors is 0
    loop.post([&] { loop.stop(); });
    loop.run();
    EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
  }
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
}

TEST(MainLoop, GivesItsDescriptorsBack) {
  const auto before = support::openDescriptors();
  for (int i = 0; i < 3; ++i) MainLoop();
  EXPECT_EQ(support::openDescriptors(), before);
}

TEST(MainLoop, RaisesAndKeepsNothingWhereDescriptorsRunOut) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer needs descriptors of its own to look at memory";
#endif
  const auto lowestFree = [] {
    const int descriptor = ::open("/dev/null", O_RDONLY);
    ::close(descriptor);
    return static_cast<rlim_t>(descriptor);
  };
  const rlim_t free = lowestFree();
  rlimit before;
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  for (const rlim_t room : {0, 1}) {
    rlimit tight = before;
    tight.rlim_cur = free + room;
    ::setrlimit(RLIMIT_NOFILE, &tight);
    EXPECT_THROW(MainLoop(), Lumo::ErrnoException) << room;
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(lowestFree(), free) << room;
  }
}

}  // namespace
