#pragma once

#include <Standin/Server.h>
#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <bess/pb/service.grpc.pb.h>

namespace StandinTest {

// A fresh stand-in, in process, and short words for what tests ask of it. Words that answer an int
// answer the code of the refusal, 0 for none.
class StandinFixture : public testing::Test {
 protected:
  explicit StandinFixture(Standin::Options options = {}) {
    options.listen = "";
    server_ = std::make_unique<Standin::Server>(options);
    stub_ = bess::pb::BESSControl::NewStub(server_->inProcessChannel());
  }

  // Calls and expects the gRPC status OK.
  template <class Request, class Response>
  Response call(grpc::Status (bess::pb::BESSControl::Stub::*rpc)(grpc::ClientContext*,
                                                                 const Request&, Response*),
                const Request& request) {
    Response response;
    const grpc::Status status = tryCall(rpc, request, response);
    EXPECT_TRUE(status.ok()) << status.error_message();
    return response;
  }

  template <class Request, class Response>
  grpc::Status tryCall(grpc::Status (bess::pb::BESSControl::Stub::*rpc)(grpc::ClientContext*,
                                                                        const Request&, Response*),
                       const Request& request, Response& response) {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(20));
    return (stub_.get()->*rpc)(&context, request, &response);
  }

  std::string createModule(const std::string& mclass, const std::string& name = "") {
    bess::pb::CreateModuleRequest request;
    request.set_mclass(mclass);
    request.set_name(name);
    return call(&Stub::CreateModule, request).name();
  }

  template <class Arg>
  int createModule(const std::string& mclass, const std::string& name, const Arg& arg) {
    bess::pb::CreateModuleRequest request;
    request.set_mclass(mclass);
    request.set_name(name);
    request.mutable_arg()->PackFrom(arg);
    return call(&Stub::CreateModule, request).error().code();
  }

  // Creates with an argument of the class's message, given in JSON; answers the refusal's text.
  std::string createRefusal(const std::string& mclass, const std::string& argument,
                            const std::string& json) {
    bess::pb::CreateModuleRequest request;
    request.set_mclass(mclass);
    *request.mutable_arg() = packed(argument, json);
    return refusal(call(&Stub::CreateModule, request).error());
  }

  std::string commandRefusal(const std::string& module, const std::string& cmd,
                             const std::string& argument, const std::string& json) {
    bess::pb::CommandRequest request;
    request.set_name(module);
    request.set_cmd(cmd);
    *request.mutable_arg() = packed(argument, json);
    return refusal(call(&Stub::ModuleCommand, request).error());
  }

  // "CODE TEXT", or nothing.
  static std::string refusal(const bess::pb::Error& error) {
    return error.code() == 0 ? "" : std::to_string(error.code()) + " " + error.errmsg();
  }

  static google::protobuf::Any packed(const std::string& argument, const std::string& json) {
    google::protobuf::Any any;
    const std::string text = "{\"@type\":\"type.googleapis.com/bess.pb." + argument + "\"" +
                             (json.empty() ? "" : "," + json) + "}";
    EXPECT_TRUE(google::protobuf::util::JsonStringToMessage(text, &any).ok()) << text;
    return any;
  }

  std::vector<std::int64_t> offsets(const std::string& module) {
    bess::pb::GetModuleInfoRequest request;
    request.set_name(module);
    std::vector<std::int64_t> result;
    const auto info = call(&Stub::GetModuleInfo, request);
    for (const auto& attribute : info.metadata()) result.push_back(attribute.offset());
    return result;
  }

  int destroyModule(const std::string& name) {
    bess::pb::DestroyModuleRequest request;
    request.set_name(name);
    return call(&Stub::DestroyModule, request).error().code();
  }

  int connect(const std::string& from, const std::string& to, std::uint64_t ogate = 0,
              std::uint64_t igate = 0) {
    bess::pb::ConnectModulesRequest request;
    request.set_m1(from);
    request.set_m2(to);
    request.set_ogate(ogate);
    request.set_igate(igate);
    return call(&Stub::ConnectModules, request).error().code();
  }

  template <class Arg>
  bess::pb::CommandResponse command(const std::string& module, const std::string& cmd,
                                    const Arg& arg) {
    bess::pb::CommandRequest request;
    request.set_name(module);
    request.set_cmd(cmd);
    request.mutable_arg()->PackFrom(arg);
    return call(&Stub::ModuleCommand, request);
  }

  int addWorker(std::int64_t wid, std::int64_t core = 0) {
    bess::pb::AddWorkerRequest request;
    request.set_wid(wid);
    request.set_core(core);
    return call(&Stub::AddWorker, request).error().code();
  }

  int addTc(const std::string& name, const std::string& policy, const std::string& parent = "") {
    bess::pb::AddTcRequest request;
    request.mutable_class_()->set_name(name);
    request.mutable_class_()->set_policy(policy);
    request.mutable_class_()->set_parent(parent);
    request.mutable_class_()->set_wid(parent.empty() ? 0 : -1);
    return call(&Stub::AddTc, request).error().code();
  }

  std::vector<bess::pb::ListTcsResponse::TrafficClassStatus> trafficClasses() {
    bess::pb::ListTcsRequest request;
    request.set_wid(-1);
    const auto response = call(&Stub::ListTcs, request);
    return {response.classes_status().begin(), response.classes_status().end()};
  }

  int createPort(const std::string& name, const std::string& vdev, std::uint64_t queues = 1) {
    bess::pb::CreatePortRequest request;
    request.set_name(name);
    request.set_driver("PMDPort");
    request.set_num_inc_q(queues);
    request.set_num_out_q(queues);
    bess::pb::PMDPortArg arg;
    arg.set_vdev(vdev);
    request.mutable_arg()->PackFrom(arg);
    return call(&Stub::CreatePort, request).error().code();
  }

  template <class Response>
  Response ask(grpc::Status (bess::pb::BESSControl::Stub::*rpc)(grpc::ClientContext*,
                                                                const bess::pb::EmptyRequest&,
                                                                Response*)) {
    return call(rpc, bess::pb::EmptyRequest());
  }

  using Stub = bess::pb::BESSControl::Stub;
  std::unique_ptr<Standin::Server> server_;
  std::unique_ptr<bess::pb::BESSControl::Stub> stub_;
};

}  // namespace StandinTest
