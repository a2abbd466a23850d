#include "Connections.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <functional>

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

std::string portOf(const std::string& address) {
  return address.substr(address.rfind(':') + 1);
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
  const bool unixSocket = isUnix(address);
  forEachSocket([&](int descriptor) {
    if (!listens(descriptor)) return;
    const std::string name = nameOf(descriptor, getsockname);
    if (unixSocket ? name == unixName(address) : portOf(name) == portOf(address))
      shutdown(descriptor, SHUT_RD);
  });
}

}  // namespace Standin
