// How the manager follows named queues.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Agent.h>
#include <support/Mortal.h>
#include <support/TraceRecorder.h>

#include <functional>

#include <Lumo/GenericIf.h>

namespace {

using namespace Norv;
using support::TraceRecorder;
using testing::ElementsAre;

// The first reactor of a type on an object, held.
template <class Reactor>
Lumo::Ptr<Reactor> reactorOn(const Lumo::PtrInterface& object) {
  Lumo::Ptr<Reactor> found;
  object.notifieeList()->doVisit([&](Lumo::NotifieeConst* notifiee) {
    if (auto* reactor = dynamic_cast<Reactor*>(notifiee); reactor && !found) found = reactor;
  });
  return found;
}

// An agent in simulation: batches can be seen in the pending queue.
struct Tracking : testing::Test {
  Tracking() { agent.connect(1); }
  Lumo::Ptr<CmdConfigGroupSm> machine(const char* name = "main") {
    return agent.manager->cmdConfigGroupSm(name);
  }
  static std::size_t handled(const TraceRecorder& trace) {
    return trace.count("void Norv::CmdConfigGroupSm::handleBatch()");
  }

  support::Environment simulation{"SIMULATION_NORV", "1"};
  support::Agent agent;
};

TEST_F(Tracking, MakesAMachineForEveryQueueThatComes) {
  const TraceRecorder trace("NorvConnectionsMgr/5");
  const auto queue = agent.queue("a");
  ASSERT_TRUE(machine("a"));
  EXPECT_EQ(machine("a")->configGroup(), queue);
  EXPECT_EQ(machine("a")->name(), Lumo::Name("a"));
  EXPECT_EQ(machine("a")->connectionsMgr(), agent.manager.ptr());
  EXPECT_THAT(trace.texts(),
              ElementsAre("void Norv::ConnectionsMgr::handleCmdConfigGroup(Lumo::Name) a",
                          "Creating a CmdConfigGroupSm for a",
                          "void Norv::CmdConfigGroupSm::handleBatch()"));
}

TEST_F(Tracking, SaysSoAgainForAQueueItFollowsAlready) {
  agent.queue("a");
  const auto first = machine("a");
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.manager->handleCmdConfigGroup("a");
  EXPECT_EQ(trace.count("Creating a CmdConfigGroupSm for a"), 1u);
  EXPECT_EQ(machine("a"), first);
  EXPECT_EQ(agent.manager->cmdConfigGroupSms(), 1u);
}

TEST_F(Tracking, HearsOfAQueueThroughItsForwardingMember) {
  agent.queue("a");
  agent.manager->cmdConfigGroupSmDelAll();
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.manager->lumo_handleGlobalCmdConfig_cmdConfigGroup("a");
  EXPECT_EQ(trace.texts().at(0), "void Norv::ConnectionsMgr::handleCmdConfigGroup(Lumo::Name) a");
  EXPECT_TRUE(machine("a"));
}

TEST_F(Tracking, IgnoresQueuesWhileItIsNotInitialized) {
  agent.manager->initializedIs(false);
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.queue("a");
  EXPECT_FALSE(machine("a"));
  EXPECT_THAT(trace.texts(),
              ElementsAre("void Norv::ConnectionsMgr::handleCmdConfigGroup(Lumo::Name) a"));
  agent.manager->handleInitialized();
  EXPECT_TRUE(machine("a"));
}

TEST_F(Tracking, MovesWhatAlreadyWaitsInAQueueThatComes) {
  const auto queue = CmdConfigGroup::CmdConfigGroupIs("a");
  queue->cmdBatchEnq(agent.command());
  agent.config->cmdConfigGroupIs(queue);
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
}

TEST_F(Tracking, LetsARemovedQueueGo) {
  const auto queue = agent.queue("a");
  const U32 before = queue->references();
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.config->cmdConfigGroupDel("a");
  EXPECT_EQ(trace.count("Deleting the CmdConfigGroupSm for a"), 1u);
  EXPECT_FALSE(machine("a"));
  EXPECT_EQ(queue->references(), before - 2);  // the collection's and the machine's
  queue->cmdBatchEnq(agent.command());
  queue->enqueueVersionInc(1);
  EXPECT_EQ(queue->cmdBatchs(), 1u);
  agent.manager->handleCmdConfigGroup("a");  // nothing to delete
}

TEST_F(Tracking, GivesTheSameMachineForTheSameQueue) {
  const auto queue = agent.queue("a");
  EXPECT_EQ(agent.manager->cmdConfigGroupSmIs(queue), machine("a"));
  const auto unknown = CmdConfigGroup::CmdConfigGroupIs("b");
  EXPECT_EQ(agent.manager->cmdConfigGroupSmIs(unknown)->configGroup(), unknown);
}

std::string renameMessage(const Lumo::Ptr<CmdConfigGroup>& fresh,
                          const Lumo::Ptr<CmdConfigGroup>& old) {
  return "Reinstantiating the pointer interface where constructor parameter attribute "
         "_configGroup has a different value of " +
         Lumo::objectStrep(fresh.ptr()).stdString() + " than the current value of " +
         Lumo::objectStrep(old.ptr()).stdString() + " not allowed";
}

TEST_F(Tracking, RefusesAnotherQueueOfTheSameName) {
  const auto old = agent.queue("a");
  const Lumo::Ptr<CmdConfigGroup> fresh = CmdConfigGroup::CmdConfigGroupIs("a");
  try {
    agent.manager->cmdConfigGroupSmIs(fresh);
    FAIL() << "taken";
  } catch (const Lumo::NameInUseException& exception) {
    EXPECT_EQ(exception.what(), renameMessage(fresh, old));
  }
  EXPECT_EQ(machine("a")->configGroup(), old);
}

TEST_F(Tracking, KeptOnPurposeReplacingAQueueInTheCollectionRaisesAfterItIsStored) {
  const auto old = agent.queue("a");
  const Lumo::Ptr<CmdConfigGroup> fresh = CmdConfigGroup::CmdConfigGroupIs("a");
  const TraceRecorder trace("NorvConnectionsMgr/5");
  EXPECT_THROW(agent.config->cmdConfigGroupIs(fresh), Lumo::NameInUseException);
  EXPECT_EQ(trace.count("Creating a CmdConfigGroupSm for a"), 1u);
  EXPECT_EQ(agent.config->cmdConfigGroup("a"), fresh);
  EXPECT_EQ(machine("a")->configGroup(), old);
}

TEST_F(Tracking, HandlesABatchWhenOneIsAnnounced) {
  agent.enqueue();
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.announce();
  EXPECT_EQ(handled(trace), 1u);
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
}

TEST_F(Tracking, DoesNothingForAnEmptyQueue) {
  agent.queue("main");
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.announce();
  EXPECT_THAT(trace.texts(), ElementsAre("void Norv::CmdConfigGroupSm::handleBatch()"));
}

TEST_F(Tracking, FollowsAnotherQueueWithTheSameReactor) {
  const auto old = agent.queue("a");
  const auto other = CmdConfigGroup::CmdConfigGroupIs("b");
  other->cmdBatchEnq(agent.command());
  const TraceRecorder trace("NorvConnectionsMgr/5");
  machine("a")->configGroupIs(old);
  EXPECT_EQ(handled(trace), 0u);
  machine("a")->configGroupIs(other);
  EXPECT_EQ(handled(trace), 1u);
  EXPECT_EQ(other->cmdBatchs(), 0u);
  old->cmdBatchEnq(agent.command());
  old->enqueueVersionInc(1);
  EXPECT_EQ(old->cmdBatchs(), 1u);
  other->cmdBatchEnq(agent.command());
  other->enqueueVersionInc(1);
  EXPECT_EQ(other->cmdBatchs(), 0u);
}

TEST_F(Tracking, KeptOnPurposeAQueueSetAfterDroppingOneIsNotMoved) {
  const auto queue = agent.queue("a");
  const auto machineOfA = machine("a");
  machineOfA->configGroupDel();
  EXPECT_EQ(machineOfA->configGroup(), nullptr);
  EXPECT_TRUE(machineOfA->name().empty());
  queue->cmdBatchEnq(agent.command());
  queue->enqueueVersionInc(1);
  EXPECT_EQ(queue->cmdBatchs(), 1u);
  const TraceRecorder trace("NorvConnectionsMgr/5");
  machineOfA->configGroupIs(queue);
  EXPECT_EQ(handled(trace), 0u);
  EXPECT_EQ(queue->cmdBatchs(), 1u);
  queue->enqueueVersionInc(1);
  EXPECT_EQ(queue->cmdBatchs(), 0u);
}

TEST_F(Tracking, AClockChangesNothing) {
  const auto clock = Lumo::Clock::ClockIs("clock");
  agent.enqueue();
  machine()->clockIs(clock);
  EXPECT_EQ(machine()->clock(), clock);
  const TraceRecorder trace("NorvConnectionsMgr/5");
  clock->timeIs(1);
  clock->timeIs(2);
  EXPECT_THAT(trace.texts(), ElementsAre());
  agent.announce();
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
  machine()->clockDel();
  EXPECT_EQ(machine()->clock(), nullptr);
}

TEST_F(Tracking, ZombieReactorsStayQuietUntilRevived) {
  agent.enqueue();
  const auto watched = machine();
  watched->clockIs(Lumo::Clock::ClockIs("clock"));
  watched->lumoDoZombieReactors(true);
  EXPECT_TRUE(watched->lumoMarkedForDeletion());
  agent.announce();
  EXPECT_EQ(agent.pending->cmdBatchs(), 0u);
  watched->lumoDoZombieReactors(false);
  agent.announce();
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
}

TEST_F(Tracking, ReactorsOfAZombieAreZombies) {
  const auto other = CmdConfigGroup::CmdConfigGroupIs("b");
  other->cmdBatchEnq(agent.command());
  agent.queue("a");
  const auto watched = machine("a");
  watched->lumoDoZombieReactors(true);
  const TraceRecorder trace("NorvConnectionsMgr/5");
  watched->configGroupIs(other);
  watched->configGroupDel();
  watched->configGroupIs(other);
  other->enqueueVersionInc(1);
  EXPECT_EQ(handled(trace), 0u);
  watched->lumoDoZombieReactors(false);
  other->enqueueVersionInc(1);
  EXPECT_EQ(handled(trace), 1u);
}

TEST_F(Tracking, TheManagersZombieStateStopsAtItsOwnReactor) {
  agent.enqueue();
  agent.manager->lumoDoZombieReactors(true);
  agent.queue("later");
  EXPECT_FALSE(machine("later"));
  agent.announce();
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
  agent.manager->lumoDoZombieReactors(false);
}

TEST_F(Tracking, NotificationIsSwitchedForAllReactorsAtOnce) {
  agent.enqueue();
  agent.manager->hasNotificationActiveIs(false);
  agent.announce();
  agent.queue("later");
  EXPECT_EQ(agent.pending->cmdBatchs(), 0u);
  EXPECT_FALSE(machine("later"));
  agent.manager->hasNotificationActiveIs(true);
  agent.announce();
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
  machine()->hasNotificationActiveIs(false);
  agent.enqueue();
  agent.announce();
  EXPECT_EQ(agent.queue()->cmdBatchs(), 1u);
  machine()->hasNotificationActiveIs(true);
}

TEST_F(Tracking, AnotherCollectionIsOnlyFollowed) {
  agent.queue("a");
  const auto other = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("other");
  other->cmdConfigGroupIs(CmdConfigGroup::CmdConfigGroupIs("b"));
  agent.manager->globalCmdConfigIs(other);
  EXPECT_EQ(agent.manager->globalCmdConfig(), other);
  EXPECT_TRUE(machine("a"));
  EXPECT_FALSE(machine("b"));
  other->cmdConfigGroupIs(CmdConfigGroup::CmdConfigGroupIs("c"));
  EXPECT_TRUE(machine("c"));
}

TEST_F(Tracking, HearsAgainAfterItFollowedNoCollection) {
  agent.queue("a");
  agent.manager->globalCmdConfigIs(nullptr);
  EXPECT_EQ(agent.manager->globalCmdConfig(), nullptr);
  agent.queue("b");
  EXPECT_TRUE(machine("a"));
  EXPECT_FALSE(machine("b"));
  const auto other = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("other");
  agent.manager->globalCmdConfigIs(other);
  EXPECT_EQ(agent.manager->globalCmdConfig(), other);
  other->cmdConfigGroupIs(CmdConfigGroup::CmdConfigGroupIs("c"));
  EXPECT_TRUE(machine("c"));
}

TEST_F(Tracking, AZombieHearsNothingOfACollectionSetAfterNone) {
  agent.manager->globalCmdConfigIs(nullptr);
  agent.manager->lumoDoZombieReactors(true);
  agent.manager->globalCmdConfigIs(agent.config);
  agent.queue("a");
  EXPECT_FALSE(machine("a"));
  agent.manager->lumoDoZombieReactors(false);
  agent.queue("b");
  EXPECT_TRUE(machine("b"));
}

TEST_F(Tracking, MachinesAreDeletedByNameIteratorAndAllAtOnce) {
  for (const char* name : {"a", "b", "c", "d"}) agent.queue(name);
  EXPECT_TRUE(agent.manager->cmdConfigGroupSmDel("a"));
  EXPECT_FALSE(agent.manager->cmdConfigGroupSmDel("a"));
  auto iterator = agent.manager->cmdConfigGroupSmIterator();
  EXPECT_TRUE(agent.manager->cmdConfigGroupSmDel(iterator));
  EXPECT_FALSE(machine("b"));
  agent.manager->cmdConfigGroupSmDelAll();
  EXPECT_EQ(agent.manager->cmdConfigGroupSms(), 0u);
}

TEST_F(Tracking, AMachineMayFollowNoQueue) {
  const TraceRecorder trace("NorvConnectionsMgr/5");
  const auto alone = cmdConfigGroupSmFactory(nullptr, agent.manager.ptr());
  EXPECT_EQ(handled(trace), 1u);
  EXPECT_TRUE(alone->name().empty());
  EXPECT_STREQ(alone->fwkType()->typeName(), "Norv::CmdConfigGroupSm");
}

// A producer that removes its queue from the collection as soon as a command leaves it.
class Remover : public CmdConfigGroup::NotifieeConst {
 public:
  Remover(const Lumo::Ptr<CmdConfigGroup>& queue, support::Agent* agent)
      : NotifieeConst(queue), agent_(agent) {}
  using CmdConfigGroup::NotifieeConst::onCmdBatch;
  void onCmdBatch(U32 index) override {
    if (!notifier()->cmdBatchHas(index)) agent_->config->cmdConfigGroupDel("main");
  }

 private:
  support::Agent* const agent_;
};

TEST_F(Tracking, SurvivesAProducerThatRemovesItsQueueMeanwhile) {
  agent.enqueue();
  agent.enqueue();
  const auto remover = Lumo::allocate<Remover>(agent.queue(), &agent);
  agent.announce();
  EXPECT_FALSE(machine());
  EXPECT_EQ(agent.pending->cmdBatchs(), 2u);
}

TEST_F(Tracking, KeptOnPurposeAQueueRemovedWhileItsMachineIsMadeLeavesTheMachine) {
  const auto queue = CmdConfigGroup::CmdConfigGroupIs("main");
  queue->cmdBatchEnq(agent.command());
  const auto remover = Lumo::allocate<Remover>(queue, &agent);
  agent.config->cmdConfigGroupIs(queue);
  EXPECT_FALSE(agent.config->cmdConfigGroupHas("main"));
  ASSERT_TRUE(machine());
  EXPECT_EQ(machine()->configGroup(), queue);
  EXPECT_THROW(agent.config->cmdConfigGroupIs(CmdConfigGroup::CmdConfigGroupIs("main")),
               Lumo::NameInUseException);
  // The way out: the new queue is in the collection, and removing it removes the machine.
  agent.config->cmdConfigGroupDel("main");
  EXPECT_FALSE(machine());
}

TEST_F(Tracking, AMachineThatWasLeftBehindGoesWithItsQueueAddedOnceMore) {
  const auto queue = CmdConfigGroup::CmdConfigGroupIs("main");
  queue->cmdBatchEnq(agent.command());
  auto remover = Lumo::allocate<Remover>(queue, &agent);
  agent.config->cmdConfigGroupIs(queue);
  remover = nullptr;
  agent.config->cmdConfigGroupDel("main");
  ASSERT_TRUE(machine());
  agent.config->cmdConfigGroupIs(queue);
  agent.config->cmdConfigGroupDel("main");
  EXPECT_FALSE(machine());
}

TEST_F(Tracking, KnowsWhetherItHasAMachine) {
  EXPECT_FALSE(agent.manager->cmdConfigGroupSmHas("main"));
  agent.queue();
  EXPECT_TRUE(agent.manager->cmdConfigGroupSmHas("main"));
  EXPECT_FALSE(agent.manager->cmdConfigGroupSmHas("other"));
}

TEST_F(Tracking, AMachineThatOutlivesItsQueueMovesNothing) {
  const auto queue = agent.queue();
  const auto kept = machine();
  agent.config->cmdConfigGroupDel("main");
  EXPECT_TRUE(kept->lumoMarkedForDeletion());
  EXPECT_EQ(kept->connectionsMgr(), nullptr);
  queue->cmdBatchEnq(agent.command());
  queue->enqueueVersionInc(1);
  kept->handleBatch();
  kept->lumoDoZombieReactors(false);
  queue->enqueueVersionInc(1);
  EXPECT_EQ(queue->cmdBatchs(), 1u);
  EXPECT_EQ(agent.pending->cmdBatchs(), 0u);
}

TEST_F(Tracking, AMachineThatOutlivesItsManagerMovesNothing) {
  const auto queue = agent.queue();
  const auto kept = machine();
  agent.dropManager();
  queue->cmdBatchEnq(agent.command());
  queue->enqueueVersionInc(1);
  kept->handleBatch();
  kept->configGroupIs(agent.queue("other"));
  EXPECT_EQ(queue->cmdBatchs(), 1u);
}

TEST_F(Tracking, DeletesNoMachineByAnIteratorAtItsEndOrOfAReplacedOne) {
  agent.queue("a");
  auto atEnd = agent.manager->cmdConfigGroupSmIterator();
  ++atEnd;
  EXPECT_EQ(agent.manager->cmdConfigGroupSmDel(atEnd), nullptr);
  auto replaced = agent.manager->cmdConfigGroupSmIterator();
  agent.manager->cmdConfigGroupSmDel("a");
  agent.manager->cmdConfigGroupSmIs(agent.queue("a"));
  EXPECT_EQ(agent.manager->cmdConfigGroupSmDel(replaced), nullptr);
  EXPECT_TRUE(machine("a"));
}

TEST_F(Tracking, RefusesNullQueues) {
  EXPECT_THROW(agent.manager->cmdConfigGroupSmIs(nullptr), Lumo::RangeException);
  EXPECT_THROW(agent.manager->doEnqueueBatch(nullptr), Lumo::RangeException);
  EXPECT_THROW(agent.manager->doEnqueueBatchHelper(nullptr), Lumo::RangeException);
  const auto none = Lumo::Ptr<CmdConfigGroup>();
  EXPECT_THROW(Lumo::genericCall(agent.manager, "doEnqueueBatch", none), Lumo::RangeException);
  agent.status->errorOccuredIs(true);
  EXPECT_THROW(agent.manager->doEnqueueBatch(nullptr), Lumo::RangeException);
}

TEST_F(Tracking, RefusesToHandleAQueueWhileItFollowsNoCollection) {
  agent.queue();
  agent.manager->globalCmdConfigIs(nullptr);
  EXPECT_THROW(agent.manager->handleCmdConfigGroup("main"), Lumo::RangeException);
  EXPECT_THROW(Lumo::genericCall(agent.manager, "handleCmdConfigGroup", Lumo::Name("main")),
               Lumo::RangeException);
  EXPECT_TRUE(machine());
}

// A manager that can be dropped at any time, and that whoever goes on with it misses.
struct Dropped : Tracking {
  Dropped() {
    agent.dropManager();
    agent.manager = Lumo::allocate<support::Mortal<ConnectionsMgr>>(
        &gone, ConnectionConfig::ConnectionConfigIs(1, "h"), agent.config, agent.pending,
        agent.status);
  }
  bool gone = false;
};

// Drops the manager as soon as a command leaves the queue. It is there until it is done, so at the
// commands that leave behind.
class ManagerDropper : public CmdConfigGroup::NotifieeConst {
 public:
  ManagerDropper(const Lumo::Ptr<CmdConfigGroup>& queue, Dropped* test)
      : NotifieeConst(queue), test_(test) {}
  using CmdConfigGroup::NotifieeConst::onCmdBatch;
  void onCmdBatch(U32 index) override {
    if (notifier()->cmdBatchHas(index)) return;
    test_->agent.manager = nullptr;
    EXPECT_FALSE(test_->gone);
  }

 private:
  Dropped* const test_;
};

TEST_F(Dropped, ByAProducerWhoseCommandsItMoves) {
  agent.enqueue();
  agent.enqueue();
  const auto dropper = Lumo::allocate<ManagerDropper>(agent.queue(), this);
  agent.announce();
  EXPECT_TRUE(gone);
  EXPECT_EQ(agent.pending->cmdBatchs(), 2u);
}

TEST_F(Dropped, ByAProducerWhoseCommandsItDiscards) {
  agent.status->errorOccuredIs(true);
  agent.enqueue();
  agent.enqueue();
  const auto dropper = Lumo::allocate<ManagerDropper>(agent.queue(), this);
  agent.announce();
  EXPECT_TRUE(gone);
  EXPECT_EQ(agent.queue()->cmdBatchs(), 0u);
}

TEST_F(Dropped, ByAProducerWhileItMakesAMachine) {
  const auto queue = CmdConfigGroup::CmdConfigGroupIs("late");
  queue->cmdBatchEnq(agent.command());
  const auto dropper = Lumo::allocate<ManagerDropper>(queue, this);
  agent.config->cmdConfigGroupIs(queue);
  EXPECT_TRUE(gone);
  EXPECT_EQ(agent.pending->cmdBatchs(), 1u);
  queue->cmdBatchEnq(agent.command());
  queue->enqueueVersionInc(1);
  EXPECT_EQ(queue->cmdBatchs(), 1u);
}

TEST_F(Dropped, ByAProducerWhileItIsInitialized) {
  agent.manager->initializedIs(false);
  for (const char* name : {"first", "second"}) agent.enqueue(getVersion, name);
  const auto first = Lumo::allocate<ManagerDropper>(agent.queue("first"), this);
  const auto second = Lumo::allocate<ManagerDropper>(agent.queue("second"), this);
  agent.manager->handleInitialized();
  EXPECT_TRUE(gone);
  EXPECT_EQ(agent.pending->cmdBatchs(), 2u);
}

TEST_F(Tracking, AMachineMayBeDroppedByAProducerWhoseQueueItIsSetTo) {
  bool gone = false;
  const auto queue = CmdConfigGroup::CmdConfigGroupIs("own");
  Lumo::Ptr<CmdConfigGroupSm> own =
      Lumo::allocate<support::Mortal<CmdConfigGroupSm>>(&gone, queue, agent.manager.ptr());
  const auto reactor = reactorOn<CmdConfigGroupSm::LumoConfigGroup>(*queue);
  struct MachineDropper : CmdConfigGroup::NotifieeConst {
    MachineDropper(const Lumo::Ptr<CmdConfigGroup>& followed, Lumo::Ptr<CmdConfigGroupSm>* last)
        : NotifieeConst(followed), last_(last) {}
    using CmdConfigGroup::NotifieeConst::onCmdBatch;
    void onCmdBatch(U32 index) override {
      if (!notifier()->cmdBatchHas(index)) *last_ = nullptr;
    }
    Lumo::Ptr<CmdConfigGroupSm>* const last_;
  };
  const auto other = CmdConfigGroup::CmdConfigGroupIs("other");
  other->cmdBatchEnq(agent.command());
  const auto dropper = Lumo::allocate<MachineDropper>(other, &own);
  own->configGroupIs(other);
  EXPECT_TRUE(gone);
  EXPECT_TRUE(reactor->lumoMarkedForDeletion());
  EXPECT_EQ(other->notifieeList()->members(), 1u);  // the dropper
}

// Lets its queue go, and sets a pointer to it, as soon as a command leaves it; before that it does
// something else.
class Resetter : public CmdConfigGroup::NotifieeConst {
 public:
  Resetter(
      Lumo::Ptr<CmdConfigGroup>* pointer, std::function<void()> before = [] {})
      : NotifieeConst(*pointer), pointer_(pointer), before_(std::move(before)) {}
  using CmdConfigGroup::NotifieeConst::onCmdBatch;
  void onCmdBatch(U32 index) override {
    if (!notifier() || notifier()->cmdBatchHas(index)) return;
    before_();
    notifierIs(nullptr);
    *pointer_ = nullptr;
  }

 private:
  Lumo::Ptr<CmdConfigGroup>* const pointer_;
  const std::function<void()> before_;
};

// A queue in no collection, with commands in it, and the one pointer to it.
struct OwnPointer : Tracking {
  OwnPointer() {
    for (int i = 0; i < 3; ++i) own->cmdBatchEnq(agent.command());
  }
  Lumo::Ptr<CmdConfigGroup> own = CmdConfigGroup::CmdConfigGroupIs("own");
};

TEST_F(OwnPointer, MayBeSetByAProducerWhoseCommandsAreMoved) {
  const auto resetter = Lumo::allocate<Resetter>(&own);
  agent.manager->doEnqueueBatch(own);
  EXPECT_EQ(own, nullptr);
  EXPECT_EQ(agent.pending->cmdBatchs(), 3u);
}

TEST_F(OwnPointer, MayBeSetByAProducerWhoseCommandsAreMovedByTheStepItself) {
  const auto resetter = Lumo::allocate<Resetter>(&own);
  EXPECT_EQ(agent.manager->doEnqueueBatchHelper(own), 3u);
  EXPECT_EQ(own, nullptr);
  EXPECT_EQ(agent.pending->cmdBatchs(), 3u);
}

TEST_F(OwnPointer, MayBeSetByAProducerWhoseCommandsAreDiscarded) {
  agent.status->errorOccuredIs(true);
  const auto resetter = Lumo::allocate<Resetter>(&own);
  agent.manager->doEnqueueBatch(own);
  EXPECT_EQ(own, nullptr);
  EXPECT_EQ(agent.pending->cmdBatchs(), 0u);
}

// The producer also causes a machine of the same name before the one in the making is entered.
TEST_F(OwnPointer, MayBeSetByAProducerWhoseMachineIsMade) {
  Lumo::Ptr<CmdConfigGroupSm> other;
  const auto resetter = Lumo::allocate<Resetter>(&own, [&] {
    const Lumo::Ptr<CmdConfigGroup> queue = own;
    other = agent.manager->cmdConfigGroupSmIs(queue);
  });
  EXPECT_EQ(agent.manager->cmdConfigGroupSmIs(own), other);
  EXPECT_EQ(own, nullptr);
  EXPECT_TRUE(other);
}

TEST_F(Tracking, WalksTheQueuesThatAreThereOnceEachInTheirOrder) {
  support::Agent other;
  for (const char* name : {"c", "a", "b"}) other.queue(name);
  const TraceRecorder trace("NorvConnectionsMgr/5");
  other.connect(1);
  const std::string handling = "void Norv::ConnectionsMgr::handleCmdConfigGroup(Lumo::Name) ";
  std::vector<std::string> walked;
  for (const std::string& text : trace.texts()) {
    if (text.starts_with(handling)) walked.push_back(text.substr(handling.size()));
  }
  EXPECT_THAT(walked, ElementsAre("c", "a", "b"));
}

TEST_F(Tracking, SaysThatItDeletesAMachineAlsoWhereThereIsNone) {
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.manager->handleCmdConfigGroup("never");
  EXPECT_THAT(
      trace.lines(),
      ElementsAre(
          TraceRecorder::Line{"NorvConnectionsMgr", 5, "NorvConnectionsMgr.lumo", 75,
                              "handleCmdConfigGroup",
                              "void Norv::ConnectionsMgr::handleCmdConfigGroup(Lumo::Name) never"},
          TraceRecorder::Line{"NorvConnectionsMgr", 5, "NorvConnectionsMgr.lumo", 85,
                              "handleCmdConfigGroup", "Deleting the CmdConfigGroupSm for never"}));
}

TEST_F(Tracking, SaysNothingMoreOfAQueueWhileItIsNotInitialized) {
  agent.manager->initializedIs(false);
  const TraceRecorder trace("NorvConnectionsMgr/5");
  agent.queue("a");
  EXPECT_THAT(trace.texts(),
              ElementsAre("void Norv::ConnectionsMgr::handleCmdConfigGroup(Lumo::Name) a"));
  agent.config->cmdConfigGroupDel("a");
  EXPECT_EQ(trace.texts().size(), 2u);
}

struct Reactors : Tracking {
  Lumo::Ptr<CmdConfigGroup> queue = agent.queue();
  Lumo::Ptr<CmdConfigGroupSm> watched = machine();
  Lumo::Ptr<Lumo::Clock> clock = Lumo::Clock::ClockIs("clock");
  Lumo::Ptr<CmdConfigGroupSm::LumoConfigGroup> onQueue =
      reactorOn<CmdConfigGroupSm::LumoConfigGroup>(*queue);
  Lumo::Ptr<CmdConfigGroupSm::LumoClock> onClock;

  Reactors() {
    watched->clockIs(clock);
    onClock = reactorOn<CmdConfigGroupSm::LumoClock>(*clock);
  }
};

TEST_F(Reactors, PointBackAtTheirMachine) {
  EXPECT_EQ(onQueue->cmdConfigGroupSm(), watched.ptr());
  EXPECT_EQ(onClock->cmdConfigGroupSm(), watched.ptr());
}

TEST_F(Reactors, AreLeftAloneBySettingWhatTheyFollowAlready) {
  queue->cmdBatchEnq(agent.command());
  onQueue->lumoDoZombieReactors(true);
  const TraceRecorder trace("NorvConnectionsMgr/5");
  watched->configGroupIs(queue);
  watched->clockIs(clock);
  EXPECT_EQ(handled(trace), 0u);
  EXPECT_TRUE(onQueue->lumoMarkedForDeletion());
  EXPECT_EQ(reactorOn<CmdConfigGroupSm::LumoClock>(*clock), onClock);
}

TEST_F(Reactors, AreZombiesWithoutAMachineOnceTheyAreDropped) {
  watched->configGroupIs(nullptr);
  EXPECT_TRUE(onQueue->lumoMarkedForDeletion());
  EXPECT_EQ(onQueue->cmdConfigGroupSm(), nullptr);
  EXPECT_EQ(onQueue->notifier(), queue);
  watched->clockDel();
  EXPECT_TRUE(onClock->lumoMarkedForDeletion());
  EXPECT_EQ(onClock->cmdConfigGroupSm(), nullptr);
  EXPECT_EQ(queue->notifieeList()->members(), 0u);
  EXPECT_EQ(clock->notifieeList()->members(), 0u);
}

TEST_F(Reactors, AreZombiesWithoutAMachineOnceItIsGone) {
  watched = nullptr;
  agent.manager->cmdConfigGroupSmDelAll();
  EXPECT_TRUE(onQueue->lumoMarkedForDeletion());
  EXPECT_TRUE(onClock->lumoMarkedForDeletion());
  EXPECT_EQ(onQueue->cmdConfigGroupSm(), nullptr);
  EXPECT_EQ(onClock->cmdConfigGroupSm(), nullptr);
}

TEST_F(Reactors, TakeTheStateOfTheirMachineWithWhatTheyFollow) {
  const auto otherQueue = CmdConfigGroup::CmdConfigGroupIs("other");
  const auto otherClock = Lumo::Clock::ClockIs("other");
  onQueue->lumoDoZombieReactors(true);
  onClock->lumoDoZombieReactors(true);
  watched->configGroupIs(otherQueue);
  watched->clockIs(otherClock);
  EXPECT_FALSE(onQueue->lumoMarkedForDeletion());
  EXPECT_FALSE(onClock->lumoMarkedForDeletion());
  EXPECT_EQ(reactorOn<CmdConfigGroupSm::LumoConfigGroup>(*otherQueue), onQueue);
  EXPECT_EQ(reactorOn<CmdConfigGroupSm::LumoClock>(*otherClock), onClock);
  watched->lumoDoZombieReactors(true);
  EXPECT_TRUE(onQueue->lumoMarkedForDeletion());
  EXPECT_TRUE(onClock->lumoMarkedForDeletion());
  onQueue->lumoDoZombieReactors(false);
  onClock->lumoDoZombieReactors(false);
  watched->configGroupIs(queue);
  watched->clockIs(clock);
  EXPECT_TRUE(onQueue->lumoMarkedForDeletion());
  EXPECT_TRUE(onClock->lumoMarkedForDeletion());
  watched->configGroupDel();
  watched->clockDel();
  watched->configGroupIs(queue);
  watched->clockIs(clock);
  watched->lumoDoZombieReactors(false);
  EXPECT_EQ(queue->notifieeList()->members(), 1u);
  EXPECT_EQ(clock->notifieeList()->members(), 1u);
}

TEST_F(Reactors, LeaveAndEnterTheirListsAsNotificationIsSwitched) {
  for (const bool throughTheManager : {false, true}) {
    const auto switched = [&](bool active) {
      if (throughTheManager) {
        agent.manager->hasNotificationActiveIs(active);
      } else {
        watched->hasNotificationActiveIs(active);
      }
    };
    switched(false);
    EXPECT_EQ(queue->notifieeList()->members(), 0u);
    EXPECT_EQ(clock->notifieeList()->members(), 0u);
    EXPECT_EQ(agent.config->notifieeList()->members(), throughTheManager ? 0u : 1u);
    EXPECT_FALSE(watched->hasNotificationActive());
    switched(true);
    EXPECT_EQ(queue->notifieeList()->members(), 1u);
    EXPECT_EQ(clock->notifieeList()->members(), 1u);
    EXPECT_EQ(agent.config->notifieeList()->members(), 1u);
    EXPECT_TRUE(watched->hasNotificationActive());
  }
}

TEST_F(Reactors, AreLeftAloneByAStateTheirOwnerIsInAlready) {
  const auto onConfig = reactorOn<ConnectionsMgr::LumoGlobalCmdConfig>(*agent.config);
  watched->lumoDoZombieReactors(true);
  agent.manager->lumoDoZombieReactors(true);
  onQueue->lumoDoZombieReactors(false);
  onConfig->lumoDoZombieReactors(false);
  watched->lumoDoZombieReactors(true);
  agent.manager->lumoDoZombieReactors(true);
  EXPECT_FALSE(onQueue->lumoMarkedForDeletion());
  EXPECT_FALSE(onConfig->lumoMarkedForDeletion());
  watched->hasNotificationActiveIs(true);
  onQueue->hasNotificationActiveIs(false);
  watched->hasNotificationActiveIs(true);
  EXPECT_FALSE(onQueue->hasNotificationActive());
  watched->hasNotificationActiveIs(false);
  agent.manager->hasNotificationActiveIs(true);
  EXPECT_FALSE(watched->hasNotificationActive());
}

TEST_F(Reactors, ThatOfTheManagerIsAZombieWithoutItOnceItIsGone) {
  const auto onConfig = reactorOn<ConnectionsMgr::LumoGlobalCmdConfig>(*agent.config);
  EXPECT_EQ(onConfig->connectionsMgr(), agent.manager.ptr());
  agent.dropManager();
  EXPECT_TRUE(onConfig->lumoMarkedForDeletion());
  EXPECT_EQ(onConfig->connectionsMgr(), nullptr);
}

TEST_F(Reactors, ThatOfAZombieHandlesNothingAlsoWhenItIsBackInItsList) {
  agent.manager->lumoDoZombieReactors(true);
  agent.manager->hasNotificationActiveIs(false);
  agent.manager->hasNotificationActiveIs(true);
  EXPECT_EQ(agent.config->notifieeList()->members(), 1u);
  agent.queue("later");
  EXPECT_FALSE(machine("later"));
}

TEST_F(Reactors, ThatOfAManagerThatIsGoneHandlesNothingAlsoWhenItIsRevived) {
  const auto onConfig = reactorOn<ConnectionsMgr::LumoGlobalCmdConfig>(*agent.config);
  agent.dropManager();
  onConfig->lumoDoZombieReactors(false);
  EXPECT_EQ(agent.config->notifieeList()->members(), 1u);
  agent.queue("later");
  EXPECT_TRUE(agent.config->cmdConfigGroupHas("later"));
}

TEST_F(Reactors, HandleNothingWhenToldToFollowWhatTheyFollowAlready) {
  queue->cmdBatchEnq(agent.command());
  const TraceRecorder trace("NorvConnectionsMgr/5");
  onQueue->notifierIs(queue);
  EXPECT_EQ(handled(trace), 0u);
  EXPECT_EQ(queue->cmdBatchs(), 1u);
}

}  // namespace
