#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Cancelled.h>

#include <functional>
#include <limits>
#include <stdexcept>

#include <Lumo/Clock.h>

namespace {

using Lumo::Clock;
using Lumo::NotifieeListClockKey;
using Lumo::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;

class Alarm : public Clock::NotifieeConst {
 public:
  Alarm(const Ptr<Clock const>& clock, std::vector<int>* log, int number)
      : NotifieeConst(clock), log_(log), number_(number) {}
  ~Alarm() override { doZombieReactor(true); }
  void onTime() override {
    log_->push_back(number_);
    if (then) then();
  }
  std::function<void()> then;

 private:
  std::vector<int>* log_;
  int number_;
};

// Follows the clock and leaves onTime() to the base.
class Deaf : public Clock::NotifieeConst {
 public:
  explicit Deaf(const Ptr<Clock const>& clock) : NotifieeConst(clock) {}
};

struct ClockTest : testing::Test {
  Ptr<Clock> clock = Clock::ClockIs("test");
  std::vector<int> log;

  Ptr<Alarm> alarm(int number, double time) {
    auto made = Lumo::allocate<Alarm>(clock, &log, number);
    made->timeoutIs(time);
    return made;
  }
};

TEST(NotifieeListClockKey, OrdersByTimeAndThenByNumber) {
  const NotifieeListClockKey early{1.0, 9};
  const NotifieeListClockKey late{1.5, 0};
  const NotifieeListClockKey later{1.5, 1};
  EXPECT_TRUE(early < late && late < later && early < later);
  EXPECT_FALSE(late < early || later < late || late < late);
}

TEST_F(ClockTest, HasANameAndATime) {
  EXPECT_EQ(clock->name(), "test");
  EXPECT_EQ(clock->time(), 0);
  EXPECT_LT(clock->nextTimeout(), 0);
  const U64 version = clock->fwkEntityVersion();
  clock->timeIs(2.5);
  EXPECT_EQ(clock->time(), 2.5);
  EXPECT_EQ(clock->fwkEntityVersion(), version + 1);
}

TEST_F(ClockTest, CallsWhoeverIsDueInTheOrderOfTheirTimes) {
  const auto third = alarm(3, 3);
  const auto first = alarm(1, 1);
  const auto second = alarm(2, 2);
  const auto fourth = alarm(4, 4);
  EXPECT_EQ(clock->nextTimeout(), 1);
  clock->timeIs(0.5);
  EXPECT_THAT(log, IsEmpty());
  clock->timeIs(3);
  EXPECT_THAT(log, ElementsAre(1, 2, 3));
  EXPECT_EQ(clock->nextTimeout(), 4);
}

TEST_F(ClockTest, ServesRequestsForOneTimeInTheirOrder) {
  const auto a = alarm(1, 2);
  const auto b = alarm(2, 2);
  a->timeoutIs(2);  // asks again, and stands behind now
  clock->timeIs(2);
  EXPECT_THAT(log, ElementsAre(2, 1));
}

TEST_F(ClockTest, UsesARequestUp) {
  const auto a = alarm(1, 1);
  clock->timeIs(1);
  clock->timeIs(5);
  EXPECT_THAT(log, ElementsAre(1));
  EXPECT_LT(clock->nextTimeout(), 0);
}

TEST_F(ClockTest, CallsAFreshReactorAtTheNextEvent) {
  const auto fresh = Lumo::allocate<Alarm>(clock, &log, 1);
  clock->timeIs(clock->time());
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(ClockTest, AHandlerMayAskForMore) {
  const auto a = alarm(1, 1);
  a->then = [&] { a->timeoutIs(clock->time() + 1); };
  clock->timeIs(1);
  clock->timeIs(2);
  EXPECT_THAT(log, ElementsAre(1, 1));
  EXPECT_EQ(clock->nextTimeout(), 3);
}

TEST_F(ClockTest, ARequestForThePastWaitsForTheNextEvent) {
  const auto a = alarm(1, 1);
  a->then = [&] { a->timeoutIs(0); };
  clock->timeIs(1);
  EXPECT_THAT(log, ElementsAre(1));
  clock->timeIs(1);
  EXPECT_THAT(log, ElementsAre(1, 1));
}

TEST_F(ClockTest, ForgetsOneThatIsInactiveOrGone) {
  const auto a = alarm(1, 1);
  auto b = alarm(2, 1);
  a->hasNotificationActiveIs(false);
  b = nullptr;
  clock->timeIs(2);
  EXPECT_THAT(log, IsEmpty());
  EXPECT_EQ(clock->notifieeList()->members(), 0u);
}

TEST_F(ClockTest, CallsOneThatBecomesActiveAgain) {
  const auto a = alarm(1, 100);
  a->hasNotificationActiveIs(false);
  a->hasNotificationActiveIs(true);
  clock->timeIs(1);
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(ClockTest, OneWithdrawnByAHandlerIsNotCalled) {
  auto a = alarm(1, 1);
  auto b = alarm(2, 2);
  auto c = alarm(3, 3);
  a->then = [&] {
    b = nullptr;
    c->isRegisteredNotifieeIs(false);
  };
  clock->timeIs(3);
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(ClockTest, AReactorMayDropItself) {
  auto a = alarm(1, 1);
  a->then = [&] { a = nullptr; };
  clock->timeIs(1);
  clock->timeIs(2);
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(ClockTest, AnUnregisteredReactorCannotAsk) {
  const auto a = alarm(1, 1);
  a->isRegisteredNotifieeIs(false);
  a->timeoutIs(1);
  clock->timeIs(1);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(ClockTest, AReactorMayMoveToAnotherClock) {
  const auto other = Clock::ClockIs("other");
  const auto a = alarm(1, 1);
  a->notifierIs(other);
  EXPECT_EQ(a->notifier(), other);
  clock->timeIs(2);
  EXPECT_THAT(log, IsEmpty());
  other->timeIs(0);
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(ClockTest, AnExceptionLeavesTheOthersScheduled) {
  const auto a = alarm(1, 1);
  const auto b = alarm(2, 2);
  a->then = [] { throw std::runtime_error("no"); };
  EXPECT_THROW(clock->timeIs(2), std::runtime_error);
  EXPECT_THAT(log, ElementsAre(1));
  clock->timeIs(2);
  EXPECT_THAT(log, ElementsAre(1, 2));
}

TEST_F(ClockTest, TellsOfARequestBeforeAllOthers) {
  const auto a = alarm(1, 5);
  const auto b = alarm(2, 7);
  std::vector<double> told;
  clock->earlierRequestHookIs([&] { told.push_back(clock->nextTimeout()); });
  b->timeoutIs(6);
  b->timeoutIs(5);
  EXPECT_THAT(told, IsEmpty());
  b->timeoutIs(4);
  b->timeoutIs(4.5);  // later than it was, and still the first
  b->timeoutIs(3);
  EXPECT_THAT(told, ElementsAre(4, 3));
  clock->earlierRequestHookIs(nullptr);
  b->timeoutIs(2);
  EXPECT_THAT(told, ElementsAre(4, 3));
}

TEST_F(ClockTest, TellsOfTheFirstRequestOfAll) {
  const auto a = alarm(1, 1);
  clock->timeIs(1);
  int told = 0;
  clock->earlierRequestHookIs([&] { ++told; });
  a->timeoutIs(9);
  EXPECT_EQ(told, 1);
}

TEST_F(ClockTest, TellsOfARequestForItsBeginningAndOfNoneBehindIt) {
  const auto a = alarm(1, 1);
  clock->timeIs(1);
  int told = 0;
  clock->earlierRequestHookIs([&] { ++told; });
  a->timeoutIs(0);
  EXPECT_EQ(told, 1);
  const auto b = alarm(2, 6);
  EXPECT_EQ(told, 1);
  EXPECT_EQ(clock->nextTimeout(), 0);
}

TEST_F(ClockTest, ARequestBeforeTheBeginningIsNotNobodys) {
  const auto a = alarm(1, -1);
  EXPECT_EQ(clock->nextTimeout(), 0);
  clock->timeIs(0);
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(ClockTest, TheBaseReactorDoesNothingOnTime) {
  const auto deaf = Lumo::allocate<Deaf>(clock);
  EXPECT_EQ(deaf->notifier(), clock);
  EXPECT_TRUE(deaf->isRegisteredNotifiee());
  clock->timeIs(1);
  EXPECT_LT(clock->nextTimeout(), 0);
  EXPECT_TRUE(deaf->isRegisteredNotifiee());
}

TEST(NotifieeListClockKey, IsMadeOfATimeAndANumber) {
  const NotifieeListClockKey key(1.0, 2);
  EXPECT_EQ(key.time, 1.0);
  EXPECT_EQ(key.seq, 2);
  EXPECT_EQ(NotifieeListClockKey().time, 0);
}

TEST_F(ClockTest, AZombieThatIsSwitchedOnAgainLeavesListAndScheduleWhenItGoes) {
  auto reactor = alarm(1, 5);
  reactor->hasNotificationActiveIs(false);
  reactor->lumoMarkedForDeletionIs(true);
  reactor->hasNotificationActiveIs(true);
  reactor->timeoutIs(5);
  ASSERT_GE(clock->nextTimeout(), 0);
  reactor = nullptr;
  EXPECT_LT(clock->nextTimeout(), 0);
  EXPECT_EQ(clock->notifieeList()->members(), 0U);
  clock->timeIs(9);
  EXPECT_THAT(log, IsEmpty());
}

TEST_F(ClockTest, RefusesWhatIsNoNumberAndKeepsTheFormerRequest) {
  const auto reactor = alarm(1, 5);
  const double notANumber = std::numeric_limits<double>::quiet_NaN();
  EXPECT_THROW(reactor->timeoutIs(notANumber), Lumo::RangeException);
  EXPECT_EQ(clock->nextTimeout(), 5);
  EXPECT_THROW(clock->timeIs(notANumber), Lumo::RangeException);
  EXPECT_EQ(clock->time(), 0);
  clock->timeIs(5);
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(ClockTest, ARequestForInfinityWaitsForEver) {
  const auto never = alarm(1, std::numeric_limits<double>::infinity());
  EXPECT_LT(clock->nextTimeout(), 0);
  const auto soon = alarm(2, 3);
  EXPECT_EQ(clock->nextTimeout(), 3);
  clock->timeIs(1e300);
  EXPECT_THAT(log, ElementsAre(2));
  never->timeoutIs(-std::numeric_limits<double>::infinity());
  EXPECT_EQ(clock->nextTimeout(), 0);
  clock->timeIs(0);
  EXPECT_THAT(log, ElementsAre(2, 1));
}

TEST_F(ClockTest, TheSameTimeAgainChangesNothingThatSomebodyReliesOn) {
  clock->timeIs(2);
  const Lumo::FwkEntityReadsPreserve preserved(clock.ptr());
  const U64 version = clock->fwkEntityVersion();
  clock->timeIs(2);
  EXPECT_EQ(clock->fwkEntityVersion(), version + 1);
}

struct ClockDeathTest : ClockTest {
  ClockDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(ClockDeathTest, RefusesToMoveWhileSomebodyReliesOnItsTime) {
  EXPECT_DEATH(
      {
        const Lumo::FwkEntityReadsPreserve preserved(clock.ptr());
        clock->timeIs(1);
      },
      testing::HasSubstr("!Lumo::FwkEntityReadsPreserve::anyActive( this )"));
}

TEST_F(ClockTest, ThoseOfTheSameTimeKeepTheirOrderHoweverOftenTheyAskAgain) {
  const auto first = alarm(1, 5);
  const auto second = alarm(2, 5);
  const auto third = alarm(3, 5);
  for (int i = 0; i < 1000; ++i) second->timeoutIs(5);
  first->timeoutIs(5);
  clock->timeIs(5);
  EXPECT_THAT(log, ElementsAre(3, 2, 1));
}

TEST_F(ClockTest, TheLastOfItsTimeStaysTheLastWhenItAsksAgain) {
  const auto first = alarm(1, 5);
  const auto second = alarm(2, 5);
  second->timeoutIs(5);
  const auto third = alarm(3, 5);
  clock->timeIs(5);
  EXPECT_THAT(log, ElementsAre(1, 2, 3));
}

// It is the last of its time again, so its new request stands where the withdrawn one stood.
TEST_F(ClockTest, ARequestMadeInPlaceOfAWithdrawnOneWaitsForTheNextEvent) {
  const auto first = alarm(1, 1);
  const auto second = alarm(2, 1);
  const auto third = alarm(3, 1);
  first->then = [&] { third->timeoutIs(1); };
  clock->timeIs(1);
  EXPECT_THAT(log, ElementsAre(1, 2));
  clock->timeIs(1);
  EXPECT_THAT(log, ElementsAre(1, 2, 3));
}

TEST_F(ClockTest, MayBeDroppedByAHandlerOfItsOwn) {
  auto reactor = alarm(1, 1);
  reactor->then = [&] {
    reactor->notifierIs(nullptr);
    clock = nullptr;
  };
  clock->timeIs(1);
  EXPECT_THAT(log, ElementsAre(1));
}

// Both reactors are due and let the clock go in the first call: what is left to do looks at the
// schedule once more.
TEST_F(ClockTest, LivesUntilItsEventIsDone) {
  struct Onlooker : Lumo::NotifieeConst {
    void onZeroReferences() override { gone = true; }
    bool gone = false;
  };
  const auto onlooker = Lumo::allocate<Onlooker>();
  clock->notifieeList()->newMember(onlooker.ptr());
  const auto first = alarm(1, 1);
  const auto second = alarm(2, 1);
  first->then = [&] {
    first->notifierIs(nullptr);
    second->notifierIs(nullptr);
    clock = nullptr;
    EXPECT_FALSE(onlooker->gone);
  };
  clock->timeIs(1);
  EXPECT_THAT(log, ElementsAre(1));
  EXPECT_TRUE(onlooker->gone);
}

TEST_F(ClockTest, RefusesToBeFollowedAsSomethingElse) {
  const auto reactor = alarm(1, 5);
  const Ptr<Lumo::PtrInterface const> other = alarm(2, 9);
  EXPECT_THROW(reactor->notifierIs(other), Lumo::RangeException);
  EXPECT_EQ(reactor->notifier(), clock);
  clock->timeIs(5);
  EXPECT_THAT(log, ElementsAre(1));
}

TEST_F(ClockTest, ARequestUsedUpTakesNobodyElsesPlace) {
  const auto first = alarm(1, 5);
  clock->timeIs(5);
  const auto second = alarm(2, 5);
  first->timeoutIs(6);
  clock->timeIs(6);
  EXPECT_THAT(log, ElementsAre(1, 2, 1));
}

TEST_F(ClockTest, AThreadMayBeCancelledInAHandler) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "of a cancelled thread the sanitizer takes the frames that it has left for live";
#endif
  struct Forgiving : Alarm {
    using Alarm::Alarm;
    ~Forgiving() override { doZombieReactor(true); }
    void onNotificationException() override {}
  };
  const auto reactor = Lumo::allocate<Forgiving>(clock, &log, 1);
  reactor->timeoutIs(5);
  reactor->then = [] {
    ::pthread_cancel(::pthread_self());
    ::pthread_testcancel();
  };
  EXPECT_TRUE(support::isCancelledIn([&] { clock->timeIs(5); }));
  EXPECT_THAT(log, ElementsAre(1));
}

}  // namespace
