#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Lumo/Entity.h>
#include <Norv/CmdConfigGroup.h>
#include <Norv/CmdGroup.h>

#include "QueueSupport.h"

namespace {

using namespace Norv;
using support::cmd;
using support::indexes;
using testing::ElementsAre;

static_assert(!std::is_base_of_v<Lumo::Entity, CmdGroup>);
static_assert(!std::is_same_v<CmdGroup::LumoCmdBatch, CmdConfigGroup::LumoCmdBatch>);
static_assert(sizeof(CmdGroup::LumoCmdBatch) <= 48);

template <class T>
concept CountsDown = requires(T group) {
  group.pendingCountDec(U16(1));
};
static_assert(!CountsDown<CmdGroup>);

struct CmdGroupTest : testing::Test {
  Lumo::Ptr<CmdGroup> group = CmdGroup::CmdGroupIs();
};

TEST_F(CmdGroupTest, StartsWithItsDefaults) {
  EXPECT_EQ(group->limit(), 4096);
  EXPECT_EQ(group->pendingCount(), 0);
  EXPECT_EQ(group->cmdBatchs(), 0u);
  EXPECT_STREQ(group->fwkType()->typeName(), "Norv::CmdGroup");
  EXPECT_EQ(group->notifieeList(), nullptr);
  EXPECT_TRUE(cmdGroupFactory());
}

TEST_F(CmdGroupTest, StoresLimitAndCountAsGiven) {
  group->limitIs(0);
  group->pendingCountIs(9);
  EXPECT_EQ(group->limit(), 0);
  EXPECT_EQ(group->pendingCount(), 9);
}

TEST_F(CmdGroupTest, CountsModulo65536) {
  EXPECT_EQ(group->pendingCountInc(65535), 65535);
  EXPECT_EQ(group->pendingCountInc(2), 1);
  EXPECT_EQ(group->pendingCountInc(65535), 0);
  EXPECT_EQ(group->pendingCount(), 0);
}

TEST_F(CmdGroupTest, DoesNotEnforceItsLimit) {
  for (int i = 0; i < 5000; ++i) group->cmdBatchEnq(cmd());
  EXPECT_EQ(group->cmdBatchs(), 5000u);
}

TEST(CmdBatchEnq, TakesOverTheReferenceThatIsGivenAway) {
  const auto check = [](const auto& queue) {
    Lumo::Ptr<GrpcCmd> kept = cmd(), given = cmd();
    const Lumo::PtrInterface* const object = given.ptr();
    queue->cmdBatchEnq(kept);
    queue->cmdBatchEnq(std::move(given));
    EXPECT_EQ(kept->references(), 2u);
    EXPECT_FALSE(given);
    EXPECT_EQ(object->references(), 1u);
    EXPECT_EQ(queue->cmdBatchDeq(), kept);
    EXPECT_EQ(queue->cmdBatchDeq().ptr(), object);
    // No room.
    queue->cmdBatchMetadataIs({5, 4});
    EXPECT_THROW(queue->cmdBatchEnq(kept), Lumo::RangeException);
    EXPECT_EQ(kept->references(), 1u);
    EXPECT_THROW(queue->cmdBatchEnq(cmd()), Lumo::RangeException);
  };
  check(CmdGroup::CmdGroupIs());
  check(CmdConfigGroup::CmdConfigGroupIs("ports"));
}

TEST_F(CmdGroupTest, IsAQueue) {
  const auto a = cmd();
  const auto b = cmd();
  group->cmdBatchEnq(a);
  group->cmdBatchEnq(b);
  group->cmdBatchNotify(0);
  EXPECT_EQ(group->cmdBatch(1), b);
  EXPECT_TRUE(group->cmdBatchHas(0));
  EXPECT_FALSE(group->cmdBatchHas(2));
  EXPECT_EQ(group->cmdBatch(2), nullptr);
  EXPECT_EQ(group->cmdBatchDeq(), a);
  EXPECT_EQ(group->cmdBatchDel(1), b);
  EXPECT_EQ(group->cmdBatchDeq(), nullptr);
  EXPECT_EQ(group->cmdBatchVersion(), 4u);
}

TEST_F(CmdGroupTest, LeavesEverythingAloneWhenDequeuedEmpty) {
  group->cmdBatchMetadataIs({3, 3});
  EXPECT_EQ(group->cmdBatchDeq(), nullptr);
  EXPECT_EQ(group->cmdBatchVersion(), 0u);
  EXPECT_EQ(group->cmdBatchMetadata(), CmdBatchMetadata(3, 3));
}

TEST_F(CmdGroupTest, TakesNullCommandsAsEntries) {
  group->cmdBatchEnq(nullptr);
  EXPECT_EQ(group->cmdBatchs(), 1u);
  EXPECT_TRUE(group->cmdBatchHas(0));
  EXPECT_EQ(group->cmdBatch(0), nullptr);
  EXPECT_EQ(group->cmdBatchDeq(), nullptr);
  EXPECT_EQ(group->cmdBatchs(), 0u);
  EXPECT_EQ(group->cmdBatchVersion(), 2u);
}

TEST_F(CmdGroupTest, SetsInsertsAndDeletesByIndex) {
  const auto a = cmd();
  const auto b = cmd();
  group->cmdBatchIs(3, nullptr);
  EXPECT_EQ(group->cmdBatchs(), 0u);
  group->cmdBatchIs(3, a);
  EXPECT_EQ(group->cmdBatch(3), a);
  const U32 version = group->cmdBatchVersion();
  group->cmdBatchIs(3, b);
  EXPECT_EQ(group->cmdBatch(3), b);
  EXPECT_EQ(group->cmdBatchVersion(), version);
  EXPECT_EQ(group->cmdBatchs(), 1u);
  group->cmdBatchIs(3, nullptr);
  EXPECT_FALSE(group->cmdBatchHas(3));
}

TEST_F(CmdGroupTest, SettingByIndexMeetsTheFullIndexSpaceToo) {
  group->cmdBatchMetadataIs({5, 4});
  EXPECT_THROW(group->cmdBatchIs(4, cmd()), Lumo::RangeException);
  EXPECT_EQ(group->cmdBatchs(), 0u);
}

TEST_F(CmdGroupTest, DeletesAllEntryByEntry) {
  for (int i = 0; i < 3; ++i) group->cmdBatchEnq(cmd());
  group->cmdBatchDelAll();
  EXPECT_EQ(group->cmdBatchs(), 0u);
  EXPECT_EQ(group->cmdBatchVersion(), 6u);
  EXPECT_EQ(group->cmdBatchMetadata(), CmdBatchMetadata(3, 3));
}

// Kept on purpose: deleting all of a wrapped queue stops at once.
TEST_F(CmdGroupTest, KeptOnPurposeDeletingAllOfAWrappedQueueLeavesTheRest) {
  group->cmdBatchMetadataIs({0xFFFFFFFE, 0xFFFFFFFE});
  for (int i = 0; i < 4; ++i) group->cmdBatchEnq(cmd());
  group->cmdBatchDelAll();
  EXPECT_THAT(indexes(*group), ElementsAre(0xFFFFFFFFu, 0u, 1u));

  const auto three = CmdGroup::CmdGroupIs();
  three->cmdBatchMetadataIs({0xFFFFFFFF, 0xFFFFFFFF});
  for (int i = 0; i < 3; ++i) three->cmdBatchEnq(cmd());
  three->cmdBatchDelAll();
  EXPECT_EQ(three->cmdBatchs(), 2u);
}

TEST_F(CmdGroupTest, MetadataMovesNoEntry) {
  for (int i = 0; i < 3; ++i) group->cmdBatchEnq(cmd());
  group->cmdBatchMetadataIs({7, 9});
  EXPECT_EQ(group->cmdBatchMetadata(), CmdBatchMetadata(7, 9));
  EXPECT_NE(group->cmdBatchMetadata(), CmdBatchMetadata(7, 8));
  EXPECT_THAT(indexes(*group), ElementsAre(0, 1, 2));
  EXPECT_EQ(group->cmdBatchVersion(), 3u);
  EXPECT_EQ(group->cmdBatch(7), nullptr);
  EXPECT_TRUE(group->cmdBatchDel(7));
  EXPECT_TRUE(group->cmdBatchDel(2));
}

TEST_F(CmdGroupTest, IteratesFromTheHeadOrAnIndex) {
  for (int i = 0; i < 3; ++i) group->cmdBatchEnq(cmd());
  EXPECT_EQ(group->cmdBatchIterator().key(), 0u);
  EXPECT_EQ(group->cmdBatchIteratorConst(1).key(), 1u);
  EXPECT_EQ(group->cmdBatchIteratorConst(1).cmdBatch(), group->cmdBatch(1));
  EXPECT_FALSE(group->cmdBatchIteratorConst(9));
}

TEST_F(CmdGroupTest, AllocatesOneEntryPerCommand) {
  const auto a = cmd();
  const auto before = Lumo::allocTrackSnapshot();
  for (int i = 0; i < 10; ++i) group->cmdBatchEnq(a);
  const auto change = Lumo::allocTrackDifference(before, Lumo::allocTrackSnapshot());
  ASSERT_EQ(change.size(), 1u);
  EXPECT_EQ(change[0].typeName, "Norv::CmdBatchEntry<Norv::CmdGroup>");
  EXPECT_EQ(change[0].allocations, 10u);
}

TEST_F(CmdGroupTest, AllocatesNothingWhenCommandsComeAndGo) {
  const auto a = cmd();
  for (int i = 0; i < 6; ++i) group->cmdBatchEnq(a);
  while (group->cmdBatchDeq()) {
  }
  const auto before = Lumo::allocTrackSnapshot();
  for (int i = 0; i < 5; ++i) group->cmdBatchEnq(a);
  EXPECT_EQ(indexes(*group), (std::vector<U32>{6, 7, 8, 9, 10}));
  for (int i = 0; i < 100; ++i) {
    group->cmdBatchEnq(a);
    EXPECT_EQ(group->cmdBatchDeq(), a);
  }
  EXPECT_TRUE(Lumo::allocTrackDifference(before, Lumo::allocTrackSnapshot()).empty());
}

namespace {

// Appends so many commands, and takes them all.
void fillAndEmpty(CmdGroup& group, int commands) {
  for (int i = 0; i < commands; ++i) group.cmdBatchEnq(nullptr);
  for (int i = 0; i < commands; ++i) group.cmdBatchDeq();
}

}  // namespace

TEST_F(CmdGroupTest, KeepsTheEntriesOfALongBatchForTheNextOne) {
  const auto& entries = CmdGroup::LumoCmdBatch::lumoAllocTrackTypeInfo_;
  const U64 before = entries.live();
  fillAndEmpty(*group, 5000);
  EXPECT_EQ(entries.live() - before, 5000u);
  for (int round = 0; round < 3; ++round) {
    const auto snapshot = Lumo::allocTrackSnapshot();
    fillAndEmpty(*group, 5000);
    EXPECT_TRUE(Lumo::allocTrackDifference(snapshot, Lumo::allocTrackSnapshot()).empty());
  }
  EXPECT_EQ(entries.live() - before, 5000u);
  group = nullptr;
  EXPECT_EQ(entries.live(), before);
}

TEST_F(CmdGroupTest, GivesUpEntriesStepByStepWhereBatchesAreSmaller) {
  const auto& entries = CmdGroup::LumoCmdBatch::lumoAllocTrackTypeInfo_;
  const U64 before = entries.live();
  fillAndEmpty(*group, 5000);
  for (const unsigned kept : {3976u, 2952u, 2000u, 2000u, 2000u}) {
    fillAndEmpty(*group, 2000);
    EXPECT_EQ(entries.live() - before, kept);
  }
  // A queue that is not empty gives up nothing.
  group->cmdBatchEnq(nullptr);
  for (int i = 0; i < 3; ++i) fillAndEmpty(*group, 1);
  EXPECT_EQ(entries.live() - before, 2000u);
  group->cmdBatchDeq();
  EXPECT_EQ(entries.live() - before, 1024u);
  fillAndEmpty(*group, 1);
  EXPECT_EQ(entries.live() - before, 1024u);
}

TEST_F(CmdGroupTest, KeepsNoMoreThanTheEntriesOf131072Commands) {
  const auto& entries = CmdGroup::LumoCmdBatch::lumoAllocTrackTypeInfo_;
  const U64 before = entries.live();
  fillAndEmpty(*group, 140000);
  EXPECT_EQ(entries.live() - before, 131072u);
}

TEST_F(CmdGroupTest, FreesTheEntriesThatItHasKeptOnASmallStack) {
  support::onAStackOf(64 * 1024, [] {
    const auto brief = CmdGroup::CmdGroupIs();
    for (int i = 0; i < 2000; ++i) brief->cmdBatchEnq(nullptr);
    for (int i = 0; i < 2000; ++i) brief->cmdBatchDeq();
  });
}

TEST_F(CmdGroupTest, KeepsNoHoldOfATakenCommand) {
  const auto a = cmd();
  for (int i = 0; i < 100; ++i) group->cmdBatchEnq(a);
  EXPECT_EQ(a->references(), 101u);
  for (int i = 0; i < 99; ++i) group->cmdBatchDeq();
  EXPECT_EQ(group->cmdBatchDel(99), a);
  EXPECT_EQ(a->references(), 1u);
}

TEST_F(CmdGroupTest, LeavesATakenEntryToTheIteratorThatStandsOnIt) {
  const auto a = cmd();
  const auto b = cmd();
  group->cmdBatchEnq(a);
  auto iterator = group->cmdBatchIterator();
  EXPECT_EQ(group->cmdBatchDeq(), a);
  group->cmdBatchEnq(b);
  EXPECT_EQ(iterator.key(), 0u);
  EXPECT_EQ(iterator.cmdBatch(), a);
  ++iterator;
  EXPECT_EQ(iterator.key(), 1u);
  EXPECT_EQ(iterator.cmdBatch(), b);
}

TEST_F(CmdGroupTest, FreesItsEntriesWhenItGoes) {
  const auto before = Lumo::allocTrackSnapshot();
  for (int i = 0; i < 100; ++i) group->cmdBatchEnq(nullptr);
  for (int i = 0; i < 50; ++i) group->cmdBatchDeq();
  group = nullptr;
  U64 entries = 0;
  for (const auto& row : Lumo::allocTrackDifference(before, Lumo::allocTrackSnapshot())) {
    if (row.typeName != "Norv::CmdBatchEntry<Norv::CmdGroup>") continue;
    entries = row.allocations;
    EXPECT_EQ(row.live(), 0u);
  }
  EXPECT_EQ(entries, 100u);
}

TEST_F(CmdGroupTest, AnEntryIsReadAndWrittenByItsAccessors) {
  const auto a = cmd();
  const auto entry = Lumo::allocate<CmdGroup::LumoCmdBatch>(4u, nullptr);
  entry->fwkQkeyIs(5);
  entry->cmdBatchIs(a);
  EXPECT_EQ(entry->fwkQkey(), 5u);
  EXPECT_EQ(entry->cmdBatch(), a);
}

}  // namespace
