#include "Web.h"

#include <httplib.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include <Norv/State/Document.h>

#include "Log.h"
#include "Page.h"
#include "agent/PageAddress.h"

namespace Norvd {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t threads = 16;
constexpr std::size_t mostWaiting = 64;  // connections
constexpr std::size_t mostBody = 1024;   // bytes of a request's body: none is needed
// For a connection, from the beginning to the end of the answer.
constexpr std::chrono::milliseconds longest = 10s, longestCrowded = 500ms;
constexpr std::chrono::milliseconds betweenPolls = 50ms;
constexpr auto betweenBinds = 2s;
constexpr auto alive = 10s;  // since the main thread put something on the board

// Threads that serve connections. When too many wait, whoever accepts them waits, too, and the
// system refuses what is beyond its own queue.
class BoundedPool : public httplib::TaskQueue {
 public:
  // `waiting` is how many jobs wait for a thread.
  explicit BoundedPool(std::atomic<std::size_t>& waiting) : waiting_(waiting) {
    for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
  }

  void enqueue(std::function<void()> job) override {
    std::unique_lock lock(mutex_);
    room_.wait(lock, [&] { return jobs_.size() < mostWaiting || over_; });
    jobs_.push_back(std::move(job));
    waiting_ = jobs_.size();
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
        waiting_ = jobs_.size();
      }
      room_.notify_one();
      job();
    }
  }

  std::atomic<std::size_t>& waiting_;
  std::mutex mutex_;
  std::condition_variable work_, room_;
  std::deque<std::function<void()>> jobs_;
  bool over_ = false;
  std::vector<std::thread> threads_;
};

using Norvctl::PageAddress;

// A connection with an end: a client that is slow, to ask or to read, is given up after a while,
// and sooner where others wait for its thread.
class Connection : public httplib::Stream {
 public:
  // `crowded`: whether others wait. The socket is closed with it.
  Connection(int socket, std::function<bool()> crowded)
      : socket_(socket), crowded_(std::move(crowded)) {}
  ~Connection() override {
    shutdown(socket_, SHUT_RDWR);
    close(socket_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool is_readable() const override { return at_ < filled_ || ready(POLLIN); }
  bool is_writable() const override { return ready(POLLOUT); }

  // Some at a time: the library asks for single bytes.
  ssize_t read(char* to, std::size_t size) override {
    if (at_ == filled_) {
      if (!ready(POLLIN)) return -1;
      const ssize_t length = recv(socket_, buffer_, sizeof buffer_, MSG_DONTWAIT);
      if (length <= 0) return length;
      at_ = 0;
      filled_ = static_cast<std::size_t>(length);
    }
    const std::size_t part = std::min(size, filled_ - at_);
    std::memcpy(to, buffer_ + at_, part);
    at_ += part;
    return static_cast<ssize_t>(part);
  }

  ssize_t write(const char* from, std::size_t size) override {
    if (!ready(POLLOUT)) return -1;
    return send(socket_, from, size, MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  void get_remote_ip_and_port(std::string&, int&) const override {}
  void get_local_ip_and_port(std::string&, int&) const override {}
  socket_t socket() const override { return socket_; }

 private:
  bool ready(short event) const {
    while (true) {
      const auto age = std::chrono::steady_clock::now() - begin_;
      if (age > (crowded_() ? longestCrowded : longest)) return false;
      pollfd one{socket_, event, 0};
      const int found = poll(&one, 1, static_cast<int>(betweenPolls.count()));
      if (found > 0) return true;
      if (found < 0 && errno != EINTR) return false;
    }
  }

  const int socket_;
  const std::function<bool()> crowded_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  char buffer_[4096];
  std::size_t at_ = 0, filled_ = 0;
};

// One request for each connection, over a Connection.
class PageServer : public httplib::Server {
 public:
  PageServer() {
    new_task_queue = [this] { return new BoundedPool(waiting_); };
  }

 private:
  bool process_and_close_socket(socket_t socket) override {
    Connection connection(socket, [this] { return waiting_ != 0; });
    bool closed = false;
    return process_request(connection, true, closed, nullptr);
  }

  std::atomic<std::size_t> waiting_{0};  // connections
};

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
    const PageAddress where = Norvctl::pageAddress(address_).value();
    std::string told;
    while (!over_) {
      {
        const std::lock_guard guard(mutex_);
        server_ = std::make_unique<PageServer>();
      }
      setUp(where);
      std::string why = unknownHost(where);
      if (why.empty() && bind(where)) {
        notice_("");
        log(Level::notice, "pages: served at " + shown(where));
        told.clear();
        server_->listen_after_bind();
        why = "their socket listens no more";
      } else if (why.empty()) {
        why = std::strerror(errno);
      }
      if (over_) return;
      const std::string text = "the pages cannot be served at " + address_ + ": " + why +
                               "; trying again, or choose another --http";
      if (told.empty()) log(Level::warning, "pages: " + text);
      told = text;
      notice_(text);
      std::this_thread::sleep_for(betweenBinds);
    }
  }

  // Why there is no such host, or nothing: binding does not tell it.
  static std::string unknownHost(const PageAddress& where) {
    if (where.local) return "";
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(where.host.c_str(), nullptr, &hints, &found);
    if (error != 0) return gai_strerror(error);
    freeaddrinfo(found);
    return "";
  }

  bool bind(const PageAddress& where) {
    if (where.local) {
      if (!unlinkDead(where.host)) {
        errno = EADDRINUSE;
        return false;
      }
      return server_->bind_to_port(where.host, 80);
    }
    if (where.port != 0) return server_->bind_to_port(where.host, where.port);
    port_ = server_->bind_to_any_port(where.host);
    return port_ > 0;
  }

  // A socket that a former process has left behind; false where a living one listens.
  static bool unlinkDead(const std::string& path) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0 || !S_ISSOCK(found.st_mode)) return true;
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* const general = reinterpret_cast<const sockaddr*>(&address);
    const bool dead = connect(probe, general, sizeof address) != 0 && errno == ECONNREFUSED;
    close(probe);
    if (dead) unlink(path.c_str());
    return dead;
  }

  std::string shown(PageAddress where) const {
    if (where.port == 0) where.port = port_;
    return where.local ? address_ : "http://" + text(where) + "/";
  }

  void setUp(const PageAddress& where) {
    if (where.local) server_->set_address_family(AF_UNIX);
    // Not together with another process.
    server_->set_socket_options([](socket_t socket) {
      const int yes = 1;
      setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server_->set_payload_max_length(mostBody);
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
  std::unique_ptr<PageServer> server_;
  int port_ = 0;
  std::atomic<bool> over_{false};
  std::thread thread_;
};

Web::Web(const std::string& address, const Board& board, const Metrics& metrics,
         std::function<void(const std::string&)> notice)
    : server_(std::make_unique<Server>(address, board, metrics, std::move(notice))) {}

Web::~Web() = default;

}  // namespace Norvd
