// The record of a call: when it is made and freed, and that a command is lent the response in it.
// Also what a client frees at its end.

#include <gtest/gtest.h>
#include <support/Commands.h>
#include <support/Eventually.h>
#include <support/ExpectedLeak.h>
#include <support/FakeDaemon.h>
#include <support/FreeHere.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include <Lumo/Lock.h>
#include <Norv/AsyncClientCall.h>
#include <Norv/GrpcClient.h>
#include <bess/pb/service.pb.h>

namespace {

using Record = Norv::AsyncClientCall<bess::pb::VersionResponse>;

// Blocks of memory until they are freed: the first 4,096, each by its address, as not every
// compiler tells a size when it frees.
class Blocks {
 public:
  bool enter(const void* memory) {
    const std::size_t entry = entries_++;
    if (entry >= blocks_.size()) return false;
    blocks_[entry] = memory;
    return true;
  }
  bool leave(const void* memory) {
    bool left = false;
    const std::size_t used = std::min(entries_.load(), blocks_.size());
    for (std::size_t entry = 0; memory && entry < used; ++entry) {
      const void* expected = memory;
      left |= blocks_[entry].compare_exchange_strong(expected, nullptr);
    }
    return left;
  }
  bool has(const void* memory) const {
    return memory && std::any_of(blocks_.begin(), blocks_.end(),
                                 [&](const auto& one) { return one.load() == memory; });
  }

 private:
  std::array<std::atomic<const void*>, 4096> blocks_{};
  std::atomic<std::size_t> entries_{0};
};

// Those of a record's size, which nothing else has that these tests do meanwhile.
constinit Blocks records;
constinit std::atomic<int> live{0};
constinit std::atomic<const char*> latest{nullptr};
constinit std::atomic<bool> freedUnderActivityLock{false};
thread_local bool looking = false;

void noteFreed() {
  --live;
  if (!std::exchange(looking, true)) {
    if (!support::freeHere(Lumo::ActivityLockAnchor::lock())) freedUnderActivityLock = true;
    looking = false;
  }
}

// All that this thread makes while it says so.
thread_local bool entering = false;
constinit Blocks entered;

void noteMade(void* memory, std::size_t size) {
  if (size == sizeof(Record) && records.enter(memory)) {
    ++live;
    latest = static_cast<const char*>(memory);
  }
  if (entering) entered.enter(memory);
}

void release(void* memory) {
  if (records.leave(memory)) noteFreed();
  entered.leave(memory);
  std::free(memory);
}

}  // namespace

// Not inlined, or the compiler takes the pairs below for mismatched ones.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = std::malloc(size);
  if (!memory) throw std::bad_alloc();
  noteMade(memory, size);
  return memory;
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  release(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  release(memory);
}

namespace {

using namespace Norv;
using support::FakeDaemon;

// What there is of the record while the command is handed its response.
class Looking : public GrpcCmd {
 public:
  struct Seen {
    int live = -1;
    bool inRecord = false;
  };
  explicit Looking(Seen* seen) : GrpcCmd(new bess::pb::EmptyRequest(), getVersion), seen_(seen) {}
  void processResponse(google::protobuf::Message* response) override {
    seen_->live = live;
    const auto* const byte = reinterpret_cast<const char*>(response);
    seen_->inRecord = byte >= latest && byte < latest + sizeof(Record);
  }

 private:
  Seen* const seen_;
};

struct CallRecord : testing::Test {
  CallRecord() {
    send();  // what gRPC makes once
    live = 0;
    freedUnderActivityLock = false;
  }
  bool send() { return client.doProcessBlockingGrpcCmd(Lumo::allocate<Looking>(&seen)); }
  void answer(FakeDaemon::Answer answer) {
    daemon.handlerIs([=](auto, const auto&, auto*) { return answer; });
  }

  FakeDaemon daemon;
  Lumo::Ptr<GrpcErrorHandlingStatus> status = GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  Lumo::Lock lock;
  Lumo::Condition condition;
  GrpcClient client{daemon.inProcessChannel(), CmdGroup::CmdGroupIs(), status, &lock, &condition};
  Looking::Seen seen;
};

TEST_F(CallRecord, LendsItsResponseToTheCommandAndIsFreedAfterwards) {
  EXPECT_TRUE(send());
  EXPECT_EQ(seen.live, 1);
  EXPECT_TRUE(seen.inRecord);
  EXPECT_EQ(live, 0);
  EXPECT_FALSE(freedUnderActivityLock);
}

TEST_F(CallRecord, IsFreedAfterAFailure) {
  answer({14, "gone", ""});
  EXPECT_FALSE(send());
  EXPECT_TRUE(status->errorOccured());
  EXPECT_EQ(live, 0);
}

// Looks at the record at the moment the flag rises.
TEST_F(CallRecord, IsFreedBehindTheFlag) {
  struct Witness : GrpcErrorHandlingStatus::NotifieeConst {
    explicit Witness(const Lumo::Ptr<GrpcErrorHandlingStatus>& followed)
        : NotifieeConst(followed) {}
    void onErrorOccured() override { liveThen = live; }
    int liveThen = -1;
  };
  const auto witness = Lumo::allocate<Witness>(status);
  answer({14, "gone", ""});
  EXPECT_FALSE(send());
  EXPECT_EQ(witness->liveThen, 1);
}

TEST_F(CallRecord, KeptOnPurposeStaysWhenTheReplyDoesNotDecode) {
  answer({0, "", "\xff"});
  EXPECT_FALSE(send());
  EXPECT_EQ(live, 1);
  delete reinterpret_cast<const Record*>(latest.load());
  EXPECT_EQ(live, 0);
}

using ClientAtItsEnd = CallRecord;

TEST_F(ClientAtItsEnd, FreesItsStubAndItsCompletionQueue) {
  const std::shared_ptr<grpc::Channel> channel = daemon.inProcessChannel();
  const Lumo::Ptr<CmdGroup> pending = CmdGroup::CmdGroupIs();
  entering = true;
  auto brief = std::make_unique<GrpcClient>(channel, pending, status, &lock, &condition);
  entering = false;
  std::array<const void*, sizeof(GrpcClient) / sizeof(void*)> members;
  std::memcpy(members.data(), static_cast<const void*>(brief.get()), sizeof(members));
  const auto own = [&] {
    return std::count_if(members.begin(), members.end(),
                         [](const void* member) { return entered.has(member); });
  };
  EXPECT_EQ(own(), 2);
  brief = nullptr;
  EXPECT_EQ(own(), 0);
}

// A client with a worker, neither of which ends before the process does.
struct Running {
  explicit Running(const FakeDaemon& daemon)
      : client(grpc::CreateChannel("127.0.0.1:" + std::to_string(daemon.port()),
                                   grpc::InsecureChannelCredentials()),
               pending, GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs(), &lock, &condition) {}
  void put(const std::shared_ptr<support::CommandLog>& log) {
    const Lumo::Ptr<GrpcCmd> cmd =
        Lumo::allocate<support::LoggedCmd>(log, 0, new bess::pb::EmptyRequest(), getVersion);
    Lumo::LockAnchor anchor(&lock);
    pending->cmdBatchEnq(cmd);
  }
  void wake() {
    Lumo::LockAnchor anchor(&lock);
    condition.signal();
  }
  Lumo::Ptr<CmdGroup> pending = CmdGroup::CmdGroupIs();
  Lumo::Lock lock;
  Lumo::Condition condition;
  GrpcClient client;
};

TEST_F(CallRecord, KeptOnPurposeStaysWithTheWorkerWhenTheReplyDoesNotDecode) {
  std::atomic<int> calls{0};
  daemon.handlerIs([&](auto, const auto&, auto*) {
    return calls++ == 0 ? FakeDaemon::Answer{0, "", "\xff"} : FakeDaemon::Answer();
  });
  static Running& running = *new Running(daemon);
  const auto log = std::make_shared<support::CommandLog>();
  const auto ended = [&](int commands) {
    return support::eventually([&] { return log->destroyed == commands; }, [] { running.wake(); });
  };
  running.put(log);
  std::thread([] {
    const support::ExpectedLeak record;
    running.client.doProcessGrpcCmd();
  }).detach();
  ASSERT_TRUE(ended(1));
  EXPECT_EQ(live, 1);
  running.put(log);
  ASSERT_TRUE(ended(2));
  EXPECT_EQ(log->responses, 1);
  EXPECT_EQ(live, 1);
}

}  // namespace
