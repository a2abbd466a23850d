#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <Lumo/Types.h>

namespace CLI {
class App;
}

namespace Standin {
class Server;
}

// Options that several verbs share.
namespace Norvctl {

// The daemon that a verb speaks to.
struct TargetOptions {
  std::string host;
  std::vector<std::string> hosts;  // the parts of `host`, never empty after parsing
  U16 port = 0;
  bool standin = false;
};
// --host, --port and --standin, with NORV_HOST and NORV_PORT in the place of those that are not
// given. `several`: --host takes a list.
void addTarget(CLI::App& command, TargetOptions& options, bool several = false);

// Where the daemon is; the stand-in daemon, where that was asked for, runs while this lives.
class Target {
 public:
  // The first of the hosts.
  explicit Target(const TargetOptions& options);
  ~Target();

  const std::string& host() const { return host_; }  // as a channel takes it
  U16 port() const { return port_; }
  // HOST:PORT, with an IPv6 address in brackets.
  std::string address() const { return host_ + ":" + std::to_string(port_); }

 private:
  std::unique_ptr<Standin::Server> standin_;
  std::string host_;
  U16 port_ = 0;
};

// --timeout; 0, the default where none is given, is for ever.
void addTimeout(CLI::App& command, double& seconds, const std::string& what);
// Never 0 for a time that is given.
std::chrono::nanoseconds durationOf(double seconds);

}  // namespace Norvctl
