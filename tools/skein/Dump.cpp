#include "Dump.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "Json.h"

namespace {

volatile sig_atomic_t stopped = 0;

// Standard output in large pieces.
class Output {
 public:
  std::string& buffer() { return buffer_; }
  bool good() const { return error_ == 0; }
  int error() const { return error_; }
  void flushIfLarge() {
    if (buffer_.size() >= 64 * 1024) flush();
  }
  void flush() {
    for (std::size_t at = 0; at < buffer_.size() && error_ == 0;) {
      const ssize_t count = ::write(STDOUT_FILENO, buffer_.data() + at, buffer_.size() - at);
      if (count >= 0) {
        at += static_cast<std::size_t>(count);
      } else if (errno != EINTR) {
        error_ = errno;
      }
    }
    buffer_.clear();
  }

 private:
  std::string buffer_;
  int error_ = 0;
};

void appendJson(std::string& out, const Skein::Record& record) {
  nlohmann::ordered_json line;
  std::string text;
  record.appendText(text);
  line["timeNs"] = record.timeNs;
  line["thread"] = record.thread;
  line["facility"] = record.site->facility;
  line["level"] = record.site->level;
  line["skeinLevel"] = record.level;
  line["file"] = record.site->file;
  line["line"] = record.site->line;
  line["function"] = record.site->function;
  line["text"] = text;
  line["args"] = argumentsOf(record);
  out += line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  out.push_back('\n');
}

void dumpNew(Skein::Reader& reader, const DumpOptions& options, Output& output) {
  reader.read([&](const Skein::Record& record) {
    if (!output.good() || !options.filter.passes(record)) return;
    if (options.json) {
      appendJson(output.buffer(), record);
    } else {
      record.appendLine(output.buffer());
    }
    output.flushIfLarge();
  });
  output.flush();
}

// Until interrupted. A file that is made anew under the same name is followed from then on.
void follow(std::unique_ptr<Skein::Reader>& reader, const DumpOptions& options, Output& output) {
  struct sigaction action {};
  action.sa_handler = [](int) { stopped = 1; };
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  const timespec pause{0, 50 * 1000 * 1000};
  while (!stopped && output.good()) {
    const bool replaced = reader->replaced();
    dumpNew(*reader, options, output);
    if (replaced && ::access(options.file.c_str(), R_OK) == 0) {
      reader = std::make_unique<Skein::Reader>(options.file);
    } else {
      ::nanosleep(&pause, nullptr);
    }
  }
}

}  // namespace

int dump(DumpOptions& options) {
  options.filter.resolve(options.file);
  auto reader = std::make_unique<Skein::Reader>(options.file);
  Output output;
  dumpNew(*reader, options, output);
  options.filter.reportUnmatched(*reader);
  if (options.follow) follow(reader, options, output);
  if (!output.good()) {
    std::fprintf(stderr, "skein: cannot write to standard output: %s\n",
                 std::strerror(output.error()));
    return 1;
  }
  const std::string problem = reader->problem();
  if (problem.empty()) return 0;
  std::fprintf(stderr, "skein: %s\n", problem.c_str());
  return 1;
}
