#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Abort.h>
#include <support/Commands.h>
#include <support/TraceRecorder.h>

#include <functional>

#include <Lumo/Entity.h>
#include <Lumo/Trace.h>
#include <Norv/GrpcCmd.h>
#include <Norv/TypedCmd.h>

namespace {

using namespace Norv;
using support::TraceRecorder;
using testing::ElementsAre;

template <class T>
concept HasRequestTypeMutator = requires(T cmd) {
  cmd.requestTypeIs(resetAll);
};
static_assert(!HasRequestTypeMutator<GrpcCmd>);
static_assert(!std::is_base_of_v<Lumo::Entity, GrpcCmd>);
static_assert(std::is_nothrow_destructible_v<GrpcCmd>);
static_assert(
    std::is_same_v<decltype(GrpcCmd::GrpcCmdIs(nullptr, unknown)), Lumo::ValidPtr<GrpcCmd>>);

// A message whose end can be seen. Generated messages cannot be derived from.
class WatchedMessage : public google::protobuf::Message {
 public:
  explicit WatchedMessage(std::function<void()> atEnd) : atEnd_(std::move(atEnd)) {}
  ~WatchedMessage() override { atEnd_(); }
  Message* New(google::protobuf::Arena*) const override { return nullptr; }
  google::protobuf::Metadata GetMetadata() const override { return {}; }
  int GetCachedSize() const override { return 0; }

 private:
  const std::function<void()> atEnd_;
};

WatchedMessage* counted(int* destroyed) {
  return new WatchedMessage([destroyed] { ++*destroyed; });
}

const TraceRecorder::Line deleting{
    "GrpcTypes", 9, "GrpcTypes.lumo", 18, "freeRequestMemory", "Deleting the grpc message"};

TEST(GrpcCmd, HoldsItsRequestAndType) {
  auto* request = new bess::pb::EmptyRequest();
  const Lumo::ValidPtr<GrpcCmd> cmd = GrpcCmd::GrpcCmdIs(request, resetAll);
  EXPECT_EQ(cmd->request(), request);
  EXPECT_EQ(cmd->requestType(), resetAll);
  EXPECT_EQ(cmd->references(), 1u);
  EXPECT_EQ(cmd->notifieeList(), nullptr);
  EXPECT_STREQ(cmd->fwkType()->typeName(), "Norv::GrpcCmd");
}

TEST(GrpcCmd, TakesAnyMessageForAnyTypeUnchecked) {
  const auto cmd = grpcCmdFactory(new bess::pb::CreatePortRequest(), unknown);
  EXPECT_EQ(cmd->requestType(), unknown);
  EXPECT_EQ(grpcCmdFactory(nullptr, resetAll)->request(), nullptr);
}

TEST(GrpcCmd, DeletesItsRequestOnce) {
  int destroyed = 0;
  grpcCmdFactory(counted(&destroyed), resetAll);
  EXPECT_EQ(destroyed, 1);
}

TEST(GrpcCmd, FreesItsRequestBeforehandWhenTold) {
  int destroyed = 0;
  const TraceRecorder trace("GrpcTypes/9");
  {
    const auto cmd = grpcCmdFactory(counted(&destroyed), resetAll);
    cmd->freeRequestMemory();
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(cmd->request(), nullptr);
    cmd->freeRequestMemory();
  }
  EXPECT_EQ(destroyed, 1);
  EXPECT_THAT(trace.lines(), ElementsAre(deleting, deleting, deleting));
}

TEST(GrpcCmd, TracesTheDeletionAlsoWithoutARequest) {
  const TraceRecorder trace("GrpcTypes/9");
  grpcCmdFactory(nullptr, resetAll);
  EXPECT_THAT(trace.lines(), ElementsAre(deleting));
}

TEST(GrpcCmd, TracesBeforeItDeletes) {
  const TraceRecorder trace("GrpcTypes/9");
  std::size_t seen = 0;
  grpcCmdFactory(new WatchedMessage([&] { seen = trace.lines().size(); }), resetAll);
  EXPECT_EQ(seen, 1u);
}

TEST(GrpcCmd, LeavesAReplacedRequestToItsCaller) {
  int first = 0;
  int second = 0;
  auto* old = counted(&first);
  {
    const auto cmd = grpcCmdFactory(old, resetAll);
    cmd->requestIs(counted(&second));
    EXPECT_EQ(first, 0);
  }
  EXPECT_EQ(second, 1);
  EXPECT_EQ(first, 0);
  delete old;
}

TEST(GrpcCmd, DeletesNothingAfterItsRequestWasTakenAway) {
  int destroyed = 0;
  WatchedMessage message([&] { ++destroyed; });
  {
    const auto cmd = grpcCmdFactory(&message, resetAll);
    cmd->requestIs(nullptr);
  }
  EXPECT_EQ(destroyed, 0);
}

TEST(GrpcCmd, OnlyTracesAResponseByDefault) {
  const TraceRecorder trace("GrpcTypes/8");
  bess::pb::VersionResponse response;
  response.set_version("v");
  const auto cmd = grpcCmdFactory(nullptr, getVersion);
  cmd->processResponse(&response);
  cmd->processResponse(nullptr);
  const TraceRecorder::Line line{
      "GrpcTypes",       8,
      "GrpcTypes.lumo",  12,
      "processResponse", "virtual void Norv::GrpcCmd::processResponse(google::protobuf::Message*)"};
  EXPECT_THAT(trace.lines(), ElementsAre(line, line));
  EXPECT_EQ(response.version(), "v");
}

TEST(GrpcCmd, TracesNothingBelowItsLevels) {
  const TraceRecorder trace("GrpcTypes/0-7");
  grpcCmdFactory(nullptr, getVersion)->processResponse(nullptr);
  EXPECT_THAT(trace.lines(), ElementsAre());
}

TEST(GrpcCmd, DestroysASubclassThroughItsBasePointer) {
  const auto log = std::make_shared<support::CommandLog>();
  Lumo::Ptr<GrpcCmd> cmd = Lumo::allocate<support::LoggedCmd>(log, 7, nullptr, resetAll);
  EXPECT_EQ(log->destroyed, 0);
  cmd = nullptr;
  EXPECT_THAT(log->releasedNumbers(), ElementsAre(7));
}

struct Throwing : Lumo::TraceSink {
  void lineIs(const Lumo::TraceLine&) override { throw std::runtime_error("sink"); }
};

// Not by way of a pointer, whose own release may not throw either.
TEST(GrpcCmdDeathTest, LetsNoExceptionOutOfItsDestruction) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Throwing sink;
        Lumo::traceSettingIs("GrpcTypes/*");
        Lumo::traceSinkIs(&sink);
        try {
          GrpcCmd cmd(nullptr, resetAll);
        } catch (const std::runtime_error&) {
          std::_Exit(0);
        }
      },
      support::aborted, "terminate.*(.|\n)*sink");
}

TEST(GrpcCmdDeathTest, EndsTheProcessWhenItsDestructionThrows) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Throwing sink;
        Lumo::traceSettingIs("GrpcTypes/*");
        Lumo::traceSinkIs(&sink);
        grpcCmdFactory(nullptr, resetAll);
      },
      "terminate");
}

TEST(GrpcCmd, RecordsItsOwnSizeForASubclassToo) {
  const U64 before = GrpcCmd::lumoAllocTrackTypeInfo_.bytes();
  const auto cmd = Lumo::allocate<support::LoggedCmd>(std::make_shared<support::CommandLog>(), 0,
                                                      nullptr, resetAll);
  static_assert(sizeof(support::LoggedCmd) > sizeof(GrpcCmd));
  EXPECT_EQ(GrpcCmd::lumoAllocTrackTypeInfo_.bytes() - before, sizeof(GrpcCmd));
}

// What a typed command was told.
struct Told {
  std::string version;
  int refusal = 0;
};

class AskVersion : public TypedCmd<getVersion> {
 public:
  explicit AskVersion(Told* told) : told_(told) {}
  void onSuccess(const Response& response) override { told_->version = response.version(); }
  void onRefusal(const bess::pb::Error& error, const Response&) override {
    told_->refusal = error.code();
  }

 private:
  Told* const told_;
};

static_assert(!std::is_constructible_v<TypedCmd<createPort>, bess::pb::EmptyRequest>);
static_assert(!std::is_constructible_v<TypedCmd<createPort>, bess::pb::DestroyPortRequest>);
static_assert(std::is_constructible_v<TypedCmd<createPort>, bess::pb::CreatePortRequest>);
static_assert(std::is_same_v<TypedCmd<createPort>::Response, bess::pb::CreatePortResponse>);

TEST(TypedCmd, CarriesTheRequestItWasMadeFrom) {
  bess::pb::CreatePortRequest request;
  request.set_name("p0");
  const auto cmd = Lumo::allocate<TypedCmd<createPort>>(request);
  EXPECT_EQ(cmd->requestType(), createPort);
  EXPECT_EQ(cmd->typedRequest()->name(), "p0");
}

TEST(TypedCmd, TellsASuccessFromARefusal) {
  Told told;
  const auto cmd = Lumo::allocate<AskVersion>(&told);
  bess::pb::VersionResponse response;
  response.set_version("1.2");
  response.mutable_error();  // an empty error is none
  cmd->processResponse(&response);
  EXPECT_EQ(told.version, "1.2");
  EXPECT_EQ(told.refusal, 0);
  response.mutable_error()->set_code(-1);
  cmd->processResponse(&response);
  EXPECT_EQ(told.refusal, -1);
}

TEST(TypedCmd, ExistsForEveryRequest) {
#define NORV_REQUEST(number, name, Rpc, RequestMessage, ResponseMessage)         \
  {                                                                              \
    const auto cmd = Lumo::allocate<TypedCmd<name>>(bess::pb::RequestMessage()); \
    EXPECT_EQ(cmd->requestType(), number);                                       \
    bess::pb::ResponseMessage response;                                          \
    cmd->processResponse(&response);                                             \
  }
#include <Norv/GrpcRequests.def>
}

}  // namespace
