// Calls GetVersion by a stub and ends with the answer; without a port it does nothing, with gRPC
// and the messages loaded. Usage: start_stub [PORT].

#include <grpcpp/grpcpp.h>
#include <unistd.h>

#include <string>

#include <bess/pb/service.grpc.pb.h>

int main(int argc, char** argv) {
  grpc::ClientContext context;
  bess::pb::VersionResponse response;
  if (argc < 2) _exit(0);
  const auto stub = bess::pb::BESSControl::NewStub(
      grpc::CreateChannel("127.0.0.1:" + std::string(argv[1]), grpc::InsecureChannelCredentials()));
  context.set_wait_for_ready(true);
  _exit(stub->GetVersion(&context, bess::pb::EmptyRequest(), &response).ok() ? 0 : 1);
}
