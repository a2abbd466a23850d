// The worker's loop: what it takes, sends, drops and traces, on a client with a thread of the test.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Commands.h>
#include <support/Eventually.h>
#include <support/ExpectedLeak.h>
#include <support/FakeDaemon.h>
#include <support/FreeHere.h>
#include <support/TraceRecorder.h>
#include <unistd.h>

#include <future>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <tuple>

#include <Lumo/Trace.h>
#include <Norv/GrpcClient.h>
#include <bess/pb/service.pb.h>

namespace {

using namespace Norv;
using support::FakeDaemon;
using support::freeHere;
using support::TraceRecorder;
using testing::ElementsAre;

const char* const noMore = "There are no more GrpcCmds to process";
const char* const waken = "Waken up by the main thread. Get new GrpcCmd to handle";

// What a worker shares with its owner.
struct Shared {
  Lumo::Ptr<CmdGroup> pending = CmdGroup::CmdGroupIs();
  Lumo::Ptr<GrpcErrorHandlingStatus> status = GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  Lumo::Lock lock;
  Lumo::Condition condition;
  std::unique_ptr<GrpcClient> client;
};

// One that outlives its test, as the loop never ends.
Shared& newShared() {
  static auto* const all = new std::vector<std::unique_ptr<Shared>>;
  return *all->emplace_back(std::make_unique<Shared>());
}

struct Worker : testing::Test {
  Worker() : shared(newShared()) {
    const auto channel = grpc::CreateChannel("127.0.0.1:" + std::to_string(daemon.port()),
                                             grpc::InsecureChannelCredentials());
    shared.client = std::make_unique<GrpcClient>(channel, shared.pending, shared.status,
                                                 &shared.lock, &shared.condition);
  }
  // What the worker works within, if not nothing.
  template <class... Within>
  void start() {
    std::promise<int> began;
    std::future<int> number = began.get_future();
    std::thread([client = shared.client.get(), began = std::move(began)]() mutable {
      [[maybe_unused]] const std::tuple<Within...> within;
      began.set_value(gettid());
      client->doProcessGrpcCmd();
    }).detach();
    thread = number.get();
  }
  // Puts commands into the queue without waking anyone.
  void put(GrpcRequestType type = getVersion) {
    const Lumo::Ptr<GrpcCmd> cmd =
        Lumo::allocate<support::LoggedCmd>(log, made++, support::newRequest(type).release(), type);
    Lumo::LockAnchor anchor(&shared.lock);
    shared.pending->cmdBatchEnq(cmd);
  }
  void wake() {
    Lumo::LockAnchor anchor(&shared.lock);
    shared.condition.signal();
  }
  U32 waiting() {
    Lumo::LockAnchor anchor(&shared.lock);
    return shared.pending->cmdBatchs();
  }
  bool eventually(const std::function<bool()>& condition) {
    return support::eventually(condition, [this] { wake(); });
  }
  // The worker sleeps when it has traced that there is nothing more and given the lock back, which
  // it does only inside the wait.
  bool asleep(const TraceRecorder& trace, std::size_t times = 1) {
    if (!support::eventually([&] { return trace.count(noMore, thread) == times; })) return false;
    return support::eventually([&] {
      Lumo::LockAnchor anchor(&shared.lock);
      return true;
    });
  }

  FakeDaemon daemon;
  Shared& shared;
  std::shared_ptr<support::CommandLog> log = std::make_shared<support::CommandLog>();
  int made = 0;
  int thread = 0;  // the worker's, once it is started
};

TEST_F(Worker, SleepsOnAnEmptyQueueUntilItIsSignalled) {
  const TraceRecorder trace("GrpcClient/5");
  start();
  ASSERT_TRUE(support::eventually([&] { return trace.count(noMore, thread) == 1; }));
  put();
  EXPECT_EQ(daemon.calls().size(), 0u);
  EXPECT_TRUE(eventually([&] { return log->responses == 1; }));
  const std::vector<TraceRecorder::Line> lines = trace.lines(thread);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], (TraceRecorder::Line{"GrpcClient", 5, "GrpcClient.cpp", 77,
                                           "doProcessGrpcCmd", noMore}));
  EXPECT_EQ(lines[1], (TraceRecorder::Line{"GrpcClient", 5, "GrpcClient.cpp", 81,
                                           "doProcessGrpcCmd", waken}));
}

TEST_F(Worker, TakesTheHeadUnderTheLockAndLeavesTheCountsAlone) {
  shared.pending->pendingCountIs(7);
  put();
  put();
  const Lumo::Ptr<GrpcCmd> head = shared.pending->cmdBatch(0);
  EXPECT_EQ(shared.client->getCmdFromQueue(), head);
  EXPECT_TRUE(shared.client->getCmdFromQueue());
  EXPECT_EQ(shared.client->getCmdFromQueue(), nullptr);
  EXPECT_EQ(shared.pending->pendingCount(), 7);
  EXPECT_EQ(shared.pending->limit(), 4096);
  EXPECT_TRUE(shared.lock.lock());
  shared.lock.unlock();
}

TEST_F(Worker, HoldsCountedReferencesOnQueueAndStatus) {
  EXPECT_EQ(shared.pending->references(), 2u);
  EXPECT_EQ(shared.status->references(), 2u);
  shared.client = nullptr;
  EXPECT_EQ(shared.pending->references(), 1u);
  EXPECT_EQ(shared.status->references(), 1u);
}

TEST_F(Worker, HoldsNoLockWhileAnRpcIsUnderWay) {
  daemon.hold();
  put();
  start();
  ASSERT_TRUE(eventually([&] { return daemon.calls().size() == 1; }));
  EXPECT_TRUE(shared.lock.lock());
  shared.lock.unlock();
  EXPECT_TRUE(Lumo::ActivityLockAnchor::lock()->lock());
  Lumo::ActivityLockAnchor::lock()->unlock();
  daemon.release();
  EXPECT_TRUE(eventually([&] { return log->responses == 1; }));
}

TEST_F(Worker, ReleasesTheLastCommandBeforeItSleeps) {
  const TraceRecorder trace("GrpcClient/5");
  put();
  start();
  ASSERT_TRUE(support::eventually([&] { return trace.count(noMore, thread) == 1; }));
  EXPECT_EQ(log->destroyed, 1);
}

TEST_F(Worker, KeptOnPurposeDropsOneCommandPerWakeUpWhileTheFlagIsSet) {
  daemon.handlerIs([](auto, const auto&, auto*) { return FakeDaemon::Answer{14, "gone", ""}; });
  const TraceRecorder trace("GrpcClient/0-5");
  put();
  put();
  put();
  put();
  start();
  // The first fails, the second is taken and held, two stay.
  ASSERT_TRUE(asleep(trace));
  EXPECT_TRUE(shared.status->errorOccured());
  EXPECT_EQ(waiting(), 2u);
  EXPECT_THAT(log->releasedNumbers(), ElementsAre(0));
  // A wake-up lets the second go and takes the third. It may have been lost, but not twice taken.
  ASSERT_TRUE(support::eventually([&] { return trace.count(waken, thread) == 1; },
                                  [&] {
                                    if (trace.count(waken, thread) == 0) wake();
                                  }));
  ASSERT_TRUE(support::eventually([&] { return trace.count(noMore, thread) >= 2; }));
  EXPECT_GE(log->releasedNumbers().size(), 2u);
  EXPECT_EQ(log->releasedNumbers()[1], 1);
  EXPECT_EQ(daemon.calls().size(), 1u);
  EXPECT_EQ(log->responses, 0);
}

TEST_F(Worker, SendsAgainOnceTheAgentHasClearedTheFlag) {
  shared.status->errorOccuredIs(true);
  const TraceRecorder trace("GrpcClient/5");
  put();
  start();
  ASSERT_TRUE(asleep(trace));
  EXPECT_EQ(waiting(), 0u);  // taken and held
  EXPECT_EQ(log->destroyed, 0);
  shared.status->errorOccuredIs(false);
  put();
  EXPECT_TRUE(eventually([&] { return log->responses == 1; }));
  EXPECT_THAT(log->respondedNumbers(), ElementsAre(1));
  EXPECT_EQ(log->releasedNumbers()[0], 0);
}

TEST_F(Worker, KeptOnPurposeTakesANullCommandForAnEmptyQueue) {
  {
    Lumo::LockAnchor anchor(&shared.lock);
    shared.pending->cmdBatchEnq(nullptr);
  }
  put();
  const TraceRecorder trace("GrpcClient/5");
  start();
  ASSERT_TRUE(asleep(trace));
  EXPECT_EQ(waiting(), 1u);
  EXPECT_EQ(daemon.calls().size(), 0u);
  EXPECT_TRUE(eventually([&] { return log->responses == 1; }));
}

TEST_F(Worker, KeptOnPurposePassesOverAReplyThatDoesNotDecode) {
  daemon.handlerIs([](GrpcRequestType type, const auto&, auto*) {
    return type == getVersion ? FakeDaemon::Answer{0, "", "\xff\xff\xff garbage"}
                              : FakeDaemon::Answer();
  });
  const TraceRecorder trace("GrpcClient/*");
  put(getVersion);
  put(listPorts);
  start<support::ExpectedLeak>();
  ASSERT_TRUE(asleep(trace));
  EXPECT_EQ(log->destroyed, 2);
  EXPECT_THAT(log->respondedNumbers(), ElementsAre(1));
  EXPECT_FALSE(shared.status->errorOccured());
  std::vector<std::string> texts;
  for (const TraceRecorder::Line& line : trace.lines(thread)) texts.push_back(line.text);
  EXPECT_THAT(texts, ElementsAre("Sending getVersion", "Sending listPorts",
                                 "Processing response. RequestType: listPorts", noMore));
}

TEST_F(Worker, WaitsForADaemonThatComesLater) {
  U16 port = 0;
  {
    FakeDaemon gone;
    port = gone.port();
  }
  Shared& late = newShared();
  late.client = std::make_unique<GrpcClient>(
      grpc::CreateChannel("127.0.0.1:" + std::to_string(port), grpc::InsecureChannelCredentials()),
      late.pending, late.status, &late.lock, &late.condition);
  late.pending->cmdBatchEnq(Lumo::allocate<support::LoggedCmd>(
      log, 0, support::newRequest(getVersion).release(), getVersion));
  std::thread([&late] { late.client->doProcessGrpcCmd(); }).detach();
  ASSERT_TRUE(support::eventually([&] {
    Lumo::LockAnchor anchor(&late.lock);
    return late.pending->cmdBatchs() == 0;
  }));
  EXPECT_FALSE(late.status->errorOccured());
  FakeDaemon arriving(port);
  EXPECT_TRUE(support::eventually([&] { return log->responses == 1; }));
}

TEST_F(Worker, DestroysAnIdleClientCleanly) {
  const TraceRecorder trace("GrpcClient/1");
  shared.client = nullptr;
  EXPECT_THAT(trace.lines(),
              ElementsAre(TraceRecorder::Line{"GrpcClient", 1, "GrpcClient.cpp", 30, "~GrpcClient",
                                              "Terminating GrpcClient"}));
}

// Which locks the worker holds as it passes each of its points.
class LocksAtThePoints : public Lumo::TraceSink {
 public:
  explicit LocksAtThePoints(Lumo::Lock* queueLock) : queueLock_(queueLock) {
    Lumo::traceSinkIs(this);
    Lumo::traceSettingIs("GrpcClient/*");
  }
  ~LocksAtThePoints() override {
    Lumo::traceSettingIs("");
    Lumo::traceSinkIs(nullptr);
  }
  void lineIs(const Lumo::TraceLine& line) override {
    std::string held;
    if (!freeHere(queueLock_)) held += "queue ";
    if (!freeHere(Lumo::ActivityLockAnchor::lock())) held += "activity ";
    std::lock_guard guard(mutex_);
    held_[line.line].insert(held);
  }
  std::map<int, std::set<std::string>> held() const {
    std::lock_guard guard(mutex_);
    return held_;
  }

 private:
  Lumo::Lock* const queueLock_;
  mutable std::mutex mutex_;
  std::map<int, std::set<std::string>> held_;  // by line
};

TEST_F(Worker, HoldsItsLockOnlyBehindItsSleep) {
  daemon.handlerIs([](GrpcRequestType type, const auto&, auto*) {
    return type == listPorts ? FakeDaemon::Answer{14, "gone", ""} : FakeDaemon::Answer();
  });
  put(getVersion);
  put(listPorts);
  const LocksAtThePoints locks(&shared.lock);
  start();
  ASSERT_TRUE(eventually([&] { return locks.held().contains(81); }));
  const std::set<std::string> none{""};
  EXPECT_EQ(locks.held(),
            (std::map<int, std::set<std::string>>{
                {77, none}, {81, {"queue "}}, {102, none}, {137, none}, {326, none}}));
}

TEST_F(Worker, HoldsTheActivityLockAndNoOtherAroundTheHandler) {
  struct Looking : GrpcCmd {
    Looking(Lumo::Lock* queueLock, std::atomic<int>* found)
        : GrpcCmd(new bess::pb::EmptyRequest(), getVersion), queueLock_(queueLock), found_(found) {}
    void processResponse(google::protobuf::Message*) override {
      *found_ =
          (freeHere(queueLock_) ? 0 : 1) + (freeHere(Lumo::ActivityLockAnchor::lock()) ? 2 : 0);
    }
    Lumo::Lock* const queueLock_;
    std::atomic<int>* const found_;
  };
  static std::atomic<int> found;
  found = -1;
  {
    Lumo::LockAnchor anchor(&shared.lock);
    shared.pending->cmdBatchEnq(Lumo::allocate<Looking>(&shared.lock, &found));
  }
  start();
  EXPECT_TRUE(eventually([&] { return found >= 0; }));
  EXPECT_EQ(found, 0);
}

// Says at its end how many wait behind it, and whether the thread that ends it holds the lock.
class Last : public GrpcCmd {
 public:
  struct Seen {
    std::atomic<int> waiting{-1};
    std::atomic<bool> lockFree{false};
  };
  Last(Shared* shared, Seen* seen)
      : GrpcCmd(new bess::pb::EmptyRequest(), getVersion), shared_(shared), seen_(seen) {}
  ~Last() override {
    seen_->lockFree = freeHere(&shared_->lock);
    Lumo::LockAnchor anchor(&shared_->lock);
    seen_->waiting = static_cast<int>(shared_->pending->cmdBatchs());
  }

 private:
  Shared* const shared_;
  Seen* const seen_;
};

TEST_F(Worker, LetsACommandGoOnceItHasTakenTheNextAndHoldingNoLock) {
  static Last::Seen seen;
  {
    Lumo::LockAnchor anchor(&shared.lock);
    shared.pending->cmdBatchEnq(Lumo::allocate<Last>(&shared, &seen));
  }
  put();
  put();
  daemon.hold();
  start();
  daemon.release();
  ASSERT_TRUE(eventually([&] { return log->responses == 2; }));
  EXPECT_EQ(seen.waiting, 1);
  EXPECT_TRUE(seen.lockFree);
}

}  // namespace
