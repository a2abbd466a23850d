#include <Standin/Server.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>

#include <chrono>
#include <mutex>
#include <stdexcept>

#include "Connections.h"
#include "ControlService.h"
#include "Service.h"

namespace Standin {

namespace {

// gRPC's name of the address, whose port is `port` once it listens.
std::string addressWithPort(const std::string& address, int port) {
  if (address.empty() || isUnix(address)) return address;
  return address.substr(0, address.rfind(':')) + ":" + std::to_string(port);
}

void checkAddress(const std::string& address) {
  if (isUnix(address) && address.size() > 5) return;
  const std::size_t colon = address.rfind(':');
  if (address.find(':') != colon && address[0] != '[')
    throw std::runtime_error("'" + address +
                             "' is no address to listen at; put an IPv6 address in brackets, such "
                             "as [::1]:10514");
  if (colon == std::string::npos || colon == 0 ||
      address.find_first_not_of("0123456789", colon + 1) != std::string::npos ||
      colon + 1 == address.size() || address.size() - colon > 6 ||
      std::stoi(address.substr(colon + 1)) > 65535)
    throw std::runtime_error("'" + address +
                             "' is no address to listen at; give HOST:PORT, such as "
                             "127.0.0.1:10514 or [::1]:10514, with port 0 for any free one, or "
                             "unix:PATH");
}

// A server of one service at one address, or at none.
std::unique_ptr<grpc::Server> serve(grpc::Service& service, std::string& address,
                                    int maxRequestSize = GRPC_DEFAULT_MAX_RECV_MESSAGE_LENGTH) {
  grpc::reflection::InitProtoReflectionServerBuilderPlugin();
  grpc::ServerBuilder builder;
  // Without this a second daemon at the same port would share its calls.
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
  int port = 0;
  if (!address.empty()) {
    checkAddress(address);
    // gRPC would take the path over from whoever listens there.
    if (isUnix(address) && someoneListens(address))
      throw std::runtime_error("cannot listen at " + address +
                               "; another daemon is there. Stop it, or choose another path");
    builder.AddListeningPort(address, grpc::InsecureServerCredentials(), &port);
  }
  builder.SetMaxReceiveMessageSize(maxRequestSize);
  builder.RegisterService(&service);
  std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  if (!server || (!address.empty() && port == 0))
    throw std::runtime_error(
        "cannot listen at " + address +
        (isUnix(address) ? "; may you write in its folder, and is the path below 108 bytes?"
                         : "; is another daemon there? Stop it, or choose another address, "
                           "with port 0 for any free one"));
  address = addressWithPort(address, port);
  return server;
}

}  // namespace

class Server::Impl {
 public:
  explicit Impl(const Options& options)
      : address_(options.listen),
        controlAddress_(options.control),
        service_(options),
        control_(service_),
        server_(serve(service_, address_)) {
    service_.addressIs(address_);  // It serves already; who needs the address waits for it.
    if (!controlAddress_.empty()) controlServer_ = serve(control_, controlAddress_, -1);
  }

  ~Impl() { shutdown(); }

  void shutdown() {
    std::call_once(shutdownOnce_, [this] {
      service_.stopWaiting();
      const auto second = std::chrono::system_clock::now() + std::chrono::seconds(1);
      if (server_) server_->Shutdown(second);
      if (controlServer_) controlServer_->Shutdown(second);
    });
  }

  const std::string& address() const { return address_; }
  const std::string& controlAddress() const { return controlAddress_; }
  Service& service() { return service_; }
  grpc::Server& server() { return *server_; }

 private:
  std::string address_;
  std::string controlAddress_;
  Service service_;  // Before the servers, which call the services until they are gone.
  ControlService control_;
  std::unique_ptr<grpc::Server> server_;
  std::unique_ptr<grpc::Server> controlServer_;
  std::once_flag shutdownOnce_;
};

Server::Server(const Options& options) : impl_(std::make_unique<Impl>(options)) {}

Server::~Server() = default;

int Server::port() const {
  const std::string& address = impl_->address();
  if (address.empty() || isUnix(address)) return 0;
  return std::stoi(address.substr(address.rfind(':') + 1));
}

std::string Server::address() const {
  return impl_->address();
}

std::string Server::controlAddress() const {
  return impl_->controlAddress();
}

std::shared_ptr<grpc::Channel> Server::inProcessChannel() {
  return impl_->server().InProcessChannel(grpc::ChannelArguments());
}

void Server::addFault(const Fault& fault) {
  impl_->service().faults().add(fault);
}

void Server::clearFaults() {
  impl_->service().faults().clear();
}

std::vector<FaultCount> Server::faults() const {
  return impl_->service().faults().counts();
}

Pace Server::pace() const {
  return impl_->service().pace();
}

void Server::paceIs(const Pace& pace) {
  impl_->service().paceIs(pace);
}

std::string Server::dump() const {
  return impl_->service().dump();
}

void Server::load(const std::string& lines) {
  impl_->service().load(lines);
}

void Server::shutdown() {
  impl_->shutdown();
}

void Server::wait() {
  impl_->server().Wait();
}

}  // namespace Standin
