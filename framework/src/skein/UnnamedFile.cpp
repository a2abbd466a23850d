#include "UnnamedFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace Skein {

namespace {

constexpr const char* mark = ".new-";

// Removes the file if no living process holds it.
void removeIfAbandoned(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
  if (descriptor < 0) return;
  if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) ::unlink(path.c_str());
  ::close(descriptor);
}

void removeAbandoned(const std::filesystem::path& path) {
  const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : ".";
  const std::string prefix = path.filename().string() + mark;
  std::error_code unreadable;  // then making the file says so
  for (const auto& entry : std::filesystem::directory_iterator(folder, unreadable)) {
    if (entry.path().filename().string().starts_with(prefix)) removeIfAbandoned(entry.path());
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
    ::flock(file.descriptor, LOCK_SH);  // where there are no such locks, nobody asks for them
    if (isNamed(file.descriptor)) return file;
    ::close(file.descriptor);
  }
}

}  // namespace Skein
