// Construction and teardown of the manager, and what it traces.

#include <gmock/gmock.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <support/Agent.h>
#include <support/FakeDaemon.h>
#include <support/SetByHand.h>
#include <support/ThisProcess.h>
#include <support/TraceRecorder.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <stdexcept>

#include <Lumo/Trace.h>
#include <Norv/GrpcClient.h>

namespace {

using namespace Norv;
using support::Agent;
using support::Environment;
using support::FakeDaemon;
using support::TraceRecorder;
using testing::ElementsAre;
using testing::StartsWith;

struct ConnectionsMgrTest : testing::Test {
  FakeDaemon daemon;
  Agent agent;
};

TEST_F(ConnectionsMgrTest, ConnectsAsSoonAsItExists) {
  agent.connect(daemon.port());
  EXPECT_TRUE(agent.manager->initialized());
  EXPECT_NE(agent.manager->client(), nullptr);
  EXPECT_NE(agent.manager->grpcReplyThread(), nullptr);
  EXPECT_NE(agent.manager->threadLock(), nullptr);
  EXPECT_NE(agent.manager->threadCondition(), nullptr);
  EXPECT_STREQ(agent.manager->fwkType()->typeName(), "Norv::ConnectionsMgr");
}

TEST_F(ConnectionsMgrTest, TracesItsStartInOrder) {
  agent.queue("a");
  const TraceRecorder trace("NorvConnectionsMgr/5,GrpcClient/1");
  agent.connect(daemon.port());
  EXPECT_THAT(trace.texts(),
              ElementsAre("void Norv::ConnectionsMgr::handleInitialized()",
                          "Connecting to Bessd (127.0.0.1:" + std::to_string(daemon.port()) + ")",
                          "Starting GrpcClient",
                          StartsWith("The grpc client has successfully started. client: 0x"),
                          "void Norv::ConnectionsMgr::handleCmdConfigGroup(Lumo::Name) a",
                          "Creating a CmdConfigGroupSm for a",
                          "void Norv::CmdConfigGroupSm::handleBatch()"));
  const TraceRecorder::Line first = trace.lines()[0];
  EXPECT_EQ(first.facility, "NorvConnectionsMgr");
  EXPECT_EQ(first.file, "NorvConnectionsMgr.lumo");
  EXPECT_EQ(first.line, 115);
  EXPECT_EQ(first.level, 5u);
  EXPECT_EQ(first.function, "handleInitialized");
  EXPECT_EQ(trace.lines()[1].line, 125);
  EXPECT_EQ(trace.lines()[3].line, 140);
  EXPECT_EQ(trace.lines()[4].line, 75);
  EXPECT_EQ(trace.lines()[5].line, 82);
}

TEST_F(ConnectionsMgrTest, InitializesOnce) {
  agent.connect(daemon.port());
  const std::set<int> before = support::ownThreads();
  GrpcClient* const client = agent.manager->client();
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.manager->handleInitialized();
  EXPECT_THAT(trace.texts(), ElementsAre("void Norv::ConnectionsMgr::handleInitialized()"));
  EXPECT_EQ(agent.manager->client(), client);
  EXPECT_TRUE(support::noThreadsBut(before));
}

TEST_F(ConnectionsMgrTest, FormatsTheAddressAsGiven) {
  const auto address = [&](const std::string& host, U16 port) {
    const TraceRecorder trace("NorvConnectionsMgr/5");
    Agent other;
    other.connect(port, host);
    return trace.texts()[1];
  };
  EXPECT_EQ(address("", 0), "Connecting to Bessd (:0)");
  EXPECT_EQ(address("::1", 1), "Connecting to Bessd (::1:1)");
  EXPECT_EQ(address("127.0.0.1", 65535), "Connecting to Bessd (127.0.0.1:65535)");
  const std::string longHost(10000, 'h');
  EXPECT_EQ(address(longHost, 7), "Connecting to Bessd (" + longHost + ":7)");
}

TEST_F(ConnectionsMgrTest, DoesNotWaitForADaemon) {
  // A port that nobody listens on: taken from a server that has gone.
  U16 port = 0;
  {
    FakeDaemon gone;
    port = gone.port();
  }
  agent.connect(port);
  agent.enqueue();
  agent.announce();
  EXPECT_TRUE(agent.eventually([&] { return agent.waiting() == 0; }));
  EXPECT_FALSE(agent.status->errorOccured());
  EXPECT_EQ(agent.log->responses, 0);
}

TEST_F(ConnectionsMgrTest, StoresItsPlainPointersAndDeletesNothing) {
  const Environment simulation("SIMULATION_NORV", "1");
  agent.connect(1);
  support::SetByHand parts(agent, daemon);
  const TraceRecorder trace("GrpcClient/1");
  EXPECT_EQ(agent.manager->threadLock(), &parts.lock);
  EXPECT_EQ(agent.manager->threadCondition(), &parts.condition);
  EXPECT_EQ(agent.manager->grpcReplyThread(), &parts.thread);
  EXPECT_EQ(agent.manager->client(), &parts.client);
  EXPECT_EQ(parts.condition.references(), 1u);  // a counted object, not counted here
  agent.manager->threadLockIs(nullptr);
  agent.manager->threadConditionIs(nullptr);
  agent.manager->grpcReplyThreadIs(nullptr);
  agent.manager->clientIs(nullptr);
  EXPECT_EQ(trace.count("Terminating GrpcClient"), 0u);
  EXPECT_TRUE(parts.lock.lock());  // still alive
  parts.lock.unlock();
}

TEST_F(ConnectionsMgrTest, GoesThroughTheProxyOfTheEnvironment) {
  const int proxy = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(::bind(proxy, any, size), 0);
  ASSERT_EQ(::listen(proxy, 1), 0);
  ASSERT_EQ(::getsockname(proxy, any, &size), 0);
  const Environment there("http_proxy",
                          "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)));
  const Environment grpcProxy("grpc_proxy", std::nullopt), httpsProxy("https_proxy", std::nullopt);
  const Environment noGrpcProxy("no_grpc_proxy", std::nullopt), noProxy("no_proxy", std::nullopt);
  agent.connect(daemon.port());
  agent.enqueue();
  agent.announce();
  int connection = -1;
  ASSERT_TRUE(agent.eventually([&] {
    connection = ::accept4(proxy, nullptr, nullptr, SOCK_CLOEXEC);
    return connection >= 0;
  }));
  std::string asked(256, '\0');
  const ssize_t count = ::read(connection, asked.data(), asked.size());
  ASSERT_GT(count, 0);
  EXPECT_EQ(asked.find("CONNECT 127.0.0.1:" + std::to_string(daemon.port()) + " "), 0U) << asked;
  EXPECT_TRUE(daemon.calls().empty());
  ::close(connection);
  ::close(proxy);
}

TEST_F(ConnectionsMgrTest, DoesNotFollowTheErrorFlag) {
  agent.connect(daemon.port());
  EXPECT_EQ(agent.status->notifieeList()->members(), 0u);
}

TEST_F(ConnectionsMgrTest, LeavesEverythingInPlaceWhenDestroyingTheClientInSimulation) {
  const Environment simulation("SIMULATION_NORV", "1");
  agent.connect(1);
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.manager->destroyGrpcClient();
  EXPECT_THAT(trace.texts(), ElementsAre("void Norv::ConnectionsMgr::destroyGrpcClient()"));
  EXPECT_EQ(trace.lines()[0].line, 92);
  EXPECT_TRUE(agent.manager->initialized());
}

TEST_F(ConnectionsMgrTest, KeptOnPurposeDestroyingTheClientLeavesThePointersAsTheyWere) {
  {
    const Environment simulation("SIMULATION_NORV", "1");
    agent.connect(1);
  }
  auto* const lock = new Lumo::Lock();
  auto* const condition = new Lumo::Condition();
  auto* const thread = new std::thread();  // none runs
  auto* const client =
      new GrpcClient(daemon.inProcessChannel(), agent.pending, agent.status, lock, condition);
  agent.manager->threadLockIs(lock);
  agent.manager->threadConditionIs(condition);
  agent.manager->grpcReplyThreadIs(thread);
  agent.manager->clientIs(client);
  agent.manager->destroyGrpcClient();
  EXPECT_EQ(agent.manager->threadLock(), lock);
  EXPECT_EQ(agent.manager->threadCondition(), condition);
  EXPECT_EQ(agent.manager->grpcReplyThread(), thread);
  EXPECT_EQ(agent.manager->client(), client);
  EXPECT_TRUE(agent.manager->initialized());
}

TEST_F(ConnectionsMgrTest, KeptOnPurposeDestroyingTheClientKeepsNoRecordOfIt) {
  {
    const Environment simulation("SIMULATION_NORV", "1");
    agent.connect(1);
  }
  const TraceRecorder trace("GrpcClient/1");
  for (int times = 1; times <= 2; ++times) {
    agent.manager->threadLockIs(new Lumo::Lock());
    agent.manager->threadConditionIs(new Lumo::Condition());
    agent.manager->grpcReplyThreadIs(new std::thread());
    agent.manager->clientIs(new GrpcClient(daemon.inProcessChannel(), agent.pending, agent.status,
                                           agent.manager->threadLock(),
                                           agent.manager->threadCondition()));
    agent.manager->destroyGrpcClient();
    EXPECT_EQ(trace.count("Terminating GrpcClient"), static_cast<std::size_t>(times));
  }
}

TEST_F(ConnectionsMgrTest, LeavesQueuesAndPendingCommandsToOthersWhenItGoes) {
  {
    const Environment simulation("SIMULATION_NORV", "1");
    agent.enqueue();
    agent.connect(1);
    agent.enqueue();
  }
  agent.dropManager();
  EXPECT_EQ(agent.queue()->cmdBatchs(), 1u);
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
  agent.announce();
  agent.queue("another");
  EXPECT_EQ(agent.queue()->cmdBatchs(), 1u);
}

TEST_F(ConnectionsMgrTest, CanBeDroppedWhileConnectedOnlyBySelectingSimulation) {
  agent.connect(daemon.port());
  agent.enqueue();
  agent.announce();
  ASSERT_TRUE(agent.eventually([&] { return agent.log->destroyed == 1; }));
  agent.dropManager();
  EXPECT_EQ(agent.manager, nullptr);
}

// An object that says when it is destroyed.
template <class Base>
struct Mortal : Base {
  template <class... Args>
  Mortal(std::vector<std::string>* ends, std::string what, Args... args)
      : Base(args...), ends_(ends), what_(std::move(what)) {}
  ~Mortal() override { ends_->push_back(what_); }

 private:
  std::vector<std::string>* const ends_;
  const std::string what_;
};

TEST_F(ConnectionsMgrTest, GivesItsMachinesAndThenItsInputsBackInReverseOrder) {
  const Environment simulation("SIMULATION_NORV", "1");
  std::vector<std::string> ends;
  Lumo::Ptr<ConnectionsMgr> manager = ConnectionsMgr::ConnectionsMgrIs(
      Lumo::allocate<Mortal<ConnectionConfig>>(&ends, "host", U16(1), Lumo::String("h")),
      Lumo::allocate<Mortal<GrpcGlobalCmdConfig>>(&ends, "config", Lumo::Name("c")),
      Lumo::allocate<Mortal<CmdGroup>>(&ends, "pending"),
      Lumo::allocate<Mortal<GrpcErrorHandlingStatus>>(&ends, "status"));
  manager->cmdConfigGroupSmIs(
      Lumo::allocate<Mortal<CmdConfigGroup>>(&ends, "queue", Lumo::Name("q")));
  EXPECT_THAT(ends, ElementsAre());
  manager = nullptr;
  EXPECT_THAT(ends, ElementsAre("queue", "status", "pending", "config", "host"));
}

// The threads that trace the client's loop, but for those that were there before.
class WorkerThreads : public Lumo::TraceSink {
 public:
  WorkerThreads() {
    Lumo::traceSinkIs(this);
    Lumo::traceSettingIs("GrpcClient/5");
  }
  ~WorkerThreads() override {
    Lumo::traceSettingIs("");
    Lumo::traceSinkIs(nullptr);
  }
  void lineIs(const Lumo::TraceLine& line) override {
    Lumo::LockAnchor anchor(&lock_);
    if (before_.contains(line.thread)) return;
    threads_.insert(line.thread);
    ++lines_;
  }
  int lines() const {
    Lumo::LockAnchor anchor(&lock_);
    return lines_;
  }
  std::set<int> threads() const {
    Lumo::LockAnchor anchor(&lock_);
    return threads_;
  }

 private:
  const std::set<int> before_ = support::ownThreads();
  mutable Lumo::Lock lock_;
  std::set<int> threads_ LUMO_GUARDED_BY(lock_);
  int lines_ LUMO_GUARDED_BY(lock_) = 0;
};

// A second worker would be woken by the same signals.
TEST_F(ConnectionsMgrTest, HoldsOneWorkerThread) {
  const WorkerThreads workers;
  agent.connect(daemon.port());
  agent.manager->handleInitialized();
  EXPECT_TRUE(agent.manager->grpcReplyThread()->joinable());
  ASSERT_TRUE(agent.eventually([&] { return workers.lines() >= 100; }));
  EXPECT_EQ(workers.threads().size(), 1u);
}

// In simulation: one that adds a queue as soon as a command leaves the queue it follows.
class Adder : public CmdConfigGroup::NotifieeConst {
 public:
  Adder(const Lumo::Ptr<CmdConfigGroup>& queue, Agent* followed)
      : NotifieeConst(queue), agent_(followed) {}
  using CmdConfigGroup::NotifieeConst::onCmdBatch;
  void onCmdBatch(U32 index) override {
    if (!notifier()->cmdBatchHas(index)) agent_->queue("late");
  }

 private:
  Agent* const agent_;
};

TEST_F(ConnectionsMgrTest, FollowsAQueueThatComesWhileItIsBeingMade) {
  const Environment simulation("SIMULATION_NORV", "1");
  agent.enqueue();
  const auto adder = Lumo::allocate<Adder>(agent.queue(), &agent);
  agent.connect(1);
  EXPECT_TRUE(agent.manager->cmdConfigGroupSm("late"));
}

// Each decision on one manager, first the one way and then the other.
TEST_F(ConnectionsMgrTest, KeptOnPurposeReadsTheSimulationVariableAfreshAtEachDecision) {
  std::optional<Environment> simulation;
  simulation.emplace("SIMULATION_NORV", "1");
  agent.connect(daemon.port());
  const TraceRecorder trace("NorvConnectionsMgr/5");
  const std::string wake = "Wake the grpcClient up.";
  agent.enqueue();
  agent.announce();
  agent.manager->doFlushPendingQueue();
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
  EXPECT_EQ(trace.count(wake), 0u);

  simulation.reset();
  Lumo::Lock lock;
  Lumo::Condition condition;
  agent.manager->threadLockIs(&lock);
  agent.manager->threadConditionIs(&condition);
  agent.enqueue();
  agent.announce();
  EXPECT_EQ(trace.count(wake), 1u);
  agent.manager->doFlushPendingQueue();
  EXPECT_EQ(agent.pending->cmdBatchs(), 0u);
  EXPECT_EQ(agent.manager->client(), nullptr);
  agent.manager->initializedIs(false);
  agent.manager->handleInitialized();
  GrpcClient* const client = agent.manager->client();
  EXPECT_NE(client, nullptr);

  simulation.emplace("SIMULATION_NORV", "");
  agent.manager->initializedIs(false);
  agent.manager->handleInitialized();
  agent.manager->destroyGrpcClient();
  EXPECT_EQ(agent.manager->client(), client);
}

// A producer's reactor that throws when a command leaves its queue, as long as it is told to.
class Thrower : public CmdConfigGroup::NotifieeConst {
 public:
  explicit Thrower(const Lumo::Ptr<CmdConfigGroup>& queue) : NotifieeConst(queue) {}
  using CmdConfigGroup::NotifieeConst::onCmdBatch;
  void onCmdBatch(U32 index) override {
    if (throws && !notifier()->cmdBatchHas(index)) throw std::runtime_error("not now");
  }
  bool throws = true;
};

TEST_F(ConnectionsMgrTest, LeavesNothingBehindWhenAProducerThrowsWhileItIsMade) {
  agent.enqueue();
  agent.enqueue();
  const auto thrower = Lumo::allocate<Thrower>(agent.queue());
  {
    Agent other;  // gRPC's own threads come with the first channel, and stay
    other.connect(daemon.port());
    other.dropManager();
  }
  const std::set<int> before = support::ownThreads();
  for (int i = 0; i < 2; ++i) EXPECT_THROW(agent.connect(daemon.port()), std::runtime_error);
  EXPECT_EQ(agent.manager, nullptr);
  EXPECT_TRUE(support::noThreadsBut(before));
  EXPECT_TRUE(daemon.calls().empty());
  EXPECT_EQ(agent.pending->references(), 1u);
  EXPECT_EQ(agent.config->notifieeList()->members(), 0u);

  // The queues are as they were but for the commands that had left, and another manager goes on.
  thrower->throws = false;
  agent.enqueue();
  agent.connect(daemon.port());
  EXPECT_TRUE(agent.eventually([&] { return daemon.calls().size() == 1; }));
}

// One that keeps what the manager follows the collection of queues with.
class KeepingThrower : public Thrower {
 public:
  KeepingThrower(const Lumo::Ptr<CmdConfigGroup>& queue,
                 const Lumo::Ptr<GrpcGlobalCmdConfig>& config)
      : Thrower(queue), config_(config) {}
  void onCmdBatch(U32 index) override {
    config_->notifieeList()->doVisit([&](Lumo::NotifieeConst* notifiee) {
      kept = dynamic_cast<ConnectionsMgr::LumoGlobalCmdConfig*>(notifiee);
    });
    Thrower::onCmdBatch(index);
  }
  Lumo::Ptr<ConnectionsMgr::LumoGlobalCmdConfig> kept;

 private:
  const Lumo::Ptr<GrpcGlobalCmdConfig> config_;
};

TEST_F(ConnectionsMgrTest, NobodyReachesItWhenAProducerHasThrownWhileItWasMade) {
  agent.enqueue();
  const auto thrower = Lumo::allocate<KeepingThrower>(agent.queue(), agent.config);
  EXPECT_THROW(agent.connect(daemon.port()), std::runtime_error);
  ASSERT_TRUE(thrower->kept);
  EXPECT_TRUE(thrower->kept->lumoMarkedForDeletion());
  EXPECT_EQ(thrower->kept->connectionsMgr(), nullptr);
}

TEST_F(ConnectionsMgrTest, StartsOverAfterAProducerHasThrown) {
  std::optional<Environment> simulation;
  simulation.emplace("SIMULATION_NORV", "1");
  agent.connect(daemon.port());
  agent.enqueue();
  agent.enqueue();
  const auto thrower = Lumo::allocate<Thrower>(agent.queue());
  agent.manager->cmdConfigGroupSmDelAll();
  simulation.reset();
  agent.manager->initializedIs(false);
  EXPECT_THROW(agent.manager->handleInitialized(), std::runtime_error);
  EXPECT_FALSE(agent.manager->initialized());
  EXPECT_EQ(agent.manager->client(), nullptr);
  EXPECT_EQ(agent.manager->grpcReplyThread(), nullptr);
  EXPECT_EQ(agent.manager->threadLock(), nullptr);
  EXPECT_EQ(agent.manager->threadCondition(), nullptr);
  thrower->throws = false;
  agent.manager->handleInitialized();
  EXPECT_TRUE(agent.eventually([&] { return daemon.calls().size() == 1; }));
}

// The threads that come from now on, by what the kernel calls and does with them.
class NewThreads {
 public:
  NewThreads() {
    for (const auto& task : Tasks(tasks)) before_.insert(task.path());  // workers of other tests
  }
  bool haveWorker(const std::string& state = "") const {
    return std::any_of(Tasks(tasks), Tasks(), [&](const auto& task) {
      std::ifstream in(task.path() / "stat");  // as in: 4711 (norv-worker) S ...
      std::string stat;
      std::getline(in, stat);
      return !before_.contains(task.path()) &&
             stat.find("(norv-worker) " + state) != std::string::npos;
    });
  }

 private:
  using Tasks = std::filesystem::directory_iterator;
  static constexpr const char* tasks = "/proc/self/task";
  std::set<std::filesystem::path> before_;
};

TEST_F(ConnectionsMgrTest, NamesItsWorkerForThoseWhoLookAtThreads) {
  const NewThreads fresh;
  agent.connect(daemon.port());
  EXPECT_TRUE(agent.eventually([&] { return fresh.haveWorker(); }));
}

TEST_F(ConnectionsMgrTest, StartsItsWorkerHoweverLongTheMachinesTook) {
  // A producer that takes its time until the worker waits for the machines.
  struct Slow : CmdConfigGroup::NotifieeConst {
    explicit Slow(const Lumo::Ptr<CmdConfigGroup>& queue) : NotifieeConst(queue) {}
    using CmdConfigGroup::NotifieeConst::onCmdBatch;
    void onCmdBatch(U32) override {
      waited = support::eventually([&] { return fresh.haveWorker("S"); });
    }
    const NewThreads fresh;
    bool waited = false;
  };
  agent.enqueue();
  const auto slow = Lumo::allocate<Slow>(agent.queue());
  agent.connect(daemon.port());
  EXPECT_TRUE(slow->waited);
  EXPECT_TRUE(agent.eventually([&] { return agent.log->responses == 1; }));
}

TEST_F(ConnectionsMgrTest, LeavesWhatWasSetByHandAloneWhenAProducerThrowsInSimulation) {
  const Environment simulation("SIMULATION_NORV", "1");
  agent.connect(1);
  support::SetByHand parts(agent, daemon);
  agent.enqueue();
  const auto thrower = Lumo::allocate<Thrower>(agent.queue());
  agent.manager->cmdConfigGroupSmDelAll();
  agent.manager->initializedIs(false);
  EXPECT_THROW(agent.manager->handleInitialized(), std::runtime_error);
  EXPECT_FALSE(agent.manager->initialized());
  EXPECT_EQ(agent.manager->threadLock(), &parts.lock);
  EXPECT_EQ(agent.manager->threadCondition(), &parts.condition);
  EXPECT_EQ(agent.manager->grpcReplyThread(), &parts.thread);
  EXPECT_EQ(agent.manager->client(), &parts.client);
}

}  // namespace
