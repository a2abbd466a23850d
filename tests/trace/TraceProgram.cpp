// Traces on demand, for tests that look at a process from outside.
//   trace_program text                one line of text, as LUMO_TRACE allows
//   trace_program told                the same, after a letter to standard output; another one for
//                                     each SIGUSR1
//   trace_program errno FILE          ends well if records leave the error number alone
//   trace_program threads             long lines from four threads
//   trace_program late                lines from destructors while the process exits
//   trace_program first               the facilities with handles before and after first traces
//   trace_program exiting             ends while a thread goes on tracing
//   trace_program stuck line|warning  settings, a handle, a fork and the child's line while a line,
//                                     or the warning of a setting, cannot go out
//   trace_program drained             the warning of a setting, when standard error takes it again
//   trace_program forked              a fork while a thread is in a sink
//   trace_program forking             a fork by a thread that is in a sink
//   trace_program commands FILE       a queue of commands on one thread, their ends on another
//   trace_program many FILE COUNT     so many commands back to back: one refused, later three of
//                                     each bad kind in turn, some dropped, and one after a pause
//   trace_program ring FILE SIZE THREADS   numbered records until killed
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <Lumo/TraceSink.h>
#include <Skein/Skein.h>

#include "TracePoints.h"

namespace {

struct TracesWhenDestroyed {
  explicit TracesWhenDestroyed(const char* when) : when_(when) {}
  ~TracesWhenDestroyed() {
    if (on) Twine::trace<Sample::afterBlank>(when_);
  }
  static inline bool on = false;
  const char* when_;
};

// Made before any handle, so destroyed after it.
TracesWhenDestroyed atExit("exit");

void speakAtLength(char letter) {
  for (int i = 0; i < 50; ++i) Twine::trace<Sample::textSending>(std::string(9000, letter));
}

void printHandleNames() {
  for (const Lumo::String& name : Lumo::TraceFacility::handleNames()) std::puts(name.charPtr());
  std::puts("--");
}

// Eight threads make the module's first trace at once.
int first() {
  printHandleNames();
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      while (!go) std::this_thread::yield();
      Twine::trace<Sample::textOnly>();
    });
  }
  go = true;
  for (std::thread& thread : threads) thread.join();
  printHandleNames();
  Twine::trace<Sample::other>(1);
  printHandleNames();
  return 0;
}

bool sleeps(pid_t thread) {
  std::ifstream in("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string stat;
  std::getline(in, stat);
  return stat.find(") S ") != std::string::npos;
}

// A thread of its own waits for standard error when this returns.
void traceUntilFull() {
  Lumo::traceSettingIs("*/*");
  static std::atomic<pid_t> tracing{0};
  std::thread([] {
    tracing = ::gettid();
    for (int i = 0; i < 100; ++i) Twine::trace<Sample::textSending>(std::string(9000, 'x'));
  }).detach();
  while (tracing == 0 || !sleeps(tracing)) std::this_thread::yield();
}

// Standard error is a full pipe that nobody reads. Ends by a signal where somebody waits for it.
int stuck(bool byWarning) {
  ::alarm(30);
  if (byWarning) {
    Sample::handle();  // the first one of all
  } else {
    traceUntilFull();
  }
  Lumo::traceSettingIs("Sample/5");
  Lumo::traceLevelIs("*", 3, true);
  const Lumo::TraceHandle handle("Fresh", false);
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(30);
    ::close(STDERR_FILENO);
    Twine::trace<Sample::textOnly>();
    ::_exit(handle.enabled(3) ? 0 : 1);
  }
  int status = 1;
  ::waitpid(child, &status, 0);
  ::_exit(status == 0 ? 0 : 1);
}

int drained() {
  int ends[2];
  if (::pipe2(ends, O_NONBLOCK) != 0) return 1;
  std::string filling(4096, 'x');
  while (::write(ends[1], filling.data(), filling.size()) > 0) {
  }
  ::dup2(ends[1], STDERR_FILENO);
  Sample::handle();  // the first one of all
  while (::read(ends[0], filling.data(), filling.size()) > 0) {
  }
  std::string warnings;
  for (const char* name : {"Second", "Third"}) {
    const Lumo::TraceHandle handle(name, false);
    const ssize_t count = ::read(ends[0], filling.data(), filling.size());
    if (count > 0) warnings.append(filling, 0, static_cast<std::size_t>(count));
  }
  std::printf("%s", warnings.c_str());
  return 0;
}

// The thread that is in the sink stays there; the child would wait for it until a signal ends it.
int forked() {
  struct : Lumo::TraceSink {
    void lineIs(const Lumo::TraceLine&) override {
      entered = true;
      while (true) ::pause();
    }
    std::atomic<bool> entered{false};
  } sink;
  Lumo::traceSettingIs("*/*");
  Lumo::traceSinkIs(&sink);
  std::thread([] { Twine::trace<Sample::textOnly>(); }).detach();
  while (!sink.entered) std::this_thread::yield();
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(30);
    Lumo::traceSinkIs(nullptr);
    ::_exit(0);
  }
  int status = 1;
  ::waitpid(child, &status, 0);
  ::_exit(status == 0 ? 0 : 1);
}

// A sink may fork; in the child the thread comes out of the sink as in the parent.
int forking() {
  struct : Lumo::TraceSink {
    void lineIs(const Lumo::TraceLine&) override { child = ::fork(); }
    pid_t child = -1;
  } sink;
  Lumo::traceSettingIs("*/*");
  Lumo::traceSinkIs(&sink);
  Twine::trace<Sample::textOnly>();
  ::alarm(30);
  Lumo::traceSinkIs(nullptr);
  if (sink.child == 0) ::_exit(0);
  int status = 1;
  ::waitpid(sink.child, &status, 0);
  ::_exit(status == 0 ? 0 : 1);
}

// The first record of all, where no file can be opened any more, and the first of blocks that dead
// children have left.
int errorNumbers(const char* path) {
  Skein::TraceHandle handle(path, {.size = Skein::minimalFileSize});
  Skein::defaultSkeinHandleIs(&handle);
  rlimit limit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
#if defined(__SANITIZE_ADDRESS__)
  const rlimit none = limit;  // without files the sanitizer cannot look at memory
#else
  const rlimit none{0, limit.rlim_max};
#endif
  if (::setrlimit(RLIMIT_NOFILE, &none) != 0) return 1;
  errno = EDOM;
  Twine::trace<Sample::numbered>(0);
  const int afterTheFirst = errno;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  if (afterTheFirst != EDOM) return 2;
  for (int i = 0; i < 3; ++i) {
    const pid_t child = ::fork();
    if (child == 0) {
      Twine::trace<Sample::numbered>(i);
      ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
  }
  for (int i = 0; i < 1000; ++i) {
    errno = EDOM;
    Twine::trace<Sample::numbered>(i);
    if (errno != EDOM) return 3;
  }
  return 0;
}

int exiting() {
  std::atomic<bool> begun{false};
  std::thread([&begun] {
    Twine::trace<Sample::textOnly>();
    begun = true;
    while (true) Twine::trace<Sample::textOnly>();
  }).detach();
  while (!begun) std::this_thread::yield();
  return 0;
}

int commands(const char* path) {
  Skein::TraceHandle handle(path);
  Skein::defaultSkeinHandleIs(&handle);
  constexpr unsigned count = 20;
  for (unsigned i = 1; i <= count; ++i) {
    Twine::trace<Sample::announced>(i, Lumo::String("createModule"), Lumo::String("q1"), i);
  }
  Twine::trace<Sample::plain>();
  std::thread([] {
    for (unsigned i = 1; i <= count; ++i) {
      Twine::trace<Sample::numbered>(static_cast<int>(i));
      Twine::trace<Sample::ended>(i, Lumo::String("createModule"), Lumo::String("q1"),
                                  Lumo::String(i % 5 ? "answered" : "failed"), count - i);
    }
  }).join();
  // Announced and never ended.
  Twine::trace<Sample::announced>(99U, Lumo::String("getVersion"), Lumo::String("q2"), 1U);
  return 0;
}

int many(const char* path, const char* number) {
  const auto count = static_cast<unsigned>(std::atoi(number));
  Skein::TraceOptions options;
  options.size = (U64{1} << 20) + U64{224} * count;
  Skein::TraceHandle handle(path, options);
  Skein::defaultSkeinHandleIs(&handle);
  const Lumo::String type("createModule");
  const Lumo::String queue("a queue whose name is long");
  const auto announce = [&](unsigned sequence, unsigned depth) {
    Twine::trace<Sample::announced>(sequence, type, queue, depth);
  };
  const auto end = [&](unsigned sequence, const char* outcome, unsigned depth) {
    Twine::trace<Sample::ended>(sequence, type, queue, Lumo::String(outcome), depth);
  };
  constexpr unsigned dropped = 5;
  for (unsigned i = 1; i <= count; ++i) announce(i, i);
  // Nine in a row, so that some of each kind come to lie in one place of a picture.
  const auto bad = [&](unsigned i) { return i >= count / 2 && i < count / 2 + 9; };
  const char* const kinds[] = {"failed", "refused", "undecodable"};
  for (unsigned i = 1; i <= count; ++i) {
    const char* outcome = i == count / 3 ? "refused" : bad(i) ? kinds[i % 3] : "ok";
    end(i, i > count - dropped ? "dropped" : outcome, count - i);
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));  // a pause to be folded
  announce(count + 1, 1);
  end(count + 1, "ok", 0);
  return 0;
}

// Records with a check of their own: the second argument repeats the first.
void recordForEver(int thread) {
  for (unsigned i = 0;; ++i) {
    const std::string tail(i % 40, 'x');
    Twine::trace<Sample::four>(thread, i, std::to_string(i), tail);
  }
}

int ring(const char* path, const char* size, const char* threads) {
  const int count = std::atoi(threads);
  Skein::TraceOptions options;
  options.size = std::strtoull(size, nullptr, 10);
  options.multiThreaded = count > 1;
  Skein::TraceHandle handle(path, options);
  Skein::defaultSkeinHandleIs(&handle);
  std::vector<std::thread> writers;
  for (int i = 1; i < count; ++i) writers.emplace_back(recordForEver, i);
  recordForEver(0);
  return 0;
}

}  // namespace

int main(int count, char** words) {
  const std::string mode = count > 1 ? words[1] : "";
  if (mode == "text") {
    Twine::trace<Sample::textOnly>();
    return 0;
  }
  if (mode == "told") {
    struct sigaction action {};
    action.sa_handler = [](int) { std::ignore = ::write(STDOUT_FILENO, "y", 1); };
    ::sigaction(SIGUSR1, &action, nullptr);
    if (::write(STDOUT_FILENO, "x", 1) != 1) return 1;
    Twine::trace<Sample::textOnly>();
    return 0;
  }
  if (mode == "errno" && count == 3) return errorNumbers(words[2]);
  if (mode == "threads") {
    std::vector<std::thread> threads;
    for (char letter : {'a', 'b', 'c', 'd'}) threads.emplace_back(speakAtLength, letter);
    for (std::thread& thread : threads) thread.join();
    return 0;
  }
  if (mode == "late") {
    TracesWhenDestroyed::on = true;
    std::thread([] {
      static thread_local TracesWhenDestroyed atThreadEnd("thread end");
      (void)atThreadEnd.when_;
      Twine::trace<Sample::textOnly>();
    }).join();
    return 0;
  }
  if (mode == "first") return first();
  if (mode == "exiting") return exiting();
  if (mode == "stuck" && count == 3) return stuck(words[2] == std::string_view("warning"));
  if (mode == "drained") return drained();
  if (mode == "forked") return forked();
  if (mode == "forking") return forking();
  if (mode == "commands" && count == 3) return commands(words[2]);
  if (mode == "many" && count == 4) return many(words[2], words[3]);
  if (mode == "ring" && count == 5) return ring(words[2], words[3], words[4]);
  std::fprintf(
      stderr,
      "usage: trace_program text|told|errno FILE|threads|late|first|exiting|stuck line|warning|"
      "drained|forked|forking|commands "
      "FILE|many FILE COUNT|ring FILE SIZE THREADS\n");
  return 2;
}
