// How completions are dispatched, on a client without a worker.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Commands.h>
#include <support/Eventually.h>
#include <support/ExpectedLeak.h>
#include <support/FakeDaemon.h>
#include <support/FreeHere.h>
#include <support/TraceRecorder.h>

#include <thread>

#include <Norv/GrpcClient.h>
#include <bess/pb/service.pb.h>

namespace {

using namespace Norv;
using support::FakeDaemon;
using support::freeHere;
using support::TraceRecorder;
using testing::ElementsAre;

struct Completion : testing::Test {
  bool send(GrpcRequestType type = getVersion) {
    const Lumo::Ptr<GrpcCmd> cmd =
        Lumo::allocate<support::LoggedCmd>(log, made++, support::newRequest(type).release(), type);
    return client.doProcessBlockingGrpcCmd(cmd);
  }
  void fail(int code, const std::string& message) {
    daemon.handlerIs([=](auto, const auto&, auto*) {
      return FakeDaemon::Answer{code, message, ""};
    });
  }

  FakeDaemon daemon;
  Lumo::Ptr<CmdGroup> pending = CmdGroup::CmdGroupIs();
  Lumo::Ptr<GrpcErrorHandlingStatus> status = GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  Lumo::Lock lock;
  Lumo::Condition condition;
  GrpcClient client{daemon.inProcessChannel(), pending, status, &lock, &condition};
  std::shared_ptr<support::CommandLog> log = std::make_shared<support::CommandLog>();
  int made = 0;
};

TEST_F(Completion, TracesSendingAndProcessing) {
  const TraceRecorder trace("GrpcClient/8");
  EXPECT_TRUE(send(listPorts));
  EXPECT_THAT(
      trace.lines(),
      ElementsAre(TraceRecorder::Line{"GrpcClient", 8, "GrpcClient.cpp", 137, "sendRequestInternal",
                                      "Sending listPorts"},
                  TraceRecorder::Line{"GrpcClient", 8, "GrpcClient.cpp", 326, "processResponse",
                                      "Processing response. RequestType: listPorts"}));
}

class EveryFailure : public Completion, public testing::WithParamInterface<int> {};

TEST_P(EveryFailure, IsTracedAndRaisesTheFlagAndReachesNoHandler) {
  fail(GetParam(), "%s went wrong");
  const TraceRecorder trace("GrpcClient/0");
  EXPECT_FALSE(send());
  EXPECT_TRUE(status->errorOccured());
  EXPECT_EQ(log->responses, 0);
  EXPECT_EQ(log->destroyed, 1);
  EXPECT_THAT(trace.lines(),
              ElementsAre(TraceRecorder::Line{
                  "GrpcClient", 0, "GrpcClient.cpp", 102, "processResponseCommon",
                  "Failure to process response: error_code: " + std::to_string(GetParam()) +
                      " error_message: %s went wrong"}));
}

// CANCELLED, UNKNOWN, UNIMPLEMENTED, INTERNAL, UNAVAILABLE
INSTANTIATE_TEST_SUITE_P(Statuses, EveryFailure, testing::Values(1, 2, 12, 13, 14));

// Looks at the locks and the trace at the moment the flag rises.
class FlagWitness : public GrpcErrorHandlingStatus::NotifieeConst {
 public:
  FlagWitness(const Lumo::Ptr<GrpcErrorHandlingStatus>& followed, Lumo::Lock* queueLock,
              const TraceRecorder* recorder)
      : NotifieeConst(followed), queueLock_(queueLock), trace_(recorder) {}
  void onErrorOccured() override {
    ++rises;
    thread = std::this_thread::get_id();
    linesBefore = trace_->lines().size();
    activityFree = freeHere(Lumo::ActivityLockAnchor::lock());
    queueFree = freeHere(queueLock_);
  }
  int rises = 0;
  std::thread::id thread;
  std::size_t linesBefore = 0;
  bool activityFree = false;
  bool queueFree = false;

 private:
  Lumo::Lock* const queueLock_;
  const TraceRecorder* const trace_;
};

TEST_F(Completion, RaisesTheFlagOnItsOwnThreadHoldingNoLockAfterTheTrace) {
  fail(14, "gone");
  const TraceRecorder trace("GrpcClient/0");
  const auto witness = Lumo::allocate<FlagWitness>(status, &lock, &trace);
  std::thread sender([&] { send(); });
  const std::thread::id id = sender.get_id();
  sender.join();
  EXPECT_EQ(witness->thread, id);
  EXPECT_EQ(witness->linesBefore, 1u);
  EXPECT_TRUE(witness->activityFree);
  EXPECT_TRUE(witness->queueFree);
  send();
  EXPECT_EQ(trace.lines().size(), 2u);
  EXPECT_EQ(witness->rises, 1);
}

TEST_F(Completion, SaysNoAfterAnyRecordedFailureThoughTheCallSucceeds) {
  fail(14, "gone");
  EXPECT_FALSE(send());
  daemon.handlerIs(nullptr);
  EXPECT_FALSE(send());
  EXPECT_EQ(daemon.calls().size(), 2u);  // sent although the flag is set
  EXPECT_EQ(log->responses, 1);
  status->errorOccuredIs(false);
  EXPECT_TRUE(send());
}

TEST_F(Completion, SaysNoToAReplyThatDoesNotDecode) {
  daemon.handlerIs([](auto, const auto&, auto*) { return FakeDaemon::Answer{0, "", "\xff\xff"}; });
  const support::ExpectedLeak record;
  EXPECT_FALSE(send());
  EXPECT_FALSE(status->errorOccured());
  EXPECT_EQ(log->responses, 0);
}

TEST_F(Completion, WaitsForTheActivityLockBeforeItCallsTheHandler) {
  const std::string processing = "Processing response. RequestType: getVersion";
  const TraceRecorder trace("GrpcClient/8");
  std::thread sender;
  {
    Lumo::ActivityLockAnchor activity;
    sender = std::thread([&] { send(); });
    ASSERT_TRUE(support::eventually([&] { return trace.count(processing) == 1; }));
    EXPECT_EQ(log->responses, 0);
  }
  sender.join();
  EXPECT_EQ(log->responses, 1);
}

TEST_F(Completion, CallsTheHandlerUnderTheActivityLockAndNoOther) {
  class Looking : public GrpcCmd {
   public:
    Looking(Lumo::Lock* queueLock, bool* queueFree, bool* activityHeld)
        : GrpcCmd(new bess::pb::EmptyRequest(), getVersion),
          queueLock_(queueLock),
          queueFree_(queueFree),
          activityHeld_(activityHeld) {}
    void processResponse(google::protobuf::Message*) override {
      *queueFree_ = freeHere(queueLock_);
      *activityHeld_ = !freeHere(Lumo::ActivityLockAnchor::lock());
    }

   private:
    Lumo::Lock* const queueLock_;
    bool* const queueFree_;
    bool* const activityHeld_;
  };
  bool queueFree = false;
  bool activityHeld = false;
  EXPECT_TRUE(
      client.doProcessBlockingGrpcCmd(Lumo::allocate<Looking>(&lock, &queueFree, &activityHeld)));
  EXPECT_TRUE(queueFree);
  EXPECT_TRUE(activityHeld);
  EXPECT_TRUE(freeHere(Lumo::ActivityLockAnchor::lock()));  // given back
}

TEST_F(Completion, HandsOverTheContentOfTheReply) {
  class Reading : public GrpcCmd {
   public:
    explicit Reading(std::string* text)
        : GrpcCmd(new bess::pb::EmptyRequest(), getVersion), text_(text) {}
    void processResponse(google::protobuf::Message* response) override {
      *text_ = dynamic_cast<bess::pb::VersionResponse&>(*response).version();
    }

   private:
    std::string* const text_;
  };
  daemon.handlerIs([](auto, const auto&, google::protobuf::Message* response) {
    static_cast<bess::pb::VersionResponse*>(response)->set_version("stand-in");
    return FakeDaemon::Answer();
  });
  std::string text;
  EXPECT_TRUE(client.doProcessBlockingGrpcCmd(Lumo::allocate<Reading>(&text)));
  EXPECT_EQ(text, "stand-in");
}

TEST_F(Completion, TakesAReplyAbove4MiBForAFailure) {
  daemon.handlerIs([](auto, const auto&, google::protobuf::Message* response) {
    static_cast<bess::pb::VersionResponse*>(response)->set_version(std::string(5 << 20, 'x'));
    return FakeDaemon::Answer();
  });
  const TraceRecorder trace("GrpcClient/0");
  EXPECT_FALSE(send());
  EXPECT_TRUE(status->errorOccured());
  ASSERT_EQ(trace.texts().size(), 1u);
  EXPECT_THAT(trace.texts()[0], testing::StartsWith("Failure to process response: error_code: 8 "));
}

TEST_F(Completion, TakesAnOkReplyWithoutAMessageForAnEmptyResponse) {
  daemon.handlerIs([](auto, const auto&, auto*) {
    FakeDaemon::Answer answer;
    answer.withoutMessage = true;
    return answer;
  });
  EXPECT_TRUE(send());
  EXPECT_EQ(log->responses, 1);
  EXPECT_FALSE(status->errorOccured());
}

TEST_F(Completion, LeavesTheFlagDownForAFailureBehindBytesThatDoNotDecode) {
  daemon.handlerIs([](auto, const auto&, auto*) { return FakeDaemon::Answer{14, "gone", "\xff"}; });
  const TraceRecorder trace("GrpcClient/*");
  const support::ExpectedLeak record;
  EXPECT_FALSE(send());
  EXPECT_FALSE(status->errorOccured());
  EXPECT_EQ(log->responses, 0);
  EXPECT_THAT(trace.texts(), ElementsAre("Sending getVersion"));
}

}  // namespace
