#include "PreviousFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <Lumo/Exception.h>
#include <Lumo/PrivateFile.h>

#include "BlockCopy.h"

namespace Skein {

namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& reason, int error) {
  throw Lumo::ErrnoException("cannot make the trace file " + path + ": " + reason, error);
}

// Closes the descriptor at the end of the scope.
struct OpenFile {
  explicit OpenFile(const std::string& path)
      : descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~OpenFile() {
    if (descriptor >= 0) ::close(descriptor);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  const int descriptor;
};

std::string previousOf(const std::string& path) {
  return path + ".previous";
}

// As isOlderTraceFile, of one file.
bool isTraceFile(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return false;  // or whoever makes the file finds out
  if (!S_ISREG(status.st_mode)) {
    refuse(path, "something is there that is no regular file; name another file", EEXIST);
  }
  if (status.st_size == 0) return false;
  const OpenFile file(path);
  if (file.descriptor < 0) {
    const int error = errno;
    refuse(path,
           std::string("there is a file that cannot be read: ") + std::strerror(error) +
               "; name another file",
           error);
  }
  FileHeader header{};
  readAt(file.descriptor, 0, &header, sizeof header);  // what there is of it
  if (std::memcmp(header.magic, fileMagic, sizeof fileMagic) != 0) {
    refuse(path, "a file is there that is no trace file; name another file or remove it", EEXIST);
  }
  if (::flock(file.descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    refuse(path,
           "process " + std::to_string(header.pid) +
               " or a child of it writes it; "
               "name another file",
           EBUSY);
  }
  return true;
}

}  // namespace

std::string targetOfLinks(const std::string& path) {
  try {
    return Lumo::targetOfLinks(path);
  } catch (const Lumo::PathError& error) {
    refuse(path, error.what(), error.errnoValue());
  }
}

bool isOlderTraceFile(const std::string& path) {
  if (!isTraceFile(path)) return false;
  isTraceFile(previousOf(path));  // throws where it must stay
  return true;
}

bool keepAsPrevious(const std::string& path) {
  return ::rename(path.c_str(), previousOf(path).c_str()) == 0;
}

}  // namespace Skein
