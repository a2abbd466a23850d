#include "Diagnosis.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace Norvctl {

namespace {

using std::chrono::milliseconds;

// A file descriptor that is closed with its scope.
class Socket {
 public:
  explicit Socket(int fd) : fd_(fd) {}
  ~Socket() {
    if (fd_ >= 0) close(fd_);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

bool waitFor(int fd, short event, milliseconds patience) {
  pollfd one{fd, event, 0};
  return poll(&one, 1, static_cast<int>(patience.count())) > 0;
}

// 0, or the errno of the attempt.
int connectTo(int fd, const addrinfo& address, milliseconds patience) {
  if (connect(fd, address.ai_addr, address.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS) return errno;
  if (!waitFor(fd, POLLOUT, patience)) return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
  return error;
}

Diagnosis notConnected(int error) {
  switch (error) {
    case ECONNREFUSED:
      return {"refused",
              "the connection is refused, nobody listens there; is the daemon running, "
              "and is it this port?"};
    case ETIMEDOUT:
      return {"time_out", "no connection in time; a firewall, or a machine that is off?"};
    default:
      return {"no_route", std::string("no connection: ") + strerror(error)};
  }
}

// Speaks first, as a client of HTTP/2 does, and looks at the first words of the other side.
Diagnosis greet(int fd, milliseconds patience) {
  static const std::string greeting("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n\0\0\0\4\0\0\0\0\0", 33);
  if (send(fd, greeting.data(), greeting.size(), MSG_NOSIGNAL) < 0) {
    return {"no_http2", std::string("somebody listens there and hangs up: ") + strerror(errno)};
  }
  std::string words;
  while (words.size() < 9 && waitFor(fd, POLLIN, patience)) {
    char buffer[64];
    const ssize_t length = recv(fd, buffer, sizeof buffer, 0);
    if (length <= 0) {
      return {"no_http2", "somebody listens there and hangs up at once; is it the daemon's port?"};
    }
    words.append(buffer, static_cast<std::size_t>(length));
  }
  if (words.empty()) {
    return {"silent",
            "somebody listens there and says nothing; is the daemon stopped, or hanging?"};
  }
  constexpr char settingsFrame = 4;
  if (words.size() < 9 || words[3] != settingsFrame) {
    return {"no_http2", "what listens there does not speak HTTP/2; is it the daemon's port?"};
  }
  return {"answers", "the daemon is there and speaks HTTP/2; it may be busy with the call"};
}

std::string withoutBrackets(const std::string& host) {
  return host.starts_with('[') && host.ends_with(']') ? host.substr(1, host.size() - 2) : host;
}

bool loopback(const std::string& givenHost) {
  const std::string host = withoutBrackets(givenHost);
  in_addr v4;
  in6_addr v6;
  if (inet_aton(host.c_str(), &v4) != 0) return ntohl(v4.s_addr) >> 24 == 127;
  if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
  return strcasecmp(host.c_str(), "localhost") == 0;
}

const char* environment(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

// What the environment says goes past a proxy.
std::string exempted() {
  for (const char* name : {"no_grpc_proxy", "no_proxy"}) {
    if (const char* value = environment(name)) return value;
  }
  return {};
}

}  // namespace

std::string proxyFor(const std::string& host) {
  std::string proxy;
  for (const char* name : {"grpc_proxy", "https_proxy", "http_proxy"}) {
    const char* value = environment(name);
    if (value && proxy.empty()) proxy = std::string(name) + "=" + value;
  }
  if (proxy.empty() || loopback(host)) return {};
  const std::string exceptions = exempted();
  for (std::size_t at = 0; at < exceptions.size();) {
    const std::size_t end = std::min(exceptions.find(',', at), exceptions.size());
    const std::size_t first = exceptions.find_first_not_of(" .*", at);
    if (first < end && host.ends_with(exceptions.substr(first, end - first))) return {};
    at = end + 1;
  }
  return proxy;
}

void exemptLoopbackFromProxies(const std::string& host) {
  const std::string before = exempted();
  std::string all = (before.empty() ? "" : before + ",") + "localhost,127.0.0.1,::1";
  if (loopback(host)) all += "," + withoutBrackets(host);
  setenv("no_grpc_proxy", all.c_str(), 1);
}

Diagnosis diagnose(const std::string& givenHost, U16 port, milliseconds patience) {
  if (const std::string proxy = proxyFor(givenHost); !proxy.empty()) {
    return {"proxy", "calls go through a proxy, as the environment has " + proxy +
                         "; put the host into no_proxy to reach it directly"};
  }
  const std::string host = withoutBrackets(givenHost);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (error != 0 || host.empty()) {
    if (found) freeaddrinfo(found);
    return {"unknown_name", std::string("the host's name is not known (") +
                                (error ? gai_strerror(error) : "it is empty") +
                                "); is it misspelled?"};
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, freeaddrinfo);
  int last = ECONNREFUSED;
  for (const addrinfo* one = found; one; one = one->ai_next) {
    const Socket socket(::socket(one->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    last = socket.fd() < 0 ? errno : connectTo(socket.fd(), *one, patience);
    if (last == 0) return greet(socket.fd(), patience);
  }
  return notConnected(last);
}

struct DiagnosisUnderWay::Shared {
  std::mutex mutex;
  std::condition_variable changed;
  std::optional<Diagnosis> found;
};

DiagnosisUnderWay::DiagnosisUnderWay(const std::string& host, U16 port, milliseconds patience)
    : shared_(std::make_shared<Shared>()) {
  std::thread([shared = shared_, host, port, patience] {
    Diagnosis found = diagnose(host, port, patience);
    const std::lock_guard guard(shared->mutex);
    shared->found = std::move(found);
    shared->changed.notify_all();
  }).detach();
}

std::optional<Diagnosis> DiagnosisUnderWay::result(milliseconds wait) const {
  std::unique_lock lock(shared_->mutex);
  shared_->changed.wait_for(lock, wait, [this] { return shared_->found.has_value(); });
  return shared_->found;
}

}  // namespace Norvctl
