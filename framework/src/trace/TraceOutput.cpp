#include "TraceOutput.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <new>
#include <thread>

#include <Lumo/TraceRecorder.h>

namespace Lumo {

namespace {

constinit std::atomic<TraceSink*> sink{nullptr};

// Who is inside a sink, so that a replacement can wait for those that may have the old one. They
// are counted on the side that is current when they come, which a replacement changes: newcomers
// do not keep it waiting. All sequentially consistent: a thread counts itself before it reads the
// sink, and a replacement stores the sink before it reads the counts. Somebody may read the side,
// be slow, and count itself on the other one; therefore both sides are waited for in turn.
constinit std::atomic<unsigned> side{0};
constinit std::atomic<int> insideSink[2]{};
// Of those, this thread's: a sink may trace.
[[gnu::tls_model("initial-exec")]] thread_local constinit int insideHere[2]{};
constinit std::atomic<bool> replacing{false};

class InSink {
 public:
  InSink() : side_(side.load()) {
    insideSink[side_].fetch_add(1);
    ++insideHere[side_];
  }
  ~InSink() {
    --insideHere[side_];
    insideSink[side_].fetch_sub(1);
  }
  InSink(const InSink&) = delete;
  InSink& operator=(const InSink&) = delete;

 private:
  const unsigned side_;
};

// Lets one line at a time out to standard error. No mutex: fork() must not wait for whoever reads
// there, and in a forked child the lock is free again.
constinit std::atomic<bool> writing{false};

class WritingAnchor {
 public:
  WritingAnchor() {
    while (writing.exchange(true, std::memory_order_acquire)) writing.wait(true);
  }
  ~WritingAnchor() {
    writing.store(false, std::memory_order_release);
    writing.notify_one();
  }
  WritingAnchor(const WritingAnchor&) = delete;
  WritingAnchor& operator=(const WritingAnchor&) = delete;
};

// The other threads, inside a sink, replacing one or writing, stay behind in the parent.
void forgetOtherThreads() {
  writing = false;
  insideSink[0] = insideHere[0];
  insideSink[1] = insideHere[1];
  replacing = false;
}

// No local static: a child that is forked while another thread is at it would wait for ever.
pthread_once_t forksWatched = PTHREAD_ONCE_INIT;

void watchForks() {
  pthread_once(&forksWatched, [] { pthread_atfork(nullptr, nullptr, forgetOtherThreads); });
}

void writeAll(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd descriptor{STDERR_FILENO, POLLOUT, 0};
      if (::poll(&descriptor, 1, -1) < 0 && errno != EINTR) return;
    } else if (errno != EINTR) {
      return;  // nowhere to report it
    }
  }
}

void appendPadded(std::string& out, U64 value, int width) {
  char digits[20];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  for (auto length = end - digits; length < width; ++length) out.push_back('0');
  out.append(digits, end);
}

// The date and time down to the second, kept from line to line: most share it. Without a
// destructor, so that a line traced while the process exits can still use it.
struct SecondText {
  U64 second;
  std::size_t length;  // 0 until the first use
  char text[64];
};

std::string_view secondText(U64 second) {
  [[gnu::tls_model("initial-exec")]] static thread_local constinit SecondText kept{};
  if (kept.length == 0 || second != kept.second) {
    const auto seconds = static_cast<std::time_t>(second);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    kept.length = std::strftime(kept.text, sizeof kept.text, "%Y-%m-%dT%H:%M:%S.", &parts);
    kept.second = second;
  }
  return {kept.text, kept.length};
}

// The character that `text` begins with, and its length in bytes: 0 where no UTF-8 is.
struct Character {
  U32 code;
  std::size_t length;
};

Character firstCharacter(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const U32 first = byte(0);
  std::size_t length = 1;
  if (first >= 0x80) length = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (first > 0xf4 || length == 0 || length > text.size()) return {0, 0};
  U32 code = length == 1 ? first : first & (0x7fU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return {0, 0};
    code = code << 6 | (byte(i) & 0x3fU);
  }
  const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool surrogate = code >= 0xd800 && code < 0xe000;
  if (overlong || surrogate || code > 0x10ffff) return {0, 0};
  return {code, length};
}

// Whether a terminal would obey the character, which is none of ASCII, instead of showing it:
// control characters, line and paragraph ends, and what turns the direction of writing (UAX #9).
bool commandsTerminal(U32 code) {
  const auto within = [code](U32 first, U32 last) { return code >= first && code <= last; };
  return within(0x80, 0x9f) || code == 0x61c || within(0x200e, 0x200f) || within(0x2028, 0x202e) ||
         within(0x2066, 0x2069);
}

void appendHexadecimal(std::string& out, U32 value, int digits) {
  while (digits-- > 0) out.push_back("0123456789abcdef"[value >> 4 * digits & 15]);
}

// Appends what stands for the character that `text` begins with, and returns its length there.
std::size_t appendSpecial(std::string& out, std::string_view text) {
  constexpr std::string_view named = "\\\n\r\t";
  if (const auto at = named.find(text[0]); at != std::string_view::npos) {
    out.append({'\\', "\\nrt"[at]});
    return 1;
  }
  const Character character = firstCharacter(text);
  if (character.length > 1 && !commandsTerminal(character.code)) {
    out.append(text.substr(0, character.length));
  } else if (character.length > 1) {
    out.append("\\u");
    appendHexadecimal(out, character.code, 4);
  } else {
    out.append("\\x");
    appendHexadecimal(out, static_cast<unsigned char>(text[0]), 2);
  }
  return std::max<std::size_t>(character.length, 1);
}

}  // namespace

void appendTraceText(std::string& out, std::string_view text) {
  const auto plain = [](char c) {
    return static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x7f &&
           c != '\\';
  };
  while (true) {
    const auto special = std::find_if_not(text.begin(), text.end(), plain);
    const auto length = static_cast<std::size_t>(special - text.begin());
    out.append(text.substr(0, length));
    text.remove_prefix(length);
    if (text.empty()) return;
    text.remove_prefix(appendSpecial(out, text));
  }
}

void appendTraceLine(std::string& out, const TraceLine& line) {
  out.append(secondText(line.timeNs / 1000000000ULL));
  appendPadded(out, line.timeNs % 1000000000ULL / 1000, 6);
  out.push_back(' ');
  appendPadded(out, static_cast<U64>(line.thread), 1);
  out.push_back(' ');
  appendTraceText(out, line.facility);
  out.push_back('/');
  appendPadded(out, line.level, 1);
  out.push_back(' ');
  appendTraceText(out, line.file);
  out.push_back(':');
  appendPadded(out, static_cast<U64>(line.line), 1);
  out.push_back(' ');
  appendTraceText(out, line.function);
  out.append(": ");
  appendTraceText(out, line.text);
  out.push_back('\n');
}

void writeToStandardError(const TraceLine& line) {
  const int errnoOfCaller = errno;
  try {
    std::string text;
    appendTraceLine(text, line);
    watchForks();
    const WritingAnchor anchor;  // a line longer than a pipe's atomic write stays whole
    writeAll(text);
  } catch (const std::bad_alloc&) {
  }
  errno = errnoOfCaller;
}

void deliverTraceLine(const TraceLine& line) {
  if (sink.load(std::memory_order_relaxed)) {
    const InSink inSink;
    if (TraceSink* current = sink.load()) {
      current->lineIs(line);
      return;
    }
  }
  writeToStandardError(line);
}

void traceSinkIs(TraceSink* newSink) {
  watchForks();
  while (replacing.exchange(true)) std::this_thread::yield();
  sink.store(newSink);
  for (int turn = 0; turn < 2; ++turn) {
    const unsigned old = side.fetch_xor(1);
    while (insideSink[old].load() != 0) std::this_thread::yield();
  }
  replacing.store(false);
}

TraceSink* traceSink() {
  return sink.load();
}

TraceRecorder::TraceRecorder() : previous_(traceSink()) {
  traceSinkIs(this);
}

TraceRecorder::~TraceRecorder() {
  traceSinkIs(previous_);
}

void TraceRecorder::lineIs(const TraceLine& line) {
  std::lock_guard guard(mutex_);
  lines_.push_back({String(std::string(line.facility)), line.level, line.file, line.line,
                    line.function, std::string(line.text), line.timeNs, line.thread});
}

std::vector<TraceRecorder::Line> TraceRecorder::lines() const {
  std::lock_guard guard(mutex_);
  return lines_;
}

std::vector<std::string> TraceRecorder::texts() const {
  std::lock_guard guard(mutex_);
  std::vector<std::string> result;
  for (const Line& line : lines_) result.push_back(line.text);
  return result;
}

void TraceRecorder::clear() {
  std::lock_guard guard(mutex_);
  lines_.clear();
}

}  // namespace Lumo
