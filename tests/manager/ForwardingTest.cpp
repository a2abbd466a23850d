// How batches are moved into the pending queue.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Agent.h>
#include <support/FakeDaemon.h>
#include <support/FreeHere.h>
#include <support/TraceRecorder.h>

#include <vector>

#include <Lumo/Lock.h>

namespace {

using namespace Norv;
using support::Agent;
using support::FakeDaemon;
using support::TraceRecorder;
using testing::ElementsAre;

// What a batch of commands traces, without the worker's lines.
const char* const moved[] = {"void Norv::CmdConfigGroupSm::handleBatch()",
                             "void Norv::ConnectionsMgr::doEnqueueBatch(const Ptr&)",
                             "Wake the grpcClient up."};

struct Forwarding : testing::Test {
  // Connected, with a worker that cannot take anything: the daemon holds its first call.
  void connectBusy() {
    daemon.hold();
    agent.connect(daemon.port());
    agent.enqueue(Norv::pauseAll);
    agent.announce();
    ASSERT_TRUE(agent.eventually([&] { return daemon.calls().size() == 1; }));
  }
  FakeDaemon daemon;
  Agent agent;
};

TEST_F(Forwarding, WakesTheClientOncePerBatch) {
  connectBusy();
  for (int i = 0; i < 3; ++i) agent.enqueue();
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.announce();
  EXPECT_THAT(trace.texts(), testing::ElementsAreArray(moved));
  EXPECT_EQ(trace.lines()[1].line, 39);
  EXPECT_EQ(trace.lines()[2].line, 58);
  EXPECT_EQ(agent.waiting(), 3u);
  daemon.release();
}

TEST_F(Forwarding, MovesEveryCommandWhateverTheLimits) {
  connectBusy();
  agent.pending->limitIs(1);
  agent.queue()->ignoreConfigQueueLimitIs(false);
  for (int i = 0; i < 5000; ++i) agent.enqueue();
  agent.announce();
  EXPECT_EQ(agent.waiting(), 5000u);
  EXPECT_EQ(agent.pending->pendingCount(), 0);
  agent.manager->doFlushPendingQueue();
  daemon.release();
}

TEST_F(Forwarding, KeepsCommandsBackWhileNotInitialized) {
  connectBusy();
  agent.manager->initializedIs(false);
  agent.enqueue();
  agent.announce();
  EXPECT_EQ(agent.queue()->cmdBatchs(), 1u);
  agent.manager->doFlushPendingQueue();
  agent.manager->initializedIs(true);
  agent.announce();
  EXPECT_EQ(agent.queue()->cmdBatchs(), 0u);
  daemon.release();
}

// Whether this thread holds the lock, at each change of the queue.
class LockWitness : public CmdConfigGroup::NotifieeConst {
 public:
  LockWitness(const Lumo::Ptr<CmdConfigGroup>& queue, Lumo::Lock* lock)
      : NotifieeConst(queue), lock_(lock) {}
  using CmdConfigGroup::NotifieeConst::onCmdBatch;
  void onCmdBatch(U32) override { held.push_back(!support::freeHere(lock_)); }
  std::vector<bool> held;

 private:
  Lumo::Lock* const lock_;
};

TEST_F(Forwarding, HoldsTheThreadLockWhileItMoves) {
  connectBusy();
  const auto witness = Lumo::allocate<LockWitness>(agent.queue(), agent.manager->threadLock());
  agent.enqueue();
  agent.enqueue();
  agent.announce();
  EXPECT_THAT(witness->held, ElementsAre(false, false, true, true));  // appended, then moved
  EXPECT_EQ(agent.waiting(), 2u);
  daemon.release();
}

TEST_F(Forwarding, DiscardsBatchesWhileTheFlagIsSetAndMovesThemAgainAfterwards) {
  connectBusy();
  agent.status->errorOccuredIs(true);
  const TraceRecorder trace("NorvConnectionsMgr/5,GrpcTypes/8");
  for (int batch = 0; batch < 2; ++batch) {
    agent.enqueue();
    agent.enqueue();
    agent.announce();
  }
  EXPECT_EQ(agent.queue()->cmdBatchs(), 0u);
  EXPECT_EQ(agent.waiting(), 0u);
  EXPECT_THAT(agent.log->releasedNumbers(), ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(trace.count("Wake the grpcClient up."), 0u);
  EXPECT_EQ(trace.texts("GrpcTypes").size(), 0u);
  agent.status->errorOccuredIs(false);
  agent.enqueue();
  agent.announce();
  EXPECT_EQ(agent.waiting(), 1u);
  daemon.release();
}

TEST_F(Forwarding, FlushesWhatIsPendingAndNothingElse) {
  connectBusy();
  agent.enqueue();
  agent.enqueue();
  agent.announce();
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.manager->doFlushPendingQueue();
  EXPECT_THAT(trace.texts(), ElementsAre("void Norv::ConnectionsMgr::doFlushPendingQueue()"));
  EXPECT_EQ(trace.lines()[0].line, 65);
  EXPECT_EQ(agent.waiting(), 0u);
  EXPECT_FALSE(agent.status->errorOccured());
  daemon.release();
  // The command already taken gets its answer.
  EXPECT_TRUE(agent.eventually([&] { return agent.log->responses == 1; }));
  EXPECT_THAT(agent.log->respondedNumbers(), ElementsAre(0));
}

TEST_F(Forwarding, ReturnsTheCountAtTheStartNotTheNumberMoved) {
  // A producer that appends one more while its batch is moved.
  class Appender : public CmdConfigGroup::NotifieeConst {
   public:
    Appender(const Lumo::Ptr<CmdConfigGroup>& queue, Agent* agent)
        : NotifieeConst(queue), agent_(agent) {}
    using CmdConfigGroup::NotifieeConst::onCmdBatch;
    void onCmdBatch(U32 index) override {
      if (!notifier()->cmdBatchHas(index) && !done_) {
        done_ = true;
        agent_->enqueue();
      }
    }

   private:
    Agent* const agent_;
    bool done_ = false;
  };
  connectBusy();
  agent.enqueue();
  agent.enqueue();
  const auto appender = Lumo::allocate<Appender>(agent.queue(), &agent);
  {
    Lumo::LockAnchor anchor(agent.manager->threadLock());
    EXPECT_EQ(agent.manager->doEnqueueBatchHelper(agent.queue()), 2u);
  }
  EXPECT_EQ(agent.waiting(), 3u);
  daemon.release();
}

TEST_F(Forwarding, KeptOnPurposeStopsAtANullCommand) {
  connectBusy();
  agent.enqueue();
  agent.queue()->cmdBatchEnq(nullptr);
  agent.enqueue();
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.announce();
  EXPECT_EQ(agent.waiting(), 1u);
  EXPECT_EQ(agent.queue()->cmdBatchs(), 1u);
  EXPECT_EQ(trace.count("Wake the grpcClient up."), 1u);
  daemon.release();
}

TEST_F(Forwarding, MayBeReenteredFromInside) {
  // A producer that announces again while its batch is moved: under the lock already held.
  class Announcer : public CmdConfigGroup::NotifieeConst {
   public:
    Announcer(const Lumo::Ptr<CmdConfigGroup>& queue, Agent* agent)
        : NotifieeConst(queue), agent_(agent) {}
    using CmdConfigGroup::NotifieeConst::onCmdBatch;
    void onCmdBatch(U32 index) override {
      if (!notifier()->cmdBatchHas(index)) agent_->announce();
    }

   private:
    Agent* const agent_;
  };
  connectBusy();
  for (int i = 0; i < 4; ++i) agent.enqueue();
  const auto announcer = Lumo::allocate<Announcer>(agent.queue(), &agent);
  agent.announce();
  EXPECT_EQ(agent.queue()->cmdBatchs(), 0u);
  EXPECT_EQ(agent.waiting(), 4u);
  EXPECT_TRUE(agent.manager->threadLock()->lock());  // released in the end
  agent.manager->threadLock()->unlock();
  daemon.release();
}

TEST_F(Forwarding, PassesAFullPendingQueueOnAndReleasesTheLock) {
  connectBusy();
  {
    Lumo::LockAnchor anchor(agent.manager->threadLock());
    agent.pending->cmdBatchMetadataIs({5, 4});
  }
  agent.enqueue();
  EXPECT_THROW(agent.announce(), Lumo::RangeException);
  EXPECT_EQ(agent.queue()->cmdBatchs(), 0u);
  EXPECT_TRUE(agent.manager->threadLock()->lock());
  agent.manager->threadLock()->unlock();
  {
    Lumo::LockAnchor anchor(agent.manager->threadLock());
    agent.pending->cmdBatchMetadataIs({4, 4});
  }
  daemon.release();
}

TEST_F(Forwarding, DiscardsInSimulationTooWhileTheFlagIsSet) {
  const support::Environment simulation("SIMULATION_NORV", "1");
  agent.connect(1);
  agent.status->errorOccuredIs(true);
  agent.enqueue();
  agent.announce();
  EXPECT_EQ(agent.queue()->cmdBatchs(), 0u);
  EXPECT_EQ(agent.waiting(), 0u);
}

}  // namespace
