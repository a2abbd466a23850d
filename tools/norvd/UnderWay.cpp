#include "UnderWay.h"

#include <fcntl.h>
#include <unistd.h>

#include <Norv/State/Files.h>

namespace Norvd {

namespace {

// The first byte says how it ended, then come the note and a line's end.
constexpr char alive = ' ';
constexpr char deadly = '!';

}  // namespace

UnderWay::~UnderWay() {
  if (file_ >= 0) close(file_);
}

void UnderWay::fileIs(const std::string& file) {
  file_ = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (file_ < 0) Norv::State::failFile("cannot write", file);
}

std::optional<std::string> UnderWay::takeDeath() {
  if (file_ < 0) return {};
  std::string text(most + 2, '\0');
  const ssize_t length = pread(file_, text.data(), text.size(), 0);
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  const bool died = !text.empty() && text.front() == deadly;
  const std::size_t end = text.find('\n');
  noteIs("");
  if (!died || end == std::string::npos || end == 1) return {};
  return text.substr(1, end - 1);
}

void UnderWay::noteIs(const std::string& note) {
  const std::lock_guard guard(mutex_);
  if (file_ < 0 || dead_) return;
  const std::string whole = alive + note.substr(0, most) + "\n";
  [[maybe_unused]] const ssize_t written = pwrite(file_, whole.data(), whole.size(), 0);
}

void UnderWay::died() {
  dead_ = true;
  if (file_ < 0) return;
  [[maybe_unused]] const ssize_t written = pwrite(file_, &deadly, 1, 0);
}

}  // namespace Norvd
