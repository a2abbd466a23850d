#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Cancelled.h>
#include <support/Vanishing.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Thing.h"

namespace {

using Lumo::NotifieeConst;
using Lumo::Ptr;
using sample::Reactor;
using sample::Thing;
using sample::thing;
using testing::ElementsAre;
using testing::IsEmpty;

struct NotifieeListTest : testing::Test {
  Ptr<Thing> followed = thing();
  Reactor::Log log;
  std::vector<Ptr<Reactor>> reactors;

  Reactor& add() {
    const int number = static_cast<int>(reactors.size());
    reactors.push_back(Lumo::allocate<Reactor>(followed, &log, number));
    return *reactors.back();
  }
  void add(int count) {
    for (int i = 0; i < count; ++i) add();
  }
  void change() { followed->valueIs(followed->value() + 1); }
  Lumo::NotifieeList& list() { return *followed->notifieeList(); }
  std::vector<NotifieeConst*> visited() {
    std::vector<NotifieeConst*> seen;
    list().doVisit([&](NotifieeConst* notifiee) { seen.push_back(notifiee); });
    return seen;
  }
};

TEST_F(NotifieeListTest, DeliversInTheOrderOfRegistration) {
  add(4);
  reactors[1]->isRegisteredNotifieeIs(false);
  reactors[1]->isRegisteredNotifieeIs(true);
  change();
  EXPECT_THAT(log, ElementsAre(0, 2, 3, 1));
}

TEST_F(NotifieeListTest, HandsTheArgumentsOn) {
  struct Named : Thing::NotifieeConst {
    explicit Named(const Ptr<Thing const>& notifier) : NotifieeConst(notifier) {}
    void onPart(Lumo::Name name) override { part = name; }
    Lumo::Name part;
  };
  const auto named = Lumo::allocate<Named>(followed);
  followed->partNotify("wheel");
  EXPECT_EQ(named->part, "wheel");
}

TEST_F(NotifieeListTest, VisitsItsMembersWithoutOwningThem) {
  add(3);
  EXPECT_THAT(visited(), ElementsAre(reactors[0].ptr(), reactors[1].ptr(), reactors[2].ptr()));
  EXPECT_EQ(reactors[0]->references(), 1u);
  list().deleteMember(reactors[1].ptr());
  EXPECT_THAT(visited(), ElementsAre(reactors[0].ptr(), reactors[2].ptr()));
  list().newMember(reactors[1].ptr());
  EXPECT_THAT(visited(), ElementsAre(reactors[0].ptr(), reactors[2].ptr(), reactors[1].ptr()));
  list().deleteAll();
  EXPECT_THAT(visited(), IsEmpty());
  EXPECT_EQ(list().members(), 0u);
}

TEST_F(NotifieeListTest, OneThatWasEnteredByHandLeavesAloneAtItsEnd) {
  add(4);
  const auto other = thing();
  for (const auto& reactor : reactors) other->notifieeList()->newMember(reactor.ptr());
  std::sort(reactors.begin(), reactors.end(),
            [](const auto& a, const auto& b) { return std::less<>()(a.ptr(), b.ptr()); });
  while (!reactors.empty()) {
    reactors.erase(reactors.begin());
    EXPECT_EQ(other->notifieeList()->members(), reactors.size());
  }
}

// What they would disturb of each other is seen by the thread sanitizer.
TEST_F(NotifieeListTest, SeveralThreadsMayEnterByHand) {
  std::barrier together(2);
  const auto enter = [&] {
    const auto own = thing(), other = thing();
    Reactor::Log unused;
    const auto reactor = Lumo::allocate<Reactor>(own, &unused, 0);
    together.arrive_and_wait();
    for (int round = 0; round < 1000; ++round) {
      other->notifieeList()->newMember(reactor.ptr());
      if (round % 2 == 0) other->notifieeList()->deleteMember(reactor.ptr());
      if (round % 2 == 1) other->notifieeList()->deleteAll();
    }
    EXPECT_EQ(other->notifieeList()->members(), 0U);
  };
  std::thread another(enter);
  enter();
  another.join();
}

// Follows nothing, and is on the lists that it is entered in.
struct Listed : NotifieeConst {};

TEST_F(NotifieeListTest, OneThatWasEnteredByHandDoesNotLookForAListThatHasGone) {
  support::Vanishing<Lumo::NotifieeList> vanishing;
  auto stayed = Lumo::allocate<Listed>();
  auto left = Lumo::allocate<Listed>();
  vanishing->newMember(stayed.ptr());
  vanishing->newMember(left.ptr());
  vanishing->deleteMember(left.ptr());
  EXPECT_EQ(vanishing->members(), 1U);
  vanishing.end();
  stayed = nullptr;
  left = nullptr;
}

TEST_F(NotifieeListTest, SeveralThreadsMayChangeAndVisitOneList) {
  constexpr int threads = 4;
  std::barrier together(threads);
  const auto changeAndVisit = [&] {
    Reactor::Log unused;
    together.arrive_and_wait();
    for (int round = 0; round < 1000; ++round) {
      const auto registered = Lumo::allocate<Reactor>(followed, &unused, 0);
      const auto byHand = Lumo::allocate<Listed>();
      list().newMember(byHand.ptr());
      list().doVisit([](NotifieeConst*) {});
      if (round % 4 == 0) list().deleteAll();
      if (round % 4 == 1) list().deleteMember(byHand.ptr());
      if (round % 4 == 2) registered->isRegisteredNotifieeIs(false);
    }
  };
  std::vector<std::thread> changing;
  for (int i = 0; i < threads; ++i) changing.emplace_back(changeAndVisit);
  for (std::thread& thread : changing) thread.join();
  EXPECT_EQ(list().members(), 0U);
}

TEST_F(NotifieeListTest, DeletingWhatIsNotAMemberDoesNothing) {
  add(1);
  const auto other = thing();
  Reactor::Log unused;
  const auto stranger = Lumo::allocate<Reactor>(other, &unused, 9);
  list().deleteMember(stranger.ptr());
  EXPECT_EQ(list().members(), 1u);
}

TEST_F(NotifieeListTest, DoesNotTellWhoIsTakenOutByItsOwner) {
  Reactor& reactor = add();
  list().deleteAll();
  EXPECT_TRUE(reactor.isRegisteredNotifiee());
  reactor.isRegisteredNotifieeIs(true);  // so it thinks
  change();
  EXPECT_THAT(log, IsEmpty());
  reactor.isRegisteredNotifieeIs(false);
  reactor.isRegisteredNotifieeIs(true);
  change();
  EXPECT_THAT(log, ElementsAre(0));
}

TEST_F(NotifieeListTest, TheOneCalledIsHeldMeanwhile) {
  Reactor& reactor = add();
  U32 references = 0;
  reactor.then = [&] { references = reactor.references(); };
  change();
  EXPECT_EQ(references, 2u);
  EXPECT_EQ(reactor.references(), 1u);
}

TEST_F(NotifieeListTest, AReactorMayUnregisterItself) {
  add(3);
  reactors[1]->then = [&] { reactors[1]->isRegisteredNotifieeIs(false); };
  change();
  change();
  EXPECT_THAT(log, ElementsAre(0, 1, 2, 0, 2));
}

TEST_F(NotifieeListTest, AReactorMayDropItself) {
  add(3);
  reactors[1]->then = [&] { reactors[1] = nullptr; };
  change();
  change();
  EXPECT_THAT(log, ElementsAre(0, 1, 2, 0, 2));
}

TEST_F(NotifieeListTest, OneRemovedBeforeItsTurnIsNotCalled) {
  add(4);
  reactors[1]->then = [&] {
    reactors[2]->isRegisteredNotifieeIs(false);
    reactors[0]->isRegisteredNotifieeIs(false);
  };
  change();
  EXPECT_THAT(log, ElementsAre(0, 1, 3));
}

TEST_F(NotifieeListTest, OneDestroyedBeforeItsTurnIsNotCalled) {
  add(4);
  reactors[1]->then = [&] {
    reactors[2] = nullptr;
    reactors[0] = nullptr;
  };
  change();
  change();
  EXPECT_THAT(log, ElementsAre(0, 1, 3, 1, 3));
}

TEST_F(NotifieeListTest, OneAddedMeanwhileWaitsForTheNextChange) {
  add(2);
  reactors[0]->then = [&] {
    if (reactors.size() == 2) add();
  };
  change();
  EXPECT_THAT(log, ElementsAre(0, 1));
  change();
  EXPECT_THAT(log, ElementsAre(0, 1, 0, 1, 2));
}

TEST_F(NotifieeListTest, OneAddedByTheOnlyMemberWaitsForTheNextChange) {
  add(1);
  reactors[0]->then = [&] {
    if (reactors.size() == 1) add();
  };
  change();
  EXPECT_THAT(log, ElementsAre(0));
  change();
  EXPECT_THAT(log, ElementsAre(0, 0, 1));
}

TEST_F(NotifieeListTest, TheOnlyMemberMayUnregisterItself) {
  add(1);
  reactors[0]->then = [&] { reactors[0]->isRegisteredNotifieeIs(false); };
  change();
  change();
  EXPECT_THAT(log, ElementsAre(0));
  EXPECT_EQ(list().members(), 0u);
}

TEST_F(NotifieeListTest, TheOnlyMemberMayDropItself) {
  add(1);
  reactors[0]->then = [&] {
    reactors[0] = nullptr;
    EXPECT_EQ(list().members(), 1u);  // held for its call
  };
  change();
  EXPECT_EQ(list().members(), 0u);
  change();
  EXPECT_THAT(log, ElementsAre(0));
}

TEST_F(NotifieeListTest, TheOnlyMemberMayComeBackAndAddAnother) {
  add(1);
  reactors[0]->then = [&] {
    reactors[0]->isRegisteredNotifieeIs(false);
    reactors[0]->isRegisteredNotifieeIs(true);
    if (reactors.size() == 1) add();
  };
  change();
  EXPECT_THAT(log, ElementsAre(0));
  change();
  EXPECT_THAT(log, ElementsAre(0, 0, 1));
}

TEST_F(NotifieeListTest, OneThatLeftAndCameBackWaitsForTheNextChange) {
  add(2);
  reactors[0]->then = [&] {
    reactors[1]->isRegisteredNotifieeIs(false);
    reactors[1]->isRegisteredNotifieeIs(true);
  };
  change();
  EXPECT_THAT(log, ElementsAre(0));
  reactors[0]->then = nullptr;
  change();
  EXPECT_THAT(log, ElementsAre(0, 0, 1));
}

TEST_F(NotifieeListTest, AllMayGoAtOnce) {
  add(3);
  reactors[0]->then = [&] {
    reactors.clear();
    EXPECT_EQ(list().members(), 1u);  // this one, which is held for its call
  };
  change();
  EXPECT_EQ(list().members(), 0u);
  change();
  EXPECT_THAT(log, ElementsAre(0));
}

TEST_F(NotifieeListTest, TheListMayBeEmptiedByAHandler) {
  add(3);
  reactors[0]->then = [&] { list().deleteAll(); };
  change();
  change();
  EXPECT_THAT(log, ElementsAre(0));
}

TEST_F(NotifieeListTest, AChangeMayNestInAHandler) {
  add(2);
  reactors[0]->then = [&] {
    if (followed->value() < 3) change();
  };
  reactors[1]->then = [&] {
    if (followed->value() == 3) reactors[1]->isRegisteredNotifieeIs(false);
  };
  change();
  EXPECT_THAT(log, ElementsAre(0, 0, 0, 1));
  EXPECT_EQ(list().members(), 1u);
}

TEST_F(NotifieeListTest, MovingToAnotherNotifierInAHandlerIsSafe) {
  add(3);
  const auto other = thing();
  reactors[0]->then = [&] { reactors[1]->notifierIs(other); };
  change();
  EXPECT_THAT(log, ElementsAre(0, 2));
  other->valueIs(1);
  EXPECT_THAT(log, ElementsAre(0, 2, 1));
}

TEST_F(NotifieeListTest, AnExceptionReachesWhoeverMadeTheChange) {
  add(3);
  reactors[1]->then = [] { throw std::runtime_error("no"); };
  EXPECT_THROW(change(), std::runtime_error);
  EXPECT_EQ(followed->value(), 1);
  EXPECT_THAT(log, ElementsAre(0, 1));
  reactors[1]->then = nullptr;
  change();
  EXPECT_THAT(log, ElementsAre(0, 1, 0, 1, 2));
}

TEST_F(NotifieeListTest, AReactorMayKeepItsExceptionToItself) {
  add(3);
  std::string kept;
  reactors[1]->then = [] { throw std::runtime_error("no"); };
  reactors[1]->onException = [&] {
    try {
      throw;
    } catch (const std::runtime_error& exception) {
      kept = exception.what();
    }
  };
  change();
  EXPECT_EQ(kept, "no");
  EXPECT_THAT(log, ElementsAre(0, 1, 2));
}

TEST_F(NotifieeListTest, AnExceptionLeavesNoGapsBehind) {
  add(3);
  reactors[0]->then = [&] {
    reactors[1] = nullptr;
    throw std::runtime_error("no");
  };
  EXPECT_THROW(change(), std::runtime_error);
  EXPECT_THAT(visited(), ElementsAre(reactors[0].ptr(), reactors[2].ptr()));
}

// Random changes from within handlers, against a plain model of who is on the list.
TEST_F(NotifieeListTest, AgreesWithAModelUnderAnyChange) {
  constexpr int count = 12;
  std::mt19937 random(4711);
  add(count);
  std::vector<int> model;  // the order of the list
  for (int i = 0; i < count; ++i) model.push_back(i);
  std::vector<int> due;  // who is still to be called in this visit
  const auto toggle = [&](int number) {
    const auto at = std::find(model.begin(), model.end(), number);
    const bool on = at == model.end();
    on ? model.push_back(number) : void(model.erase(at));
    std::erase(due, number);
    reactors[static_cast<std::size_t>(number)]->isRegisteredNotifieeIs(on);
  };
  for (int i = 0; i < count; ++i) {
    reactors[static_cast<std::size_t>(i)]->then = [&, i] {
      ASSERT_FALSE(due.empty());
      EXPECT_EQ(due.front(), i);
      due.erase(due.begin());
      for (unsigned steps = random() % 4; steps != 0; --steps) {
        toggle(static_cast<int>(random() % count));
      }
    };
  }
  for (int round = 0; round < 2000; ++round) {
    due = model;
    change();
    EXPECT_THAT(due, IsEmpty());
    ASSERT_EQ(list().members(), model.size());
    if (model.empty()) toggle(static_cast<int>(random() % count));
  }
}

TEST_F(NotifieeListTest, MayBeChangedWhileAnotherThreadDelivers) {
  // Registers last, as it may be called from then on.
  struct Counting : Thing::NotifieeConst {
    Counting(const Ptr<Thing const>& notifier, std::atomic<int>* calls) : calls_(calls) {
      startFollowing(notifier);
    }
    ~Counting() override { lumoDoZombieReactors(true); }
    void onValue() override { ++*calls_; }
    std::atomic<int>* calls_;
  };
  std::atomic<int> calls{0};
  std::atomic<bool> done{false};
  const auto permanent = Lumo::allocate<Counting>(followed, &calls);
  std::thread deliverer([&] {
    while (!done) change();
  });
  int comers = 0;
  while (comers < 2000 || calls < 2000) {
    const auto passing = Lumo::allocate<Counting>(followed, &calls);
    passing->isRegisteredNotifieeIs(false);
    passing->isRegisteredNotifieeIs(true);
    ++comers;
  }
  done = true;
  deliverer.join();
  EXPECT_EQ(list().members(), 1u);
}

TEST_F(NotifieeListTest, AThreadMayBeCancelledInAHandler) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "of a cancelled thread the sanitizer takes the frames that it has left for live";
#endif
  add(2);
  reactors[0]->onException = [] {};
  reactors[0]->then = [] {
    ::pthread_cancel(::pthread_self());
    ::pthread_testcancel();
  };
  EXPECT_TRUE(support::isCancelledIn([&] { change(); }));
  EXPECT_THAT(log, ElementsAre(0));
  reactors[0]->then = nullptr;
  change();
  EXPECT_THAT(log, ElementsAre(0, 0, 1));
}

}  // namespace
