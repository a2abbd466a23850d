// The verb shell.

#include <editline/readline.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <iostream>
#include <limits>
#include <optional>

#include "../Options.h"
#include "../Verb.h"
#include "../protocol/Requests.h"
#include "../run/Fleet.h"
#include "../text/Text.h"
#include "Completer.h"
#include "Words.h"

namespace Norvctl {

namespace {

struct ShellArguments {
  TargetOptions target;
};

Completer* completer = nullptr;
std::string earlierLines;  // of the command whose next line is edited
std::atomic<bool> interrupted = false;

void onInterrupt(int) {
  interrupted = true;
}

bool onTerminal() {
  return isatty(STDIN_FILENO) && isatty(STDOUT_FILENO);
}

// For the line editor: the next key, or the end of the line once there was a ^C, which may come at
// any moment and on any thread: it is seen here, where the editor waits, and nowhere else.
int nextKey(FILE* terminal) {
  constexpr int lookForSignals = 50;  // milliseconds
  pollfd ready{fileno(terminal), POLLIN, 0};
  std::mbstate_t state{};
  while (!interrupted) {
    if (poll(&ready, 1, lookForSignals) <= 0) continue;
    char byte = 0;
    const ssize_t length = read(ready.fd, &byte, 1);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return EOF;
    wchar_t key = 0;
    const std::size_t used = std::mbrtowc(&key, &byte, 1, &state);
    if (used == static_cast<std::size_t>(-2)) continue;  // more bytes belong to it
    // What is no character here would be a key with Meta to the editor.
    if (used == static_cast<std::size_t>(-1)) {
      state = {};
      continue;
    }
    return static_cast<int>(key);
  }
  return '\n';
}

// What stands before the cursor, from the beginning of the command.
std::string beforeCursor() {
  return earlierLines + std::string(rl_line_buffer, static_cast<std::size_t>(rl_point));
}

// For the line editor: the first call makes the list, each gives one of it.
char* nextCandidate(const char*, int state) {
  static std::vector<std::string> found;
  static std::size_t next = 0;
  if (state == 0) {
    found = completer->candidates(beforeCursor());
    next = 0;
  }
  return next < found.size() ? strdup(found[next++].c_str()) : nullptr;
}

char** complete(const char* text, int, int) {
  rl_attempted_completion_over = 1;  // no names of files instead
  // Inside JSON a quote or a comma follows.
  const unsigned char blank = ' ';
  rl_completion_append_character = beforeCursor().find('{') == std::string::npos ? blank : 0;
  return rl_completion_matches(text, nextCandidate);
}

std::string historyFile() {
  const char* state = std::getenv("XDG_STATE_HOME");
  const char* home = std::getenv("HOME");
  if (state && *state) return std::string(state) + "/norvctl_history";
  return home && *home ? std::string(home) + "/.norvctl_history" : std::string();
}

// Lines from a terminal, edited and remembered, or from anything else as they are.
class Input {
 public:
  explicit Input(const std::string& prompt) : prompt_(prompt), terminal_(onTerminal()) {
    if (!terminal_) return;
    std::setlocale(LC_CTYPE, "");  // what a character is
    rl_readline_name = const_cast<char*>("norvctl");
    rl_catch_signals = 0;  // ^C is ours, see nextKey
    rl_getc_function = nextKey;
    rl_initialize();
    static char breaks[] = " \t\"{}[]:,=";
    rl_completer_word_break_characters = breaks;
    rl_attempted_completion_function = complete;
    rl_completion_query_items = std::numeric_limits<int>::max();  // its question hears no ^C
    using_history();
    stifle_history(1000);
    if (const std::string file = historyFile(); !file.empty()) read_history(file.c_str());
  }
  ~Input() {
    if (!terminal_) return;
    if (const std::string file = historyFile(); !file.empty()) write_history(file.c_str());
  }

  // A command, of several lines where one is not complete; none at the end.
  std::optional<std::string> next() {
    std::string text;
    while (true) {
      earlierLines = text.empty() ? "" : text + "\n";
      std::optional<std::string> line = nextLine(text.empty() ? prompt_ : "... ");
      if (!line) return text.empty() ? std::nullopt : std::optional(text);
      if (interrupted.exchange(false)) {
        text.clear();
        continue;
      }
      text += (text.empty() ? "" : "\n") + *line;
      if (wordsOf(text).complete) break;
    }
    if (terminal_ && text.find_first_not_of(" \t\n") != std::string::npos) {
      std::string remembered = text;
      std::replace(remembered.begin(), remembered.end(), '\n', ' ');
      add_history(remembered.c_str());
    }
    return text;
  }
  bool terminal() const { return terminal_; }

 private:
  std::optional<std::string> nextLine(const std::string& prompt) {
    if (!terminal_) {
      std::string line;
      if (!std::getline(std::cin, line)) return std::nullopt;
      return line;
    }
    char* line = readline(prompt.c_str());
    if (!line) return std::nullopt;
    std::string text = line;
    std::free(line);
    return text;
  }

  const std::string prompt_;
  const bool terminal_;
};

class Shell {
 public:
  Shell(const CLI::App& app, const Target& target) : app_(app), target_(target) {}

  // The exit status of the last command.
  int run() {
    Input input("norvctl " + escaped(target_.address()) + "> ");
    if (input.terminal()) {
      std::printf("Verbs of norvctl, and request types with a body; help, exit.\n");
    }
    int status = allOk;
    while (const std::optional<std::string> line = input.next()) {
      std::vector<std::string> words = wordsOf(*line).words;
      if (words.empty()) continue;
      if (words.front() == "exit" || words.front() == "quit") return status;
      status = carryOut(std::move(words));
    }
    if (input.terminal()) std::printf("\n");
    return status;
  }

 private:
  int carryOut(std::vector<std::string> words) {
    if (words.front() == "norvctl") words.erase(words.begin());
    if (words.empty()) return allOk;
    if (requestInfo(words.front())) words.insert(words.begin(), "call");
    if (words.front() == "shell") {
      std::fprintf(stderr, "norvctl: this is the shell\n");
      return badInput;
    }
    if (!words.front().starts_with("-") && !verb(words.front())) {
      std::vector<std::string> names = requestNames();
      for (const Verb& one : verbs()) names.push_back(one.name);
      std::fprintf(stderr, "norvctl: neither verb nor type: \"%s\"; the nearest is \"%s\"\n",
                   escaped(words.front()).c_str(), nearest(words.front(), names).c_str());
      return badInput;
    }
    addTargetTo(words);
    std::fflush(stdout);
    // A process of its own: whatever becomes of it, the shell stays.
    const int status = runSelfHere(words);
    if (interrupted.exchange(false)) std::printf("\n");  // that was for the command
    if (status == 128 + SIGABRT) {
      std::fprintf(stderr, "norvctl: the process of this command was ended by an assertion\n");
    }
    return status;
  }

  // Unless the line names another target.
  void addTargetTo(std::vector<std::string>& words) const {
    const Verb* one = verb(words.front());
    if (!one || !app_.get_subcommand(one->name)->get_option_no_throw("--host")) return;
    const bool given = std::any_of(words.begin(), words.end(), [](const std::string& word) {
      return word == "--standin" || word == "--host" || word.starts_with("--host=") ||
             word == "--port" || word.starts_with("--port=");
    });
    if (given) return;
    words.insert(words.begin() + 1,
                 {"--host", target_.host(), "--port", std::to_string(target_.port())});
  }

  const CLI::App& app_;
  const Target& target_;
};

int shell(const ShellArguments& arguments) {
  const Target target(arguments.target);
  std::map<std::string, Action> actions;
  const auto app = makeApp(actions);
  Completer words(*app, target.host(), target.port());
  completer = &words;
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  // On a terminal what the editor writes goes on, and a line is given up between two keys; from
  // anything else a signal ends the wait for a line, and with it the shell.
  action.sa_flags = onTerminal() ? SA_RESTART : 0;
  sigaction(SIGINT, &action, nullptr);
  return Shell(*app, target).run();
}

Action defineShell(CLI::App& command) {
  const auto arguments = std::make_shared<ShellArguments>();
  addTarget(command, arguments->target);
  return [arguments] { return shell(*arguments); };
}

}  // namespace

Verb shellVerb() {
  return {
      "shell",
      "type commands one after the other",
      {"Reads command lines: every verb of norvctl, with the shell's host and port unless the line "
       "names others, and request types, which are short for `call TYPE`. A body in JSON needs no "
       "quotes and may go over several lines. The tab key completes verbs, types, options, fields, "
       "and the names of modules, ports, classes and workers that are in the switch; the arrow "
       "keys bring back what was typed, also from the time before (~/.norvctl_history).",
       "Each command runs in a process of its own: a daemon that is lost, or a command that "
       "aborts, does not end the shell. ^C ends the command that runs; `exit` and ^D end the "
       "shell, with the exit status of the last command."},
      {{"norvctl shell --standin", "a daemon to play with"},
       {"echo 'listModules' | norvctl shell --standin", "lines from elsewhere"}},
      &defineShell};
}

}  // namespace Norvctl
