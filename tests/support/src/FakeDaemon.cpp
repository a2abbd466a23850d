#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/grpcpp.h>
#include <support/FakeDaemon.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include <bess/pb/service.pb.h>

namespace support {

using google::protobuf::Message;

namespace {

struct Method {
  Norv::GrpcRequestType type = Norv::unknown;
  std::unique_ptr<Message> request;
  std::unique_ptr<Message> response;
};

// The messages of a method, by its path on the wire.
Method methodOf(const std::string& path) {
#define NORV_REQUEST(number, name, Rpc, Request, Response)     \
  if (path == "/bess.pb.BESSControl/" #Rpc) {                  \
    return {Norv::name, std::make_unique<bess::pb::Request>(), \
            std::make_unique<bess::pb::Response>()};           \
  }
#include <Norv/GrpcRequests.def>
  return {};
}

std::string text(const grpc::ByteBuffer& buffer) {
  std::vector<grpc::Slice> slices;
  buffer.Dump(&slices);
  std::string bytes;
  for (const grpc::Slice& slice : slices) {
    bytes.append(reinterpret_cast<const char*>(slice.begin()), slice.size());
  }
  return bytes;
}

grpc::ByteBuffer buffer(const std::string& bytes) {
  const grpc::Slice slice(bytes);
  return grpc::ByteBuffer(&slice, 1);
}

}  // namespace

// A generic service: it sees the bytes of the wire and may answer any others.
class FakeDaemon::Impl {
 public:
  explicit Impl(unsigned short port) {
    do {
      grpc::ServerBuilder builder;
      builder.AddListeningPort("127.0.0.1:" + std::to_string(port),
                               grpc::InsecureServerCredentials(), &port_);
      server_ = nullptr;
      service_ = std::make_unique<Service>(this);
      builder.RegisterCallbackGenericService(service_.get());
      server_ = builder.BuildAndStart();
    } while (!isNew(port_) && port == 0);
  }
  ~Impl() { shutdown(); }

  void shutdown() {
    release();
    server_->Shutdown(std::chrono::system_clock::now());
    server_->Wait();
    std::unique_lock guard(mutex_);
    released_.wait(guard, [&] { return answering_ == 0; });
  }
  void release() {
    std::lock_guard guard(mutex_);
    held_ = false;
    released_.notify_all();
  }

  class Reactor : public grpc::ServerGenericBidiReactor {
   public:
    Reactor(Impl* daemon, grpc::GenericCallbackServerContext* context)
        : daemon_(daemon), context_(context) {
      StartRead(&request_);
    }
    void OnReadDone(bool ok) override {
      if (!ok) {
        Finish(grpc::Status(grpc::StatusCode::INTERNAL, "no request"));
        return;
      }
      // Answered on a thread of its own: handlers may wait.
      daemon_->answering([this] { answer(); });
    }
    void OnDone() override { delete this; }

   private:
    void answer() {
      std::optional<grpc::ByteBuffer> response;
      const grpc::Status status = daemon_->answer(*context_, text(request_), &response);
      if (response) {
        response_ = *response;
        StartWriteAndFinish(&response_, {}, status);
      } else {
        Finish(status);
      }
    }

    Impl* const daemon_;
    grpc::GenericCallbackServerContext* const context_;
    grpc::ByteBuffer request_;
    grpc::ByteBuffer response_;
  };

  class Service : public grpc::CallbackGenericService {
   public:
    explicit Service(Impl* daemon) : daemon_(daemon) {}
    grpc::ServerGenericBidiReactor* CreateReactor(
        grpc::GenericCallbackServerContext* context) override {
      return new Reactor(daemon_, context);
    }

   private:
    Impl* const daemon_;
  };

  // Workers outlive the tests that they were started in and go on calling where they did: a port is
  // that of one daemon only, but for one that comes back to it.
  static bool isNew(int port) {
    static std::mutex mutex;
    static std::set<int> before;
    std::lock_guard guard(mutex);
    return before.insert(port).second;
  }

  void answering(std::function<void()> work) {
    {
      std::lock_guard guard(mutex_);
      ++answering_;
    }
    std::thread([this, work = std::move(work)] {
      work();
      std::lock_guard guard(mutex_);
      --answering_;
      released_.notify_all();
    }).detach();
  }

  grpc::Status answer(const grpc::GenericCallbackServerContext& context, const std::string& bytes,
                      std::optional<grpc::ByteBuffer>* response) {
    Method method = methodOf(context.method());
    if (!method.request) return {grpc::StatusCode::UNIMPLEMENTED, "unknown method"};
    method.request->ParseFromString(bytes);
    FakeDaemon::Handler handler;
    {
      std::unique_lock guard(mutex_);
      calls_.push_back(record(context, method.type, bytes));
      mostAtOnce_ = std::max(mostAtOnce_, ++atOnce_);
      released_.wait(guard, [&] { return !held_; });
      handler = handler_;
    }
    Answer answer;
    if (handler) answer = handler(method.type, *method.request, method.response.get());
    {
      std::lock_guard guard(mutex_);
      --atOnce_;
    }
    if (!answer.rawResponse.empty()) {
      *response = buffer(answer.rawResponse);
    } else if (answer.code == 0 && !answer.withoutMessage) {
      *response = buffer(method.response->SerializeAsString());
    }
    return {static_cast<grpc::StatusCode>(answer.code), answer.message};
  }

  static Call record(const grpc::GenericCallbackServerContext& context, Norv::GrpcRequestType type,
                     const std::string& bytes) {
    Call call{type,  context.method(),
              bytes, context.deadline() != std::chrono::system_clock::time_point::max(),
              {},    context.peer()};
    for (const auto& [key, value] : context.client_metadata()) {
      const std::string name(key.data(), key.size());
      if (name != "user-agent") call.metadata.push_back(name);
    }
    return call;
  }

  std::mutex mutex_;
  std::condition_variable released_;
  FakeDaemon::Handler handler_;
  std::vector<Call> calls_;
  int answering_ = 0;  // threads that answer, which shutdown waits for
  int atOnce_ = 0;
  int mostAtOnce_ = 0;
  bool held_ = false;
  int port_ = 0;
  std::unique_ptr<Service> service_;
  std::unique_ptr<grpc::Server> server_;
};

FakeDaemon::FakeDaemon(unsigned short port) : impl_(std::make_unique<Impl>(port)) {}
FakeDaemon::~FakeDaemon() = default;

unsigned short FakeDaemon::port() const {
  return static_cast<unsigned short>(impl_->port_);
}

std::shared_ptr<grpc::Channel> FakeDaemon::inProcessChannel() {
  return impl_->server_->InProcessChannel({});
}

void FakeDaemon::handlerIs(Handler handler) {
  std::lock_guard guard(impl_->mutex_);
  impl_->handler_ = std::move(handler);
}

std::vector<FakeDaemon::Call> FakeDaemon::calls() const {
  std::lock_guard guard(impl_->mutex_);
  return impl_->calls_;
}

std::vector<Norv::GrpcRequestType> FakeDaemon::callTypes() const {
  std::vector<Norv::GrpcRequestType> types;
  for (const Call& call : calls()) types.push_back(call.type);
  return types;
}

int FakeDaemon::mostAtOnce() const {
  std::lock_guard guard(impl_->mutex_);
  return impl_->mostAtOnce_;
}

void FakeDaemon::hold() {
  std::lock_guard guard(impl_->mutex_);
  impl_->held_ = true;
}

void FakeDaemon::release() {
  impl_->release();
}

void FakeDaemon::shutdown() {
  impl_->shutdown();
}

}  // namespace support
