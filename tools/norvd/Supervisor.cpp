#include "Supervisor.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "Backoff.h"
#include "Log.h"
#include "Options.h"

namespace Norvd {

namespace {

constexpr int notStarted = 71;  // of a child that is none of the program's own

constexpr int passedOn[] = {SIGTERM, SIGINT, SIGHUP, SIGCHLD};

pid_t startChild(const std::vector<char*>& arguments, const sigset_t& before) {
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child != 0) return child;
  // The child does not outlive its supervisor.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(ended);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  execv("/proc/self/exe", arguments.data());
  log(Level::error, std::string("supervisor: cannot start norvd: ") + std::strerror(errno));
  _exit(notStarted);
}

// However it is spelt: a child that supervises, too, would have one of its own.
bool asksToSupervise(const char* argument) {
  const std::string_view text = argument;
  return text == "--supervise" || text.starts_with("--supervise=");
}

std::vector<char*> argumentsOfChild(int argc, char** argv) {
  std::vector<char*> arguments;
  for (int i = 0; i < argc; ++i) {
    if (!asksToSupervise(argv[i])) arguments.push_back(argv[i]);
  }
  arguments.push_back(nullptr);
  return arguments;
}

std::string howEnded(int status) {
  return WIFSIGNALED(status) ? "on signal " + std::to_string(WTERMSIG(status))
                             : "with status " + std::to_string(WEXITSTATUS(status));
}

// Waits for the signals, which are blocked. Passes on what is for the child; true when it has
// ended, its status in `status`. In a container the orphans of all others are ours, too.
bool waitForChild(pid_t child, const sigset_t& signals, bool* stop, int* status) {
  const int number = sigwaitinfo(&signals, nullptr);
  if (number == SIGTERM || number == SIGINT) *stop = true;
  if (number > 0 && number != SIGCHLD) kill(child, number);
  bool over = false;
  int how = 0;
  for (pid_t one; (one = waitpid(-1, &how, WNOHANG)) > 0;) {
    if (one != child) continue;
    over = true;
    *status = how;
  }
  return over;
}

// False when a signal to end came meanwhile.
bool pauseFor(std::chrono::milliseconds time, const sigset_t& signals) {
  const auto until = std::chrono::steady_clock::now() + time;
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
        until - std::chrono::steady_clock::now());
    if (left.count() <= 0) return true;
    const timespec rest{left.count() / 1000000000, left.count() % 1000000000};
    const int number = sigtimedwait(&signals, nullptr, &rest);
    if (number == SIGTERM || number == SIGINT) return false;
  }
}

}  // namespace

int supervise(int argc, char** argv) {
  const std::vector<char*> arguments = argumentsOfChild(argc, argv);
  sigset_t signals, before;
  sigemptyset(&signals);
  for (const int number : passedOn) sigaddset(&signals, number);
  sigprocmask(SIG_BLOCK, &signals, &before);
  Backoff backoff(static_cast<unsigned>(getpid()));
  bool stop = false;
  for (bool first = true;; first = false) {
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = startChild(arguments, before);
    int status = W_EXITCODE(notStarted, 0);
    if (child < 0) {
      log(Level::error, std::string("supervisor: cannot start: ") + std::strerror(errno));
    } else {
      while (!waitForChild(child, signals, &stop, &status)) {
      }
    }
    const int exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (stop) return exitStatus >= 0 ? exitStatus : ended;
    // Somebody has just typed what cannot be. Later it is whoever took the switch meanwhile, and
    // will leave it.
    if (first && exitStatus == unusable) return unusable;
    const auto lived = std::chrono::steady_clock::now() - begin;
    const auto pause = backoff.pauseAfter(
        exitStatus, std::chrono::duration_cast<std::chrono::milliseconds>(lived));
    log(Level::warning, "supervisor: norvd ended " + howEnded(status) + "; starting it again in " +
                            std::to_string(pause.count()) + " ms");
    if (!pauseFor(pause, signals)) return ended;
  }
}

}  // namespace Norvd
