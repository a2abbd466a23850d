#include "Fleet.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "../Verb.h"
#include "../text/Table.h"
#include "../text/Text.h"
#include "Steps.h"

extern char** environ;

namespace Norvctl {

namespace {

using nlohmann::json;

std::vector<std::string> ownArguments;

// The command line without the options that say where and how to report.
std::vector<std::string> repeated(const std::string& host) {
  std::vector<std::string> arguments;
  for (std::size_t i = 0; i < ownArguments.size(); ++i) {
    const std::string& one = ownArguments[i];
    if (one == "--host") {
      ++i;
    } else if (!one.starts_with("--host=") && one != "--json" && one != "--quiet") {
      arguments.push_back(one);
    }
  }
  // Behind the verb, so that they are before a `--`.
  arguments.insert(arguments.begin() + 1, {"--json", "--host", host});
  return arguments;
}

// A program that has ended.
struct Finished {
  int status = 0;  // as a shell has it
  std::string out;
  std::string err;
};

struct Child {
  pid_t process = -1;
  int out = -1;
  int err = -1;
};

// Signals that end this process: how many there were, and the last.
constexpr int endings[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
std::atomic<unsigned> signals{0};
std::atomic<int> lastSignal{0};

// They are for the children, which report before they end. One that was ignored stays so.
void keepSignals() {
  for (const int number : endings) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;
    action.sa_handler = [](int caught) {
      lastSignal = caught;
      ++signals;
    };
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
  }
}

// `apart`: in a process group of its own, so that ^C in the terminal is not heard twice.
pid_t start(const std::vector<std::string>& arguments, posix_spawn_file_actions_t* actions,
            bool apart) {
  std::vector<char*> pointers;
  static char name[] = "norvctl";
  pointers.push_back(name);
  for (const std::string& one : arguments) pointers.push_back(const_cast<char*>(one.c_str()));
  pointers.push_back(nullptr);
  // Signals that this process keeps from itself are for the other one to hear.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t usual;
  sigemptyset(&usual);
  for (const int number : {SIGINT, SIGPIPE, SIGQUIT}) sigaddset(&usual, number);
  posix_spawnattr_setsigdefault(&attributes, &usual);
  const int group = apart ? POSIX_SPAWN_SETPGROUP : 0;
  posix_spawnattr_setflags(&attributes, static_cast<short>(POSIX_SPAWN_SETSIGDEF | group));
  pid_t process = -1;
  const int error =
      posix_spawn(&process, "/proc/self/exe", actions, &attributes, pointers.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) throw std::runtime_error(std::string("cannot start: ") + strerror(error));
  return process;
}

// A file without a name that holds the text, to be read from its beginning.
int fileWith(const std::string& text) {
  const int file = memfd_create("norvctl-input", MFD_CLOEXEC);
  std::size_t written = 0;
  while (file >= 0 && written < text.size()) {
    const ssize_t length = write(file, text.data() + written, text.size() - written);
    if (length < 0) break;
    written += static_cast<std::size_t>(length);
  }
  if (file < 0 || written < text.size() || lseek(file, 0, SEEK_SET) != 0) {
    throw std::runtime_error(std::string("cannot keep the input: ") + strerror(errno));
  }
  return file;
}

// Without an input it has that of this process.
Child startPiped(const std::vector<std::string>& arguments,
                 const std::optional<std::string>& input) {
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("cannot make a pipe: ") + strerror(errno));
  }
  const int in = input ? fileWith(*input) : STDIN_FILENO;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  Child child{start(arguments, &actions, true), out[0], err[0]};
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  if (input) close(in);
  return child;
}

int waitFor(pid_t process) {
  int status = 0;
  while (waitpid(process, &status, 0) < 0) {
    if (errno != EINTR) return 127;
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Reads until all ends are closed, and passes signals on meanwhile.
std::vector<Finished> collect(const std::vector<Child>& children) {
  constexpr int lookForSignals = 50;  // milliseconds: one may come just before it is waited
  std::vector<Finished> all(children.size());
  std::vector<pollfd> ends;
  for (const Child& child : children) {
    ends.push_back({child.out, POLLIN, 0});
    ends.push_back({child.err, POLLIN, 0});
  }
  unsigned passedOn = 0;
  for (std::size_t open = ends.size(); open > 0;) {
    const bool some = poll(ends.data(), ends.size(), lookForSignals) > 0;
    if (passedOn != signals) {
      passedOn = signals;
      for (const Child& child : children) kill(child.process, lastSignal);
    }
    for (std::size_t i = 0; some && i < ends.size(); ++i) {
      if (ends[i].fd < 0 || !(ends[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buffer[65536];
      const ssize_t length = read(ends[i].fd, buffer, sizeof buffer);
      if (length > 0) {
        std::string& text = i % 2 == 0 ? all[i / 2].out : all[i / 2].err;
        text.append(buffer, static_cast<std::size_t>(length));
      } else if (length == 0 || errno != EINTR) {
        close(ends[i].fd);
        ends[i].fd = -1;
        --open;
      }
    }
  }
  for (std::size_t i = 0; i < children.size(); ++i) all[i].status = waitFor(children[i].process);
  return all;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    if (end > at) lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

std::vector<json> objectsOf(const std::string& text) {
  std::vector<json> objects;
  for (const std::string& line : linesOf(text)) {
    const json one = json::parse(line, nullptr, false);
    if (one.is_object()) objects.push_back(one);
  }
  return objects;
}

// What a program said on standard error, without its own name; what an event says is its text.
std::string lastWords(const std::string& text) {
  std::string words;
  for (std::string line : linesOf(text)) {
    const json event = json::parse(line, nullptr, false);
    if (event.is_object() && event.value("event", "") == "no answer yet") continue;
    if (event.is_object()) line = event.value("text", "");
    if (line.starts_with("norvctl: ")) line.erase(0, 9);
    if (!line.empty()) words += (words.empty() ? "" : "; ") + escaped(line);
  }
  return words;
}

// Why no answer came, if that was said.
std::string whyNoAnswer(const std::string& text) {
  for (const json& event : objectsOf(text)) {
    if (event.value("event", "") != "no answer") continue;
    return "no answer from " + escaped(event.value("target", "")) + ": " +
           escaped(event.value("text", ""));
  }
  const std::size_t at = text.find("no answer from ");
  return at == std::string::npos ? "" : escaped(text.substr(at, text.find('\n', at) - at));
}

// What is told of one that printed nothing to go by.
std::string withoutAnswer(const Finished& finished, json& line) {
  const std::string why = whyNoAnswer(finished.err);
  line["error"] = why.empty() ? lastWords(finished.err) : why;
  return line["error"];
}

// `two`: what that exit status says.
const char* statusWord(int status, const char* two) {
  switch (status) {
    case allOk:
      return "ok";
    case badInput:
      return "bad input";
    case refused:
      return two;
    case lost:
      return "lost";
    default:
      return "ended by a signal";
  }
}

std::string summaryText(const json& summary) {
  std::string text;
  for (const char* outcome : {"ok", "refused", "failed", "undecodable", "dropped"}) {
    text += (text.empty() ? "" : ", ") + std::to_string(summary.value(outcome, 0u)) + " " + outcome;
  }
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "; %.3f s", summary.value("seconds", 0.0));
  text += seconds;
  if (summary.contains("failure")) {
    text += "; " + escaped(summary["failure"].value("status", "") + " " +
                           summary["failure"].value("reason", ""));
  }
  return text;
}

Table::Tone toneOf(int status) {
  return status == allOk     ? Table::Tone::good
         : status == refused ? Table::Tone::warning
                             : Table::Tone::bad;
}

// The last of the lines, with a summary in it; null if there is none.
json summaryOf(const Finished& finished) {
  const std::vector<json> objects = objectsOf(finished.out);
  return objects.empty() ? json() : objects.back().value("summary", json());
}

// What a process for another host takes beside the command line of this one.
struct ForEach {
  std::vector<std::string> more;     // options
  std::optional<std::string> input;  // instead of that of this one
};

// A line per host, with what `tell` makes of its lines.
template <class Tell>
int onEach(const std::vector<std::string>& hosts, bool asJson, const ForEach& forEach,
           const char* two, Tell tell) {
  keepSignals();
  std::vector<Child> children;
  for (const std::string& host : hosts) {
    std::vector<std::string> arguments = repeated(host);
    arguments.insert(arguments.begin() + 1, forEach.more.begin(), forEach.more.end());
    children.push_back(startPiped(arguments, forEach.input));
  }
  const std::vector<Finished> all = collect(children);
  Table table({{"host"}, {"outcome"}, {"what became of it"}});
  int worst = allOk;
  for (std::size_t i = 0; i < hosts.size(); ++i) {
    const int status = all[i].status;
    worst = std::max(worst, status);
    json line = {{"host", hosts[i]}, {"status", status}};
    const std::string text = tell(all[i], line);
    if (asJson) {
      std::printf("%s\n", oneLineJson(line).c_str());
    }
    table.add({escaped(hosts[i]), {statusWord(status, two), toneOf(status)}, text});
  }
  if (!asJson) std::fputs(table.text(Colours(coloursAt(STDOUT_FILENO))).c_str(), stdout);
  return signals != 0 ? 128 + lastSignal : worst;
}

}  // namespace

void commandLineIs(int argc, char** argv) {
  ownArguments.assign(argv + 1, argv + argc);
}

bool refusedForSeveral(const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    if (readableTwice({file})) continue;
    const std::string name = file == "-" ? "standard input" : escaped(file);
    std::fprintf(stderr,
                 "norvctl: %s can be read once, and each host gets all of it; write it into a file "
                 "and give that\n",
                 name.c_str());
    return true;
  }
  return false;
}

int runOnEach(const std::vector<std::string>& hosts, bool asJson) {
  return onEach(hosts, asJson, {{"--quiet"}, {}}, "refused",
                [](const Finished& finished, json& line) {
                  const json summary = summaryOf(finished);
                  if (summary.is_null()) return withoutAnswer(finished, line);
                  line["summary"] = summary;
                  // Why no answer came stands in the summary already.
                  std::string why = whyNoAnswer(finished.err);
                  if (!why.empty()) line["error"] = why;
                  if (finished.status != badInput) return summaryText(summary);
                  why = lastWords(finished.err);
                  line["error"] = why;
                  return summaryText(summary) + "; " + why;
                });
}

int replayOnEach(const std::vector<std::string>& hosts, bool asJson) {
  return onEach(hosts, asJson, {{"--quiet"}, {}}, "different",
                [](const Finished& finished, json& line) {
                  const json summary = summaryOf(finished);
                  if (summary.is_null()) return withoutAnswer(finished, line);
                  line["summary"] = summary;
                  std::string text = std::to_string(summary.value("calls", 0u)) + " calls";
                  for (const auto& [key, words] :
                       {std::pair{"as_recorded", " as recorded"},
                        std::pair{"different", " different"}, std::pair{"left_out", " left out"}}) {
                    text += ", " + std::to_string(summary.value(key, 0u)) + words;
                  }
                  return text;
                });
}

int callOnEach(const std::vector<std::string>& hosts, bool asJson, const std::string& given,
               const std::string& body) {
  // An argument may not be as long as a body.
  const auto place = std::find(ownArguments.rbegin(), ownArguments.rend(), given);
  if (place != ownArguments.rend()) *place = "-";
  return onEach(hosts, asJson, {{}, body}, "refused", [](const Finished& finished, json& line) {
    const std::vector<json> objects = objectsOf(finished.out);
    if (objects.empty()) return withoutAnswer(finished, line);
    line["response"] = objects.front();
    return oneLineJson(line["response"]);
  });
}

int runSelfHere(const std::vector<std::string>& arguments) {
  return waitFor(start(arguments, nullptr, false));
}

}  // namespace Norvctl
