// What a connection gives back of the heap. Beside the others, as it replaces the allocation
// functions.

#include <gtest/gtest.h>
#include <support/Agent.h>
#include <support/FakeDaemon.h>
#include <support/SetByHand.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <new>
#include <optional>
#include <stdexcept>

#include <Norv/GrpcClient.h>

namespace {

// Memory that has not been given back since it was entered here.
constinit std::array<std::atomic<const void*>, 4> watched{};

// The size of a block that this thread does not get, once; 0: it gets all.
constinit thread_local std::size_t refused = 0;

}  // namespace

// The address sanitizer has its own, and finds what is lost by itself.
#if !defined(__SANITIZE_ADDRESS__)
static void noteFreed(void* memory) {
  for (std::atomic<const void*>& one : watched) {
    const void* expected = memory;
    if (memory) one.compare_exchange_strong(expected, nullptr);
  }
}

// Not inlined, or the compiler takes the pairs below for mismatched ones.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (refused != 0 && size == refused) {
    refused = 0;
    throw std::bad_alloc();
  }
  void* const memory = std::malloc(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  noteFreed(memory);
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  noteFreed(memory);
  std::free(memory);
}
#endif

namespace {

using namespace Norv;

std::ptrdiff_t stillThere() {
  return std::count_if(watched.begin(), watched.end(), [](const auto& one) { return one.load(); });
}

void watch(const ConnectionsMgr& mgr) {
  watched[0] = mgr.grpcReplyThread();
  watched[1] = mgr.threadCondition();
  watched[2] = mgr.threadLock();
  watched[3] = mgr.client();
}

// A manager made in simulation, for the test to connect.
struct TakeDown : testing::Test {
  void SetUp() override {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer looks for what is lost by itself";
#endif
  }
  TakeDown() {
    simulation.emplace("SIMULATION_NORV", "1");
    agent.connect(daemon.port());
  }
  support::FakeDaemon daemon;
  support::Agent agent;
  std::optional<support::Environment> simulation;
};

// Watches the connection that is being made, and throws.
struct Thrower : CmdConfigGroup::NotifieeConst {
  Thrower(const Lumo::Ptr<CmdConfigGroup>& queue, ConnectionsMgr* mgr)
      : NotifieeConst(queue), mgr_(mgr) {}
  using CmdConfigGroup::NotifieeConst::onCmdBatch;
  void onCmdBatch(U32 index) override {
    if (notifier()->cmdBatchHas(index)) return;
    watch(*mgr_);
    there = stillThere();
    throw std::runtime_error("not now");
  }
  std::ptrdiff_t there = 0;
  ConnectionsMgr* const mgr_;
};

TEST_F(TakeDown, FreesAllOfAConnectionThatAProducerThrowsOutOf) {
  agent.manager->initializedIs(false);
  agent.enqueue();
  const auto thrower = Lumo::allocate<Thrower>(agent.queue(), agent.manager.ptr());
  simulation.reset();
  EXPECT_THROW(agent.manager->handleInitialized(), std::runtime_error);
  EXPECT_EQ(thrower->there, 4);
  EXPECT_EQ(stillThere(), 0);
}

// The manager has made nothing of its connection then that it could take down.
TEST_F(TakeDown, LeavesWhatWasSetByHandAloneWhenThereIsNoMemoryForALock) {
  support::SetByHand parts(agent, daemon);
  watch(*agent.manager);
  agent.manager->initializedIs(false);
  simulation.reset();
  refused = sizeof(Lumo::Lock);
  EXPECT_THROW(agent.manager->handleInitialized(), std::bad_alloc);
  EXPECT_EQ(refused, 0u);
  EXPECT_EQ(stillThere(), 4);
  EXPECT_FALSE(agent.manager->initialized());
}

TEST_F(TakeDown, FreesAllWhenTheClientIsDestroyed) {
  simulation.reset();
  agent.manager->threadLockIs(new Lumo::Lock());
  agent.manager->threadConditionIs(new Lumo::Condition());
  agent.manager->grpcReplyThreadIs(new std::thread());  // none runs
  agent.manager->clientIs(new GrpcClient(daemon.inProcessChannel(), agent.pending, agent.status,
                                         agent.manager->threadLock(),
                                         agent.manager->threadCondition()));
  watch(*agent.manager);
  EXPECT_EQ(stillThere(), 4);
  agent.manager->destroyGrpcClient();
  EXPECT_EQ(stillThere(), 0);
}

}  // namespace
