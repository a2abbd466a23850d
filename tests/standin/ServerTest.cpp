#include <grpcpp/generic/generic_stub.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <stdexcept>

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

}  // namespace

TEST_F(StandinServer, ListensAtAFreePort) {
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  Standin::Server server(options);
  EXPECT_GT(server.port(), 0);
  EXPECT_EQ(server.address(), "127.0.0.1:" + std::to_string(server.port()));
  EXPECT_TRUE(getVersion(server.address()).ok());
}

// What a generic client asks first. Its messages are written out by hand, as no header of Debian's
// has them: field 7 of the request, empty, asks for the services; their names come back as text.
TEST_F(StandinServer, TellsAGenericClientItsServices) {
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  Standin::Server server(options);
  grpc::GenericStub stub(StandinTest::directChannel(server.address()));
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(20));
  grpc::CompletionQueue queue;
  const auto done = [&queue] {
    void* tag = nullptr;
    bool ok = false;
    return queue.Next(&tag, &ok) && ok;
  };
  const auto call = stub.PrepareCall(
      &context, "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo", &queue);
  call->StartCall(nullptr);
  ASSERT_TRUE(done());
  const grpc::Slice request(std::string("\x3a\x00", 2));
  call->Write(grpc::ByteBuffer(&request, 1), nullptr);
  ASSERT_TRUE(done());
  grpc::ByteBuffer answer;
  call->Read(&answer, nullptr);
  ASSERT_TRUE(done());
  grpc::Slice bytes;
  ASSERT_TRUE(answer.DumpToSingleSlice(&bytes).ok());
  const std::string text(reinterpret_cast<const char*>(bytes.begin()), bytes.size());
  EXPECT_NE(text.find("bess.pb.BESSControl"), std::string::npos);
  call->WritesDone(nullptr);
  ASSERT_TRUE(done());
  grpc::Status status;
  call->Finish(&status, nullptr);
  ASSERT_TRUE(done());
  EXPECT_TRUE(status.ok()) << status.error_message();
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
