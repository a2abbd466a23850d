#include "Fleet.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "../Verb.h"
#include "../text/Table.h"
#include "../text/Text.h"

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

struct Child {
  pid_t process = -1;
  int out = -1;
  int err = -1;
};

pid_t start(const std::vector<std::string>& arguments, posix_spawn_file_actions_t* actions) {
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
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t process = -1;
  const int error =
      posix_spawn(&process, "/proc/self/exe", actions, &attributes, pointers.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) throw std::runtime_error(std::string("cannot start: ") + strerror(error));
  return process;
}

Child startPiped(const std::vector<std::string>& arguments) {
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("cannot make a pipe: ") + strerror(errno));
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  Child child{start(arguments, &actions), out[0], err[0]};
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(err[1]);
  return child;
}

int waitFor(pid_t process) {
  int status = 0;
  while (waitpid(process, &status, 0) < 0) {
    if (errno != EINTR) return 127;
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Reads until both ends are closed.
Finished collect(const Child& child) {
  Finished finished;
  pollfd ends[] = {{child.out, POLLIN, 0}, {child.err, POLLIN, 0}};
  std::string* texts[] = {&finished.out, &finished.err};
  for (int open = 2; open > 0;) {
    poll(ends, 2, -1);
    for (int i = 0; i < 2; ++i) {
      if (!(ends[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buffer[65536];
      const ssize_t length = read(ends[i].fd, buffer, sizeof buffer);
      if (length > 0) {
        texts[i]->append(buffer, static_cast<std::size_t>(length));
      } else if (length == 0 || errno != EINTR) {
        close(ends[i].fd);
        ends[i].fd = -1;
        --open;
      }
    }
  }
  finished.status = waitFor(child.process);
  return finished;
}

std::vector<json> objectsOf(const std::string& text) {
  std::vector<json> objects;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const json one = json::parse(text.substr(at, end - at), nullptr, false);
    if (one.is_object()) objects.push_back(one);
    at = end + 1;
  }
  return objects;
}

// The last line of what a program said, without its own name.
std::string lastWord(const std::string& text) {
  std::string last;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    if (end > at) last = text.substr(at, end - at);
    at = end + 1;
  }
  return escaped(last.starts_with("norvctl: ") ? last.substr(9) : last);
}

// Why no answer came, if that was said.
std::string whyNoAnswer(const std::string& text) {
  const std::size_t at = text.find("no answer from ");
  return at == std::string::npos ? "" : escaped(text.substr(at, text.find('\n', at) - at));
}

// What is told of one that printed nothing to go by.
std::string withoutAnswer(const Finished& finished, json& line) {
  const std::string why = whyNoAnswer(finished.err);
  line["error"] = why.empty() ? lastWord(finished.err) : why;
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

// A line per host, with what `tell` makes of its lines.
template <class Tell>
int onEach(const std::vector<std::string>& hosts, bool asJson, const std::vector<std::string>& more,
           const char* two, Tell tell) {
  std::vector<std::vector<std::string>> lists;
  for (const std::string& host : hosts) {
    lists.push_back(repeated(host));
    lists.back().insert(lists.back().begin() + 1, more.begin(), more.end());
  }
  const std::vector<Finished> all = runSelf(lists);
  Table table({{"host"}, {"outcome"}, {"what became of it"}});
  int worst = allOk;
  for (std::size_t i = 0; i < hosts.size(); ++i) {
    const int status = all[i].status;
    worst = std::max(worst, status);
    json line = {{"host", hosts[i]}, {"status", status}};
    const std::string text = tell(all[i], line);
    if (asJson) {
      std::printf("%s\n", line.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    }
    table.add({escaped(hosts[i]), {statusWord(status, two), toneOf(status)}, text});
  }
  if (!asJson) std::fputs(table.text(Colours(coloursAt(STDOUT_FILENO))).c_str(), stdout);
  return worst;
}

}  // namespace

void commandLineIs(int argc, char** argv) {
  ownArguments.assign(argv + 1, argv + argc);
}

int runOnEach(const std::vector<std::string>& hosts, const std::vector<std::string>& files,
              bool asJson) {
  if (std::find(files.begin(), files.end(), "-") != files.end()) {
    std::fputs("norvctl: standard input can be sent to one host only; give a file\n", stderr);
    return badInput;
  }
  return onEach(hosts, asJson, {"--quiet"}, "refused", [](const Finished& finished, json& line) {
    const json summary = summaryOf(finished);
    if (summary.is_null()) return withoutAnswer(finished, line);
    line["summary"] = summary;
    const std::string why = whyNoAnswer(finished.err);
    if (!why.empty()) line["error"] = why;
    return summaryText(summary) + (why.empty() ? "" : "; " + why);
  });
}

int replayOnEach(const std::vector<std::string>& hosts, bool asJson) {
  return onEach(hosts, asJson, {"--quiet"}, "different", [](const Finished& finished, json& line) {
    const json summary = summaryOf(finished);
    if (summary.is_null()) return withoutAnswer(finished, line);
    line["summary"] = summary;
    std::string text = std::to_string(summary.value("calls", 0u)) + " calls";
    for (const auto& [key, words] :
         {std::pair{"as_recorded", " as recorded"}, std::pair{"different", " different"},
          std::pair{"left_out", " left out"}}) {
      text += ", " + std::to_string(summary.value(key, 0u)) + words;
    }
    return text;
  });
}

int callOnEach(const std::vector<std::string>& hosts, bool asJson) {
  return onEach(hosts, asJson, {}, "refused", [](const Finished& finished, json& line) {
    const std::vector<json> objects = objectsOf(finished.out);
    if (objects.empty()) return withoutAnswer(finished, line);
    line["response"] = objects.front();
    return line["response"].dump(-1, ' ', false, json::error_handler_t::replace);
  });
}

std::vector<Finished> runSelf(const std::vector<std::vector<std::string>>& argumentLists) {
  std::vector<Child> children;
  for (const auto& arguments : argumentLists) children.push_back(startPiped(arguments));
  std::vector<Finished> all;
  for (const Child& child : children) all.push_back(collect(child));
  return all;
}

int runSelfHere(const std::vector<std::string>& arguments) {
  return waitFor(start(arguments, nullptr));
}

}  // namespace Norvctl
