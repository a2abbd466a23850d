// The stand-in daemon as a program.

#include <Standin/Server.h>
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

namespace {

constexpr const char* help =
    "bessd-standin - answers like the switch daemon, without moving a packet\n"
    "\n"
    "Usage: bessd-standin [OPTION]...\n"
    "  --listen HOST:PORT   listen there (127.0.0.1:10514); port 0 takes a free one\n"
    "  --cores N            pretend to have N processor cores (2)\n"
    "  --as-recorded        answer UNIMPLEMENTED to the two MAC address requests\n"
    "  --report-gate-hooks  show gate hooks in the answers of getModuleInfo\n"
    "  --help               print this and end\n"
    "  --version            print the version and end\n"
    "\n"
    "Prints one line with its address once it listens. SIGINT, SIGTERM or the request killBess end "
    "it.\n";

std::string valueOf(int argc, char** argv, int& i) {
  if (i + 1 >= argc)
    throw std::runtime_error(std::string("option ") + argv[i] +
                             " needs a value; see bessd-standin --help");
  return argv[++i];
}

int coreCount(const std::string& text) {
  if (text.empty() || text.size() > 3 ||
      text.find_first_not_of("0123456789") != std::string::npos || std::stoi(text) < 1)
    throw std::runtime_error("'" + text + "' is no number of cores; give 1 to 999");
  return std::stoi(text);
}

// Whether to go on after reading the options.
bool parse(int argc, char** argv, Standin::Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--help") {
      std::fputs(help, stdout);
      return false;
    }
    if (word == "--version") {
      std::printf("%s\n", options.version.c_str());
      return false;
    }
    if (word == "--listen") {
      options.listen = valueOf(argc, argv, i);
      if (options.listen.empty())
        throw std::runtime_error("--listen needs HOST:PORT, such as 127.0.0.1:10514");
    } else if (word == "--cores") {
      options.cores = coreCount(valueOf(argc, argv, i));
    } else if (word == "--as-recorded") {
      options.strictDaemon = true;
    } else if (word == "--report-gate-hooks") {
      options.reportGateHooks = true;
    } else {
      throw std::runtime_error("unknown option '" + word + "'; see bessd-standin --help");
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Standin::Options options;
    if (!parse(argc, argv, options)) return 0;
    // What goes wrong is told in one line of our own; who wants gRPC's words, too, sets the
    // variable.
    setenv("GRPC_VERBOSITY", "NONE", 0);
    // Blocked before gRPC starts threads, so that only sigwait below takes them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    options.onKill = [mainThread = pthread_self()] { pthread_kill(mainThread, SIGTERM); };

    Standin::Server server(options);
    std::printf("bessd-standin listening on %s\n", server.address().c_str());
    std::fflush(stdout);
    int signal = 0;
    sigwait(&signals, &signal);
    server.shutdown();
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bessd-standin: %s\n", error.what());
    return 1;
  }
}
