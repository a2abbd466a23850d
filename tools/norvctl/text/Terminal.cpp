#include "Terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace Norvctl {

bool coloursAt(int fd) {
  const char* none = std::getenv("NO_COLOR");
  return isatty(fd) && !(none && *none);
}

std::size_t columnsAt(int fd) {
  winsize size{};
  if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col != 0) return size.ws_col;
  return 80;
}

std::size_t columnsOf(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

void fillStandardFiles() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) != -1) continue;
    const int other = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    // The lowest free number is the missing one.
    [[maybe_unused]] const int opened = open("/dev/null", other);
  }
}

namespace {

int outputError = 0;  // the first one

}  // namespace

void print(std::string_view text) {
  errno = 0;
  const bool whole = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (!whole && outputError == 0) outputError = errno;
}

bool flushOutput() {
  static bool told = false;
  errno = 0;
  if (std::fflush(stdout) == 0 && !std::ferror(stdout)) return true;
  if (outputError == 0) outputError = errno;
  if (!told) {
    std::fprintf(stderr, "norvctl: cannot write to standard output%s%s\n", outputError ? ": " : "",
                 outputError ? strerror(outputError) : "");
  }
  told = true;
  return false;
}

}  // namespace Norvctl
