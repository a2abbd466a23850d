#include <google/protobuf/unknown_field_set.h>
#include <grpcpp/generic/generic_stub.h>
#include <standin/control.grpc.pb.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <vector>

#include "Fixture.h"
#include "Replay.h"

using namespace bess::pb;

class StandinServer : public StandinTest::StandinFixture {};

namespace {

grpc::Status getVersion(const std::string& address) {
  const auto stub = BESSControl::NewStub(StandinTest::directChannel(address));
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(20));
  VersionResponse response;
  return stub->GetVersion(&context, EmptyRequest(), &response);
}

// What a generic client asks first. Its messages are written out by hand, as no header of Debian's
// has them: field 7 of the request, empty, asks for the services; their names come back as text.
std::string servicesAt(const std::string& address) {
  grpc::GenericStub stub(StandinTest::directChannel(address));
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(20));
  grpc::CompletionQueue queue;
  const auto expectDone = [&queue] {
    void* tag = nullptr;
    bool ok = false;
    EXPECT_TRUE(queue.Next(&tag, &ok) && ok);
  };
  const auto call = stub.PrepareCall(
      &context, "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo", &queue);
  call->StartCall(nullptr);
  expectDone();
  const grpc::Slice request(std::string("\x3a\x00", 2));
  call->Write(grpc::ByteBuffer(&request, 1), nullptr);
  expectDone();
  grpc::ByteBuffer answer;
  call->Read(&answer, nullptr);
  expectDone();
  grpc::Slice bytes;
  EXPECT_TRUE(answer.DumpToSingleSlice(&bytes).ok());
  call->WritesDone(nullptr);
  expectDone();
  grpc::Status status;
  call->Finish(&status, nullptr);
  expectDone();
  EXPECT_TRUE(status.ok()) << status.error_message();
  return {reinterpret_cast<const char*>(bytes.begin()), bytes.size()};
}

// What loading the lines is refused with; empty when it is not.
std::string loadRefusal(Standin::Server& server, const std::string& lines) {
  try {
    server.load(lines);
    return "";
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
}

}  // namespace

TEST_F(StandinServer, ListensAtAFreePort) {
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  Standin::Server server(options);
  EXPECT_GT(server.port(), 0);
  EXPECT_EQ(server.address(), "127.0.0.1:" + std::to_string(server.port()));
  EXPECT_TRUE(getVersion(server.address()).ok());
}

TEST_F(StandinServer, TellsAGenericClientItsServices) {
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  options.control = "127.0.0.1:0";
  Standin::Server server(options);
  const std::string daemon = servicesAt(server.address());
  EXPECT_NE(daemon.find("bess.pb.BESSControl"), std::string::npos);
  EXPECT_EQ(daemon.find("standin.Control"), std::string::npos);
  const std::string control = servicesAt(server.controlAddress());
  EXPECT_NE(control.find("standin.Control"), std::string::npos);
  EXPECT_EQ(control.find("bess.pb.BESSControl"), std::string::npos);
}

TEST_F(StandinServer, AnAddressInUseIsRefusedWithItsName) {
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  Standin::Server first(options);
  options.listen = first.address();
  try {
    Standin::Server second(options);
    FAIL() << "two servers at one address";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find(first.address()), std::string::npos);
  }
}

TEST_F(StandinServer, AnAddressWithoutPortIsRefused) {
  Standin::Options options;
  for (const char* address : {"localhost", "localhost:", ":1", "localhost:99999", "h:1x"}) {
    options.listen = address;
    EXPECT_THROW(Standin::Server{options}, std::runtime_error) << address;
  }
}

TEST_F(StandinServer, AnIpv6AddressWithoutBracketsIsToldThatItNeedsThem) {
  Standin::Options options;
  options.listen = "::1:0";
  try {
    Standin::Server server(options);
    FAIL() << "listens at ::1:0";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("brackets, such as [::1]:"), std::string::npos)
        << error.what();
  }
}

TEST_F(StandinServer, ShutdownEndsTheServiceAndMayBeRepeated) {
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  Standin::Server server(options);
  server.shutdown();
  server.shutdown();
  server.wait();
  EXPECT_EQ(getVersion(server.address()).error_code(), grpc::StatusCode::UNAVAILABLE);
}

TEST(StandinServerOptions, KillBessAnswersAndTells) {
  std::atomic<int> kills = 0;
  Standin::Options options;
  options.listen = "";
  options.onKill = [&kills] { ++kills; };
  Standin::Server server(options);
  const auto stub = BESSControl::NewStub(server.inProcessChannel());
  grpc::ClientContext context;
  EmptyResponse response;
  EXPECT_TRUE(stub->KillBess(&context, EmptyRequest(), &response).ok());
  EXPECT_EQ(kills, 1);
}

class StandinStrict : public StandinTest::StandinFixture {
 protected:
  StandinStrict() : StandinFixture(strict()) {}
  static Standin::Options strict() {
    Standin::Options options;
    options.strictDaemon = true;
    return options;
  }
};

TEST_F(StandinStrict, DoesNotImplementMacAddresses) {
  EmptyResponse response;
  EXPECT_EQ(tryCall(&Stub::AddPortMacAddress, MacAddressRequest(), response).error_code(),
            grpc::StatusCode::UNIMPLEMENTED);
  EXPECT_EQ(tryCall(&Stub::RemovePortMacAddress, MacAddressRequest(), response).error_code(),
            grpc::StatusCode::UNIMPLEMENTED);
}

TEST_F(StandinStrict, KeepsNothingOfWhatItDoesNotImplementAndLoadsNoneOfIt) {
  MacAddressRequest request;
  request.set_name("p");
  EmptyResponse response;
  tryCall(&Stub::AddPortMacAddress, request, response);
  EXPECT_EQ(server_->dump(), "");
  const std::string call = R"({"type":"addPortMacAddress","request":{"name":"p"})";
  EXPECT_EQ(loadRefusal(*server_, call + R"(,"response":{}})"),
            "line 1 of the state was taken where it was dumped and is not implemented here; start "
            "this stand-in with the options of that one, such as --cores, and where its files are");
  EXPECT_EQ(loadRefusal(*server_, call + R"(,"status":{"code":12}})"), "");
}

// Those of today's daemon: a row behind them is answered UNIMPLEMENTED until Daemon has a function.
TEST_F(StandinServer, ImplementsTheFirst45Requests) {
#define NORV_REQUEST(number, name, Rpc, Request, Response)                \
  if (number <= 45) {                                                     \
    Response response;                                                    \
    const grpc::Status status = tryCall(&Stub::Rpc, Request(), response); \
    EXPECT_TRUE(status.ok()) << #name << ": " << status.error_message();  \
  }
#include <Norv/GrpcRequests.def>
}

TEST_F(StandinServer, APluginMustBeASharedObject) {
  ImportPluginRequest request;
  request.set_path("/nonexistent.so");
  EXPECT_EQ(call(&Stub::ImportPlugin, request).error().code(), -1);
  EXPECT_EQ(ask(&Stub::ListPlugins).paths_size(), 0);
}

TEST_F(StandinServer, ImportingAgainAfterAnUnloadFailsTheCall) {
  std::string line, library;  // Some library that this process has loaded.
  std::ifstream maps("/proc/self/maps");
  while (library.empty() && std::getline(maps, line))
    if (line.find(".so") != std::string::npos) library = line.substr(line.find('/'));
  ASSERT_FALSE(library.empty());
  ImportPluginRequest import;
  import.set_path(library);
  UnloadPluginRequest unload;
  unload.set_path(library);
  EXPECT_EQ(call(&Stub::ImportPlugin, import).error().code(), 0);
  EXPECT_EQ(ask(&Stub::ListPlugins).paths_size(), 1);
  EXPECT_EQ(call(&Stub::UnloadPlugin, unload).error().code(), 0);
  EmptyResponse response;
  EXPECT_EQ(tryCall(&Stub::ImportPlugin, import, response).error_code(), grpc::StatusCode::UNKNOWN);
}

TEST_F(StandinServer, OneMemorySocketHasAPool) {
  DumpMempoolRequest request;
  request.set_socket(-1);
  const auto pools = call(&Stub::DumpMempool, request);
  ASSERT_EQ(pools.dumps_size(), 1);
  EXPECT_EQ(pools.dumps(0).ring_bytes(), 18446744073709551594u);
  request.set_socket(1);
  EXPECT_EQ(call(&Stub::DumpMempool, request).dumps_size(), 0);
}

TEST(StandinServerListens, AtIpv6AndAtAUnixSocket) {
  Standin::Options options;
  options.listen = "[::1]:0";
  Standin::Server ipv6(options);
  EXPECT_EQ(ipv6.address(), "[::1]:" + std::to_string(ipv6.port()));
  EXPECT_TRUE(getVersion(ipv6.address()).ok());
  options.listen = "unix:standin-" + std::to_string(getpid()) + ".sock";
  Standin::Server local(options);
  EXPECT_EQ(local.address(), options.listen);
  EXPECT_TRUE(getVersion(local.address()).ok());
  EXPECT_THROW(Standin::Server{options}, std::runtime_error) << "two at one socket";
  EXPECT_TRUE(getVersion(local.address()).ok());
}

TEST(StandinServerListens, ToAThousandConnections) {
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  Standin::Server server(options);
  std::vector<std::shared_ptr<grpc::Channel>> channels;
  for (int i = 0; i < NORV_CONNECTIONS; ++i) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    channels.push_back(
        grpc::CreateCustomChannel(server.address(), grpc::InsecureChannelCredentials(), arguments));
    const auto stub = BESSControl::NewStub(channels.back());
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(20));
    VersionResponse response;
    ASSERT_TRUE(stub->GetVersion(&context, EmptyRequest(), &response).ok()) << i;
  }
}

TEST_F(StandinServer, SeveralInOneProcessKnowNothingOfEachOther) {
  Standin::Options options;
  options.listen = "";
  Standin::Server other(options);
  createModule("Sink", "a");
  other.load(server_->dump());
  createModule("Sink", "b");
  const auto stub = BESSControl::NewStub(other.inProcessChannel());
  grpc::ClientContext context;
  ListModulesResponse response;
  ASSERT_TRUE(stub->ListModules(&context, EmptyRequest(), &response).ok());
  EXPECT_EQ(response.modules_size(), 1);
}

TEST_F(StandinServer, ADumpKeepsArgumentsThatJsonCannotShow) {
  CreateModuleRequest request;
  request.set_mclass("Sink");
  request.mutable_arg()->set_type_url("type.googleapis.com/bess.pb.Nowhere");
  request.mutable_arg()->set_value("\xff");
  call(&Stub::CreateModule, request);
  const std::string dump = server_->dump();
  EXPECT_NE(dump.find("request_raw"), std::string::npos) << dump;
  ask(&Stub::ResetModules);
  server_->load(dump);
  EXPECT_EQ(ask(&Stub::ListModules).modules_size(), 1);
  EXPECT_EQ(server_->dump(), dump);
}

TEST_F(StandinServer, ALineThatIsNoCallIsToldAndLeavesTheStateAsItWas) {
  createModule("Sink", "a");
  const struct {
    const char* lines;
    const char* text;
  } rows[] = {
      {"{", "line 1 of the state is no object of JSON"},
      {"\xff", "line 1 of the state is no object of JSON"},
      {"5", "line 1 of the state is no object of JSON"},
      {"{}", "line 1 of the state has no type, the request's name"},
      {R"({"type":5})", "line 1 of the state has no type, the request's name"},
      {R"({"type":"fly"})", "line 1 of the state has the type 'fly', which no request has"},
      {"\n{\"type\":\"createModule\",\"request\":5}",
       "line 2 of the state has a request that is not one of its type"},
      {R"({"type":"resetAll","request":{},"response":5})",
       "line 1 of the state has a response that is no object"},
      {R"({"type":"resetAll","request":{},"response":{"error":{"code":"x"}}})",
       "line 1 of the state has a code that is no number"},
      {R"({"type":"resetAll","request":{},"status":0})",
       "line 1 of the state is of a log, which tells no state; write one with `bessd-standin ctl "
       "ADDRESS dump FILE`"}};
  for (const auto& row : rows) EXPECT_EQ(loadRefusal(*server_, row.lines), row.text) << row.lines;
  EXPECT_EQ(ask(&Stub::ListModules).modules_size(), 1);
}

TEST_F(StandinServer, BeginsWithAStateThatItsFirstCallFinds) {
  createModule("Sink", "a");
  Standin::Options options;
  options.listen = "";
  options.state = server_->dump();
  Standin::Server other(options);
  EXPECT_EQ(other.dump(), options.state);
  const auto stub = BESSControl::NewStub(other.inProcessChannel());
  grpc::ClientContext context;
  ListModulesResponse response;
  ASSERT_TRUE(stub->ListModules(&context, EmptyRequest(), &response).ok());
  EXPECT_EQ(response.modules_size(), 1);
  options.state = "{";
  EXPECT_THROW(Standin::Server{options}, std::invalid_argument);
}

TEST_F(StandinServer, AStateIsRefusedWhereOneOfItsCallsEndsOtherwise) {
  Standin::Options options;
  options.listen = "";
  options.cores = 8;
  Standin::Server large(options);
  const auto stub = BESSControl::NewStub(large.inProcessChannel());
  AddWorkerRequest request;
  request.set_core(3);
  for (int wid : {0, 1}) {
    request.set_wid(wid);
    grpc::ClientContext context;
    EmptyResponse response;
    ASSERT_TRUE(stub->AddWorker(&context, request, &response).ok());
    ASSERT_EQ(response.error().code(), 0);
  }
  createModule("Sink", "a");
  const std::string refusal = loadRefusal(*server_, large.dump());
  EXPECT_EQ(refusal.substr(0, refusal.find(';')),
            "line 1 of the state was taken where it was dumped and is refused with 22 here "
            "(Invalid core 3)");
  EXPECT_EQ(ask(&Stub::ListModules).modules_size(), 1);
  EXPECT_EQ(loadRefusal(large, large.dump()), "");
  // What was refused and is not any more, too.
  EXPECT_EQ(addWorker(0, 5), EINVAL);
  EXPECT_NE(loadRefusal(large, server_->dump())
                .find("refused with 22 where it was dumped and is "
                      "taken here"),
            std::string::npos);
  EXPECT_EQ(loadRefusal(*server_, server_->dump()), "");
}

TEST_F(StandinServer, AFaultIsCountedAndGoes) {
  server_->addFault(Standin::Fault::parse("kind=error rpc=getVersion every=2 code=7 text=a b"));
  EXPECT_EQ(ask(&Stub::GetVersion).error().code(), 0);
  EXPECT_EQ(refusal(ask(&Stub::GetVersion).error()), "7 a b");
  ASSERT_EQ(server_->faults().size(), 1u);
  EXPECT_EQ(server_->faults()[0].matched, 2u);
  EXPECT_EQ(server_->faults()[0].injected, 1u);
  EXPECT_EQ(server_->faults()[0].rule, "kind=error rpc=getVersion every=2 code=7 text=a b");
  server_->clearFaults();
  EXPECT_TRUE(server_->faults().empty());
}

TEST(StandinFault, RefusesWhatItDoesNotKnowAndWordsThatWouldDoNothing) {
  const struct {
    const char* rule;
    const char* text;
  } rows[] = {
      {"", "'' has no kind"},
      {"rpc=getVersion", "'rpc=getVersion' has no kind"},
      {"kind=nope", "no kind of fault is called 'nope'"},
      {"kind=exit rpc=fly", "no request is called 'fly'; give its name as in command files"},
      {"kind=delay ms=x", "'x' is no value for ms"},
      {"kind=delay ms=", "'' is no value for ms"},
      {"kind=exit colour=red", "no word is called 'colour'"},
      {"delay", "'delay' is no key=value"},
      {"kind=exit delay ms=5", "'delay' is no key=value"},
      {"kind=exit name=\"my module", "a name in quotes ends with a quote"},
      {"kind=exit name=\"my\"module", "a name in quotes ends with a quote"},
      {"kind=exit name=", "the name is empty"},
      {"kind=delay kind=exit", "kind is given twice"},
      {"kind=exit nth=1 nth=2", "nth is given twice"},
      {"kind=delay", "a delay needs its milliseconds"},
      {"kind=delay ms=0", "a delay needs its milliseconds"},
      {"kind=delay ms=5 max-ms=4", "max-ms is less than ms"},
      {"kind=delay ms=5 max-ms=0", "max-ms is less than ms"},
      {"kind=error ms=5", "ms is for kind=delay alone"},
      {"kind=exit max-ms=5", "max-ms is for kind=delay alone"},
      {"kind=delay ms=5 code=5", "code is for kind=status and kind=error alone"},
      {"kind=hang-up text=gone", "text is for kind=status and kind=error alone"},
      {"kind=status code=17", "a gRPC status code is from 1 to 16"},
      {"kind=status code=0", "a gRPC status code is from 1 to 16"},
      {"kind=error code=0", "the code of an error is not 0"},
      {"kind=exit nth=0", "nth counts from 1"},
      {"kind=exit every=0", "every is 1 or more"},
      {"kind=exit nth=2 every=3", "give nth or every, not both"},
      {"kind=exit probability=2", "a probability is from 0 to 1"},
      {"kind=exit seed=2", "seed is for probability and max-ms"},
  };
  for (const auto& row : rows) {
    try {
      Standin::Fault::parse(row.rule);
      ADD_FAILURE() << "taken: " << row.rule;
    } catch (const std::invalid_argument& error) {
      EXPECT_EQ(std::string(error.what()).rfind(row.text, 0), 0u)
          << row.rule << ": " << error.what();
    }
  }
}

TEST(StandinFault, ComesBackFromItsText) {
  for (const char* rule :
       {"kind=exit rpc=createModule name=fib nth=3",
        "kind=exit rpc=* name=\"my \\\"own\\\" module\"", "kind=exit rpc=* name=\"\\\"\"",
        "kind=exit rpc=* name=back\\slash every=2",
        "kind=delay rpc=* probability=0.5 seed=7 ms=5 max-ms=20",
        "kind=status rpc=* code=14 text=gone for \"good\"", "kind=error rpc=* code=-22"})
    EXPECT_EQ(Standin::Fault::parse(rule).toString(), rule);
  EXPECT_EQ(Standin::Fault::parse("kind=exit rpc=CreateModule").rpc, "createModule");
  EXPECT_EQ(Standin::Fault::parse(" kind=exit\tname=\"my module\" nth=2 ").name, "my module");
}

TEST_F(StandinServer, AFaultFindsANameWithBlanks) {
  server_->addFault(Standin::Fault::parse("kind=error rpc=CreateModule name=\"my module\""));
  EXPECT_EQ(createModule("Sink", "my module", EmptyArg()), 5);
  EXPECT_EQ(createModule("Sink", "my", EmptyArg()), 0);
}

TEST_F(StandinServer, AFaultFindsTheNameWhereverARequestHasIt) {
  server_->addFault(Standin::Fault::parse("kind=error name=snk"));
  createModule("Source", "src");
  EXPECT_EQ(connect("src", "snk"), 5);
  EXPECT_EQ(destroyModule("snk"), 5);
  ConfigureGateHookRequest hook;
  hook.mutable_hook()->set_module_name("snk");
  EXPECT_EQ(call(&Stub::ConfigureGateHook, hook).error().code(), 5);
  EXPECT_EQ(connect("src", "other"), ENOENT);
  server_->addFault(Standin::Fault::parse("kind=error name=p"));
  EXPECT_EQ(createPort("p", "net_null0"), 5);
  EXPECT_EQ(createPort("q", "net_null0"), 0);
  GetPortStatsRequest stats;
  stats.set_name("p");
  EXPECT_EQ(call(&Stub::GetPortStats, stats).error().code(), 5);
}

namespace {

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

TEST(StandinLog, HasTheCallThatEndsTheDaemonBeforeItEnds) {
  const std::string path = testing::TempDir() + "standin-" + std::to_string(getpid()) + ".log";
  std::filesystem::remove(path);
  std::string logged;
  int exits = 0;
  Standin::Options options;
  options.listen = "";
  options.log = path;
  options.faults = {"kind=exit rpc=createModule"};
  options.onExit = [&] {
    ++exits;
    logged = contentOf(path);
  };
  {
    Standin::Server server(options);
    const auto stub = BESSControl::NewStub(server.inProcessChannel());
    grpc::ClientContext context;
    CreateModuleRequest request;
    request.set_mclass("Sink");
    CreateModuleResponse response;
    EXPECT_EQ(stub->CreateModule(&context, request, &response).error_code(),
              grpc::StatusCode::UNAVAILABLE);
    grpc::ClientContext after;
    ListModulesResponse modules;
    EXPECT_TRUE(stub->ListModules(&after, EmptyRequest(), &modules).ok());
    EXPECT_EQ(modules.modules_size(), 0);  // It goes on, without the effect.
  }
  std::filesystem::remove(path);
  EXPECT_EQ(exits, 1);
  EXPECT_NE(logged.find("\"type\":\"createModule\",\"request\":{\"mclass\":\"Sink\"}"),
            std::string::npos)
      << logged;
  EXPECT_NE(logged.find("\"fault\":\"kind=exit"), std::string::npos) << logged;
}

TEST(StandinLog, ShowsRequestsThatJsonCannotAsBytes) {
  const std::string path = testing::TempDir() + "standin-" + std::to_string(getpid()) + ".log";
  std::filesystem::remove(path);
  Standin::Options options;
  options.listen = "";
  options.log = path;
  CreateModuleRequest request;
  request.set_mclass("Sink");
  request.mutable_arg()->set_type_url("type.googleapis.com/bess.pb.Nowhere");
  {
    Standin::Server server(options);
    const auto stub = BESSControl::NewStub(server.inProcessChannel());
    grpc::ClientContext context;
    CreateModuleResponse response;
    EXPECT_TRUE(stub->CreateModule(&context, request, &response).ok());
  }
  const std::string logged = contentOf(path);
  std::filesystem::remove(path);
  EXPECT_NE(logged.find("\"type\":\"createModule\",\"request_raw\":\""), std::string::npos)
      << logged;
}

TEST_F(StandinServer, RulesAreAddedTogetherOrNotAtAll) {
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  options.control = "127.0.0.1:0";
  Standin::Server server(options);
  const auto control =
      standin::Control::NewStub(StandinTest::directChannel(server.controlAddress()));
  standin::AddFaultsRequest request;
  request.add_rules("kind=exit");
  request.add_rules("kind=nope");
  grpc::ClientContext context;
  standin::Faults faults;
  EXPECT_EQ(control->AddFaults(&context, request, &faults).error_code(),
            grpc::StatusCode::INVALID_ARGUMENT);
  EXPECT_TRUE(server.faults().empty());
}

class StandinNewer : public StandinTest::StandinFixture {
 protected:
  StandinNewer() : StandinFixture(newer()) {}
  static Standin::Options newer() {
    Standin::Options options;
    options.newerReplies = true;
    return options;
  }
  static const google::protobuf::UnknownField* field(const google::protobuf::Message& message,
                                                     int number) {
    const auto& fields = message.GetReflection()->GetUnknownFields(message);
    for (int i = 0; i < fields.field_count(); ++i)
      if (fields.field(i).number() == number) return &fields.field(i);
    return nullptr;
  }
};

TEST_F(StandinNewer, PortsTellQueuesSizesAndArgument) {
  createPort("p", "net_null0", 2);
  const auto list = ask(&Stub::ListPorts);
  ASSERT_NE(field(list.ports(0), 4), nullptr);
  EXPECT_EQ(field(list.ports(0), 4)->varint(), 2u);
  EXPECT_EQ(field(list.ports(0), 6)->varint(), 1024u);
  google::protobuf::Any any;
  PMDPortArg arg;
  ASSERT_TRUE(any.ParseFromString(field(list.ports(0), 8)->length_delimited()));
  ASSERT_TRUE(any.UnpackTo(&arg));
  EXPECT_EQ(arg.vdev(), "net_null0");
}

TEST_F(StandinNewer, GatesTellTheirHooksUnderOtherNumbers) {
  createModule("Source", "src");
  createModule("Sink", "snk");
  connect("src", "snk");
  GetModuleInfoRequest request;
  request.set_name("src");
  const auto info = call(&Stub::GetModuleInfo, request);
  ASSERT_NE(field(info.ogates(0), 9), nullptr);
  GetModuleInfoResponse::GateHook hook;
  ASSERT_TRUE(hook.ParseFromString(field(info.ogates(0), 9)->length_delimited()));
  EXPECT_EQ(hook.class_name() + "/" + hook.hook_name(), "Track/track0");
  EXPECT_EQ(info.ogates(0).gatehooks_size(), 0);
}

TEST_F(StandinNewer, AHookThatWasPutOnDoesNotDecode) {
  createModule("Source", "src");
  createModule("Sink", "snk");
  connect("src", "snk");
  ConfigureGateHookRequest request;
  request.set_enable(true);
  request.mutable_hook()->set_class_name("Track");
  request.mutable_hook()->set_module_name("snk");
  request.mutable_hook()->set_igate(0);
  CommandResponse response;
  EXPECT_FALSE(tryCall(&Stub::ConfigureGateHook, request, response).ok());
}

class StandinPace : public StandinTest::StandinFixture {
 protected:
  static Standin::Pace pace(const std::string& latency, double rate) {
    Standin::Pace pace;
    pace.latencyIs(latency);
    pace.rateIs(rate);
    return pace;
  }
  // How long so many calls take, one after the other.
  std::chrono::steady_clock::duration timed(int calls) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; ++i) ask(&Stub::GetVersion);
    return std::chrono::steady_clock::now() - begin;
  }
};

TEST_F(StandinPace, NoAnswerComesBeforeItsLatency) {
  server_->paceIs(pace("30", 0));
  EXPECT_GE(timed(3), std::chrono::milliseconds(90));
  server_->paceIs(pace("10..20", 0));
  EXPECT_GE(timed(3), std::chrono::milliseconds(30));
}

TEST_F(StandinPace, NoMoreAnswersComeThanTheRate) {
  server_->paceIs(pace("0", 50));
  EXPECT_GE(timed(6), std::chrono::milliseconds(100));
}

TEST_F(StandinPace, ACallThatWaitsGoesOnWhenThePaceChanges) {
  server_->paceIs(pace("600000", 0));
  grpc::CompletionQueue queue;
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(20));
  const auto call = stub_->AsyncGetVersion(&context, EmptyRequest(), &queue);
  VersionResponse response;
  grpc::Status status;
  call->Finish(&response, &status, nullptr);
  void* tag = nullptr;
  bool ok = false;
  // Gives the call time to come; if it comes later, it is not kept either.
  EXPECT_EQ(
      queue.AsyncNext(&tag, &ok, std::chrono::system_clock::now() + std::chrono::milliseconds(50)),
      grpc::CompletionQueue::TIMEOUT);
  server_->paceIs(pace("0", 0));
  ASSERT_TRUE(queue.Next(&tag, &ok));
  EXPECT_TRUE(status.ok()) << status.error_message();
  queue.Shutdown();
}

TEST_F(StandinPace, RefusesWhatIsNone) {
  Standin::Pace pace;
  for (const char* text : {"", "x", "-1", "5..", "5..x", "5x", "20..5", "5...6", "99999999999"})
    EXPECT_THROW(pace.latencyIs(text), std::invalid_argument) << text;
  for (double rate : {-1.0, 1e-9, 1e9, std::numeric_limits<double>::quiet_NaN()})
    EXPECT_THROW(pace.rateIs(rate), std::invalid_argument) << rate;
  pace.latencyIs("5..20");
  EXPECT_EQ(pace.latencyMs, 5u);
  EXPECT_EQ(pace.maxLatencyMs, 20u);
}

// A connection of the test's own to the server, which stays until it is hung up.
class Connection {
 public:
  explicit Connection(const std::string& address) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    channel_ = grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
    stub_ = BESSControl::NewStub(channel_);
  }
  grpc::StatusCode getVersion() {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(20));
    VersionResponse response;
    return stub_->GetVersion(&context, EmptyRequest(), &response).error_code();
  }
  bool connected() { return channel_->GetState(false) == GRPC_CHANNEL_READY; }
  // Waits until the client has seen the end of the connection.
  bool lost() {
    return channel_->WaitForStateChange(
        GRPC_CHANNEL_READY, std::chrono::system_clock::now() + std::chrono::seconds(20));
  }

 private:
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<BESSControl::Stub> stub_;
};

class StandinHangsUp : public testing::TestWithParam<const char*> {
 protected:
  static std::string listen(const std::string& pattern, const std::string& name) {
    return pattern == "unix:" ? "unix:" + name + std::to_string(getpid()) + ".sock" : pattern;
  }
};

TEST_P(StandinHangsUp, OnOneServersClientAndStopsListeningThere) {
  Standin::Options options;
  options.listen = listen(GetParam(), "one-");
  Standin::Server server(options);
  options.listen = listen(GetParam(), "other-");
  Standin::Server other(options);
  Connection client(server.address()), bystander(other.address());
  ASSERT_EQ(client.getVersion(), grpc::StatusCode::OK);
  ASSERT_EQ(bystander.getVersion(), grpc::StatusCode::OK);
  for (const char* kind : {"hang-up", "hang-up-after"}) {
    server.addFault(Standin::Fault::parse(std::string("nth=1 kind=") + kind));
    EXPECT_EQ(client.getVersion(), grpc::StatusCode::UNAVAILABLE) << kind;
    EXPECT_TRUE(client.lost()) << kind;
    EXPECT_TRUE(bystander.connected()) << kind;
    EXPECT_EQ(client.getVersion(), grpc::StatusCode::OK) << kind;  // It connects again.
    server.clearFaults();
  }
  server.addFault(Standin::Fault::parse("kind=stop-accepting nth=1"));
  EXPECT_EQ(client.getVersion(), grpc::StatusCode::OK);
  EXPECT_EQ(Connection(server.address()).getVersion(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(client.getVersion(), grpc::StatusCode::OK);
  EXPECT_EQ(Connection(other.address()).getVersion(), grpc::StatusCode::OK);
}

INSTANTIATE_TEST_SUITE_P(Addresses, StandinHangsUp,
                         testing::Values("127.0.0.1:0", "[::1]:0", "unix:", "localhost:0",
                                         "0.0.0.0:0", "[::]:0"));

TEST(StandinServerListens, OnWhereAnotherStopsAtTheSamePortOfAnotherAddress) {
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  Standin::Server server(options);
  options.listen = "127.0.0.2:" + std::to_string(server.port());
  Standin::Server other(options);
  server.addFault(Standin::Fault::parse("kind=stop-accepting nth=1"));
  EXPECT_EQ(Connection(server.address()).getVersion(), grpc::StatusCode::OK);
  EXPECT_EQ(Connection(server.address()).getVersion(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(Connection(other.address()).getVersion(), grpc::StatusCode::OK);
}

TEST(StandinServerListens, ToIpv4AtAnIpv6AddressAndHangsUpThere) {
  Standin::Options options;
  options.listen = "[::]:0";
  Standin::Server server(options);
  Connection client("127.0.0.1:" + std::to_string(server.port()));
  ASSERT_EQ(client.getVersion(), grpc::StatusCode::OK);
  server.addFault(Standin::Fault::parse("kind=hang-up nth=1"));
  EXPECT_EQ(client.getVersion(), grpc::StatusCode::UNAVAILABLE);
  EXPECT_TRUE(client.lost());
}

TEST_F(StandinServer, ADumpIsRefusedAfterTooMuchUntilAReset) {
  createModule("Sink", "k");
  CommandRequest request;
  request.set_name("k");
  request.set_cmd("none");
  request.mutable_arg()->set_value(std::string(4000000, 'x'));
  for (int i = 0; i < 68; ++i) call(&Stub::ModuleCommand, request);
  EXPECT_THROW(server_->dump(), std::runtime_error);
  ask(&Stub::ResetAll);
  EXPECT_EQ(server_->dump(), "{\"type\":\"resetAll\",\"request\":{},\"response\":{}}\n");
}

TEST_F(StandinServer, QuestionsAreNotKeptForADump) {
  createModule("Queue", "q");
  const std::string dump = server_->dump();
  ask(&Stub::ListModules);
  command("q", "get_status", EmptyArg());
  EXPECT_EQ(server_->dump(), dump);
}
