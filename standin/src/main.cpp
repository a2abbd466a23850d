// The stand-in daemon as a program.

#include <Standin/Server.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ContentOf.h"
#include "Ctl.h"

namespace {

struct Arguments {
  Standin::Options options;
  std::vector<std::string> faultFiles;
  std::string stateFile;
  std::string latency = "0";
  double rate = 0;
};

// A line a rule; empty ones and those with # are passed over.
void readFaults(const std::string& path, std::vector<std::string>& rules) {
  constexpr const char* blanks = " \t\r";
  std::istringstream lines(Standin::contentOf(path));
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    const std::size_t begin = line.find_first_not_of(blanks);
    if (begin == std::string::npos || line[begin] == '#') continue;
    const std::string rule = line.substr(begin, line.find_last_not_of(blanks) + 1 - begin);
    try {
      Standin::Fault::parse(rule);
    } catch (const std::invalid_argument& error) {
      throw std::runtime_error(path + ":" + std::to_string(number) + ": " + error.what());
    }
    rules.push_back(rule);
  }
}

void describe(CLI::App& app, Arguments& arguments) {
  Standin::Options& options = arguments.options;
  app.set_version_flag("--version", options.version);
  app.add_option("--listen", options.listen,
                 "listen at HOST:PORT, [IPV6]:PORT or unix:PATH; port 0 takes a free one")
      ->capture_default_str();
  app.add_option("--control", options.control,
                 "listen there for what `bessd-standin ctl` tells it");
  app.add_option("--cores", options.cores, "pretend to have so many processor cores")
      ->check(CLI::Range(1, 999))
      ->capture_default_str();
  app.add_flag("--as-recorded", options.strictDaemon,
               "answer UNIMPLEMENTED to the two MAC address requests");
  app.add_flag("--report-gate-hooks", options.reportGateHooks,
               "show gate hooks in the answers of getModuleInfo");
  app.add_flag("--newer", options.newerReplies, "tell what daemons of today tell");
  app.add_option("--fault", options.faults,
                 "a fault, such as 'kind=status rpc=createModule nth=3 code=14'; see "
                 "docs/standin.md")
      ->take_all();
  app.add_option("--faults", arguments.faultFiles, "a file with a fault a line")->take_all();
  app.add_option("--latency", arguments.latency, "milliseconds that an answer takes: 5 or 5..20");
  app.add_option("--rate", arguments.rate, "answers per second, at most");
  app.add_option("--traffic", options.traffic,
                 "pretend that so many packets pass each counted gate in a second")
      ->check(CLI::Range(0.0, 1e9));
  app.add_option("--log", options.log,
                 "add a line of JSON for each call to this file; - is stderr");
  app.add_option("--load", arguments.stateFile, "begin with the state in this file");
  app.footer(
      "It prints one line with its address once it listens. SIGINT, SIGTERM or the request "
      "killBess end it.");
}

void serve(Arguments& arguments) {
  Standin::Options& options = arguments.options;
  for (const std::string& file : arguments.faultFiles) readFaults(file, options.faults);
  options.pace.latencyIs(arguments.latency);
  options.pace.rateIs(arguments.rate);
  if (options.listen.empty())
    throw std::runtime_error("--listen needs an address, such as 127.0.0.1:10514");
  // What goes wrong is told in one line of our own; who wants gRPC's words, too, sets the
  // variable.
  setenv("GRPC_VERBOSITY", "NONE", 0);
  // Blocked before gRPC starts threads, so that only sigwait below takes them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  // As a signal from outside: it is blocked in every thread, and taken by sigwait.
  options.onKill = [] { kill(getpid(), SIGTERM); };

  if (!arguments.stateFile.empty()) options.state = Standin::contentOf(arguments.stateFile);
  Standin::Server server(options);
  std::printf("bessd-standin listening on %s\n", server.address().c_str());
  if (!options.control.empty())
    std::printf("bessd-standin controlled at %s\n", server.controlAddress().c_str());
  std::fflush(stdout);
  int signal = 0;
  sigwait(&signals, &signal);
  server.shutdown();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Arguments arguments;
    CLI::App app("bessd-standin - answers like the switch daemon, without moving a packet");
    describe(app, arguments);
    std::string address;
    std::vector<std::string> words;
    CLI::App& ctl = *app.add_subcommand(
        "ctl",
        "tell a running stand-in: faults, add RULE..., clear, pace, latency MS, rate N, "
        "dump [FILE], load FILE");
    ctl.add_option("ADDRESS", address, "what it prints as `controlled at`")->required();
    ctl.add_option("WORDS", words, "what to do; faults when there is nothing");
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      if (error.get_exit_code() == 0) return app.exit(error);
      throw std::runtime_error(error.what() + std::string("; see bessd-standin --help"));
    }
    if (ctl.parsed()) return Standin::control(address, words);
    serve(arguments);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bessd-standin: %s\n", error.what());
    return 1;
  }
}
