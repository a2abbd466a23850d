// What the client puts on the wire and what it brings back, against a server that records it.

#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <support/Commands.h>
#include <support/FakeDaemon.h>
#include <support/TraceRecorder.h>

#include <algorithm>
#include <functional>
#include <map>
#include <type_traits>

#include <Norv/AsyncClientCall.h>
#include <Norv/GrpcClient.h>
#include <bess/pb/service.pb.h>

namespace {

struct Row {
  Norv::GrpcRequestType type;
  const char* name;
  const char* request;
  const char* response;
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
  return out << row.name;
}

const Row rows[] = {
#define NORV_REQUEST(number, name, Rpc, Request, Response) \
  {Norv::name, #name, "bess.pb." #Request, "bess.pb." #Response},
#include <Norv/GrpcRequests.def>
};

using Record = Norv::AsyncClientCall<bess::pb::VersionResponse>;
static_assert(
    std::is_same_v<
        decltype(Record::responseReader),
        std::unique_ptr<grpc::ClientAsyncResponseReaderInterface<bess::pb::VersionResponse>>>);
static_assert(std::is_same_v<decltype(Record::response), bess::pb::VersionResponse>);
static_assert(!std::is_base_of_v<Lumo::PtrInterface, Norv::GrpcClient>);
static_assert(std::is_constructible_v<
              Norv::GrpcClient, std::shared_ptr<grpc::Channel>, Lumo::Ptr<Norv::CmdGroup>&,
              Lumo::Ptr<Norv::GrpcErrorHandlingStatus>&, Lumo::Lock*, Lumo::Condition*>);

TEST(AsyncClientCall, StartsOkWithItsFieldsInTheOrderOfTheirUse) {
  const Record record;
  EXPECT_TRUE(record.status.ok());
  const std::vector<const void*> fields{&record.response, &record.context, &record.status,
                                        &record.responseReader};
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end(), std::less<>()));
}

// A client without a worker, on an in-process channel: one blocking call at a time.
struct Wire {
  Wire() : client(daemon.inProcessChannel(), pending, status, &lock, &condition) {}

  bool send(Norv::GrpcRequestType type, std::unique_ptr<google::protobuf::Message> request) {
    const Lumo::Ptr<Norv::GrpcCmd> cmd =
        Lumo::allocate<support::LoggedCmd>(log, sent++, request.release(), type);
    return client.doProcessBlockingGrpcCmd(cmd);
  }

  support::FakeDaemon daemon;
  Lumo::Ptr<Norv::CmdGroup> pending = Norv::CmdGroup::CmdGroupIs();
  Lumo::Ptr<Norv::GrpcErrorHandlingStatus> status =
      Norv::GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  Lumo::Lock lock;
  Lumo::Condition condition;
  Norv::GrpcClient client;
  std::shared_ptr<support::CommandLog> log = std::make_shared<support::CommandLog>();
  int sent = 0;
};

class EveryRequest : public testing::TestWithParam<Row> {};

TEST_P(EveryRequest, ReachesItsMethodAndBringsBackItsResponseType) {
  const Row& row = GetParam();
  Wire wire;
  std::unique_ptr<google::protobuf::Message> request = support::newRequest(row.type);
  ASSERT_EQ(request->GetTypeName(), row.request);
  EXPECT_TRUE(wire.send(row.type, std::move(request)));
  EXPECT_EQ(wire.daemon.callTypes(), std::vector{row.type});
  EXPECT_EQ(wire.log->responseTypes, std::vector<std::string>{row.response});
  EXPECT_FALSE(wire.status->errorOccured());
}

// All rows but getPortConf, which ends the process when it is sent.
std::vector<Row> rowsThatCanBeSent() {
  std::vector<Row> sendable(std::begin(rows), std::end(rows));
  std::erase_if(sendable, [](const Row& row) { return row.type == Norv::getPortConf; });
  return sendable;
}

INSTANTIATE_TEST_SUITE_P(Wire, EveryRequest, testing::ValuesIn(rowsThatCanBeSent()),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(GrpcClient, CompletesGetPortConfWithItsResponseType) {
  Wire wire;
  const Lumo::Ptr<Norv::GrpcCmd> cmd =
      Lumo::allocate<support::LoggedCmd>(wire.log, 0, nullptr, Norv::getPortConf);
  wire.client.processResponse(cmd, new Norv::AsyncClientCall<bess::pb::GetPortConfResponse>());
  EXPECT_EQ(wire.log->responseTypes, std::vector<std::string>{"bess.pb.GetPortConfResponse"});
}

TEST(GrpcClient, SendsTheRequestAsItIsAndKeepsIt) {
  Wire wire;
  auto request = std::make_unique<bess::pb::CreatePortRequest>();
  request->set_name("p0");
  request->set_driver("PMDPort");
  request->set_num_inc_q(3);
  const std::string bytes = request->SerializeAsString();
  const google::protobuf::Message* raw = request.get();
  const Lumo::Ptr<Norv::GrpcCmd> cmd =
      Norv::GrpcCmd::GrpcCmdIs(request.release(), Norv::createPort);
  EXPECT_TRUE(wire.client.doProcessBlockingGrpcCmd(cmd));
  ASSERT_EQ(wire.daemon.calls().size(), 1u);
  EXPECT_EQ(wire.daemon.calls()[0].request, bytes);
  EXPECT_EQ(cmd->request(), raw);
  EXPECT_EQ(raw->SerializeAsString(), bytes);
}

TEST(GrpcClient, TracesItsStartAndSendsNothing) {
  const support::TraceRecorder trace("GrpcClient/*");
  const Wire wire;
  EXPECT_EQ(trace.lines(),
            (std::vector{support::TraceRecorder::Line{"GrpcClient", 1, "GrpcClient.cpp", 20,
                                                      "GrpcClient", "Starting GrpcClient"}}));
  EXPECT_EQ(wire.daemon.calls().size(), 0u);
}

TEST(GrpcClient, SetsNoDeadlineAndAddsNoMetadata) {
  Wire wire;
  EXPECT_TRUE(wire.send(Norv::getVersion, support::newRequest(Norv::getVersion)));
  ASSERT_EQ(wire.daemon.calls().size(), 1u);
  EXPECT_FALSE(wire.daemon.calls()[0].hasDeadline);
  EXPECT_EQ(wire.daemon.calls()[0].metadata, std::vector<std::string>{});
}

TEST(GrpcClient, TakesAnErrorInTheReplyForASuccess) {
  Wire wire;
  wire.daemon.handlerIs([](auto, const auto&, google::protobuf::Message* response) {
    static_cast<bess::pb::EmptyResponse*>(response)->mutable_error()->set_code(16);
    return support::FakeDaemon::Answer();
  });
  EXPECT_TRUE(wire.send(Norv::destroyPort, support::newRequest(Norv::destroyPort)));
  EXPECT_EQ(wire.log->responses, 1);
  EXPECT_FALSE(wire.status->errorOccured());
}

// The requests' methods, stated a second time: in the table, two methods with the same messages
// could have changed places. Rows that are added behind these need not be here.
const std::map<std::string, std::string> methods{
    {"getVersion", "GetVersion"},
    {"resetAll", "ResetAll"},
    {"killBess", "KillBess"},
    {"importPlugin", "ImportPlugin"},
    {"unloadPlugin", "UnloadPlugin"},
    {"listPlugins", "ListPlugins"},
    {"pauseAll", "PauseAll"},
    {"pauseWorker", "PauseWorker"},
    {"resumeWorker", "ResumeWorker"},
    {"resumeAll", "ResumeAll"},
    {"resetWorkers", "ResetWorkers"},
    {"listWorkers", "ListWorkers"},
    {"addWorker", "AddWorker"},
    {"destroyWorker", "DestroyWorker"},
    {"resetTcs", "ResetTcs"},
    {"listTcs", "ListTcs"},
    {"checkSchedulingConstraints", "CheckSchedulingConstraints"},
    {"addTc", "AddTc"},
    {"updateTcParams", "UpdateTcParams"},
    {"updateTcParent", "UpdateTcParent"},
    {"getTcStats", "GetTcStats"},
    {"listDrivers", "ListDrivers"},
    {"getDriverInfo", "GetDriverInfo"},
    {"resetPorts", "ResetPorts"},
    {"listPorts", "ListPorts"},
    {"createPort", "CreatePort"},
    {"destroyPort", "DestroyPort"},
    {"setPortConf", "SetPortConf"},
    {"addPortMacAddress", "AddPortMacAddress"},
    {"removePortMacAddress", "RemovePortMacAddress"},
    {"getPortStats", "GetPortStats"},
    {"getLinkStatus", "GetLinkStatus"},
    {"listMclass", "ListMclass"},
    {"getMclassInfo", "GetMclassInfo"},
    {"resetModules", "ResetModules"},
    {"listModules", "ListModules"},
    {"createModule", "CreateModule"},
    {"destroyModule", "DestroyModule"},
    {"getModuleInfo", "GetModuleInfo"},
    {"connectModules", "ConnectModules"},
    {"disconnectModules", "DisconnectModules"},
    {"dumpMempool", "DumpMempool"},
    {"moduleCommand", "ModuleCommand"},
    {"configureGateHook", "ConfigureGateHook"},
};

TEST(GrpcClient, SendsEachRequestToItsMethod) {
  Wire wire;
  std::map<std::string, std::string> sent;
  for (const Row& row : rowsThatCanBeSent()) {
    EXPECT_TRUE(wire.send(row.type, support::newRequest(row.type)));
    const std::string path = wire.daemon.calls().back().method;
    sent[row.name] = path.substr(path.rfind('/') + 1);
  }
  for (const auto& [name, method] : methods) EXPECT_EQ(sent[name], method) << name;
}

std::shared_ptr<grpc::Channel> channelTo(const support::FakeDaemon& daemon) {
  return grpc::CreateChannel("127.0.0.1:" + std::to_string(daemon.port()),
                             grpc::InsecureChannelCredentials());
}

TEST(GrpcClient, ConnectsWithItsFirstRequestAndNotBefore) {
  support::FakeDaemon daemon;
  const auto channel = channelTo(daemon);
  Lumo::Lock lock;
  Lumo::Condition condition;
  Norv::GrpcClient client(channel, Norv::CmdGroup::CmdGroupIs(),
                          Norv::GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs(), &lock,
                          &condition);
  EXPECT_EQ(channel->GetState(false), GRPC_CHANNEL_IDLE);
  EXPECT_TRUE(client.doProcessBlockingGrpcCmd(
      Norv::GrpcCmd::GrpcCmdIs(support::newRequest(Norv::getVersion).release(), Norv::getVersion)));
  EXPECT_EQ(channel->GetState(false), GRPC_CHANNEL_READY);
}

TEST(GrpcClient, HoldsTheChannelThroughItsStubAlone) {
  support::FakeDaemon daemon;
  const auto channel = channelTo(daemon);
  auto stub = bess::pb::BESSControl::NewStub(channel);
  const auto withAStub = channel.use_count();
  stub = nullptr;
  Lumo::Lock lock;
  Lumo::Condition condition;
  const Norv::GrpcClient client(channel, Norv::CmdGroup::CmdGroupIs(),
                                Norv::GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs(), &lock,
                                &condition);
  EXPECT_EQ(channel.use_count(), withAStub);
}

}  // namespace
