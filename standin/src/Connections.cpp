#include "Connections.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <set>

namespace Standin {

namespace {

void forEachSocket(const std::function<void(int)>& visit) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
    const std::string name = entry.path().filename();
    int descriptor = -1;
    std::from_chars(name.data(), name.data() + name.size(), descriptor);
    int type = 0;
    socklen_t size = sizeof type;
    if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0) visit(descriptor);
  }
}

std::string text(const sockaddr_storage& address, socklen_t size) {
  char host[INET6_ADDRSTRLEN] = "";
  if (address.ss_family == AF_INET) {
    const auto& in = reinterpret_cast<const sockaddr_in&>(address);
    inet_ntop(AF_INET, &in.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(in.sin_port));
  }
  if (address.ss_family == AF_INET6) {
    const auto& in = reinterpret_cast<const sockaddr_in6&>(address);
    if (IN6_IS_ADDR_V4MAPPED(&in.sin6_addr)) {
      inet_ntop(AF_INET, &in.sin6_addr.s6_addr[12], host, sizeof host);
      return std::string(host) + ":" + std::to_string(ntohs(in.sin6_port));
    }
    inet_ntop(AF_INET6, &in.sin6_addr, host, sizeof host);
    return "[" + std::string(host) + "]:" + std::to_string(ntohs(in.sin6_port));
  }
  if (address.ss_family == AF_UNIX && size > sizeof(sa_family_t))
    return "unix:" + std::string(reinterpret_cast<const sockaddr_un&>(address).sun_path);
  return "";
}

std::string nameOf(int descriptor, int (*of)(int, sockaddr*, socklen_t*)) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (of(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) return "";
  return text(address, size);
}

// gRPC says ipv4:HOST:PORT and ipv6:%5BHOST%5D:PORT.
std::string withoutScheme(std::string name) {
  if (name.rfind("ipv4:", 0) == 0 || name.rfind("ipv6:", 0) == 0) name = name.substr(5);
  const auto exchange = [&name](const std::string& from, const std::string& to) {
    const std::size_t at = name.find(from);
    if (at != std::string::npos) name.replace(at, from.size(), to);
  };
  exchange("%5B", "[");
  exchange("%5D", "]");
  return name;
}

bool listens(int descriptor) {
  int listening = 0;
  socklen_t size = sizeof listening;
  return getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 &&
         listening != 0;
}

// unix:///PATH is another way to write unix:/PATH.
std::string unixName(const std::string& address) {
  return address.rfind("unix:///", 0) == 0 ? "unix:" + address.substr(7) : address;
}

// The names that sockets have that listen at HOST:PORT; more than one when the host is a name, or
// any address of this machine, which stands for both families.
std::set<std::string> namesOf(const std::string& address) {
  if (address.empty()) return {};  // It listens nowhere.
  const std::size_t colon = address.rfind(':');
  std::string host = address.substr(0, colon);
  const std::string port = address.substr(colon + 1);
  if (host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &list) != 0) return {};
  std::set<std::string> names;
  for (const addrinfo* each = list; each != nullptr; each = each->ai_next) {
    sockaddr_storage socket{};
    std::memcpy(&socket, each->ai_addr, each->ai_addrlen);
    names.insert(text(socket, each->ai_addrlen));
  }
  freeaddrinfo(list);
  const std::string any[] = {"0.0.0.0:" + port, "[::]:" + port};
  if (names.count(any[0]) + names.count(any[1]) > 0) names.insert(std::begin(any), std::end(any));
  return names;
}

}  // namespace

bool isUnix(const std::string& name) {
  return name.rfind("unix:", 0) == 0;
}

bool someoneListens(const std::string& address) {
  const std::string path = unixName(address).substr(5);
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (path.size() >= sizeof name.sun_path) return false;
  path.copy(name.sun_path, path.size());
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected =
      connect(descriptor, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
  close(descriptor);
  return connected;
}

bool hangUp(const std::string& peer, const std::string& address) {
  const bool unixSocket = isUnix(peer);
  const std::string name = unixSocket ? unixName(address) : withoutScheme(peer);
  bool found = false;
  forEachSocket([&](int descriptor) {
    if (listens(descriptor)) return;
    if (nameOf(descriptor, unixSocket ? getsockname : getpeername) != name) return;
    found = shutdown(descriptor, SHUT_RDWR) == 0 || found;
  });
  return found;
}

void stopListening(const std::string& address) {
  const std::set<std::string> names =
      isUnix(address) ? std::set<std::string>{unixName(address)} : namesOf(address);
  forEachSocket([&](int descriptor) {
    if (listens(descriptor) && names.count(nameOf(descriptor, getsockname)) > 0)
      shutdown(descriptor, SHUT_RD);
  });
}

}  // namespace Standin
