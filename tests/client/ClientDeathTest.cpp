// How a process ends that hands the client what it cannot send, in every build type.

#include <gtest/gtest.h>
#include <support/Abort.h>
#include <support/Eventually.h>
#include <support/FakeDaemon.h>

#include <Lumo/Trace.h>
#include <Norv/GrpcClient.h>
#include <bess/pb/service.pb.h>

namespace {

using namespace Norv;
using support::aborted;
using support::FakeDaemon;

struct ClientDeathTest : testing::Test {
  ClientDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  // In the child process: a client of its own, and one command sent through it.
  static void die(GrpcRequestType type, google::protobuf::Message* request) {
    FakeDaemon daemon;
    support::atAbort([&] {
      const bool called =
          type == getPortConf && support::eventually([&] { return !daemon.calls().empty(); });
      return called ? "called " + daemon.calls()[0].method : std::string();
    });
    Lumo::Lock lock;
    Lumo::Condition condition;
    GrpcClient client(daemon.inProcessChannel(), CmdGroup::CmdGroupIs(),
                      GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs(), &lock, &condition);
    client.sendRequestInternal(GrpcCmd::GrpcCmdIs(request, type));
  }
};

const char* const unknownType = "sendRequestInternal.*false && \"unknown request type.\"";
const char* const invalidRequest =
    "sendRequestCommon.*Request = bess::pb::EmptyRequest. Response = bess::pb::EmptyResponse.*"
    "request && \"Found an invalid Grpc Request\"";

TEST_F(ClientDeathTest, AbortsOnATypeWithoutAnRpc) {
  EXPECT_EXIT(die(unknown, new bess::pb::EmptyRequest()), aborted, unknownType);
  EXPECT_EXIT(die(static_cast<GrpcRequestType>(grpcRequestTypes), new bess::pb::EmptyRequest()),
              aborted, unknownType);
  EXPECT_EXIT(
      {
        Lumo::traceSettingIs("*/*");
        die(static_cast<GrpcRequestType>(0xFFFFFFFF), new bess::pb::EmptyRequest());
      },
      aborted, unknownType);
}

TEST_F(ClientDeathTest, SaysWhatItSendsBeforeItLooksForTheRpc) {
  EXPECT_EXIT(
      {
        Lumo::traceSettingIs("GrpcClient/8");
        die(static_cast<GrpcRequestType>(grpcRequestTypes), new bess::pb::EmptyRequest());
      },
      aborted, "Sending " + std::to_string(grpcRequestTypes) + "\n(.|\n)*unknown request type");
}

TEST_F(ClientDeathTest, AbortsOnARequestThatDoesNotFitItsType) {
  EXPECT_EXIT(die(resetAll, nullptr), aborted, invalidRequest);
  EXPECT_EXIT(die(resetAll, new bess::pb::CreatePortRequest()), aborted, invalidRequest);
}

TEST_F(ClientDeathTest, KeptOnPurposeGetPortConfFallsThroughIntoGetPortStats) {
  EXPECT_EXIT(die(getPortConf, new bess::pb::GetPortConfRequest()), aborted,
              "Request = bess::pb::GetPortStatsRequest.*Found an invalid Grpc Request(.|\n)*"
              "called /bess.pb.BESSControl/GetPortConf");
}

TEST_F(ClientDeathTest, AbortsOnACompletionOfATypeWithoutAnRpc) {
  EXPECT_EXIT(
      {
        FakeDaemon daemon;
        Lumo::Lock lock;
        Lumo::Condition condition;
        GrpcClient client(daemon.inProcessChannel(), CmdGroup::CmdGroupIs(),
                          GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs(), &lock, &condition);
        client.processResponse(GrpcCmd::GrpcCmdIs(nullptr, unknown), nullptr);
      },
      aborted, "processResponse.*false && \"unknown request type.\"");
}

}  // namespace
