#include "UnderWay.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <Norv/State/Files.h>

namespace Norvd {

namespace {

// The first byte says how it ended, then come the note and a line's end.
constexpr char goesOn = ' ';
constexpr char deadly = '!';
constexpr char broken = '*';

}  // namespace

UnderWay::~UnderWay() {
  if (file_ >= 0) close(file_);
}

void UnderWay::fileIs(const std::string& file) {
  if (file_ >= 0) return;
  file_ = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  error_ = file_ < 0 ? errno : 0;
  verify(file);
}

void UnderWay::verify(const std::string& file) const {
  errno = error_;
  if (errno != 0) Norv::State::failFile("cannot write", file);
}

std::optional<UnderWay::Death> UnderWay::takeDeath() {
  if (file_ < 0) return {};
  std::string text(most + 2, '\0');
  const ssize_t length = pread(file_, text.data(), text.size(), 0);
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  noteIs("");
  const char how = text.empty() ? goesOn : text.front();
  const std::size_t end = std::min(text.find('\n'), text.size());
  if (how == goesOn || (how == deadly && end == 1)) return {};
  return Death{text.substr(1, end - 1), how == broken};
}

void UnderWay::noteIs(const std::string& note) {
  const std::lock_guard guard(mutex_);
  if (file_ < 0 || dead_) return;
  const std::string whole = goesOn + note.substr(0, most) + "\n";
  error_ = pwrite(file_, whole.data(), whole.size(), 0) < 0 ? errno : 0;
}

void UnderWay::died() {
  end(deadly);
}

void UnderWay::aborted() {
  end(broken);
}

void UnderWay::end(char how) {
  dead_ = true;
  if (file_ < 0) return;
  [[maybe_unused]] const ssize_t written = pwrite(file_, &how, 1, 0);
}

}  // namespace Norvd
