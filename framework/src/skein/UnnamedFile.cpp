#include "UnnamedFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "BlockCopy.h"

namespace Skein {

namespace {

constexpr const char* mark = ".new-";

// Whether a name is PREFIX and then PID-N.
bool isOfUnnamedFile(std::string_view name, std::string_view prefix) {
  constexpr std::string_view digits = "0123456789";
  if (!name.starts_with(prefix)) return false;
  name.remove_prefix(prefix.size());
  const std::size_t dash = name.find_first_not_of(digits);
  return dash != 0 && dash < name.size() - 1 && name[dash] == '-' &&
         name.find_first_not_of(digits, dash + 1) == name.npos;
}

// Whether it is a regular file in which there is what one in the making has: the beginning of a
// trace file, or nothing but the space for it.
bool isUnfinished(int descriptor) {
  constexpr char nothing[sizeof fileMagic] = {};
  char start[sizeof fileMagic] = {};
  struct stat status;
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  readAt(descriptor, 0, start, sizeof start);  // what there is of it
  return std::memcmp(start, fileMagic, sizeof start) == 0 ||
         std::memcmp(start, nothing, sizeof start) == 0;
}

// Whether the name is still that of this file: somebody else may have removed it, and a new process
// with the number of the old one made its own.
bool isCalled(const std::string& path, int descriptor) {
  struct stat named, held;
  return ::lstat(path.c_str(), &named) == 0 && ::fstat(descriptor, &held) == 0 &&
         named.st_ino == held.st_ino && named.st_dev == held.st_dev;
}

// Removes the file if no living process holds it.
void removeIfAbandoned(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
  if (descriptor < 0) return;
  if (isUnfinished(descriptor) && ::flock(descriptor, LOCK_EX | LOCK_NB) == 0 &&
      isCalled(path, descriptor)) {
    ::unlink(path.c_str());
  }
  ::close(descriptor);
}

void removeAbandoned(const std::filesystem::path& path) {
  const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : ".";
  const std::string prefix = path.filename().string() + mark;
  std::error_code unreadable;  // then making the file says so
  std::filesystem::directory_iterator entry(folder, unreadable);
  for (; entry != std::filesystem::directory_iterator(); entry.increment(unreadable)) {
    const std::filesystem::path& found = entry->path();
    if (isOfUnnamedFile(found.filename().string(), prefix)) removeIfAbandoned(found);
  }
}

// Whether the file still has its name: another process may have taken it for an abandoned one
// before it was locked.
bool isNamed(int descriptor) {
  struct stat status;
  return ::fstat(descriptor, &status) == 0 && status.st_nlink != 0;
}

}  // namespace

UnnamedFile makeUnnamedFile(const std::string& path) {
  static constinit std::atomic<unsigned> made{0};
  removeAbandoned(path);
  while (true) {
    UnnamedFile file;
    file.path = path + mark + std::to_string(::getpid()) + "-" + std::to_string(++made);
    // Records hold arguments, and those what only the owner of the process should read.
    file.descriptor = ::open(file.path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file.descriptor < 0 && errno == EEXIST) continue;  // a living process has it
    if (file.descriptor < 0) return file;
    while (::flock(file.descriptor, LOCK_SH) != 0 && errno == EINTR) {
    }  // where there are no such locks, nobody asks for them
    if (isNamed(file.descriptor)) return file;
    ::close(file.descriptor);
  }
}

}  // namespace Skein
