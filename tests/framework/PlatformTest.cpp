// Locks, conditions, memory and waits against a platform that is looked at, and that fails.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <support/Eventually.h>
#include <support/Platform.h>
#include <support/ThisProcess.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <Lumo/Exception.h>
#include <Lumo/Lock.h>
#include <Lumo/MainLoop.h>

namespace {

// Blocks that the program has taken from its heap and not given back.
std::atomic<std::size_t> blocks{0};
std::atomic<std::size_t> lastSize{0};

std::atomic<int> waits{0};
// What a wait begins with.
std::function<void()> onWait;

itimerspec lastTimer{};
bool eventsRefused = false;

}  // namespace

// The heap of the whole program. Not inlined: the compiler knows the pairs of functions by name.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++blocks;
  lastSize = size;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  if (memory) --blocks;
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  ::operator delete(memory);
}

// The wait for descriptors of the whole program.
extern "C" int poll(pollfd* descriptors, nfds_t count, int timeout) {
  ++waits;
  if (onWait) onWait();
  const timespec time{timeout / 1000, timeout % 1000 * 1000000L};
  return ppoll(descriptors, count, timeout < 0 ? nullptr : &time, nullptr);
}

extern "C" int eventfd(unsigned int count, int flags) noexcept {
  if (eventsRefused) {
    errno = EMFILE;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_eventfd2, count, flags));
}

extern "C" int timerfd_settime(int timer, int flags, const itimerspec* time,
                               itimerspec* before) noexcept {
  lastTimer = *time;
  return static_cast<int>(::syscall(SYS_timerfd_settime, timer, flags, time, before));
}

namespace {

using Lumo::Condition;
using Lumo::ErrnoException;
using Lumo::Lock;
using support::Platform;
using testing::ElementsAre;

// A platform on which one function fails with EAGAIN, about whichever object.
struct Failing : Platform {
  explicit Failing(std::string function)
      : Platform([function = std::move(function)](const char* called, const void*,
                                                  int) -> std::optional<int> {
          if (called == function) return EAGAIN;
          return std::nullopt;
        }) {}
};

TEST(LockOnThePlatform, SetsUpAnErrorCheckingMutexOfTheProcess) {
  std::vector<std::string> calls;
  const void* mutex = nullptr;
  {
    const Platform platform([&](const char* called, const void* object, int argument) {
      calls.push_back(called + std::string(" ") + std::to_string(argument));
      if (called == std::string("pthread_mutex_init")) mutex = object;
      return std::nullopt;
    });
    const Lock lock;
    EXPECT_EQ(mutex, &lock);
  }
  static_assert(PTHREAD_PROCESS_PRIVATE == 0 && PTHREAD_MUTEX_ERRORCHECK == 2);
  EXPECT_THAT(calls, ElementsAre("pthread_mutexattr_init 0", "pthread_mutexattr_setpshared 0",
                                 "pthread_mutexattr_settype 2", "pthread_mutex_init 0",
                                 "pthread_mutexattr_destroy 0", "pthread_mutex_destroy 0"));
}

TEST(ConditionOnThePlatform, IsMadeAndGivenBack) {
  std::vector<std::string> calls;
  const void* condition = nullptr;
  const Platform platform([&](const char* called, const void* object, int) {
    if (object == condition || called == std::string("pthread_cond_init")) calls.push_back(called);
    if (!condition) condition = object;
    return std::nullopt;
  });
  { const Condition made; }
  EXPECT_THAT(calls, ElementsAre("pthread_cond_init", "pthread_cond_destroy"));
}

// An object in memory that is all zero, which is a mutex or a condition already.
template <class T>
class Zeroed {
 public:
  Zeroed() : object_(::new (memory_) T()) {}
  ~Zeroed() { object_->~T(); }
  Zeroed(const Zeroed&) = delete;
  Zeroed& operator=(const Zeroed&) = delete;
  T* operator->() const { return object_; }

 private:
  alignas(T) std::byte memory_[sizeof(T)]{};
  T* const object_;
};

class EveryStepOfTheSetUp : public testing::TestWithParam<const char*> {};

TEST_P(EveryStepOfTheSetUp, KeptOnPurposeMayFailUnnoticed) {
  const Failing platform(GetParam());
  EXPECT_NO_THROW({
    const Zeroed<Lock> lock;
    EXPECT_TRUE(lock->releasable());
  });
  EXPECT_NO_THROW({ const Zeroed<Condition> condition; });
}

INSTANTIATE_TEST_SUITE_P(Platform, EveryStepOfTheSetUp,
                         testing::Values("pthread_mutexattr_init", "pthread_mutexattr_setpshared",
                                         "pthread_mutexattr_settype", "pthread_mutex_init",
                                         "pthread_mutex_destroy", "pthread_cond_init",
                                         "pthread_cond_destroy"),
                         [](const auto& step) { return std::string(step.param); });

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

TEST(LockOnThePlatform, RaisesWhenItCannotBeTaken) {
  Lock lock;
  const Failing platform("pthread_mutex_lock");
  EXPECT_EQ(errnoOf("Failed to grab lock", [&] { lock.lock(); }), EAGAIN);
}

TEST(ConditionOnThePlatform, RaisesWhenItCannotWait) {
  Lock lock;
  Condition condition;
  Lumo::LockAnchor anchor(&lock);
  const Failing platform("pthread_cond_wait");
  EXPECT_EQ(errnoOf("Condition variable wait failed", [&] { condition.wait(&lock); }), EAGAIN);
}

TEST(ConditionOnThePlatform, RaisesWhenItCannotSignal) {
  Condition condition;
  const Failing platform("pthread_cond_broadcast");
  EXPECT_EQ(errnoOf("Condition variable signal failed", [&] { condition.signal(); }), EAGAIN);
}

TEST(MainLoopOnThePlatform, WaitsWhereNothingIsDue) {
  Lumo::MainLoop loop;
  const int before = waits;
  std::thread runner([&] { loop.run(); });
  EXPECT_TRUE(support::eventually([&] { return waits > before; }));
  loop.stop();
  runner.join();
}

TEST(MainLoopOnThePlatform, SleepsUntilTheNextRequest) {
  struct Alarm : Lumo::Clock::NotifieeConst {
    explicit Alarm(const Lumo::Ptr<Lumo::Clock const>& clock) : NotifieeConst(clock) {}
    ~Alarm() override { doZombieReactor(true); }
  };
  Lumo::MainLoop loop;
  const auto alarm = Lumo::allocate<Alarm>(loop.clock());
  onWait = [&] { loop.stop(); };
  for (const long ahead : {1'000'000L, 1'000'000'000L}) {
    loop.post([&] { alarm->timeoutIs(static_cast<double>(ahead)); });
    loop.run();
    EXPECT_LE(lastTimer.it_value.tv_sec, ahead);
    EXPECT_GE(lastTimer.it_value.tv_sec, ahead - 3600);
  }
  onWait = nullptr;
}

TEST(MainLoopOnThePlatform, AStopIsSetAndTakenUnderItsLock) {
  const void* const activityLock = Lumo::ActivityLockAnchor::lock();
  Lumo::MainLoop loop;
  int taken = 0;
  const Platform platform([&](const char* called, const void* object, int) -> std::optional<int> {
    if (object != activityLock && called == std::string("pthread_mutex_lock")) ++taken;
    return std::nullopt;
  });
  loop.stop();
  EXPECT_EQ(taken, 1);
  loop.run();
  EXPECT_EQ(taken, 3) << "for the tasks, and for the stop";
}

TEST(MainLoopOnThePlatform, AsksItsClockForTheNextRequestUnderTheActivityLock) {
  const void* const activityLock = Lumo::ActivityLockAnchor::lock();
  int taken = 0;
  const Platform platform([&](const char* called, const void* object, int) -> std::optional<int> {
    if (object == activityLock && called == std::string("pthread_mutex_lock")) ++taken;
    return std::nullopt;
  });
  Lumo::MainLoop loop;
  int takenBeforeTheWait = 0;
  loop.post([&] { taken = 0; });  // from here on, the lock being held
  onWait = [&] {
    takenBeforeTheWait = taken;
    loop.stop();
  };
  loop.run();
  onWait = nullptr;
  EXPECT_EQ(takenBeforeTheWait, 1);
}

TEST(MainLoopOnThePlatform, KeepsNoDescriptorWhereTheFirstOfTwoIsRefused) {
  const auto before = support::openDescriptors();
  eventsRefused = true;
  EXPECT_THROW(Lumo::MainLoop(), ErrnoException);
  eventsRefused = false;
  EXPECT_EQ(support::openDescriptors(), before);
}

TEST(PtrInterface, TakesItsMemoryFromTheOrdinaryHeap) {
  const std::size_t before = blocks;
  void* const memory = Lumo::PtrInterface::lumoMemAlloc(12345);
  EXPECT_EQ(lastSize, 12345u);
  EXPECT_EQ(blocks, before + 1);
  Lumo::PtrInterface::lumoMemDealloc(memory);
  EXPECT_EQ(blocks, before);
  Condition* const condition = new Condition();
  EXPECT_EQ(lastSize, sizeof(Condition));
  EXPECT_EQ(blocks, before + 1);
  delete condition;
  EXPECT_EQ(blocks, before);
  Condition* const conditions = new Condition[2];
  EXPECT_EQ(blocks, before + 1);
  delete[] conditions;
  EXPECT_EQ(blocks, before);
}

}  // namespace
