#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>

#include <Norv/Agent/AgentTrace.h>
#include <Norv/Agent/FlightRecorder.h>
#include <Norv/ClientTrace.h>
#include <Skein/Reader.h>

#include "RpcFailures.h"

namespace Norv::Agent {

namespace {

using nlohmann::ordered_json;

const char* const noFailureTraced = "the error flag rose while the command was under way";

Skein::TraceOptions optionsFor(U64 size) {
  Skein::TraceOptions options;
  options.size = size;
  options.multiThreaded = true;
  options.keepPrevious = true;
  return options;
}

double microseconds(Time::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

ordered_json detailsOf(const CommandReport& command) {
  return {{"seq", command.seq},
          {"type", stringValue(command.type).charPtr()},
          {"queue", command.queue.charPtr()},
          {"outcome", outcomeName(command.outcome)},
          {"waited_us", microseconds(command.started - command.announced)},
          {"service_us", microseconds(command.ended - command.started)}};
}

bool isOf(const Skein::Record& record, const Twine::Point& point) {
  return record.site->line == point.line && record.site->file == point.module->file &&
         record.site->text == point.text;
}

// That of the command, in the copy: this thread's last one, unless an older command ended since.
std::optional<RpcFailure> rpcFailureIn(const std::string& copy, const CommandReport& command) {
  std::optional<RpcFailure> failure;
  const int thread = ::gettid();
  Skein::Reader reader(copy);
  reader.read([&](const Skein::Record& record) {
    if (record.thread != thread) return;
    if (isOf(record, ClientTrace::failedResponse) || isOf(record, ClientTrace::failedSend)) {
      failure.emplace();
      failure->code = std::get<int>(record.arguments().at(0));
      record.appendText(failure->text);
    } else if (isOf(record, AgentTrace::ended) &&
               std::get<unsigned long long>(record.arguments().at(0)) < command.seq) {
      failure.reset();
    }
  });
  return failure;
}

// As in 2026-01-31T12:00:00.123456Z.
std::string timeOfDay() {
  timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  std::tm parts;
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", ::gmtime_r(&now.tv_sec, &parts));
  char fraction[32];
  std::snprintf(fraction, sizeof fraction, ".%06ldZ", now.tv_nsec / 1000);
  return std::string(text) + fraction;
}

void writeDetails(const std::string& path, const ordered_json& details) {
  // What is not UTF-8 comes out as the replacement character.
  const std::string text =
      details.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
  // A request may hold what only its owner should read: a file of our own, written under no name,
  // as another file may have got it meanwhile.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error("cannot make " + path + ": " + std::strerror(errno));
  std::FILE* const file = ::fdopen(fd, "w");
  const bool written = file && std::fwrite(text.data(), 1, text.size(), file) == text.size();
  const bool closed = file && std::fclose(file) == 0;
  if (!written || !closed)
    throw std::runtime_error("cannot write " + path + "; check the free space");
}

// The N of a file named PREFIX followed by N or N.json; 0 for any other.
unsigned numberIn(const std::string& name, const std::string& prefix) {
  if (!name.starts_with(prefix)) return 0;
  unsigned number = 0;
  const char* const end = name.data() + name.size();
  const auto [rest, error] = std::from_chars(name.data() + prefix.size(), end, number);
  const std::string_view tail(rest, static_cast<std::size_t>(end - rest));
  return error == std::errc() && (tail.empty() || tail == ".json") ? number : 0;
}

unsigned nextNumber(const std::filesystem::path& copies) {
  const std::filesystem::path folder = copies.has_parent_path() ? copies.parent_path() : ".";
  const std::string prefix = copies.filename();
  unsigned highest = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    highest = std::max(highest, numberIn(entry.path().filename(), prefix));
  }
  if (highest == std::numeric_limits<unsigned>::max()) {
    throw std::runtime_error("no number comes after " + copies.string() + std::to_string(highest) +
                             "; move the copies of earlier runs away");
  }
  return highest + 1;
}

}  // namespace

FlightRecorder::FlightRecorder(const std::string& path, U64 size, unsigned mostCopies)
    : handle_(path, optionsFor(size)), mostCopies_(mostCopies) {
  Skein::defaultSkeinHandleIs(&handle_);
}

// The handle stops being the process's default by itself, if it still is.
FlightRecorder::~FlightRecorder() = default;

void FlightRecorder::freeze(const std::optional<CommandReport>& command, const std::string& reason,
                            const std::string& request) {
  try {
    const std::lock_guard guard(freezing_);
    if (copies_ == mostCopies_) return;
    ++copies_;
    const bool last = copies_ == mostCopies_;
    const std::string copies = handle_.traceFile()->path() + ".failure-";
    const std::string copy = copies + std::to_string(nextNumber(copies));
    if (last) {
      std::fprintf(stderr, "flight recorder: %s is the last copy of this run\n", copy.c_str());
    }
    Skein::snapshot(*handle_.traceFile(), copy);
    std::optional<RpcFailure> failure;
    if (command) failure = rpcFailureIn(copy, *command);
    if (!failure && command && command->rpcCode != 0) {
      failure = RpcFailure{command->rpcCode, command->errorText};
    }
    ordered_json details;
    details["time"] = timeOfDay();
    details["command"] = command ? detailsOf(*command) : ordered_json();
    if (!request.empty()) {
      const ordered_json parsed = ordered_json::parse(request, nullptr, false);
      details["command"]["request"] = parsed.is_discarded() ? ordered_json(request) : parsed;
    }
    details["reason"] = !reason.empty() ? reason : failure ? failure->text : noFailureTraced;
    if (failure) details["grpc_code"] = failure->code;
    if (last) details["note"] = "the last copy of this run: later failures leave none";
    writeDetails(copy + ".json", details);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "flight recorder: %s\n", error.what());
  }
}

}  // namespace Norv::Agent
