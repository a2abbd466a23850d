#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Abort.h>
#include <support/Mortal.h>

#include <functional>
#include <utility>

#include <Norv/CmdConfigGroup.h>
#include <Norv/CmdGroup.h>

#include "QueueSupport.h"

namespace {

using namespace Norv;
using support::cmd;
using support::indexes;
using testing::ElementsAre;

static_assert(std::is_base_of_v<Lumo::Entity, CmdConfigGroup>);
static_assert(std::is_same_v<U64, unsigned long long> && std::is_same_v<U32, unsigned int> &&
              std::is_same_v<U16, unsigned short>);

// Writes down what it is told, and how many entries it sees then.
class GroupWitness : public CmdConfigGroup::NotifieeConst {
 public:
  explicit GroupWitness(const Lumo::Ptr<CmdConfigGroup>& group) : NotifieeConst(group) {}
  void onCmdBatch(U32 index) override {
    changes.push_back(index);
    seen = notifier()->cmdBatchs();
  }
  void onCmdBatch() override { ++collectionWide; }
  void onCmdBatchlumoImmediate() override { ++collectionWide; }
  void onCmdBatchMetadata() override { ++metadata; }
  void onEnqueueVersion() override { versions.push_back(notifier()->enqueueVersion()); }
  void onIgnoreConfigQueueLimit() override { ++limits; }

  std::vector<U32> changes;
  std::vector<U64> versions;
  U32 seen = 0;
  int collectionWide = 0;
  int metadata = 0;
  int limits = 0;
};

struct CmdConfigGroupTest : testing::Test {
  void fill(int count) {
    for (int i = 0; i < count; ++i) group->cmdBatchEnq(cmd());
    witness->changes.clear();
  }
  Lumo::Ptr<CmdConfigGroup> group = CmdConfigGroup::CmdConfigGroupIs("ports");
  Lumo::Ptr<GroupWitness> witness = Lumo::allocate<GroupWitness>(group);
};

TEST_F(CmdConfigGroupTest, StartsWithItsDefaults) {
  EXPECT_EQ(group->name(), Lumo::Name("ports"));
  EXPECT_EQ(group->enqueueVersion(), 0u);
  EXPECT_FALSE(group->ignoreConfigQueueLimit());
  EXPECT_EQ(group->cmdBatchs(), 0u);
  EXPECT_STREQ(group->fwkType()->typeName(), "Norv::CmdConfigGroup");
  EXPECT_EQ(cmdConfigGroupFactory("x")->name(), Lumo::Name("x"));
}

TEST_F(CmdConfigGroupTest, TakesAnotherNameFromABackup) {
  group->nameIsFromBackup("other");
  EXPECT_EQ(group->name(), Lumo::Name("other"));
}

TEST_F(CmdConfigGroupTest, TellsOfEachEnqueuedEntryOnceItIsThere) {
  group->cmdBatchEnq(cmd());
  EXPECT_THAT(witness->changes, ElementsAre(0));
  EXPECT_EQ(witness->seen, 1u);
  group->cmdBatchEnq(nullptr);
  EXPECT_THAT(witness->changes, ElementsAre(0, 1));
}

TEST_F(CmdConfigGroupTest, TellsNothingOfARefusedEntry) {
  group->cmdBatchMetadataIs({5, 4});
  EXPECT_THROW(group->cmdBatchEnq(cmd()), Lumo::RangeException);
  EXPECT_THAT(witness->changes, ElementsAre());
}

TEST_F(CmdConfigGroupTest, IsSilentAboutTheSameCommandBelowTheCount) {
  fill(3);
  group->cmdBatchIs(2, group->cmdBatch(2));
  EXPECT_THAT(witness->changes, ElementsAre());
}

TEST_F(CmdConfigGroupTest, KeptOnPurposeTellsOfTheSameCommandAtAnIndexNotBelowTheCount) {
  fill(3);
  for (const U32 count : {2u, 1u}) {
    group->cmdBatchDeq();
    witness->changes.clear();
    group->cmdBatchIs(2, group->cmdBatch(2));
    EXPECT_THAT(witness->changes, ElementsAre(2)) << count << " are there";
  }
}

TEST_F(CmdConfigGroupTest, TellsOfReplacedInsertedAndDeletedEntries) {
  fill(2);
  const auto other = cmd();
  group->cmdBatchIs(1, other);
  EXPECT_EQ(group->cmdBatch(1), other);
  group->cmdBatchIs(9, other);
  group->cmdBatchIs(1, nullptr);
  EXPECT_THAT(witness->changes, ElementsAre(1, 9, 1));
  EXPECT_THAT(indexes(*group), ElementsAre(0, 9));
  group->cmdBatchIs(5, nullptr);
  EXPECT_THAT(witness->changes, ElementsAre(1, 9, 1));
}

TEST_F(CmdConfigGroupTest, KeepsANullEntryBelowTheCountWhenSetToNull) {
  group->cmdBatchEnq(nullptr);
  witness->changes.clear();
  group->cmdBatchIs(0, nullptr);
  EXPECT_TRUE(group->cmdBatchHas(0));
  EXPECT_THAT(witness->changes, ElementsAre());
}

TEST_F(CmdConfigGroupTest, DeletesANullEntryNotBelowTheCountWhenSetToNull) {
  group->cmdBatchIs(5, cmd());
  group->cmdBatchIs(7, cmd());
  group->cmdBatchEnq(nullptr);
  group->cmdBatchDel(5);
  group->cmdBatchDel(7);
  witness->changes.clear();
  group->cmdBatchIs(8, nullptr);
  EXPECT_EQ(group->cmdBatchs(), 0u);
  EXPECT_THAT(witness->changes, ElementsAre(8));
}

TEST_F(CmdConfigGroupTest, TellsOfADequeuedEntryUnderTheRememberedHeadIndex) {
  fill(2);
  const auto first = group->cmdBatch(0);
  EXPECT_EQ(group->cmdBatchDeq(), first);
  EXPECT_THAT(witness->changes, ElementsAre(0));
  EXPECT_EQ(witness->seen, 1u);
  group->cmdBatchMetadataIs({42, 50});
  group->cmdBatchDeq();
  EXPECT_THAT(witness->changes, ElementsAre(0, 42));
  EXPECT_EQ(group->cmdBatchDeq(), nullptr);
  EXPECT_THAT(witness->changes, ElementsAre(0, 42));
}

TEST_F(CmdConfigGroupTest, TellsOfADequeuedNullEntry) {
  group->cmdBatchEnq(nullptr);
  witness->changes.clear();
  EXPECT_EQ(group->cmdBatchDeq(), nullptr);
  EXPECT_THAT(witness->changes, ElementsAre(0));
}

TEST_F(CmdConfigGroupTest, TellsOfDeletedEntries) {
  fill(3);
  const auto second = group->cmdBatch(1);
  EXPECT_EQ(group->cmdBatchDel(1), second);
  EXPECT_EQ(group->cmdBatchDel(1), nullptr);
  EXPECT_THAT(witness->changes, ElementsAre(1));
  group->cmdBatchDelAll();
  EXPECT_THAT(witness->changes, ElementsAre(1, 0, 2));
}

TEST_F(CmdConfigGroupTest, TellsOfMetadataAlways) {
  group->cmdBatchMetadataIs({0, 0});
  group->cmdBatchMetadataIs({1, 2});
  EXPECT_EQ(witness->metadata, 2);
}

TEST_F(CmdConfigGroupTest, TellsOfAChangedEnqueueVersion) {
  EXPECT_EQ(group->enqueueVersionInc(0), 0u);
  EXPECT_THAT(witness->versions, ElementsAre());
  EXPECT_EQ(group->enqueueVersionInc(1), 1u);
  group->enqueueVersionIs(1);
  group->enqueueVersionIs(7);
  EXPECT_THAT(witness->versions, ElementsAre(1, 7));
  group->enqueueVersionIs(1);
  EXPECT_EQ(group->enqueueVersionInc(0xFFFFFFFFFFFFFFFFull), 0u);
  EXPECT_EQ(group->enqueueVersion(), 0u);
}

TEST_F(CmdConfigGroupTest, TellsOfAChangedLimitFlag) {
  group->ignoreConfigQueueLimitIs(false);
  EXPECT_EQ(witness->limits, 0);
  group->ignoreConfigQueueLimitIs(true);
  group->ignoreConfigQueueLimitIs(true);
  EXPECT_EQ(witness->limits, 1);
  EXPECT_TRUE(group->ignoreConfigQueueLimit());
}

TEST_F(CmdConfigGroupTest, StepsTheEntityVersionWithEveryMutator) {
  const auto steps = [&](const std::function<void()>& mutate) {
    const U64 before = group->fwkEntityVersion();
    mutate();
    return group->fwkEntityVersion() - before;
  };
  EXPECT_EQ(steps([&] { group->cmdBatchEnq(nullptr); }), 1u);
  EXPECT_EQ(steps([&] { group->cmdBatchIs(5, nullptr); }), 1u);
  EXPECT_EQ(steps([&] { group->cmdBatchDeq(); }), 1u);
  EXPECT_EQ(steps([&] { group->cmdBatchDeq(); }), 1u);
  EXPECT_EQ(steps([&] { group->cmdBatchDel(5); }), 1u);
  EXPECT_EQ(steps([&] { group->cmdBatchDelAll(); }), 1u);
  EXPECT_EQ(steps([&] { group->cmdBatchMetadataIs({}); }), 1u);
  EXPECT_EQ(steps([&] { group->enqueueVersionIs(0); }), 1u);
  EXPECT_EQ(steps([&] { group->enqueueVersionInc(0); }), 1u);
  EXPECT_EQ(steps([&] { group->ignoreConfigQueueLimitIs(false); }), 1u);
}

TEST_F(CmdConfigGroupTest, NeverFiresTheCollectionWideForms) {
  fill(3);
  group->cmdBatchDelAll();
  EXPECT_EQ(witness->collectionWide, 0);
}

TEST_F(CmdConfigGroupTest, TellsNothingWhenDestroyedWithEntries) {
  // A reactor that does not hold the queue, so that the queue can go.
  class Unheld : public GroupWitness {
   public:
    Unheld(const Lumo::Ptr<CmdConfigGroup>& group, int* gone) : GroupWitness(group), gone_(gone) {
      group->notifieeList()->newMember(this);
      notifier_ = nullptr;
    }
    void onCmdBatch(U32) override { ADD_FAILURE(); }
    void onZeroReferences() override { ++*gone_; }

   private:
    int* const gone_;
  };
  int gone = 0;
  auto fresh = CmdConfigGroup::CmdConfigGroupIs("short");
  fresh->cmdBatchEnq(cmd());
  Lumo::Ptr<CmdConfigGroup> last(fresh);
  {
    const auto unheld = Lumo::allocate<Unheld>(last, &gone);
    Lumo::Ptr<CmdConfigGroup> other = CmdConfigGroup::CmdConfigGroupIs("other");
    static_cast<Lumo::Ptr<CmdConfigGroup>&>(fresh) = std::move(other);
    last = nullptr;
    EXPECT_EQ(gone, 1);
  }
}

TEST(CmdConfigGroupDeathTest, AbortsWhenChangedUnderPreservedReads) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto group = CmdConfigGroup::CmdConfigGroupIs("ports");
  const auto other = CmdConfigGroup::CmdConfigGroupIs("other");
  EXPECT_DEATH(
      {
        Lumo::FwkEntityReadsPreserve scope;
        group->cmdBatchEnq(nullptr);
      },
      support::readsPreserved);
  Lumo::FwkEntityReadsPreserve scope(group.ptr());
  group->enqueueVersionIs(0);
  group->enqueueVersionInc(0);
  group->ignoreConfigQueueLimitIs(false);
  group->cmdBatchIs(3, nullptr);
  group->cmdBatchDeq();
  group->cmdBatchDel(3);
  group->cmdBatchDelAll();
  other->enqueueVersionIs(1);
}

// What a queue holds, in one line.
std::string stateOf(const CmdConfigGroup& group) {
  std::string text = "indexes";
  for (const U32 index : indexes(group)) text += " " + std::to_string(index);
  text += " head " + std::to_string(group.cmdBatchMetadata().headIndex);
  text += " enqueued " + std::to_string(group.enqueueVersion());
  return text + (group.ignoreConfigQueueLimit() ? " unlimited" : " limited");
}

// A queue with entries under 0 and 1 that is changed while its reads are preserved. It dies with
// the change made, and nobody told.
void diesHaving(const std::string& state, const std::function<void(CmdConfigGroup&)>& change) {
  const auto group = CmdConfigGroup::CmdConfigGroupIs("ports");
  group->cmdBatchEnq(cmd());
  group->cmdBatchEnq(cmd());
  const auto witness = Lumo::allocate<GroupWitness>(group);
  EXPECT_DEATH(
      {
        Lumo::FwkEntityReadsPreserve scope(group.ptr());
        support::atAbort([&] {
          const bool told = witness->changes.size() + witness->versions.size() +
                            static_cast<std::size_t>(witness->metadata + witness->limits);
          return stateOf(*group) + (told ? " told" : " untold");
        });
        change(*group);
      },
      std::string("anyActive(.|\n)*") + state + " untold")
      << state;
}

TEST(CmdConfigGroupDeathTest, HasMadeTheChangeWhenItAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  diesHaving("indexes 0 1 2 head 0 enqueued 0 limited", [](auto& g) { g.cmdBatchEnq(nullptr); });
  diesHaving("indexes 0 1 7 head 0 enqueued 0 limited", [](auto& g) { g.cmdBatchIs(7, cmd()); });
  diesHaving("indexes 0 head 0 enqueued 0 limited", [](auto& g) { g.cmdBatchIs(1, nullptr); });
  diesHaving("indexes 1 head 1 enqueued 0 limited", [](auto& g) { g.cmdBatchDeq(); });
  diesHaving("indexes 0 head 0 enqueued 0 limited", [](auto& g) { g.cmdBatchDel(1); });
  diesHaving("indexes 1 head 1 enqueued 0 limited", [](auto& g) { g.cmdBatchDelAll(); });
  diesHaving("indexes 0 1 head 5 enqueued 0 limited", [](auto& g) {
    g.cmdBatchMetadataIs({5, 9});
  });
  diesHaving("indexes 0 1 head 0 enqueued 4 limited", [](auto& g) { g.enqueueVersionIs(4); });
  diesHaving("indexes 0 1 head 0 enqueued 3 limited", [](auto& g) { g.enqueueVersionInc(3); });
  diesHaving("indexes 0 1 head 0 enqueued 0 unlimited",
             [](auto& g) { g.ignoreConfigQueueLimitIs(true); });
}

// Holds its queue no longer than it takes to follow it, and has the last pointer dropped at the
// first change it hears of. The queue is there until its mutator is done, so at the others as well.
class GroupDropper : public CmdConfigGroup::NotifieeConst {
 public:
  GroupDropper(Lumo::Ptr<CmdConfigGroup>* last, const bool* gone)
      : NotifieeConst(*last), last_(last), gone_(gone) {
    notifier_ = nullptr;
  }
  void onCmdBatch(U32) override { drop(); }
  void onCmdBatchMetadata() override { drop(); }
  void onEnqueueVersion() override { drop(); }
  void onIgnoreConfigQueueLimit() override { drop(); }
  int changes = 0;

 private:
  void drop() {
    ++changes;
    *last_ = nullptr;
    EXPECT_FALSE(*gone_);
  }
  Lumo::Ptr<CmdConfigGroup>* const last_;
  const bool* const gone_;
};

TEST(CmdConfigGroup, LivesUntilItsMutatorIsDoneWhenAHandlerDropsIt) {
  const auto changes = [](const std::function<void(CmdConfigGroup&)>& change) {
    bool gone = false;
    Lumo::Ptr<CmdConfigGroup> group =
        Lumo::allocate<support::Mortal<CmdConfigGroup>>(&gone, "short-lived");
    for (int i = 0; i < 3; ++i) group->cmdBatchEnq(cmd());
    const auto dropper = Lumo::allocate<GroupDropper>(&group, &gone);
    change(*group);
    EXPECT_TRUE(gone);
    return dropper->changes;
  };
  EXPECT_EQ(changes([](CmdConfigGroup& group) { group.cmdBatchEnq(cmd()); }), 1);
  EXPECT_EQ(changes([](CmdConfigGroup& group) { group.cmdBatchIs(1, cmd()); }), 1);
  EXPECT_EQ(changes([](CmdConfigGroup& group) { EXPECT_TRUE(group.cmdBatchDeq()); }), 1);
  EXPECT_EQ(changes([](CmdConfigGroup& group) { EXPECT_TRUE(group.cmdBatchDel(1)); }), 1);
  EXPECT_EQ(changes([](CmdConfigGroup& group) { group.cmdBatchDelAll(); }), 3);
  EXPECT_EQ(changes([](CmdConfigGroup& group) { group.cmdBatchMetadataIs({7, 9}); }), 1);
  EXPECT_EQ(changes([](CmdConfigGroup& group) { EXPECT_EQ(group.enqueueVersionInc(2), 2u); }), 1);
  EXPECT_EQ(changes([](CmdConfigGroup& group) { group.ignoreConfigQueueLimitIs(true); }), 1);
}

TEST_F(CmdConfigGroupTest, AReactorOfItHearsNothingAsAZombie) {
  witness->lumoDoZombieReactors(true);
  group->enqueueVersionIs(1);
  EXPECT_THAT(witness->versions, ElementsAre());
  witness->lumoDoZombieReactors(false);
  group->enqueueVersionIs(2);
  EXPECT_THAT(witness->versions, ElementsAre(2));
}

TEST_F(CmdConfigGroupTest, AReactorOfItRefusesOtherObjects) {
  const Lumo::Ptr<Lumo::PtrInterface const> other = CmdGroup::CmdGroupIs();
  EXPECT_THROW(witness->notifierIs(other), Lumo::RangeException);
  EXPECT_EQ(witness->notifier(), group);
}

// What can be done to the queue from one of its entries.
template <class Entry>
concept Rekeyed = requires(Entry entry) {
  entry->fwkQkeyIs(1);
};
template <class Entry>
concept Relinked = requires(Entry entry) {
  entry->lqNextIs(nullptr);
}
|| requires(Entry entry) {
  entry->lqNext() = nullptr;
  requires std::is_lvalue_reference_v<decltype(entry->lqNext())>;
};
template <class Entry>
concept Emptied = requires(Entry entry) {
  entry->cmdBatchIs(nullptr);
}
|| requires(Entry entry) {
  entry->cmdBatch() = nullptr;
};
template <class Entry>
constexpr bool changeable = Rekeyed<Entry> || Relinked<Entry> || Emptied<Entry>;
template <class Entry>
using Next = decltype(std::declval<Entry>()->lqNext());

TEST_F(CmdConfigGroupTest, ShowsItsEntriesReadOnlyToWhoeverMayNotChangeIt) {
  using Seen = decltype(std::as_const(*group).cmdBatchIteratorConst().ptr());
  static_assert(!changeable<Seen>);
  static_assert(!changeable<Next<Seen>> && !changeable<Next<Next<Seen>>>);
  using Own = decltype(group->cmdBatchIterator().ptr());
  static_assert(Rekeyed<Own> && Relinked<Own> && Emptied<Own>);
  static_assert(Rekeyed<Next<Own>> && Relinked<Next<Own>> && Emptied<Next<Own>>);
  const auto first = cmd();
  const auto second = cmd();
  group->cmdBatchEnq(first);
  group->cmdBatchEnq(second);
  EXPECT_EQ(group->cmdBatchIteratorConst().cmdBatch(), first);
  EXPECT_EQ(group->cmdBatchIteratorConst().ptr()->cmdBatch(), first);
  EXPECT_EQ(group->cmdBatchIteratorConst().ptr()->lqNext()->cmdBatch(), second);
  EXPECT_FALSE(group->cmdBatchIteratorConst(1).ptr()->lqNext());
}

TEST(CmdBatchIteratorDeathTest, HasNeitherKeyNorCommandAtItsEnd) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto group = CmdConfigGroup::CmdConfigGroupIs("empty");
  EXPECT_DEATH(group->cmdBatchIterator().key(), "the walk is not at its end");
  EXPECT_DEATH(group->cmdBatchIteratorConst().key(), "the walk is not at its end");
  EXPECT_DEATH(group->cmdBatchIterator().cmdBatch(), "the walk is not at its end");
  EXPECT_FALSE(group->cmdBatchIterator().ptr());
}

TEST_F(CmdConfigGroupTest, KeptOnPurposeDeletingAllOfAWrappedQueueDeletesItsHead) {
  group->cmdBatchMetadataIs({0xFFFFFFFE, 0xFFFFFFFE});
  fill(4);
  ASSERT_THAT(indexes(*group), ElementsAre(0xFFFFFFFE, 0xFFFFFFFF, 0, 1));
  group->cmdBatchDelAll();
  EXPECT_THAT(indexes(*group), ElementsAre(0xFFFFFFFF, 0, 1));
  group->cmdBatchDelAll();
  EXPECT_THAT(indexes(*group), ElementsAre(0, 1));
  EXPECT_THAT(witness->changes, ElementsAre(0xFFFFFFFE, 0xFFFFFFFF));
  group->cmdBatchDelAll();
  EXPECT_THAT(indexes(*group), ElementsAre());
}

TEST_F(CmdConfigGroupTest, IteratesFromTheHeadOrAnIndex) {
  fill(4);
  group->cmdBatchDel(2);
  EXPECT_EQ(group->cmdBatchIterator().key(), 0u);
  EXPECT_EQ(group->cmdBatchIteratorConst().key(), 0u);
  EXPECT_EQ(group->cmdBatchIteratorConst(1).key(), 1u);
  EXPECT_EQ(group->cmdBatchIteratorConst(2).key(), 3u);
  EXPECT_FALSE(group->cmdBatchIteratorConst(4));
}

TEST_F(CmdConfigGroupTest, MetadataMovesNoEntryAndStepsNoVersion) {
  fill(3);
  const U32 version = group->cmdBatchVersion();
  group->cmdBatchMetadataIs({1, 9});
  EXPECT_EQ(group->cmdBatchMetadata(), (CmdBatchMetadata{1, 9}));
  EXPECT_THAT(indexes(*group), ElementsAre(0, 1, 2));
  EXPECT_EQ(group->cmdBatchs(), 3u);
  EXPECT_EQ(group->cmdBatchVersion(), version);
}

TEST_F(CmdConfigGroupTest, IncrementsItsVersionAroundAndReturnsTheSum) {
  group->enqueueVersionIs(~U64{0});
  witness->versions.clear();
  EXPECT_EQ(group->enqueueVersionInc(0), ~U64{0});
  EXPECT_THAT(witness->versions, ElementsAre());
  EXPECT_EQ(group->enqueueVersionInc(3), 2u);
  EXPECT_THAT(witness->versions, ElementsAre(2u));
}

}  // namespace
