#include "Signals.h"

#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <thread>

#include "Log.h"
#include "Options.h"

namespace Norvd {

namespace {

using namespace std::chrono_literals;

// For the main thread to end the process by itself.
constexpr auto lastChance = 700ms;

std::atomic<int> ending{0};
std::atomic<bool> hangUp{false};
sem_t endAsked;
UnderWay* deathNote = nullptr;

void onEnd(int number) {
  ending = number;
  sem_post(&endAsked);
}

// It ends of the same signal once this returns.
void onAbort(int number) {
  constexpr std::string_view line =
      "norvd: lost: aborted by a signal; the next process keeps the recording of it\n";
  if (logHasRoom()) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
  }
  deathNote->aborted();
  raise(number);
}

void handle(int number, void (*handler)(int), int flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigaction(number, &action, nullptr);
}

// A large plan, or a disk, may keep the main thread longer than one waits for the end.
void watchTheEnd() {
  while (sem_wait(&endAsked) != 0 && errno == EINTR) {
  }
  std::this_thread::sleep_for(lastChance);
  log(Level::notice, "end: on signal " + std::to_string(ending) + ", in the middle of something");
  _exit(ended);
}

}  // namespace

void outliveFailedWrites() {
  for (const int number : {SIGPIPE, SIGXFSZ}) handle(number, SIG_IGN, 0);
}

void installSignals(UnderWay& underWay) {
  deathNote = &underWay;
  sem_init(&endAsked, 0, 0);
  std::thread(watchTheEnd).detach();
  for (const int number : {SIGTERM, SIGINT}) handle(number, onEnd, SA_RESTART);
  handle(
      SIGHUP, [](int) { hangUp = true; }, SA_RESTART);
  for (const int number : {SIGABRT, SIGSEGV, SIGBUS}) {
    handle(number, onAbort, static_cast<int>(SA_RESETHAND));
  }
}

int endingSignal() {
  return ending;
}

bool tookHangUp() {
  return hangUp.exchange(false);
}

}  // namespace Norvd
