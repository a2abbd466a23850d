#include "Options.h"

#include <Standin/Server.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>

#include "Verb.h"
#include "look/Diagnosis.h"

namespace Norvctl {

namespace {

constexpr U16 usualPort = 10514;

// The value of an environment variable, or null if there is none or it is empty.
const char* environment(const char* name) {
  const char* value = std::getenv(name);
  return value && *value ? value : nullptr;
}

U16 portOf(const char* text) {
  char* end = nullptr;
  const unsigned long port = std::strtoul(text, &end, 10);
  if (*end || end == text || *text == '-' || port > 65535) {
    throw CLI::ValidationError("NORV_PORT", "'" + std::string(text) +
                                                "' in the environment is no port; "
                                                "give 0 to 65535");
  }
  return static_cast<U16>(port);
}

// A time limit that the clock can count: what is wrong with it, or the empty text.
std::string checkTimeout(const std::string& text) {
  constexpr double longest = 1e8;
  const double seconds = std::strtod(text.c_str(), nullptr);
  const bool good = seconds >= 0 && seconds <= longest;
  return good ? std::string() : "'" + text + "' is no time limit; give 0 to 100000000 seconds";
}

// Of a list with commas; the whole where it has none.
std::vector<std::string> partsOf(const std::string& list) {
  std::vector<std::string> parts;
  std::size_t at = 0;
  for (std::size_t end = 0; end != std::string::npos; at = end + 1) {
    end = list.find(',', at);
    parts.push_back(list.substr(at, end - at));
  }
  return parts;
}

std::string channelHost(const std::string& host) {
  const bool bareV6 = host.find(':') != std::string::npos && !host.starts_with('[');
  return bareV6 ? "[" + host + "]" : host;
}

}  // namespace

void addTarget(CLI::App& command, TargetOptions& options, bool several) {
  CLI::Option* host = command.add_option(
      "--host", options.host,
      std::string("the daemon's host; without it that of NORV_HOST, else localhost") +
          (several ? "; a list, as in a,b,c, does the same on each" : "; one, not a list"));
  host->type_name("HOST");
  CLI::Option* port = command.add_option(
      "--port", options.port, "the daemon's port; without it that of NORV_PORT, else 10514");
  port->type_name("PORT");
  command
      .add_flag("--standin", options.standin, "drive a stand-in daemon inside this process instead")
      ->excludes(host)
      ->excludes(port);
  command.parse_complete_callback([&options, host, port, several] {
    const char* const hostSet = options.standin ? nullptr : environment("NORV_HOST");
    const char* const portSet = options.standin ? nullptr : environment("NORV_PORT");
    if (host->count() == 0) options.host = hostSet ? hostSet : "localhost";
    options.hosts = several ? partsOf(options.host) : std::vector{options.host};
    if (std::find(options.hosts.begin(), options.hosts.end(), "") != options.hosts.end()) {
      throw CLI::ValidationError("--host", "a host's name is empty");
    }
    if (!several && options.host.find(',') != std::string::npos) {
      throw CLI::ValidationError(host->count() ? "--host" : "NORV_HOST",
                                 "'" + options.host +
                                     "' is a list; this verb takes one host (run, call and replay "
                                     "take several)");
    }
    if (port->count() == 0) options.port = portSet ? portOf(portSet) : usualPort;
  });
}

Target::Target(const TargetOptions& options) {
  exemptLoopbackFromProxies(options.hosts.front());
  if (!options.standin) {
    host_ = channelHost(options.hosts.front());
    port_ = options.port;
    return;
  }
  Standin::Options daemon;
  daemon.listen = "127.0.0.1:0";
  standin_ = std::make_unique<Standin::Server>(daemon);
  host_ = "127.0.0.1";
  port_ = static_cast<U16>(standin_->port());
}

Target::~Target() = default;

void addTimeout(CLI::App& command, double& seconds, const std::string& what) {
  command.add_option("--timeout", seconds, what)
      ->envname("NORV_TIMEOUT")
      ->check(CLI::Validator(checkTimeout, ""))
      ->type_name("SECONDS")
      ->capture_default_str();
}

std::chrono::nanoseconds durationOf(double seconds) {
  using std::chrono::nanoseconds;
  const auto counted =
      std::chrono::duration_cast<nanoseconds>(std::chrono::duration<double>(seconds));
  return seconds > 0 ? std::max(counted, nanoseconds(1)) : nanoseconds(0);
}

}  // namespace Norvctl
