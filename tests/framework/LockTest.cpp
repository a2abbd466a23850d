#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <support/ThisProcess.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <Lumo/Condition.h>
#include <Lumo/Exception.h>
#include <Lumo/Lock.h>
#include <Lumo/SpinLock.h>
#include <Lumo/ThreadId>

#ifdef __SANITIZE_THREAD__
// The misuse of mutexes that these tests are about is answered by the lock, not by the sanitizer.
extern "C" const char* __tsan_default_options() {
  return "report_mutex_bugs=0:report_destroy_locked=0";
}
#endif

namespace {

using Lumo::ActivityLockAnchor;
using Lumo::Condition;
using Lumo::ErrnoException;
using Lumo::Lock;
using Lumo::LockAnchor;

static_assert(LockAnchor::notReleasable == 1);
static_assert(LockAnchor::requireReleasable == 2);
static_assert(std::is_base_of_v<Lumo::PtrInterface, Condition>);
static_assert(!std::is_base_of_v<Lumo::PtrInterface, Lock>);

// A lock and its mutex, which is its first member.
pthread_mutex_t* mutexOf(Lock& lock) {
  return reinterpret_cast<pthread_mutex_t*>(&lock);
}

// Whether somebody holds it, asked on a thread of its own.
bool held(Lock& lock) {
  bool taken = false;
  std::thread([&] {
    const int result = pthread_mutex_trylock(mutexOf(lock));
    taken = result == EBUSY;
    if (result == 0) pthread_mutex_unlock(mutexOf(lock));
  }).join();
  return taken;
}

// Runs `action` and returns the error number of the ErrnoException it must raise with `text`.
template <class Action>
int errnoOf(const char* text, Action action) {
  try {
    action();
  } catch (const ErrnoException& exception) {
    EXPECT_STREQ(exception.what(), text);
    return exception.errnoValue();
  }
  ADD_FAILURE() << "not raised: " << text;
  return 0;
}

struct LockTest : testing::Test {
  Lock lock;
};

TEST_F(LockTest, StartsFreeAndReleasable) {
  EXPECT_TRUE(lock.releasable());
  EXPECT_FALSE(held(lock));
  EXPECT_STREQ(Lock::_lumoType.typeName(), "Lumo::Lock");
}

TEST_F(LockTest, IsTakenOnce) {
  EXPECT_TRUE(lock.lock());
  EXPECT_FALSE(lock.lock());
  EXPECT_TRUE(held(lock));
  lock.unlock();
  EXPECT_FALSE(held(lock));
}

TEST_F(LockTest, KeepsItsMark) {
  lock.releasableIs(false);
  EXPECT_FALSE(lock.releasable());
  lock.releasableIs(true);
  EXPECT_TRUE(lock.releasable());
}

TEST_F(LockTest, WaitsForAnotherThread) {
  int guarded = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 5000; ++n) {
        LockAnchor anchor(&lock);
        ++guarded;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(guarded, 20000);
}

TEST_F(LockTest, RefusesToBeReleasedByWhoDoesNotHoldIt) {
  EXPECT_EQ(errnoOf("Failed to release the lock", [&] { lock.unlock(); }), EPERM);
  lock.lock();
  int code = 0;
  std::thread([&] { code = errnoOf("Failed to release the lock", [&] { lock.unlock(); }); }).join();
  EXPECT_EQ(code, EPERM);
  EXPECT_TRUE(held(lock));
  lock.unlock();
}

// A mutex of a kind unknown to the platform fails with something else than the deadlock that stands
// for "held already".
TEST_F(LockTest, RaisesWhenItCannotBeTaken) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer reports such a mutex itself";
#endif
  int& kind = mutexOf(lock)->__data.__kind;
  const int sound = std::exchange(kind, -1);
  EXPECT_EQ(errnoOf("Failed to grab lock", [&] { lock.lock(); }), EINVAL);
  kind = sound;
  EXPECT_TRUE(lock.lock());
  lock.unlock();
}

TEST_F(LockTest, IsDestroyedSilentlyWhileHeld) {
  auto doomed = std::make_unique<Lock>();
  doomed->lock();
  EXPECT_NO_THROW(doomed.reset());
}

TEST_F(LockTest, AnAnchorHoldsItForAScope) {
  {
    LockAnchor anchor(&lock, 0);
    EXPECT_TRUE(anchor.locked());
    EXPECT_TRUE(held(lock));
    EXPECT_TRUE(lock.releasable());
  }
  EXPECT_FALSE(held(lock));
}

TEST_F(LockTest, AnAnchorMarksItReleasableAndRestoresTheMark) {
  lock.releasableIs(false);
  {
    LockAnchor anchor(&lock);
    EXPECT_TRUE(lock.releasable());
  }
  EXPECT_FALSE(lock.releasable());
}

TEST_F(LockTest, AnchorsNest) {
  {
    LockAnchor outer(&lock);
    {
      LockAnchor inner(&lock);
      EXPECT_FALSE(inner.locked());
      LockAnchor innermost(&lock);
      EXPECT_FALSE(innermost.locked());
    }
    EXPECT_TRUE(held(lock));
  }
  EXPECT_FALSE(held(lock));
}

TEST_F(LockTest, AnAnchorDoesNotReleaseWhatWasHeldBefore) {
  lock.lock();
  { LockAnchor anchor(&lock); }
  EXPECT_TRUE(held(lock));
  lock.unlock();
}

TEST_F(LockTest, AnAnchorMayForbidTheRelease) {
  {
    LockAnchor anchor(&lock, LockAnchor::notReleasable);
    EXPECT_FALSE(lock.releasable());
  }
  EXPECT_TRUE(lock.releasable());
}

TEST_F(LockTest, APlainInnerAnchorAllowsTheReleaseAgainWhileItLives) {
  LockAnchor outer(&lock, LockAnchor::notReleasable);
  {
    LockAnchor inner(&lock);
    EXPECT_TRUE(lock.releasable());
  }
  EXPECT_FALSE(lock.releasable());
}

TEST_F(LockTest, AnAnchorMayInsistOnReleasability) {
  LockAnchor anchor(&lock, LockAnchor::requireReleasable);
  EXPECT_TRUE(anchor.locked());
  LockAnchor inner(&lock, LockAnchor::requireReleasable | LockAnchor::notReleasable);
  EXPECT_FALSE(lock.releasable());
}

TEST_F(LockTest, AnInsistingAnchorRefusesInsideOneThatForbids) {
  LockAnchor outer(&lock, LockAnchor::notReleasable);
  try {
    LockAnchor inner(&lock, LockAnchor::requireReleasable);
    FAIL() << "not refused";
  } catch (const Lumo::InternalException& exception) {
    EXPECT_STREQ(exception.what(), "Lock Protocol violation xxx");
    EXPECT_TRUE(exception.exceptionIds().empty());
  }
  EXPECT_TRUE(held(lock));
  EXPECT_FALSE(lock.releasable());
}

TEST_F(LockTest, ARefusingAnchorGivesBackWhatItTook) {
  lock.releasableIs(false);
  EXPECT_THROW(LockAnchor(&lock, LockAnchor::requireReleasable), Lumo::InternalException);
  EXPECT_FALSE(held(lock));
  EXPECT_FALSE(lock.releasable());
}

TEST(ActivityLock, IsOneForTheProcess) {
  Lock* const lock = ActivityLockAnchor::lock();
  EXPECT_EQ(ActivityLockAnchor::lock(), lock);
  Lock* elsewhere = nullptr;
  std::thread([&] { elsewhere = ActivityLockAnchor::lock(); }).join();
  EXPECT_EQ(elsewhere, lock);
  {
    ActivityLockAnchor anchor;
    EXPECT_TRUE(anchor.locked());
    EXPECT_TRUE(held(*lock));
    ActivityLockAnchor inner(LockAnchor::notReleasable);
    EXPECT_FALSE(inner.locked());
    EXPECT_FALSE(lock->releasable());
  }
  EXPECT_FALSE(held(*lock));
}

struct LockDeathTest : LockTest {
  LockDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(LockDeathTest, AnAnchorThatCannotReleaseEndsTheProcess) {
  EXPECT_DEATH(
      {
        LockAnchor anchor(&lock);
        lock.unlock();
      },
      "Failed to release the lock");
}

TEST_F(LockDeathTest, AnAnchorOnNothingAborts) {
  EXPECT_DEATH(LockAnchor(nullptr), testing::HasSubstr("`lock' failed"));
}

// Threads that wait on a condition until told to go; `waiting` counts those at it, under the lock.
struct Waiters {
  Lock lock;
  Condition condition;
  int waiting = 0;
  int woken = 0;
  std::vector<std::thread> threads;

  void start(int count) {
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([this] {
        LockAnchor anchor(&lock);
        ++waiting;
        condition.wait(&lock);
        ++woken;
      });
    }
    while (true) {  // whoever is counted has given the lock up in its wait
      LockAnchor anchor(&lock);
      if (waiting == count) return;
    }
  }
  void join() {
    for (std::thread& thread : threads) thread.join();
  }
};

TEST(Condition, IsMadeAndFreedPlainly) {
  const U64 live = Lumo::PtrInterface::lumoAllocTrackTypeInfo_.live();
  Condition* const condition = new Condition();
  EXPECT_EQ(Lumo::PtrInterface::lumoAllocTrackTypeInfo_.live(), live + 1);
  EXPECT_EQ(condition->fwkType(), &Condition::_lumoType);
  EXPECT_STREQ(Condition::_lumoType.typeName(), "Lumo::Condition");
  delete condition;
  EXPECT_EQ(Lumo::PtrInterface::lumoAllocTrackTypeInfo_.live(), live);
}

TEST(Condition, KeptOnPurposeOneSignalWakesAllWaiters) {
  Waiters waiters;
  waiters.start(3);
  {
    LockAnchor anchor(&waiters.lock);
    waiters.condition.signal();
  }
  waiters.join();
  EXPECT_EQ(waiters.woken, 3);
}

// The waiter comes to its wait after the first signal, and needs the second.
TEST(Condition, ASignalWithoutAWaiterIsForgotten) {
  Waiters waiters;
  waiters.condition.signal();
  waiters.start(1);
  {
    LockAnchor anchor(&waiters.lock);
    EXPECT_EQ(waiters.woken, 0);
    waiters.condition.signal();
  }
  waiters.join();
  EXPECT_EQ(waiters.woken, 1);
}

TEST(Condition, WaitingHoldsTheLockAgainAfterwards) {
  Waiters waiters;
  bool heldAfterwards = false;
  std::atomic<bool> ready{false};
  std::thread waiter([&] {
    LockAnchor anchor(&waiters.lock);
    ready = true;
    waiters.condition.wait(&waiters.lock);
    heldAfterwards = held(waiters.lock);
  });
  while (!ready) std::this_thread::yield();
  {
    LockAnchor anchor(&waiters.lock);
    waiters.condition.signal();
  }
  waiter.join();
  EXPECT_TRUE(heldAfterwards);
}

TEST(Condition, RefusesToWaitWithoutTheLock) {
  Lock lock;
  Condition condition;
  EXPECT_EQ(errnoOf("Condition variable wait failed", [&] { condition.wait(&lock); }), EPERM);
}

TEST(ThreadId, KeepsAThreadAsANumber) {
  const pthread_t self = pthread_self();
  EXPECT_NE(pthread_equal(Lumo::toPthread(Lumo::toU64(self)), self), 0);
  EXPECT_EQ(Lumo::toU64(self), static_cast<U64>(self));
  U64 other = 0;
  std::thread([&] { other = Lumo::toU64(pthread_self()); }).join();
  EXPECT_NE(other, Lumo::toU64(self));
}

TEST_F(LockTest, AnInsistingAnchorLooksAtTheMarkOnceItHoldsTheLock) {
  std::atomic<pid_t> insisting{0};
  std::atomic<bool> refused{false};
  std::thread other;
  {
    LockAnchor forbidding(&lock, LockAnchor::notReleasable);
    other = std::thread([&] {
      insisting = ::gettid();
      try {
        LockAnchor anchor(&lock, LockAnchor::requireReleasable);
      } catch (const Lumo::InternalException&) {
        refused = true;
      }
    });
    while (insisting == 0 || !support::sleeps(insisting)) std::this_thread::yield();
  }
  other.join();
  EXPECT_FALSE(refused);
}

TEST(SpinLock, KeepsAnotherThreadOutUntilItIsReleased) {
  Lumo::SpinLock lock;
  std::atomic<bool> coming{false}, inside{false};
  lock.lock();
  std::thread other([&] {
    coming = true;
    const Lumo::SpinLockAnchor anchor(lock);
    inside = true;
  });
  while (!coming) std::this_thread::yield();
  // Time for one who does not wait.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(inside);
  lock.unlock();
  other.join();
  EXPECT_TRUE(inside);
}

}  // namespace
