#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>

#include <Lumo/Exception.h>

#include "Thing.h"

namespace {

using Lumo::NoRefcountIncrement;
using Lumo::Ptr;
using Lumo::PtrInterface;
using Lumo::ReferenceWord;
using Lumo::ValidPtr;
using sample::Thing;
using sample::thing;

static_assert(sizeof(Ptr<Thing>) == sizeof(void*));
static_assert(sizeof(ValidPtr<Thing>) == sizeof(void*));
static_assert(sizeof(PtrInterface) == 2 * sizeof(void*));  // table pointer, word, padding
static_assert(std::is_convertible_v<Ptr<Thing>, Ptr<PtrInterface const>>);
static_assert(std::is_convertible_v<Ptr<Thing const>, Ptr<PtrInterface const>>);
static_assert(std::is_convertible_v<Ptr<Thing>, Ptr<Lumo::Entity>>);
static_assert(std::is_convertible_v<ValidPtr<Thing>, Ptr<Lumo::Entity>>);
static_assert(std::is_convertible_v<ValidPtr<Thing>, Ptr<Thing>>);
static_assert(!std::is_convertible_v<Ptr<Thing const>, Ptr<Thing>>);
static_assert(!std::is_convertible_v<Ptr<Lumo::Entity>, Ptr<Thing>>);
static_assert(std::is_nothrow_copy_assignable_v<Ptr<Thing>>);
static_assert(std::is_nothrow_move_assignable_v<Ptr<Thing>>);
static_assert(std::is_nothrow_destructible_v<Ptr<Thing>>);

// An object without a list of reactors.
class Bare : public PtrInterface {
  LUMO_OBJECT(Bare)

 public:
  explicit Bare(int* destroyed = nullptr) : destroyed_(destroyed) {}
  ~Bare() override {
    if (destroyed_) ++*destroyed_;
  }

 private:
  int* destroyed_;
};
constinit const Lumo::LumoType Bare::_lumoType("Bare");

// Pointers count plainly while it lives.
struct PlainCounting {
  PlainCounting() { Lumo::enableThreadSafePointers = false; }
  ~PlainCounting() { Lumo::enableThreadSafePointers = true; }
};

TEST(ReferenceWord, CountsInBit30AndInBits28To0) {
  EXPECT_EQ(ReferenceWord::countMask, 0x5FFFFFFFu);
  for (const U32 word : {0u, 0x20000000u, 0x80000000u, 0xA0000000u}) {
    EXPECT_TRUE(PtrInterface::isZeroReference(word)) << std::hex << word;
  }
  for (const U32 word : {1u, 0x40000000u, 0x60000000u, 0xE0000000u, 0x10000000u, 0xA0000001u}) {
    EXPECT_FALSE(PtrInterface::isZeroReference(word)) << std::hex << word;
  }
}

TEST(ReferenceWord, StartsWithTheReferenceOfItsCreator) {
  EXPECT_EQ(ReferenceWord().word(), 1u);
}

TEST(ReferenceWord, KeepsFlagsAndCountApart) {
  for (const bool threadSafe : {true, false}) {
    Lumo::enableThreadSafePointers = threadSafe;
    ReferenceWord word;
    word.activeIs(true);
    EXPECT_EQ(word.word(), 0x20000001u);
    word.markedIs(true);
    EXPECT_EQ(word.word(), 0xA0000001u);
    word.inc();
    EXPECT_EQ(word.count(), 2u);
    word.activeIs(true);
    EXPECT_EQ(word.word(), 0xA0000002u);
    word.activeIs(false);
    EXPECT_EQ(word.word(), 0x80000002u);
    EXPECT_EQ(word.dec(), 0x80000001u);
    word.markedIs(false);
    EXPECT_EQ(word.word(), 1u);
  }
  Lumo::enableThreadSafePointers = true;
}

TEST(ReferenceWord, AddsToALivingObjectOnly) {
  ReferenceWord word;
  EXPECT_TRUE(word.incUnlessZero());
  EXPECT_EQ(word.count(), 2u);
  word.activeIs(true);
  word.dec();
  word.dec();
  EXPECT_FALSE(word.incUnlessZero());
  EXPECT_EQ(word.word(), 0x20000000u);
}

TEST(ReferenceWord, IsExactUnderTwoThreads) {
  const auto object = thing();
  const auto copyAndDrop = [&] {
    for (int i = 0; i < 200000; ++i) {
      const Ptr<Thing> copy = object;
      if (i % 64 == 0) copy->lumoMarkedForDeletionIs(i % 128 == 0);
    }
  };
  std::thread other(copyAndDrop);
  copyAndDrop();
  other.join();
  EXPECT_EQ(object->references(), 1u);
  EXPECT_TRUE(object->hasNotificationActive());
}

TEST(PtrInterface, IsSafeForThreadsUnlessTheAgentSaysOtherwise) {
  EXPECT_TRUE(Lumo::enableThreadSafePointers);
}

TEST(PtrInterface, HasNoListAndNoTracking) {
  const auto bare = Lumo::allocate<Bare>();
  EXPECT_EQ(bare->notifieeList(), nullptr);
  EXPECT_FALSE(bare->referenceTrackingEnabled());
  EXPECT_EQ(bare->fwkType(), &Bare::_lumoType);
  EXPECT_STREQ(bare->PtrInterface::fwkType()->typeName(), "Lumo::PtrInterface");
}

TEST(PtrInterface, KeepsItsTwoFlags) {
  const auto bare = Lumo::allocate<Bare>();
  bare->hasNotificationActiveIs(false);
  EXPECT_FALSE(bare->hasNotificationActive());
  bare->hasNotificationActiveIs(true);
  EXPECT_TRUE(bare->hasNotificationActive());
  EXPECT_FALSE(bare->lumoMarkedForDeletion());
  bare->lumoMarkedForDeletionIs(true);
  EXPECT_TRUE(bare->lumoMarkedForDeletion());
  EXPECT_EQ(bare->references(), 1u);
}

TEST(PtrInterface, IsDestroyedOnceWhateverItsFlags) {
  for (const bool active : {false, true}) {
    for (const bool marked : {false, true}) {
      int destroyed = 0;
      auto bare = Lumo::allocate<Bare>(&destroyed);
      bare->hasNotificationActiveIs(active);
      bare->lumoMarkedForDeletionIs(marked);
      bare->maybeDelete();
      EXPECT_EQ(destroyed, 0);
      bare = nullptr;
      EXPECT_EQ(destroyed, 1);
    }
  }
}

TEST(PtrInterface, CountsPlainlyWhenAsked) {
  PlainCounting plain;
  int destroyed = 0;
  {
    const auto bare = Lumo::allocate<Bare>(&destroyed);
    const Ptr<Bare> copy = bare;
    EXPECT_EQ(bare->references(), 2u);
  }
  EXPECT_EQ(destroyed, 1);
}

// Points at itself while it learns that its last reference has gone.
class Revisited : public PtrInterface {
  LUMO_OBJECT(Revisited)

 public:
  explicit Revisited(int* destroyed) : destroyed_(destroyed) {}
  ~Revisited() override { ++*destroyed_; }
  void zeroReferencesIs(bool zero) override {
    EXPECT_TRUE(zero);
    EXPECT_EQ(*destroyed_, 0);
    const ZeroStep step(*this);
    const Ptr<Revisited> self(this);
    if (keeper) *keeper = self;
  }

  Ptr<Revisited>* keeper = nullptr;

 private:
  int* destroyed_;
};
constinit const Lumo::LumoType Revisited::_lumoType("Revisited");

TEST(PtrInterface, MayBePointedAtWhileItsLastReferenceGoes) {
  int destroyed = 0;
  Lumo::allocate<Revisited>(&destroyed);
  EXPECT_EQ(destroyed, 1);
}

TEST(PtrInterface, LivesOnWhenTheZeroReferencesStepKeepsIt) {
  int destroyed = 0;
  Ptr<Revisited> keeper;
  {
    const auto object = Lumo::allocate<Revisited>(&destroyed);
    object->keeper = &keeper;
  }
  EXPECT_EQ(destroyed, 0);
  ASSERT_TRUE(keeper);
  EXPECT_EQ(keeper->references(), 1u);
  keeper->keeper = nullptr;
  keeper = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(Ptr, CountsWhatItIsMadeFromUnlessToldNotTo) {
  const auto object = thing();
  {
    const Ptr<Thing> counted(object.ptr());
    EXPECT_EQ(object->references(), 2u);
  }
  EXPECT_EQ(object->references(), 1u);
  object->referencesInc();
  { const Ptr<Thing> adopted(object.ptr(), NoRefcountIncrement()); }
  EXPECT_EQ(object->references(), 1u);
}

TEST(Ptr, MayBeNull) {
  const Ptr<Thing> none(nullptr);
  const Ptr<Thing> noneEither(static_cast<Thing*>(nullptr));
  EXPECT_FALSE(none);
  EXPECT_EQ(none.ptr(), nullptr);
  EXPECT_EQ(none, noneEither);
  EXPECT_EQ(none, nullptr);
}

TEST(Ptr, CountsACopyAndTakesAMove) {
  auto object = thing();
  Thing* const raw = object.ptr();
  Ptr<Thing> copy = object;
  EXPECT_EQ(raw->references(), 2u);
  const Ptr<Thing> moved = std::move(copy);
  EXPECT_FALSE(copy);
  EXPECT_EQ(moved.ptr(), raw);
  EXPECT_EQ(raw->references(), 2u);
}

TEST(Ptr, MoveAssignmentTakesAnotherObject) {
  auto a = thing();
  const auto keepA = a;
  auto b = thing();
  Thing* const rawB = b.ptr();
  a = std::move(b);
  EXPECT_EQ(a.ptr(), rawB);
  EXPECT_FALSE(b);
  EXPECT_EQ(rawB->references(), 1u);
  EXPECT_EQ(keepA->references(), 1u);
}

TEST(Ptr, MoveAssignmentOfTheSameObjectKeepsOneReference) {
  auto a = thing();
  Ptr<Thing> b = a;
  a = std::move(b);
  EXPECT_FALSE(b);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->references(), 1u);
}

TEST(Ptr, MoveAssignmentToItselfChangesNothing) {
  auto a = thing();
  Ptr<Thing>& same = a;
  a = std::move(same);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->references(), 1u);
}

TEST(Ptr, MoveAssignmentFromNullLetsGo) {
  int destroyed = 0;
  auto a = thing();
  a->onDestruction = [&] { ++destroyed; };
  a = Ptr<Thing>();
  EXPECT_EQ(destroyed, 1);
  a = Ptr<Thing>();
  EXPECT_FALSE(a);
}

TEST(Ptr, AssignmentOfTheObjectHeldChangesNoCount) {
  auto a = thing();
  const Ptr<Thing> b = a;
  a = b;
  a.ptrAssign(b.ptr());
  EXPECT_EQ(a->references(), 2u);
}

TEST(Ptr, AssignmentOfNullReleasesTheOldObject) {
  int destroyed = 0;
  auto a = thing();
  a->onDestruction = [&] { ++destroyed; };
  a = nullptr;
  EXPECT_EQ(destroyed, 1);
  EXPECT_FALSE(a);
}

TEST(Ptr, TheOldObjectsDestructorSeesTheNewOne) {
  auto a = thing();
  const auto b = thing();
  Thing* seen = nullptr;
  U32 references = 0;
  a->onDestruction = [&] {
    seen = a.ptr();
    references = b->references();
  };
  a = b;
  EXPECT_EQ(seen, b.ptr());
  EXPECT_EQ(references, 2u);

  auto c = thing();
  Thing* const rawC = c.ptr();
  c->onDestruction = nullptr;
  auto d = thing();
  d->onDestruction = [&] { seen = d.ptr(); };
  d = std::move(c);
  EXPECT_EQ(seen, rawC);
}

// The old object holds the only other reference on the new one.
TEST(Ptr, TheNewObjectIsCountedBeforeTheOldOneGoes) {
  auto inner = thing();
  auto outer = thing();
  outer->onDestruction = [held = inner]() mutable { held = nullptr; };
  Thing* const raw = inner.ptr();
  inner = nullptr;
  ASSERT_EQ(raw->references(), 1u);
  outer.ptrAssign(raw);
  EXPECT_EQ(outer.ptr(), raw);
}

TEST(Ptr, ComparesByIdentity) {
  const auto a = thing("same");
  const auto b = thing("same");
  const Ptr<Lumo::Entity> base = a;
  EXPECT_TRUE(a != b);
  EXPECT_TRUE(base == a);
  EXPECT_TRUE(a == a.ptr());
  EXPECT_EQ(a->name(), (*b).name());
}

TEST(Ptr, ConvertsAndCounts) {
  const auto a = thing();
  const Ptr<PtrInterface const> base = a;
  const Ptr<Thing const> constant = a;
  EXPECT_EQ(a->references(), 3u);
  Ptr<Thing> copy = a;
  const Ptr<Lumo::Entity> moved = std::move(copy);
  EXPECT_FALSE(copy);
  EXPECT_EQ(a->references(), 4u);
}

TEST(ValidPtr, TakesByMove) {
  auto object = thing();
  Thing* const raw = object.ptr();
  const ValidPtr<Thing> valid(std::move(object));
  EXPECT_FALSE(object);
  EXPECT_EQ(valid.ptr(), raw);
  EXPECT_EQ(raw->references(), 1u);
}

TEST(ValidPtr, RefusesNull) {
  try {
    const ValidPtr<Thing> valid((Ptr<Thing>()));
    FAIL() << "made of null";
  } catch (const Lumo::RangeException& exception) {
    EXPECT_STREQ(exception.what(), "null ValidPtr");
  }
}

TEST(ValidPtr, IsNeverLeftNull) {
  ValidPtr<Thing> a{thing()};
  const ValidPtr<Thing> b = std::move(a);
  const Ptr<Thing> c = std::move(a);
  Ptr<Lumo::Entity> d;
  d = std::move(a);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->references(), 4u);
  a = ValidPtr<Thing>(thing());
  EXPECT_EQ(b->references(), 3u);
}

// Throws when its last reference goes.
class Explosive : public PtrInterface {
  LUMO_OBJECT(Explosive)

 public:
  void zeroReferencesIs(bool) override { throw std::runtime_error("cannot go"); }
};
constinit const Lumo::LumoType Explosive::_lumoType("Explosive");

struct PtrDeathTest : testing::Test {
  PtrDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(PtrDeathTest, AnExceptionInAnAssignmentEndsTheProcess) {
  EXPECT_DEATH(
      {
        auto object = Lumo::allocate<Explosive>();
        object = nullptr;
      },
      "cannot go");
  EXPECT_DEATH(
      {
        auto object = Lumo::allocate<Explosive>();
        object.ptrAssign(nullptr);
      },
      "cannot go");
}

TEST_F(PtrDeathTest, AnExceptionInADestructionEndsTheProcess) {
  EXPECT_DEATH({ Lumo::allocate<Explosive>(); }, "cannot go");
}

// How many of the steps of two threads at once are lost.
U32 lostUnderTwoThreads(bool threadSafe) {
  constexpr U32 steps = 200000;
  Lumo::enableThreadSafePointers = threadSafe;
  const Lumo::ReferenceWord before;
  Lumo::ReferenceWord word;
  std::atomic<int> ready{0};
  const auto count = [&] {
    ++ready;
    while (ready < 2) {
    }
    for (U32 i = 0; i < steps; ++i) word.inc();
  };
  std::thread other(count);
  count();
  other.join();
  Lumo::enableThreadSafePointers = true;
  return before.count() + 2 * steps - word.count();
}

TEST(ReferenceWord, CountsAtomicallyExactlyWhenTheAgentSaysSo) {
  EXPECT_EQ(lostUnderTwoThreads(true), 0U);
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "one processor: nothing gets lost";
  U32 lost = 0;
  for (int round = 0; round < 100 && lost == 0; ++round) lost = lostUnderTwoThreads(false);
  EXPECT_GT(lost, 0U);
}

}  // namespace
