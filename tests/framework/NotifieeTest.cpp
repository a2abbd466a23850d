#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Thing.h"

namespace {

using Lumo::BitSet;
using Lumo::Ptr;
using Lumo::PtrInterface;
using sample::Reactor;
using sample::Thing;
using sample::thing;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(sizeof(BitSet<31, unsigned int>) == 4);

TEST(BitSet, KeepsItsPositionsApart) {
  BitSet<31, unsigned int> bits;
  for (int pos = 0; pos < 31; ++pos) EXPECT_FALSE(bits.bit(pos));
  bits.set(0);
  bits.set(30);
  bits.bitIs(19, true);
  EXPECT_TRUE(bits.bit(0) && bits.bit(30) && bits.bit(19));
  EXPECT_FALSE(bits.bit(18) || bits.bit(20) || bits.bit(1) || bits.bit(29));
  bits.reset(30);
  bits.bitIs(19, false);
  EXPECT_FALSE(bits.bit(30) || bits.bit(19));
  EXPECT_TRUE(bits.bit(0));
  bits.clear();
  EXPECT_FALSE(bits.bit(0));
}

TEST(BitSetDeathTest, RefusesAPositionOutside) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  BitSet<31, unsigned int> bits;
  const auto text = testing::HasSubstr("pos >= 0 && pos < bits");
  EXPECT_DEATH(bits.set(31), text);
  EXPECT_DEATH(bits.reset(31), text);
  EXPECT_DEATH(bits.bitIs(31, true), text);
  EXPECT_DEATH(bits.set(-1), text);
  EXPECT_DEATH(bits.reset(-1), text);
  EXPECT_DEATH(bits.bitIs(-1, false), text);
}

// A reactor that has not begun to follow anything, with its flags in sight.
class Fresh : public Thing::NotifieeConst {
 public:
  Fresh() = default;
  bool flag(int pos) const { return Lumo_BitSet.bit(pos); }
  bool notifierIsNull() const { return !notifier_; }
  int registrations = 0;
  void isRegisteredNotifieeIs(bool registered) const override {
    ++const_cast<Fresh*>(this)->registrations;
    NotifieeConst::isRegisteredNotifieeIs(registered);
  }
};

struct NotifieeTest : testing::Test {
  Ptr<Thing> followed = thing("followed");
  Reactor::Log log;
  Ptr<Reactor> reactor = Lumo::allocate<Reactor>(followed, &log, 1);

  void change() { followed->valueIs(followed->value() + 1); }
};

TEST_F(NotifieeTest, StartsBlank) {
  const auto fresh = Lumo::allocate<Fresh>();
  EXPECT_TRUE(fresh->notifierIsNull());
  EXPECT_EQ(fresh->lumoRawNotifier(), nullptr);
  EXPECT_FALSE(fresh->isRegisteredNotifiee());
  for (int pos = 0; pos < 31; ++pos) EXPECT_FALSE(fresh->flag(pos)) << pos;
}

TEST_F(NotifieeTest, HasItsFlagsInTheirPlaces) {
  const auto fresh = Lumo::allocate<Fresh>();
  fresh->wasNotifiedIs(true);
  EXPECT_TRUE(fresh->flag(19) && fresh->wasNotified());
  fresh->enabledIs(true);
  EXPECT_TRUE(fresh->flag(26) && fresh->enabled());
  fresh->wasNotifiedIs(false);
  fresh->enabledIs(false);
  EXPECT_FALSE(fresh->flag(19) || fresh->flag(26));
}

TEST_F(NotifieeTest, IsActiveEnabledAndRegisteredOnceMade) {
  EXPECT_TRUE(reactor->hasNotificationActive());
  EXPECT_TRUE(reactor->enabled());
  EXPECT_TRUE(reactor->isRegisteredNotifiee());
  EXPECT_EQ(reactor->lumoRawNotifier(), followed.ptr());
  EXPECT_EQ(followed->notifieeList()->members(), 1u);
}

TEST_F(NotifieeTest, IsActiveEnabledAndRegisteredAsSoonAsItsBaseIsMade) {
  struct Curious : Thing::NotifieeConst {
    explicit Curious(const Ptr<Thing const>& notifier)
        : NotifieeConst(notifier),
          active(hasNotificationActive()),
          ready(enabled() && isRegisteredNotifiee()) {}
    const bool active;
    const bool ready;
  };
  const auto curious = Lumo::allocate<Curious>(followed);
  EXPECT_TRUE(curious->active);
  EXPECT_TRUE(curious->ready);
}

TEST_F(NotifieeTest, CountsItsNotifierAndIsNotCountedByIt) {
  EXPECT_EQ(followed->references(), 2u);
  EXPECT_EQ(reactor->references(), 1u);
  reactor = nullptr;
  EXPECT_EQ(followed->references(), 1u);
}

TEST_F(NotifieeTest, IsCalledOnChange) {
  change();
  followed->valueIs(followed->value());
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(NotifieeTest, OffersTheOtherHooksOfAReactor) {
  EXPECT_TRUE(reactor->lumoReactor());
  EXPECT_EQ(reactor->lumoFwkActivity(), nullptr);
  EXPECT_EQ(reactor->actsm(), nullptr);
  reactor->handleNotification(nullptr);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(NotifieeTest, IsNotCalledWhileInactive) {
  reactor->hasNotificationActiveIs(false);
  EXPECT_FALSE(reactor->isRegisteredNotifiee());
  EXPECT_TRUE(reactor->wasNotified());
  change();
  EXPECT_THAT(log, IsEmpty());
  reactor->hasNotificationActiveIs(true);
  EXPECT_TRUE(reactor->isRegisteredNotifiee());
  change();
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(NotifieeTest, StaysUnregisteredThroughAnInactiveTime) {
  reactor->isRegisteredNotifieeIs(false);
  reactor->hasNotificationActiveIs(false);
  EXPECT_FALSE(reactor->wasNotified());
  reactor->hasNotificationActiveIs(true);
  EXPECT_FALSE(reactor->isRegisteredNotifiee());
  change();
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(NotifieeTest, AnUnchangedActivityDoesNothing) {
  reactor->wasNotifiedIs(true);
  reactor->isRegisteredNotifieeIs(false);
  reactor->hasNotificationActiveIs(true);
  EXPECT_FALSE(reactor->isRegisteredNotifiee());
  reactor->hasNotificationActiveIs(false);
  reactor->wasNotifiedIs(true);
  reactor->hasNotificationActiveIs(false);
  EXPECT_TRUE(reactor->wasNotified());
}

TEST_F(NotifieeTest, RegisteringTwiceCallsOnce) {
  reactor->isRegisteredNotifieeIs(true);
  followed->notifieeList()->newMember(reactor.ptr());
  change();
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(NotifieeTest, MovesToTheListOfANewNotifier) {
  const auto other = thing("other");
  reactor->notifierIs(other);
  EXPECT_EQ(reactor->lumoRawNotifier(), other.ptr());
  EXPECT_EQ(followed->references(), 1u);
  change();
  EXPECT_THAT(log, IsEmpty());
  other->valueIs(1);
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(NotifieeTest, KeepsItsPlaceWithTheNotifierThatItHas) {
  const auto second = Lumo::allocate<Reactor>(followed, &log, 2);
  reactor->notifierIs(followed);
  change();
  EXPECT_THAT(log, ElementsAre(1, 2));
}

TEST_F(NotifieeTest, StaysUnregisteredWithANewNotifier) {
  const auto other = thing("other");
  reactor->isRegisteredNotifieeIs(false);
  reactor->notifierIs(other);
  other->valueIs(1);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(NotifieeTest, MayFollowNothing) {
  reactor->notifierIs(nullptr);
  EXPECT_EQ(reactor->lumoRawNotifier(), nullptr);
  EXPECT_FALSE(reactor->isRegisteredNotifiee());
  EXPECT_EQ(followed->notifieeList()->members(), 0u);
  reactor->isRegisteredNotifieeIs(true);
  EXPECT_FALSE(reactor->isRegisteredNotifiee());
}

TEST_F(NotifieeTest, AZombieIsOffTheListUntilRevived) {
  reactor->lumoDoZombieReactors(true);
  EXPECT_TRUE(reactor->lumoMarkedForDeletion());
  EXPECT_FALSE(reactor->isRegisteredNotifiee());
  change();
  EXPECT_THAT(log, IsEmpty());
  reactor->lumoDoZombieReactors(false);
  EXPECT_FALSE(reactor->lumoMarkedForDeletion());
  EXPECT_TRUE(reactor->isRegisteredNotifiee());
  change();
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(NotifieeTest, BecomingAZombieTwiceUnregistersOnce) {
  const auto fresh = Lumo::allocate<Fresh>();
  fresh->notifierIs(followed);
  fresh->isRegisteredNotifieeIs(true);
  fresh->registrations = 0;
  fresh->lumoDoZombieReactors(true);
  fresh->lumoDoZombieReactors(true);
  EXPECT_EQ(fresh->registrations, 1);
  EXPECT_FALSE(fresh->isRegisteredNotifiee());
}

TEST_F(NotifieeTest, AZombieWithoutANotifierOnlyGetsTheMark) {
  const auto fresh = Lumo::allocate<Fresh>();
  fresh->registrations = 0;
  fresh->lumoDoZombieReactors(true);
  EXPECT_TRUE(fresh->lumoMarkedForDeletion());
  EXPECT_TRUE(fresh->hasNotificationActive());
  EXPECT_EQ(fresh->registrations, 0);
  fresh->lumoDoZombieReactors(false);
  EXPECT_FALSE(fresh->lumoMarkedForDeletion());
}

TEST_F(NotifieeTest, LeavesTheListBeforeItIsDestroyed) {
  reactor = nullptr;
  EXPECT_EQ(followed->notifieeList()->members(), 0u);
  change();
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(NotifieeTest, MayOutliveItsHoldersInterestInTheNotifier) {
  followed = nullptr;
  EXPECT_EQ(reactor->lumoRawNotifier()->references(), 1u);
  reactor = nullptr;  // takes the notifier with it
}

// Listed by the test itself, without holding its notifier.
class Onlooker : public Lumo::NotifieeConst {
 public:
  void onZeroReferences() override { ++told; }
  int told = 0;
};

TEST_F(NotifieeTest, LearnsThatALooselyFollowedObjectGoes) {
  auto object = thing();
  const auto onlooker = Lumo::allocate<Onlooker>();
  object->notifieeList()->newMember(onlooker.ptr());
  const Ptr<Thing> another = object;
  object = nullptr;
  EXPECT_EQ(onlooker->told, 0);
  const_cast<Ptr<Thing>&>(another) = nullptr;
  EXPECT_EQ(onlooker->told, 1);
}

TEST_F(NotifieeTest, AnOnlookerMayPointAtTheObjectThatGoes) {
  struct Pointing : Lumo::NotifieeConst {
    void onZeroReferences() override {
      if (++told > 1) return;
      const Ptr<Thing> again(object);
    }
    Thing* object = nullptr;
    int told = 0;
  };
  auto object = thing();
  int gone = 0;
  object->onDestruction = [&] { ++gone; };
  const auto pointing = Lumo::allocate<Pointing>();
  pointing->object = object.ptr();
  object->notifieeList()->newMember(pointing.ptr());
  object = nullptr;
  EXPECT_EQ(pointing->told, 1);
  EXPECT_EQ(gone, 1);
}

TEST_F(NotifieeTest, AnOnlookerThatGoesFirstLeavesEveryListItIsOn) {
  const auto other = thing("other");
  auto onlooker = Lumo::allocate<Onlooker>();
  for (const auto& object : {followed, other}) object->notifieeList()->newMember(onlooker.ptr());
  EXPECT_EQ(followed->notifieeList()->members(), 2U);
  onlooker = nullptr;
  EXPECT_EQ(followed->notifieeList()->members(), 1U);
  EXPECT_EQ(other->notifieeList()->members(), 0U);
  change();
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(NotifieeTest, AnOnlookerMayOutliveTheListsItIsOn) {
  auto onlooker = Lumo::allocate<Onlooker>();
  for (int i = 0; i < 3; ++i) thing()->notifieeList()->newMember(onlooker.ptr());
  EXPECT_EQ(onlooker->told, 3);
  auto object = thing();
  object->notifieeList()->newMember(onlooker.ptr());
  object->notifieeList()->deleteMember(onlooker.ptr());
  object = nullptr;
  object = thing();
  object->notifieeList()->newMember(onlooker.ptr());
  object->notifieeList()->deleteAll();
  object = nullptr;
  EXPECT_EQ(onlooker->told, 3);
  onlooker = nullptr;
}

TEST_F(NotifieeTest, AnOnlookerAndWhatItLooksAtMayGoAtOnce) {
  for (int i = 0; i < 1000; ++i) {
    auto object = thing();
    auto onlooker = Lumo::allocate<Onlooker>();
    object->notifieeList()->newMember(onlooker.ptr());
    std::atomic<bool> go{false};
    std::thread other([&] {
      while (!go) {
      }
      onlooker = nullptr;
    });
    go = true;
    object = nullptr;
    other.join();
  }
}

TEST_F(NotifieeTest, OneEnteredByHandLeavesWhenItIsUnregistered) {
  followed->notifieeList()->deleteAll();
  followed->notifieeList()->newMember(reactor.ptr());
  change();
  EXPECT_THAT(log, ElementsAre(1));
  reactor->isRegisteredNotifieeIs(false);
  change();
  EXPECT_THAT(log, ElementsAre(1));
  reactor = nullptr;
  EXPECT_EQ(followed->notifieeList()->members(), 0U);
}

TEST_F(NotifieeTest, AReactorOfAnotherTypeIsNotCalled) {
  const auto onlooker = Lumo::allocate<Onlooker>();
  followed->notifieeList()->newMember(onlooker.ptr());
  change();
  EXPECT_THAT(log, ElementsAre(1));
  followed->notifieeList()->deleteMember(onlooker.ptr());
}

struct NotifieeDeathTest : NotifieeTest {
  NotifieeDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Fails while it is taken off the list.
class Stubborn : public Thing::NotifieeConst {
 public:
  explicit Stubborn(const Ptr<Thing const>& thing) : NotifieeConst(thing) {}
  ~Stubborn() override { lumoDoZombieReactors(true); }
  void isRegisteredNotifieeIs(bool registered) const override {
    if (!registered) throw std::runtime_error("not off the list");
    NotifieeConst::isRegisteredNotifieeIs(registered);
  }
};

TEST_F(NotifieeDeathTest, AnExceptionInAReactorsDestructionEndsTheProcess) {
  EXPECT_DEATH({ Lumo::allocate<Stubborn>(followed); }, "not off the list");
}

TEST_F(NotifieeTest, AZombieThatIsSwitchedOnAgainLeavesTheListWhenItGoes) {
  reactor->lumoDoZombieReactors(true);
  reactor->hasNotificationActiveIs(false);
  reactor->hasNotificationActiveIs(true);
  ASSERT_EQ(followed->notifieeList()->members(), 1U);
  reactor = nullptr;
  EXPECT_EQ(followed->notifieeList()->members(), 0U);
  change();
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(NotifieeTest, RefusesWhatItsTypeCannotFollow) {
  const Ptr<PtrInterface const> other = Lumo::allocate<Fresh>();
  try {
    reactor->notifierIs(other);
    FAIL() << "a thing's reactor follows another reactor";
  } catch (const Lumo::RangeException& error) {
    EXPECT_THAT(error.what(),
                testing::StartsWith("a reactor of type sample::Reactor cannot follow "));
  }
  change();
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(NotifieeTest, AnEntityWhoseHandlersDropItLivesUntilItsMutatorIsDone) {
  bool gone = false;
  followed->onDestruction = [&] { gone = true; };
  Thing* const entity = followed.ptr();
  const auto second = Lumo::allocate<Reactor>(followed, &log, 2);
  reactor->then = [&] {
    reactor->notifierIs(nullptr);
    second->notifierIs(nullptr);
    followed = nullptr;
    EXPECT_FALSE(gone);
  };
  entity->valueIs(1);
  EXPECT_TRUE(gone);
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(NotifieeTest, AZombieAlreadyIsLeftAloneByBecomingOne) {
  reactor->lumoDoZombieReactors(true);
  reactor->hasNotificationActiveIs(true);
  reactor->lumoDoZombieReactors(true);
  EXPECT_TRUE(reactor->isRegisteredNotifiee());
  reactor->lumoDoZombieReactors(false);
  reactor->hasNotificationActiveIs(false);
  reactor->lumoDoZombieReactors(false);
  EXPECT_FALSE(reactor->isRegisteredNotifiee());
}

TEST_F(NotifieeTest, IsMarkedOnceItIsOffTheList) {
  struct Marked : Reactor {
    using Reactor::Reactor;
    void hasNotificationActiveIs(bool active) override {
      marks.push_back(lumoMarkedForDeletion());
      Reactor::hasNotificationActiveIs(active);
    }
    std::vector<bool> marks;
  };
  const auto marked = Lumo::allocate<Marked>(followed, &log, 2);
  marked->marks.clear();
  marked->lumoDoZombieReactors(true);
  EXPECT_TRUE(marked->lumoMarkedForDeletion());
  marked->lumoDoZombieReactors(false);
  EXPECT_FALSE(marked->lumoMarkedForDeletion());
  EXPECT_THAT(marked->marks, ElementsAre(false, true));
}

}  // namespace
