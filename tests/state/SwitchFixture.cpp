#include "SwitchFixture.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include <bess/pb/service.grpc.pb.h>

namespace Norv::State {

namespace {

// Sends the request and gives the error of the answer.
bess::pb::Error send(bess::pb::BESSControl::Stub& stub, const Step& step) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
  bess::pb::Error error;
  grpc::Status status;
  switch (step.type) {
#define NORV_REQUEST(number, name, Rpc, Request, Response)                                        \
  case GrpcRequestType::name: {                                                                   \
    bess::pb::Response response;                                                                  \
    status = stub.Rpc(&context, static_cast<const bess::pb::Request&>(*step.request), &response); \
    error = response.error();                                                                     \
    break;                                                                                        \
  }
#include <Norv/GrpcRequests.def>
    default:
      break;
  }
  if (!status.ok()) {
    error.set_code(1000 + status.error_code());
    error.set_errmsg(status.error_message());
  }
  return error;
}

std::string nameIn(const google::protobuf::Message& request) {
  if (const auto* tc = dynamic_cast<const bess::pb::UpdateTcParentRequest*>(&request)) {
    return tc->class_().leaf_module_name();
  }
  for (const char* field : {"name", "m1", "wid", "path"}) {
    const auto* found = request.GetDescriptor()->FindFieldByName(field);
    if (found == nullptr) continue;
    if (found->cpp_type() != google::protobuf::FieldDescriptor::CPPTYPE_STRING) {
      return std::to_string(request.GetReflection()->GetInt64(request, found));
    }
    return request.GetReflection()->GetString(request, found);
  }
  if (const auto* tc = dynamic_cast<const bess::pb::AddTcRequest*>(&request)) {
    return tc->class_().name();
  }
  if (const auto* tc = dynamic_cast<const bess::pb::UpdateTcParamsRequest*>(&request)) {
    return tc->class_().name();
  }
  if (const auto* hook = dynamic_cast<const bess::pb::ConfigureGateHookRequest*>(&request)) {
    return hook->hook().class_name();
  }
  return "";
}

std::string commandText(const Step& step) {
  std::ostringstream name;
  name << step.type;
  std::string text = name.str() + " " + nameIn(*step.request);
  if (const auto* command = dynamic_cast<const bess::pb::CommandRequest*>(step.request.get())) {
    text += " " + command->cmd();
  }
  return text;
}

}  // namespace

Standin::Options TestSwitch::newer() {
  Standin::Options options = older();
  options.newerReplies = true;
  return options;
}

Standin::Options TestSwitch::older() {
  Standin::Options options;
  // Not within the process: there, now and then, a reply is lost.
  options.listen = "127.0.0.1:0";
  options.cores = 8;
  return options;
}

TestSwitch::TestSwitch(Standin::Options options)
    : server_(std::make_unique<Standin::Server>(options)) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(-1);
  channel_ =
      grpc::CreateCustomChannel(server_->address(), grpc::InsecureChannelCredentials(), arguments);
}

void TestSwitch::reset() {
  const auto stub = bess::pb::BESSControl::NewStub(channel_);
  Step step;
  step.type = resetAll;
  step.request = std::make_shared<bess::pb::EmptyRequest>();
  ASSERT_EQ(send(*stub, step).code(), 0);
}

TestSwitch::Applied TestSwitch::carryOut(const Plan& plan) {
  Execution execution(plan);
  return carryOut(execution);
}

TestSwitch::Applied TestSwitch::carryOut(Execution& execution) {
  const auto stub = bess::pb::BESSControl::NewStub(channel_);
  Applied applied;
  applied.plan = execution.plan();
  const auto carryOutOne = [&](std::size_t number) {
    const Step& step = applied.plan.steps[number];
    const bess::pb::Error error = send(*stub, step);
    const std::string text = error.errmsg();
    if (error.code() >= 1000) {
      execution.ended(number, StepEnd::unclear, text);
    } else {
      execution.ended(number, error.code() == 0 ? StepEnd::done : StepEnd::refused, text);
    }
    if (error.code() != 0 && error.code() < 1000) {
      applied.refusals.push_back(commandText(step) + ": " + std::to_string(error.code()) + " " +
                                 text);
    }
  };
  // All that may go go together, as they do in a queue: none knows how those before it end.
  std::vector<std::size_t> together;
  do {
    together.clear();
    while (const auto next = execution.next()) together.push_back(*next);
    for (const std::size_t number : together) carryOutOne(number);
  } while (!together.empty());
  EXPECT_TRUE(execution.finished());
  applied.states = execution.states();
  return applied;
}

LiveSwitch TestSwitch::read() {
  LiveSwitch live = readSwitch(channel_);
  record_.complement(live);
  return live;
}

TestSwitch::Applied TestSwitch::apply(const Switch& wanted, const PlanOptions& options) {
  const Plan plan = makePlan(read(), wanted, options);
  Execution execution(plan);
  record_.begin(execution, wanted);
  Applied applied = carryOut(execution);
  const LiveSwitch after = readSwitch(channel_);
  applied.states = Record::settled(execution, after, wanted, options);
  record_.end(execution, applied.states, wanted, after);
  return applied;
}

TestSwitch::Applied TestSwitch::apply(const std::string& document, const PlanOptions& options) {
  return apply(wanted(document), options);
}

Plan TestSwitch::plan(const std::string& document, const PlanOptions& options) {
  return makePlan(read(), wanted(document), options);
}

Switch wanted(const std::string& text) {
  try {
    return readDocument({{"wanted.yaml", text}}).wanted;
  } catch (const DocumentError& error) {
    ADD_FAILURE() << error.what() << "\n" << text;
    return {};
  }
}

std::string problems(const std::string& text) {
  try {
    const Document document = readDocument({{"f", text}});
    std::string all;
    for (const Problem& problem : checkReferences(document, nullptr)) {
      all += (all.empty() ? "" : "\n") + State::text(problem.mark) + ": " + problem.text;
    }
    return all;
  } catch (const DocumentError& error) {
    return error.what();
  }
}

std::string summary(const Plan& plan) {
  static constexpr const char* signs[] = {"+", "~", "-/+", "-"};
  std::string all;
  for (const Change& change : plan.changes) {
    all += std::string(signs[static_cast<int>(change.action)]) + " " + text(change.object);
    for (const std::string& detail : change.details) all += "; " + detail;
    all += "\n";
  }
  return all;
}

std::vector<std::string> commands(const Plan& plan) {
  std::vector<std::string> all;
  for (const Step& step : plan.steps) {
    all.push_back(step.request ? commandText(step) : "impossible: " + step.impossible);
  }
  return all;
}

std::vector<std::filesystem::path> recordings(const std::string& folder) {
  std::vector<std::filesystem::path> files;
  std::error_code missing;
  for (const auto& entry : std::filesystem::directory_iterator(folder, missing)) {
    if (entry.path().extension() == ".jsonl") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string contents(const std::filesystem::path& file) {
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

}  // namespace Norv::State
