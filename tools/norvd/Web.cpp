#include "Web.h"

#include <httplib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <Norv/State/Document.h>

#include "Log.h"
#include "Page.h"

namespace Norvd {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t threads = 16;
constexpr std::size_t mostWaiting = 64;  // connections
constexpr std::size_t mostBody = 1024;   // bytes of a request's body: none is needed
constexpr int seconds = 5;               // for a request to come, and for each part of an answer
constexpr auto betweenAttempts = 2s;
constexpr auto alive = 10s;  // since the main thread put something on the board

// Threads that serve connections. When too many wait, whoever accepts them waits, too, and the
// system refuses what is beyond its own queue.
class BoundedPool : public httplib::TaskQueue {
 public:
  BoundedPool() {
    for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
  }

  void enqueue(std::function<void()> job) override {
    std::unique_lock lock(mutex_);
    room_.wait(lock, [&] { return jobs_.size() < mostWaiting || over_; });
    jobs_.push_back(std::move(job));
    work_.notify_one();
  }

  void shutdown() override {
    {
      const std::lock_guard guard(mutex_);
      over_ = true;
    }
    work_.notify_all();
    room_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }

 private:
  void work() {
    while (true) {
      std::function<void()> job;
      {
        std::unique_lock lock(mutex_);
        work_.wait(lock, [&] { return !jobs_.empty() || over_; });
        if (jobs_.empty()) return;
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      room_.notify_one();
      job();
    }
  }

  std::mutex mutex_;
  std::condition_variable work_, room_;
  std::deque<std::function<void()>> jobs_;
  bool over_ = false;
  std::vector<std::thread> threads_;
};

struct Address {
  std::string host;  // or path
  int port = 0;
  bool local = false;  // a unix socket
};

Address parsed(const std::string& text) {
  if (text.rfind("unix:", 0) == 0) return {text.substr(5), 0, true};
  const auto colon = text.rfind(':');
  std::string host = colon == std::string::npos ? text : text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
  return {host, colon == std::string::npos ? 9514 : std::atoi(text.c_str() + colon + 1), false};
}

}  // namespace

class Web::Server {
 public:
  Server(const std::string& address, const Board& board, const Metrics& metrics,
         std::function<void(const std::string&)> notice)
      : address_(address), board_(board), metrics_(metrics), notice_(std::move(notice)) {
    if (!address_.empty()) thread_ = std::thread([this] { serve(); });
  }

  ~Server() {
    over_ = true;
    {
      const std::lock_guard guard(mutex_);
      if (server_) server_->stop();
    }
    if (thread_.joinable()) thread_.join();
  }

 private:
  void serve() {
    const Address where = parsed(address_);
    std::string told;
    while (!over_) {
      {
        const std::lock_guard guard(mutex_);
        server_ = std::make_unique<httplib::Server>();
      }
      setUp(where);
      if (bind(where)) {
        notice_("");
        log(Level::notice, "pages: served at " + shown(where));
        server_->listen_after_bind();
        return;
      }
      const std::string text = "the pages cannot be served at " + address_ + ": " +
                               std::strerror(errno) + "; trying again, or choose another --http";
      if (told.empty()) log(Level::warning, "pages: " + text);
      told = text;
      notice_(text);
      std::this_thread::sleep_for(betweenAttempts);
    }
  }

  bool bind(const Address& where) {
    if (where.local) {
      unlinkDead(where.host);
      return server_->bind_to_port(where.host, 80);
    }
    if (where.port != 0) return server_->bind_to_port(where.host, where.port);
    port_ = server_->bind_to_any_port(where.host);
    return port_ > 0;
  }

  // A socket that a former process has left behind.
  static void unlinkDead(const std::string& path) {
    struct stat found {};
    if (lstat(path.c_str(), &found) == 0 && S_ISSOCK(found.st_mode)) unlink(path.c_str());
  }

  std::string shown(const Address& where) const {
    if (where.local) return address_;
    const bool v6 = where.host.find(':') != std::string::npos;
    return "http://" + (v6 ? "[" + where.host + "]" : where.host) + ":" +
           std::to_string(where.port != 0 ? where.port : port_) + "/";
  }

  void setUp(const Address& where) {
    if (where.local) server_->set_address_family(AF_UNIX);
    server_->new_task_queue = [] { return new BoundedPool; };
    // Not together with another process.
    server_->set_socket_options([](socket_t socket) {
      const int yes = 1;
      setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server_->set_payload_max_length(mostBody);
    server_->set_read_timeout(seconds);
    server_->set_write_timeout(seconds);
    server_->set_keep_alive_timeout(seconds);
    server_->set_default_headers(
        {{"Cache-Control", "no-store"},
         {"X-Content-Type-Options", "nosniff"},
         {"Content-Security-Policy",
          "default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; "
          "connect-src 'self'; img-src data:; frame-ancestors 'none'"}});
    route();
  }

  void get(const char* path, const char* type, std::function<std::string(const Status&)> content) {
    server_->Get(path, [this, type, content](const httplib::Request&, httplib::Response& answer) {
      answer.set_content(content(*board_.status()), type);
    });
  }

  void health(const char* path, bool (*good)(const Status&)) {
    server_->Get(path, [this, good](const httplib::Request&, httplib::Response& answer) {
      const auto status = board_.status();
      answer.status = good(*status) ? 200 : 503;
      answer.set_content(status->sentence + "\n", "text/plain; charset=utf-8");
    });
  }

  void route() {
    get("/", "text/html; charset=utf-8", [this](const Status& one) { return page_.html(one); });
    get("/status.json", "application/json", statusJson);
    get("/metrics", "text/plain; version=0.0.4; charset=utf-8",
        [this](const Status& one) { return metrics_.text(one); });
    get("/wanted.yaml", "text/yaml; charset=utf-8", [](const Status& one) {
      return one.picture && one.picture->wanted ? yaml(*one.picture->wanted)
                                                : std::string("# none is in force\n");
    });
    get("/live.yaml", "text/yaml; charset=utf-8", [](const Status& one) {
      return one.picture ? yaml(described(*one.picture->live))
                         : std::string("# it was not read yet\n");
    });
    get("/plan.json", "application/json",
        [](const Status& one) { return planJson(one.picture ? *one.picture : Picture()); });
    health("/healthz", [](const Status& one) {
      return std::chrono::system_clock::now() - one.published < alive;
    });
    health("/readyz", [](const Status& one) { return one.ready; });
  }

  const std::string address_;
  const Board& board_;
  const Metrics& metrics_;
  const std::function<void(const std::string&)> notice_;
  Page page_;
  std::mutex mutex_;
  std::unique_ptr<httplib::Server> server_;
  int port_ = 0;
  std::atomic<bool> over_{false};
  std::thread thread_;
};

Web::Web(const std::string& address, const Board& board, const Metrics& metrics,
         std::function<void(const std::string&)> notice)
    : server_(std::make_unique<Server>(address, board, metrics, std::move(notice))) {}

Web::~Web() = default;

}  // namespace Norvd
