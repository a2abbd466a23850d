// The kit's account of a named queue, whatever its producer does to it: the queue itself is the
// model.

#include <random>

#include "KitFixture.h"

namespace {

using namespace agent_test;

struct KitQueues : KitFixture {
  // A command that its producer keeps, so that only the kit can tell of its end.
  Lumo::Ptr<TrackedCmd> kept() {
    commands.push_back(command());
    return commands.back();
  }
  // The ids of the tracked commands in the queue, in its order.
  std::vector<U64> waiting() {
    std::vector<U64> ids;
    for (auto entry = queue->cmdBatchIteratorConst(); entry; ++entry) {
      const auto* found = dynamic_cast<const TrackedCmd*>(entry.cmdBatch().ptr());
      if (found) ids.push_back(found->id());
    }
    return ids;
  }
  // The ids of those that were answered, in the order in which their ends were told.
  std::vector<U64> answered() {
    std::vector<U64> ids;
    for (const auto& [id, outcome] : ends()) {
      if (outcome == Outcome::ok) ids.push_back(id);
    }
    return ids;
  }
  U32 someIndex() {
    const auto range = queue->cmdBatchMetadata();
    return range.headIndex + std::uniform_int_distribution<U32>(0, queue->cmdBatchs() + 1)(random);
  }
  // One random change by the producer.
  void change() {
    switch (std::uniform_int_distribution<int>(0, 9)(random)) {
      case 0:
        queue->cmdBatchIs(someIndex(), kept());  // inserts or replaces
        break;
      case 1:
        queue->cmdBatchIs(someIndex(), agent.command());  // not tracked
        break;
      case 2:
        queue->cmdBatchDel(someIndex());
        break;
      case 3:
        queue->cmdBatchDeq();
        break;
      case 4:
        queue->cmdBatchEnq(agent.command());
        break;
      default:
        queue->cmdBatchEnq(kept());
    }
  }
  // Every tracked command made so far is in the queue or has been dropped.
  void expectAgreement() {
    EXPECT_EQ(kit.ledger()->count(Outcome::dropped) + waiting().size(), commands.size() - moved);
  }
  // The batch that waits is announced, and its commands get their answers in the queue's order.
  void announceAll() {
    std::vector<U64> order;
    {
      Lumo::ActivityLockAnchor activity;
      order = waiting();
      agent.announce("main");
    }
    moved += order.size();
    // The listener is told after the books have the end.
    ASSERT_TRUE(ticking([&] { return answered().size() == moved; }));
    std::vector<U64> last = answered();
    last.erase(last.begin(), last.end() - static_cast<std::ptrdiff_t>(order.size()));
    EXPECT_EQ(last, order);
  }
  void play(U32 firstIndex) {
    connect();
    {
      Lumo::ActivityLockAnchor activity;
      queue = agent.queue("main");
      queue->cmdBatchMetadataIs({firstIndex, firstIndex});
    }
    for (int round = 0; round < 20; ++round) {
      for (int i = 0; i < 40; ++i) {
        Lumo::ActivityLockAnchor activity;
        change();
        expectAgreement();
      }
      announceAll();
    }
  }

  std::mt19937 random{4711};
  Lumo::Ptr<Norv::CmdConfigGroup> queue;
  std::vector<Lumo::Ptr<TrackedCmd>> commands;
  U64 moved = 0;
};

TEST_F(KitQueues, AgreeWithTheBooksUnderRandomChanges) {
  play(0);
}

TEST_F(KitQueues, AgreeWithTheBooksWhereIndexesWrap) {
  play(0xffffffe0);
}

// One call of cmdBatchDelAll takes one command out there.
struct KitWrappedQueues : KitFixture {
  // The first of five is under way, four of each queue wait.
  void SetUp() override {
    agent.pending->cmdBatchMetadataIs({0xfffffffe, 0xfffffffe});
    agent.queue("later")->cmdBatchMetadataIs({0xfffffffe, 0xfffffffe});
    daemon.hold();
    connect();
    enqueue(5);
    announce();
    enqueue(4, "later");
    ASSERT_TRUE(ticking([&] { return daemon.calls().size() == 1; }));
  }
  void expectTheFirstAlone() {
    EXPECT_EQ(kit.ledger()->count(Outcome::dropped), 8u);
    EXPECT_EQ(status().pending.now, 0u);
    EXPECT_EQ(status().queues["later"].now, 0u);
    daemon.release();
    announce("later");
    EXPECT_TRUE(ticking([&] { return agent.log->destroyed == 9; }));
    EXPECT_EQ(daemon.calls().size(), 1u);
  }
};

TEST_F(KitWrappedQueues, AreEmptyWhenWhatWaitsIsDropped) {
  {
    Lumo::ActivityLockAnchor activity;
    kit.dropWaiting();
  }
  expectTheFirstAlone();
}

TEST_F(KitWrappedQueues, AreEmptyWhenTheBooksAreClosed) {
  {
    Lumo::ActivityLockAnchor activity;
    kit.closeBooks("no more time");
  }
  expectTheFirstAlone();
}

TEST_F(KitQueues, ACommandThatIsReplacedIsDropped) {
  Lumo::ActivityLockAnchor activity;
  agent.connect(daemon.port());
  kit.managerIs(agent.manager);
  queue = agent.queue("main");
  queue->cmdBatchEnq(kept());
  queue->cmdBatchEnq(kept());
  queue->cmdBatchIs(1, kept());
  EXPECT_THAT(ends(), testing::ElementsAre(testing::Pair(2, Outcome::dropped)));
  queue->cmdBatchIs(0, agent.command());
  EXPECT_THAT(ends(), testing::ElementsAre(testing::Pair(2, Outcome::dropped),
                                           testing::Pair(1, Outcome::dropped)));
  EXPECT_EQ(waiting(), std::vector<U64>{3});
}

}  // namespace
