#include <Standin/Server.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>

#include <chrono>
#include <mutex>
#include <stdexcept>

#include <bess/pb/service.grpc.pb.h>

#include "Daemon.h"
#include "Refusal.h"

namespace Standin {

namespace {

// The gRPC face of the daemon: one override per request, each an expansion of the table of
// requests.
class Service final : public bess::pb::BESSControl::Service {
 public:
  explicit Service(const Options& options) : options_(options), daemon_(options) {}

#define NORV_REQUEST(number, name, rpc, request, response)                                     \
  grpc::Status rpc(grpc::ServerContext*, const bess::pb::request* in, bess::pb::response* out) \
      override {                                                                               \
    return run(&Daemon::name, *in, *out);                                                      \
  }
#include <Norv/GrpcRequests.def>

 private:
  template <class Request, class Response>
  grpc::Status run(void (Daemon::*handler)(const Request&, Response&), const Request& in,
                   Response& out) {
    if constexpr (std::is_same_v<Request, bess::pb::MacAddressRequest>) {
      if (options_.strictDaemon) return {grpc::StatusCode::UNIMPLEMENTED, ""};
    }
    const std::lock_guard lock(mutex_);
    try {
      (daemon_.*handler)(in, out);
    } catch (const Refusal& refusal) {
      out.Clear();
      out.mutable_error()->set_code(refusal.code);
      out.mutable_error()->set_errmsg(refusal.what());
    } catch (const HandlerFailure& failure) {
      return {grpc::StatusCode::UNKNOWN, failure.what()};
    }
    return grpc::Status::OK;
  }

  const Options options_;
  std::mutex mutex_;  // Held while a handler runs; guards the daemon.
  Daemon daemon_;
};

std::string hostOf(const std::string& address) {
  const std::size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0 ||
      address.find_first_not_of("0123456789", colon + 1) != std::string::npos ||
      colon + 1 == address.size() || address.size() - colon > 6 ||
      std::stoi(address.substr(colon + 1)) > 65535)
    throw std::runtime_error("'" + address +
                             "' is no address to listen at; give HOST:PORT, such as "
                             "127.0.0.1:10514, with port 0 for any free one");
  return address.substr(0, colon);
}

}  // namespace

class Server::Impl {
 public:
  explicit Impl(const Options& options) : service_(options) {
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();
    grpc::ServerBuilder builder;
    // Without this a second daemon at the same port would share its calls.
    builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
    if (!options.listen.empty()) {
      host_ = hostOf(options.listen);
      builder.AddListeningPort(options.listen, grpc::InsecureServerCredentials(), &port_);
    }
    builder.RegisterService(&service_);
    server_ = builder.BuildAndStart();
    if (!server_ || (!options.listen.empty() && port_ == 0))
      throw std::runtime_error("cannot listen at " + options.listen +
                               "; is another daemon there? Stop it, or choose another address, "
                               "with port 0 for any free one");
  }

  ~Impl() { shutdown(); }

  void shutdown() {
    std::call_once(shutdownOnce_, [this] {
      if (server_) server_->Shutdown(std::chrono::system_clock::now() + std::chrono::seconds(1));
    });
  }

  const std::string& host() const { return host_; }
  int port() const { return port_; }
  grpc::Server& server() { return *server_; }

 private:
  std::string host_;
  int port_ = 0;
  Service service_;  // Before the server, which calls it until it is gone.
  std::unique_ptr<grpc::Server> server_;
  std::once_flag shutdownOnce_;
};

Server::Server(const Options& options) : impl_(std::make_unique<Impl>(options)) {}

Server::~Server() = default;

int Server::port() const {
  return impl_->port();
}

std::string Server::address() const {
  return impl_->host().empty() ? "" : impl_->host() + ":" + std::to_string(impl_->port());
}

std::shared_ptr<grpc::Channel> Server::inProcessChannel() {
  return impl_->server().InProcessChannel(grpc::ChannelArguments());
}

void Server::shutdown() {
  impl_->shutdown();
}

void Server::wait() {
  impl_->server().Wait();
}

}  // namespace Standin
