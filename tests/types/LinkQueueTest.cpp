#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "QueueModel.h"
#include "QueueSupport.h"

namespace {

using testing::ElementsAre;

using Entry = model::Entry<U32>;
using Queue = Lumo::LinkQueue<Entry>;

Lumo::Ptr<Entry> entry(U32 index = 0, int value = 0) {
  return Lumo::allocate<Entry>(index, value);
}

std::vector<U32> indexes(const Queue& queue) {
  std::vector<U32> all;
  for (Queue::IteratorConst it(&queue, queue.head()); it; ++it) all.push_back(it.key());
  return all;
}

// A queue with appended entries; from `start` on, so that it can be made to wrap.
struct LinkQueue : testing::Test {
  void fill(int count, U32 start = 0) {
    queue.headIndexIs(start);
    queue.tailIndexIs(start);
    for (int i = 0; i < count; ++i) queue.memberNew(entry());
  }
  Queue queue;
};

TEST_F(LinkQueue, IsEmptyAtFirst) {
  const Queue& fresh = queue;
  EXPECT_EQ(fresh.headIndex(), 0u);
  EXPECT_EQ(fresh.tailIndex(), 0u);
  EXPECT_EQ(fresh.version(), 0u);
  EXPECT_EQ(fresh.members(), 0u);
  EXPECT_FALSE(fresh.head());
  EXPECT_FALSE(fresh.startAt(0));
}

TEST_F(LinkQueue, GivesAppendedEntriesConsecutiveIndexes) {
  fill(3);
  EXPECT_THAT(indexes(queue), ElementsAre(0, 1, 2));
  EXPECT_EQ(queue.headIndex(), 0u);
  EXPECT_EQ(queue.tailIndex(), 3u);
  EXPECT_EQ(queue.members(), 3u);
  EXPECT_EQ(queue.version(), 3u);
}

TEST_F(LinkQueue, GoesOnCountingAfterItRanEmpty) {
  fill(3);
  for (U32 i = 0; i < 3; ++i) EXPECT_EQ(queue._memberDelHead()->fwkQkey(), i);
  EXPECT_EQ(queue.headIndex(), 3u);
  EXPECT_EQ(queue.tailIndex(), 3u);
  EXPECT_EQ(queue.version(), 6u);
  queue.memberNew(entry());
  EXPECT_THAT(indexes(queue), ElementsAre(3));
}

TEST_F(LinkQueue, SkipsGapsWithItsHeadIndex) {
  fill(4);
  queue._memberDel(1);
  queue._memberDelHead();
  EXPECT_EQ(queue.headIndex(), 2u);
}

TEST_F(LinkQueue, ClearsTheLinkOfARemovedHead) {
  fill(2);
  EXPECT_FALSE(queue._memberDelHead()->lqNext());
}

TEST_F(LinkQueue, IgnoresANullAppend) {
  queue.memberNew(nullptr);
  EXPECT_EQ(queue.members(), 0u);
  EXPECT_EQ(queue.version(), 0u);
}

TEST_F(LinkQueue, KeptOnPurposeDeletingTheTailTakesItsIndexBack) {
  fill(3);
  EXPECT_TRUE(queue._memberDel(2));
  EXPECT_EQ(queue.tailIndex(), 2u);
  queue.memberNew(entry());
  EXPECT_THAT(indexes(queue), ElementsAre(0, 1, 2));
}

TEST_F(LinkQueue, DeletingTheOnlyEntryDoesNotTakeItsIndexBack) {
  fill(1);
  EXPECT_TRUE(queue._memberDel(0));
  EXPECT_EQ(queue.headIndex(), 1u);
  EXPECT_EQ(queue.tailIndex(), 1u);
  queue.memberNew(entry());
  EXPECT_THAT(indexes(queue), ElementsAre(1));
}

TEST_F(LinkQueue, NeverRefillsAGapInTheMiddle) {
  fill(3);
  EXPECT_TRUE(queue._memberDel(1));
  EXPECT_EQ(queue.tailIndex(), 3u);
  queue.memberNew(entry());
  EXPECT_THAT(indexes(queue), ElementsAre(0, 2, 3));
}

TEST_F(LinkQueue, DeletingTheTailBehindAGapTakesTheGapBackToo) {
  fill(3);
  queue._memberDel(1);
  queue._memberDel(2);
  EXPECT_EQ(queue.tailIndex(), 1u);
  queue.memberNew(entry());
  EXPECT_THAT(indexes(queue), ElementsAre(0, 1));
}

TEST_F(LinkQueue, DeletesNothingUnderAnAbsentIndex) {
  EXPECT_FALSE(queue._memberDel(7));
  EXPECT_FALSE(queue._memberDelHead());
  fill(2);
  EXPECT_FALSE(queue._memberDel(7));
  EXPECT_EQ(queue.version(), 2u);
}

TEST_F(LinkQueue, WrapsItsIndexes) {
  fill(4, 0xFFFFFFFE);
  EXPECT_THAT(indexes(queue), ElementsAre(0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 1u));
  EXPECT_TRUE(queue.isMemberOf(0));
  EXPECT_TRUE(queue.isMemberOf(0xFFFFFFFF));
  for (const U32 index : {0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 1u}) {
    EXPECT_EQ(queue._memberDelHead()->fwkQkey(), index);
  }
  EXPECT_EQ(queue.headIndex(), 2u);
  EXPECT_EQ(queue.tailIndex(), 2u);
}

std::string refusal(Queue& queue) {
  try {
    queue.memberNew(entry());
    return "";
  } catch (const Lumo::RangeException& exception) {
    return exception.what();
  }
}

TEST_F(LinkQueue, KeptOnPurposeTheCheckForRoomRefusesOnAnEmptyQueueToo) {
  queue.headIndexIs(5);
  queue.tailIndexIs(4);
  EXPECT_EQ(refusal(queue), "linkqueue index space full");
  EXPECT_EQ(queue.headIndex(), 5u);
  EXPECT_EQ(std::as_const(queue).tailIndex(), 4u);
  EXPECT_EQ(queue.members(), 0u);
  EXPECT_EQ(queue.version(), 0u);
}

TEST_F(LinkQueue, RefusesAcrossTheWrapToo) {
  queue.headIndexIs(0);
  queue.tailIndexIs(0xFFFFFFFF);
  EXPECT_EQ(refusal(queue), "linkqueue index space full");
}

TEST(LinkQueueOfBytes, IsFullAfter255Appends) {
  model::Pair<U8> pair;
  for (int i = 0; i < 255; ++i) ASSERT_TRUE(pair.append());
  EXPECT_EQ(pair.queue.members(), 255u);
  EXPECT_TRUE(pair.append());  // both refuse
  EXPECT_EQ(pair.queue.members(), 255u);
  EXPECT_TRUE(pair.takeHead());
  EXPECT_TRUE(pair.append());
  EXPECT_EQ(pair.queue.members(), 255u);
}

TEST_F(LinkQueue, OverwritesAStaleHeadIndexWhenItWasEmpty) {
  queue.headIndexIs(7);
  queue.tailIndexIs(9);
  queue.memberNew(entry());
  EXPECT_EQ(queue.headIndex(), 9u);
  EXPECT_EQ(queue.tailIndex(), 10u);
}

TEST_F(LinkQueue, PrefersTheTailEntryToASmallerStoredIndex) {
  fill(3);
  queue.headIndexIs(7);
  queue.tailIndexIs(1);
  EXPECT_EQ(std::as_const(queue).tailIndex(), 3u);
  queue.memberNew(entry());
  EXPECT_THAT(indexes(queue), ElementsAre(0, 1, 2, 3));
}

TEST_F(LinkQueue, LeavesAGapUpToALargerStoredIndex) {
  fill(3);
  queue.tailIndexIs(100);
  queue.memberNew(entry());
  EXPECT_THAT(indexes(queue), ElementsAre(0, 1, 2, 100));
  EXPECT_EQ(queue.tailIndex(), 101u);
}

TEST_F(LinkQueue, StoresTheTailIndexOnlyThroughItsChangingForm) {
  fill(3);
  queue.tailIndexIs(1);
  EXPECT_EQ(std::as_const(queue).tailIndex(), 3u);
  // Not stored: emptied from the front, the queue shows the stored value.
  for (int i = 0; i < 3; ++i) queue._memberDelHead();
  EXPECT_EQ(queue.headIndex(), 1u);

  fill(3);
  queue.tailIndexIs(1);
  EXPECT_EQ(queue.tailIndex(), 3u);
  for (int i = 0; i < 3; ++i) queue._memberDelHead();
  EXPECT_EQ(queue.headIndex(), 3u);
}

TEST_F(LinkQueue, ComparesADeletedIndexWithItsHeadIndexField) {
  fill(3);
  queue.headIndexIs(7);
  queue.tailIndexIs(9);
  EXPECT_EQ(queue._memberDel(7)->fwkQkey(), 0u);
  EXPECT_EQ(queue.headIndex(), 1u);
}

TEST_F(LinkQueue, PlacesAtTheNextIndexByAppending) {
  fill(2);
  queue.memberIs(2, entry());
  EXPECT_THAT(indexes(queue), ElementsAre(0, 1, 2));
  queue.memberIs(3, nullptr);
  EXPECT_EQ(queue.members(), 3u);
}

TEST_F(LinkQueue, PlacingNullDeletes) {
  fill(3);
  queue.memberIs(1, nullptr);
  EXPECT_THAT(indexes(queue), ElementsAre(0, 2));
}

TEST_F(LinkQueue, PlacingAnEntryWhereItIsDoesNothing) {
  fill(3);
  queue.memberIs(1, queue[1]);
  queue.newMember(queue[2]);
  EXPECT_EQ(queue.version(), 3u);
}

TEST_F(LinkQueue, PlacingALinkedEntryMovesIt) {
  fill(4);
  const Lumo::Ptr<Entry> moved = queue[1];
  queue.memberIs(7, moved);
  EXPECT_THAT(indexes(queue), ElementsAre(0, 2, 3, 7));
  EXPECT_EQ(queue[7], moved);
  EXPECT_EQ(queue.members(), 4u);
  EXPECT_EQ(queue.version(), 6u);
  EXPECT_EQ(queue.tailIndex(), 8u);
}

// Kept on purpose: placing at the next index appends without a look whether the entry is linked.
TEST_F(LinkQueue, KeptOnPurposeAppendingALinkedEntryLosesWhatWasBehindIt) {
  fill(4);
  queue.memberIs(4, queue[1]);
  EXPECT_THAT(indexes(queue), ElementsAre(0, 4));
  EXPECT_EQ(queue.members(), 5u);
  queue.memberIs(5, queue[4]);
  EXPECT_THAT(indexes(queue), ElementsAre(0, 5));
}

TEST_F(LinkQueue, PlacingOverAnEntryReplacesIt) {
  for (const U32 index : {0u, 1u, 2u}) {
    Queue three;
    for (int i = 0; i < 3; ++i) three.memberNew(entry());
    const Lumo::Ptr<Entry> old = three[index];
    const Lumo::Ptr<Entry> fresh = entry(index);
    three.memberIs(index, fresh);
    EXPECT_THAT(indexes(three), ElementsAre(0, 1, 2));
    EXPECT_EQ(three[index], fresh);
    EXPECT_FALSE(old->lqNext());
    EXPECT_EQ(three.members(), 3u);
    EXPECT_EQ(three.version(), 4u);
    three.memberNew(entry());
    EXPECT_THAT(indexes(three), ElementsAre(0, 1, 2, 3));
  }
}

TEST_F(LinkQueue, PlacesIntoAnEmptyQueueAnywhere) {
  queue.memberIs(10, entry());
  EXPECT_EQ(queue.headIndex(), 10u);
  EXPECT_EQ(queue.tailIndex(), 11u);
  EXPECT_EQ(queue.members(), 1u);
  EXPECT_EQ(queue.version(), 1u);
  queue.memberNew(entry());
  queue.memberIs(5, entry());
  EXPECT_THAT(indexes(queue), ElementsAre(5, 10, 11));
  EXPECT_EQ(queue.headIndex(), 5u);
  EXPECT_EQ(queue.tailIndex(), 12u);
}

TEST_F(LinkQueue, KeepsItsStoredTailWhenPlacingBelowIt) {
  fill(3);
  for (int i = 0; i < 3; ++i) queue._memberDelHead();
  queue.memberIs(1, entry());
  EXPECT_EQ(queue.headIndex(), 1u);
  queue.memberNew(entry());
  EXPECT_THAT(indexes(queue), ElementsAre(1, 3));
}

TEST_F(LinkQueue, PlacingAtTheLastIndexWrapsTheTail) {
  fill(1);
  queue.memberIs(0xFFFFFFFF, entry());
  EXPECT_EQ(queue.tailIndex(), 0u);
}

TEST_F(LinkQueue, DoesNotLookAroundTheWrapWhenPlacing) {
  queue.headIndexIs(0xFFFFFFFE);
  queue.tailIndexIs(0xFFFFFFFE);
  for (int i = 0; i < 4; ++i) queue.memberNew(entry());
  queue._memberDel(0xFFFFFFFF);
  queue.memberIs(0xFFFFFFFF, entry());
  EXPECT_THAT(indexes(queue), ElementsAre(0xFFFFFFFEu, 0u, 1u, 0xFFFFFFFFu));
  EXPECT_EQ(queue.tailIndex(), 0u);
}

TEST_F(LinkQueue, PlacesEvenWhereAnAppendWouldFindNoRoom) {
  queue.headIndexIs(5);
  queue.tailIndexIs(4);
  queue.memberIs(2, entry());
  EXPECT_EQ(queue.members(), 1u);
}

TEST_F(LinkQueue, DropsEverythingAtOnce) {
  fill(3);
  const Lumo::Ptr<Entry> first = queue[0];
  queue._memberDelAll();
  EXPECT_FALSE(first->lqNext());
  EXPECT_EQ(queue.members(), 0u);
  EXPECT_EQ(queue.version(), 4u);
  EXPECT_EQ(queue.headIndex(), 3u);
  EXPECT_FALSE(queue.head());
  const Lumo::Ptr<Entry> next = entry();
  queue.memberNew(next);
  EXPECT_EQ(queue.head(), next);
  EXPECT_THAT(indexes(queue), ElementsAre(3));
}

TEST_F(LinkQueue, DropsEverythingAndGoesOnFromItsStoredTail) {
  fill(3);
  queue.tailIndexIs(1);
  queue._memberDelAll();
  EXPECT_EQ(queue.headIndex(), 1u);
  EXPECT_EQ(queue.tailIndex(), 1u);
}

TEST_F(LinkQueue, DestroysAMillionEntriesOnASmallStack) {
  support::onAStackOf(256 * 1024, [] {
    Queue fresh;
    for (int i = 0; i < 1000000; ++i) fresh.memberNew(entry());
  });
}

std::optional<U32> startAt(const Queue& queue, U32 index) {
  const Lumo::Ptr<Entry> found = queue.startAt(index);
  return found ? std::optional(found->fwkQkey()) : std::nullopt;
}

TEST_F(LinkQueue, StartsAtAnIndexOrTheNextHigherOne) {
  fill(6);
  for (const U32 index : {1u, 3u, 4u}) queue._memberDel(index);
  EXPECT_EQ(startAt(queue, 0), 0u);
  EXPECT_EQ(startAt(queue, 5), 5u);
  EXPECT_EQ(startAt(queue, 1), 2u);
  EXPECT_EQ(startAt(queue, 3), 5u);
  EXPECT_EQ(startAt(queue, 6), std::nullopt);
  queue._memberDelHead();
  EXPECT_EQ(startAt(queue, 0), 2u);
}

struct WrappedLinkQueue : LinkQueue {
  WrappedLinkQueue() {
    fill(10, 0xFFFFFFFA);  // FFFFFFFA .. FFFFFFFF, 0 .. 3
    for (const U32 index : {0xFFFFFFFCu, 1u}) queue._memberDel(index);
  }
};

TEST_F(WrappedLinkQueue, StartsWithinTheHighRun) {
  EXPECT_EQ(startAt(queue, 0xFFFFFFFC), 0xFFFFFFFDu);
  EXPECT_EQ(startAt(queue, 0xFFFFFFFA), 0xFFFFFFFAu);
}

TEST_F(WrappedLinkQueue, StartsAtTheLowRunWhenTheHighOneEndsBefore) {
  queue._memberDel(0xFFFFFFFF);
  EXPECT_EQ(startAt(queue, 0xFFFFFFFF), 0u);
}

TEST_F(WrappedLinkQueue, StartsNowhereBetweenTheRuns) {
  EXPECT_EQ(startAt(queue, 4), std::nullopt);
  EXPECT_EQ(startAt(queue, 0xFFFFFFF9), std::nullopt);
}

TEST_F(WrappedLinkQueue, StartsWithinTheLowRun) {
  EXPECT_EQ(startAt(queue, 0), 0u);
  EXPECT_EQ(startAt(queue, 1), 2u);
}

TEST_F(WrappedLinkQueue, IsWalkedInOrder) {
  EXPECT_THAT(indexes(queue), ElementsAre(0xFFFFFFFAu, 0xFFFFFFFBu, 0xFFFFFFFDu, 0xFFFFFFFEu,
                                          0xFFFFFFFFu, 0u, 2u, 3u));
}

TEST_F(LinkQueue, ADeletedCurrentEntryIsFollowedByItsSuccessor) {
  fill(4);
  Queue::Iterator it(&queue, queue.head());
  ++it;
  queue._memberDel(1);
  EXPECT_EQ(it.key(), 1u);  // still alive under the iterator
  ++it;
  EXPECT_EQ(it.key(), 2u);
  queue._memberDel(0);
  ++it;
  EXPECT_EQ(it.key(), 3u);
  queue._memberDel(3);
  ++it;
  EXPECT_FALSE(it);
  ++it;
  EXPECT_FALSE(it);
}

TEST_F(LinkQueue, AWalkVisitsWhatIsAppendedMeanwhile) {
  fill(2);
  Queue::Iterator it(&queue, queue.head());
  ++it;
  queue.memberNew(entry());
  ++it;
  ASSERT_TRUE(it);
  EXPECT_EQ(it.key(), 2u);
}

TEST_F(LinkQueue, AWalkGoesOnAcrossTheWrapWhenTheLastHighEntryIsDeleted) {
  fill(4, 0xFFFFFFFE);
  Queue::Iterator it(&queue, queue.head());
  ++it;
  queue._memberDel(0xFFFFFFFF);
  ++it;
  ASSERT_TRUE(it);
  EXPECT_EQ(it.key(), 0u);
}

TEST_F(LinkQueue, AWalkEndsWhenTheHeadOfAWrappedQueueIsDeletedUnderIt) {
  fill(4, 0xFFFFFFFE);
  Queue::Iterator it(&queue, queue.head());
  queue._memberDel(0xFFFFFFFE);
  ++it;
  // The new head is above the old index and the tail below: there is nowhere to start.
  EXPECT_FALSE(it);
}

// The version is stepped as what it is.
static_assert(std::is_same_v<decltype(std::declval<const Queue&>().version()), U32>);

// An entry that counts how often the queue looks at any of them.
class CountedEntry : public Lumo::PtrInterface {
 public:
  static inline int looks = 0;

  U32 fwkQkey() const { return ++looks, index_; }
  void fwkQkeyIs(U32 index) { ++looks, index_ = index; }
  const Lumo::Ptr<CountedEntry>& lqNext() const { return ++looks, next_; }
  Lumo::Ptr<CountedEntry>& lqNext() { return ++looks, next_; }
  void lqNextIs(Lumo::Ptr<CountedEntry> next) { ++looks, next_ = std::move(next); }

 private:
  U32 index_ = 0;
  Lumo::Ptr<CountedEntry> next_;
};

struct CountedLinkQueue : testing::Test {
  using Queue = Lumo::LinkQueue<CountedEntry>;

  static void fill(Queue& queue, int count) {
    while (count-- > 0) queue.memberNew(Lumo::allocate<CountedEntry>());
  }
  static int looksOf(const std::function<void()>& act) {
    const int before = CountedEntry::looks;
    act();
    return CountedEntry::looks - before;
  }
};

TEST_F(CountedLinkQueue, AppendsAndTakesWithoutWalking) {
  Queue shorter, longer;
  fill(shorter, 8);
  fill(longer, 5000);
  const auto same = [&](const std::function<void(Queue&)>& act) {
    const int looks = looksOf([&] { act(shorter); });
    EXPECT_EQ(looksOf([&] { act(longer); }), looks);
    EXPECT_GT(looks, 0);
  };
  same([](Queue& queue) { fill(queue, 1); });
  same([](Queue& queue) { EXPECT_TRUE(queue._memberDelHead()); });
  same([](Queue& queue) { EXPECT_TRUE(queue._memberDel(queue.headIndex())); });
  same([](Queue& queue) {
    const U32 next = queue.tailIndex();
    queue.memberIs(next, Lumo::allocate<CountedEntry>());
  });
}

TEST_F(CountedLinkQueue, OneChangeCostsAWalkOneSearch) {
  Queue queue;
  fill(queue, 1000);
  Queue::Iterator it(&queue, queue.startAt(500));
  const auto step = [&] { return looksOf([&] { ++it; }); };
  const int plain = step();
  EXPECT_LT(plain, 5);
  fill(queue, 1);
  EXPECT_GE(step(), 500);
  EXPECT_EQ(step(), plain);
  EXPECT_EQ(it.key(), 503u);
}

TEST_F(LinkQueue, AgreesWithItsModelUnderRandomOperations) {
  for (unsigned seed = 0; seed < 300; ++seed) {
    std::mt19937 random(seed);
    model::Pair<U8> pair;
    const auto index = [&] { return static_cast<U8>(random()); };
    for (int step = 0; step < 600; ++step) {
      bool agree = true;
      switch (random() % 16) {
        case 0:
          agree = pair.del(index());
          break;
        case 1:
          agree = pair.place(index());
          break;
        case 2:
          agree = pair.startAt(index());
          break;
        case 3:
          agree = step % 64 ? pair.takeHead() : pair.metadata(index(), index());
          break;
        case 4:
          agree = pair.move(index(), index());
          break;
        case 5:
          agree = pair.step();
          break;
        case 6:
        case 7:
        case 8:
          agree = pair.takeHead();
          break;
        default:
          agree = pair.append();
      }
      ASSERT_TRUE(agree) << "seed " << seed << " step " << step;
    }
  }
}

}  // namespace
