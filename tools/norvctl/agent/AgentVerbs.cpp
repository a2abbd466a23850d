// The verbs status and retry, which speak to norvd.

#include <fcntl.h>
#include <httplib.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>

#include <Norv/State/Document.h>
#include <Norv/State/Files.h>
#include <Norv/State/Record.h>
#include <Norv/State/SwitchLock.h>

#include "../Options.h"
#include "../Verb.h"
#include "../run/Session.h"
#include "../text/Table.h"
#include "../text/Text.h"
#include "ObjectNames.h"
#include "PageAddress.h"

namespace Norvctl {

namespace {

using Json = nlohmann::ordered_json;

constexpr int pagePatience = 5;  // seconds

struct StatusArguments {
  std::string agent = "127.0.0.1:9514";
  bool watch = false;
  bool json = false;
};

// What is at /status.json; throws std::runtime_error.
std::string fetch(const std::string& agent) {
  const PageAddress address = pageAddress(agent).value();
  httplib::Client client(address.local ? address.host : "http://" + text(address));
  if (address.local) client.set_address_family(AF_UNIX);
  client.set_connection_timeout(pagePatience);
  client.set_read_timeout(pagePatience);
  const auto answer = client.Get("/status.json");
  if (!answer) {
    throw std::runtime_error("no norvd answers at " + agent + ": " + to_string(answer.error()) +
                             "; is it running, and with this --http?");
  }
  if (answer->status != 200) {
    throw std::runtime_error(agent + " answers with status " + std::to_string(answer->status) +
                             "; is that norvd?");
  }
  return answer->body;
}

std::string field(const Json& json, const char* name) {
  return escaped(json.value(name, ""));
}

Table objectsOf(const Json& json) {
  Table table({{"object"}, {"state"}, {"since"}, {"why"}});
  for (const auto& [name, one] : json.at("objects").items()) {
    const std::string state = one.at("state");
    if (state == "in sync") continue;
    const bool waits = state == "pending" || state == "blocked" || state == "differs";
    table.add({escaped(name),
               {state, waits ? Table::Tone::warning : Table::Tone::bad},
               {field(one, "since"), Table::Tone::faint},
               field(one, "text")});
  }
  return table;
}

// The sentence first.
std::string textOf(const Json& json, const Colours& colours, std::size_t width) {
  const bool good = json.at("in_sync");
  std::string out = std::string(colours.strong()) + (good ? colours.good() : colours.bad()) +
                    field(json, "state") + colours.end() + "\n";
  for (const Json& notice : json.at("notices")) {
    out += colours.bad() + escaped(notice.get<std::string>()) + colours.end() + "\n";
  }
  out += colours.faint() + ("since " + field(json, "since")) + "; daemon " +
         field(json.at("daemon"), "address") + "; document " + field(json, "document") +
         "; restarts " + std::to_string(json.value("restarts", 0)) + colours.end() + "\n";
  if (const Json& one = json.at("under_way"); !one.is_null()) {
    const std::string object = field(one, "object");
    out += "under way since " + field(one, "since") + ": " + field(one, "command") +
           (object.empty() ? "" : " of " + object) + "\n";
  }
  const Table objects = objectsOf(json);
  if (!objects.empty()) out += "\n" + objects.text(colours, width);
  Table queues({{"queue"}, {"waiting", Table::Align::right}, {"most", Table::Align::right}});
  const auto addQueue = [&](const std::string& name, const Json& queue) {
    queues.add({escaped(name), grouped(queue.at("depth")), grouped(queue.at("maximum"))});
  };
  for (const auto& [name, queue] : json.at("queues").items()) addQueue(name, queue);
  addQueue("(pending)", json.at("pending"));
  out += "\n" + queues.text(colours, width) + "\n";
  std::string outcomes;
  for (const auto& [name, count] : json.at("outcomes").items()) {
    outcomes += (outcomes.empty() ? "" : ", ") + grouped(count) + " " + name;
  }
  out += "commands: " + outcomes + "\n";
  if (json.at("failures").empty()) return out;
  Table failures({{"failed at"}, {"what"}});
  for (const Json& one : json.at("failures")) {
    failures.add({field(one, "time"), field(one, "text")});
  }
  return out + "\n" + failures.text(colours, width);
}

int tell(const StatusArguments& arguments, const std::string& body) {
  const Json json = Json::parse(body, nullptr, false);
  if (!json.is_object()) {
    throw std::runtime_error(arguments.agent + " answers what is no status; is that norvd?");
  }
  if (arguments.json) {
    print(withoutCommands(arguments.watch ? json.dump() + "\n" : body));
  } else {
    const std::size_t width = isatty(STDOUT_FILENO) ? columnsAt(STDOUT_FILENO) : 0;
    print(textOf(json, Colours(coloursAt(STDOUT_FILENO)), width));
  }
  flushOutput();
  return json.at("in_sync") ? allOk : somethingToDo;
}

int status(const StatusArguments& arguments) {
  if (arguments.watch) endOnSignals();
  while (true) {
    int how = lost;
    std::string trouble;
    try {
      const std::string body = fetch(arguments.agent);
      // Home, and away with what was there.
      if (arguments.watch && !arguments.json && isatty(STDOUT_FILENO)) print("\033[H\033[2J");
      how = tell(arguments, body);
    } catch (const std::runtime_error& error) {
      trouble = error.what();
      std::cerr << "norvctl: " << escaped(trouble) << '\n';
    }
    if (!arguments.watch) return how;
    if (endingSignal() == 0) poll(nullptr, 0, 1000);
    if (endingSignal() != 0) return how;
  }
}

Action defineStatus(CLI::App& command) {
  const auto arguments = std::make_shared<StatusArguments>();
  command
      .add_option("--agent", arguments->agent,
                  "where norvd serves its pages, HOST:PORT or unix:PATH; without it that of "
                  "NORV_AGENT")
      ->envname("NORV_AGENT")
      ->check([](const std::string& text) {
        return pageAddress(text)
                   ? std::string()
                   : "no norvd can be at " + text + ": that is neither HOST:PORT nor unix:PATH";
      })
      ->type_name("ADDR")
      ->capture_default_str();
  command.add_flag("--watch", arguments->watch, "again each second, until Ctrl-C");
  command.add_flag("--json", arguments->json, "as JSON; with --watch a line each time");
  return [arguments] { return status(*arguments); };
}

struct RetryArguments {
  TargetOptions target;
  std::string object;
  std::string stateDir = "/var/lib/norvd";
};

// A file that is closed with its scope.
class File {
 public:
  // Throws std::runtime_error.
  File(const std::string& name, int flags) : name_(name) {
    file_ = open(name.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (file_ < 0) Norv::State::failFile("cannot open", name);
  }
  ~File() { close(file_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int number() const { return file_; }
  struct stat status() const {
    struct stat found {};
    if (fstat(file_, &found) != 0) Norv::State::failFile("cannot look at", name_);
    return found;
  }
  // Puts the text behind what is there, unless its reader has removed the file meanwhile.
  bool append(const std::string& text) const {
    if (flock(file_, LOCK_EX) != 0) Norv::State::failFile("cannot lock", name_);
    if (status().st_nlink == 0) return false;
    const auto size = static_cast<ssize_t>(text.size());
    if (write(file_, text.data(), text.size()) != size) {
      Norv::State::failFile("cannot write", name_);
    }
    return true;
  }

 private:
  const std::string name_;
  int file_;
};

// Whether what the words mean is wanted, or norvd keeps that the daemon died of it; true where that
// cannot be told.
bool known(const std::string& words, const std::filesystem::path& record) {
  std::filesystem::path wanted = record, memory = record;
  wanted.replace_extension("wanted.yaml");
  memory.replace_extension("norvd");
  try {
    const auto marks = Norv::State::readFiles({wanted}).marks;
    std::set<std::string> died;
    const Json kept = Json::parse(std::ifstream(memory));
    for (const Json& one : kept.at("deaths")) died.insert(one.at("object"));
    for (const Norv::State::Object& one : objectsMeant(words)) {
      if (marks.contains(one) || died.contains(deathKey(one))) return true;
    }
    return false;
  } catch (const std::exception&) {
    return true;
  }
}

int retry(const RetryArguments& arguments) {
  const Target target(arguments.target);
  Norv::State::checkFolder(arguments.stateDir);
  const std::filesystem::path record =
      std::filesystem::path(arguments.stateDir) / Norv::State::recordName(target.address());
  std::filesystem::path lock = record, request = record;
  lock.replace_extension("lock");
  request.replace_extension("retry");
  if (access(lock.c_str(), F_OK) != 0 && errno == ENOENT) {
    throw std::runtime_error("no norvd for " + target.address() + " has its state in " +
                             arguments.stateDir + "; --state-dir, --host and --port say which");
  }
  const File held(lock, O_RDONLY);
  const auto holder = Norv::State::SwitchLock(arguments.stateDir, target.address(), "").holder();
  if (!holder || holder->program == Norv::State::applyingProgram) {
    throw std::runtime_error("norvd for " + target.address() +
                             " does not run; it tries all that is not quarantined when it starts");
  }
  // For norvd to read, also where another user asks.
  const struct stat owner = held.status();
  while (true) {
    const File file(request, O_WRONLY | O_APPEND | O_CREAT);
    const bool own = file.status().st_uid == owner.st_uid;
    if (!own && fchown(file.number(), owner.st_uid, owner.st_gid) != 0) {
      Norv::State::failFile("cannot give to norvd's user", request);
    }
    if (file.append(arguments.object + "\n")) break;
  }
  print("norvd for " + target.address() + " is asked to try " + escaped(arguments.object) +
        " again\n");
  if (known(arguments.object, record)) return allOk;
  std::cerr << "norvctl: " << escaped(arguments.object)
            << " is not wanted, and the daemon did not die of it; `norvctl status` lists the "
               "objects that are not in sync\n";
  return somethingToDo;
}

Action defineRetry(CLI::App& command) {
  const auto arguments = std::make_shared<RetryArguments>();
  command
      .add_option("OBJECT", arguments->object,
                  "as in the status, \"module fib\", or its name alone")
      ->required();
  addTarget(command, arguments->target);
  command
      .add_option("--state-dir", arguments->stateDir,
                  "that of norvd; without it that of NORV_AGENT_STATE")
      ->envname("NORV_AGENT_STATE")
      ->type_name("DIR")
      ->capture_default_str();
  return [arguments] { return retry(*arguments); };
}

}  // namespace

Verb statusVerb() {
  return {
      "status",
      "say what norvd does and why",
      {"Asks norvd, at the address of its --http. The first line says why nothing is moving, or "
       "what is; below are the objects that are not as wanted, the queues, the commands by "
       "outcome and the last failures.",
       "Exit status: 0 the switch is as wanted; 4 it is not; 3 no norvd answers."},
      {{"norvctl status", "the norvd of this machine"},
       {"norvctl status --watch", "refreshed each second"}},
      &defineStatus};
}

Verb retryVerb() {
  return {
      "retry",
      "have norvd try an object again",
      {"Lifts the quarantine of an object, and the pause after a refusal, by a word in norvd's "
       "state directory.",
       "Exit status: 0 norvd is asked; 4 it is asked, but does not want what is called so; 1 it "
       "does not run, or cannot be asked."},
      {{"norvctl retry \"module fib\"", "for the norvd of this machine"}},
      &defineRetry};
}

}  // namespace Norvctl
