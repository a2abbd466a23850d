// The worker's sleep and its locks, seen at the platform's own functions.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Abort.h>
#include <support/Commands.h>
#include <support/Eventually.h>
#include <support/FakeDaemon.h>
#include <support/Platform.h>
#include <support/TraceRecorder.h>

#include <cerrno>
#include <thread>

#include <Lumo/Trace.h>
#include <Norv/GrpcClient.h>

namespace {

using namespace Norv;
using support::FakeDaemon;
using support::Platform;
using support::TraceRecorder;

const char* const noMore = "There are no more GrpcCmds to process";
const char* const waken = "Waken up by the main thread. Get new GrpcCmd to handle";

// What a worker shares with its owner. It outlives the test's scope, as the loop never ends.
struct Shared {
  bool isConditions(const void* part) const {
    const auto* byte = static_cast<const char*>(part);
    const auto* first = reinterpret_cast<const char*>(&condition);
    return byte >= first && byte < first + sizeof(condition);
  }
  void put() {
    const Lumo::Ptr<GrpcCmd> cmd = Lumo::allocate<support::LoggedCmd>(
        log, 0, support::newRequest(getVersion).release(), getVersion);
    Lumo::LockAnchor anchor(&lock);
    pending->cmdBatchEnq(cmd);
  }
  void wake() {
    Lumo::LockAnchor anchor(&lock);
    condition.signal();
  }

  FakeDaemon daemon;
  std::shared_ptr<support::CommandLog> log = std::make_shared<support::CommandLog>();
  Lumo::Ptr<CmdGroup> pending = CmdGroup::CmdGroupIs();
  Lumo::Ptr<GrpcErrorHandlingStatus> status = GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  Lumo::Lock lock;
  Lumo::Condition condition;
  GrpcClient client{daemon.inProcessChannel(), pending, status, &lock, &condition};
};

struct ClientOnThePlatform : testing::Test {
  void start() {
    std::thread([worker = &shared] { worker->client.doProcessGrpcCmd(); }).detach();
  }
  Shared& shared = *new Shared;
};

// Acts on the worker itself, at the moment between its two looks at the lock.
class BetweenTakingAndSleeping : public Lumo::TraceSink {
 public:
  explicit BetweenTakingAndSleeping(std::function<void()> action) : action_(std::move(action)) {
    Lumo::traceSinkIs(this);
    Lumo::traceSettingIs("GrpcClient/5");
  }
  ~BetweenTakingAndSleeping() override {
    Lumo::traceSettingIs("");
    Lumo::traceSinkIs(nullptr);
  }
  void lineIs(const Lumo::TraceLine& line) override {
    if (line.text == noMore && !std::exchange(done_, true)) action_();
  }

 private:
  const std::function<void()> action_;
  bool done_ = false;
};

TEST_F(ClientOnThePlatform, KeptOnPurposeASignalBetweenTakingAndSleepingIsLost) {
  std::atomic<int> sleeps{0};
  std::atomic<U32> waitingAtTheFirst{0};
  const Platform platform([&](const std::string& called, const void* object, int) {
    if (called == "pthread_cond_wait" && shared.isConditions(object)) {
      if (sleeps == 0) waitingAtTheFirst = shared.pending->cmdBatchs();
      ++sleeps;
    }
    return std::nullopt;
  });
  const BetweenTakingAndSleeping announcement([&] {
    shared.put();
    shared.wake();
  });
  start();
  ASSERT_TRUE(support::eventually([&] { return sleeps > 0; }));
  // It sleeps on top of the command, which goes with the next signal.
  EXPECT_EQ(waitingAtTheFirst, 1u);
  EXPECT_EQ(shared.daemon.calls().size(), 0u);
  EXPECT_TRUE(
      support::eventually([&] { return shared.log->responses == 1; }, [&] { shared.wake(); }));
}

TEST_F(ClientOnThePlatform, KeptOnPurposeAnyWakeUpGoesRoundTheLoop) {
  constexpr int wakeUps = 3;
  std::atomic<int> sleeps{0};
  const TraceRecorder trace("GrpcClient/5");
  // The first few waits return without a signal.
  const Platform platform(
      [&](const std::string& called, const void* object, int) -> std::optional<int> {
        if (called != "pthread_cond_wait" || !shared.isConditions(object)) return std::nullopt;
        if (sleeps++ < wakeUps) return 0;
        return std::nullopt;
      });
  start();
  ASSERT_TRUE(support::eventually([&] { return sleeps == wakeUps + 1; }));
  EXPECT_EQ(trace.count(waken), 3u);
  EXPECT_EQ(trace.count(noMore), 4u);
}

TEST_F(ClientOnThePlatform, LeavesItsLockAloneExceptToTakeACommand) {
  int holds = 0;
  const std::thread::id self = std::this_thread::get_id();
  const Platform platform([&](const std::string& called, const void* object, int) {
    if (called == "pthread_mutex_lock" && object == &shared.lock &&
        std::this_thread::get_id() == self) {
      ++holds;
    }
    return std::nullopt;
  });
  shared.put();
  holds = 0;
  const Lumo::Ptr<GrpcCmd> cmd = shared.client.getCmdFromQueue();
  EXPECT_EQ(holds, 1);
  EXPECT_TRUE(shared.client.doProcessBlockingGrpcCmd(cmd));
  EXPECT_EQ(holds, 1);
}

using ClientOnThePlatformDeathTest = ClientOnThePlatform;

TEST_F(ClientOnThePlatformDeathTest, AWaitThatFailsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const Platform platform([&](const std::string& called, const void* object, int) {
          return called == "pthread_cond_wait" && shared.isConditions(object)
                     ? std::optional<int>(EINVAL)
                     : std::nullopt;
        });
        std::thread([&] { shared.client.doProcessGrpcCmd(); }).join();
      },
      support::aborted, "Condition variable wait failed");
}

}  // namespace
