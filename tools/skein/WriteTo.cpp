#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>

#include <Lumo/PrivateFile.h>

#include "Export.h"

namespace {

namespace fs = std::filesystem;
using Write = std::function<void(std::ostream&)>;

int toStandardOutput(const Write& write) {
  errno = 0;
  write(std::cout);
  std::cout.flush();
  if (std::cout) return 0;
  std::fprintf(stderr, "skein: cannot write to standard output: %s\n", std::strerror(errno));
  return 1;
}

[[noreturn]] void fail(int error) {
  throw Lumo::PathError(error, std::strerror(error));
}

// Closes the descriptor.
void toDescriptor(int descriptor, const Write& write) {
  errno = 0;
  __gnu_cxx::stdio_filebuf<char> buffer(descriptor, std::ios::out);
  std::ostream out(&buffer);
  write(out);
  if (buffer.close() == nullptr || !out) fail(errno != 0 ? errno : EIO);
}

// Written beside it under a name that nobody has, also not what was left of a killed export, and
// then put in its place. Records hold arguments: only the owner can read it, unless there was a
// file that others could.
void toRegularFile(const std::string& path, const Write& write) {
  const std::string target = Lumo::targetOfLinks(path);
  struct stat former {};
  const bool there = ::lstat(target.c_str(), &former) == 0;
  if (there) Lumo::checkOwner(target, former, "file");
  std::string unnamed = target + ".new-XXXXXX";
  const int descriptor = ::mkostemp(unnamed.data(), O_CLOEXEC);
  if (descriptor < 0) fail(errno);
  try {
    if (there) ::fchmod(descriptor, former.st_mode & 07777);
    toDescriptor(descriptor, write);
    if (std::rename(unnamed.c_str(), target.c_str()) != 0) fail(errno);
  } catch (...) {
    ::unlink(unnamed.c_str());
    throw;
  }
}

// A descriptor of a process goes by these names too, whatever it is open on.
bool isFile(const std::string& path) {
  if (path.starts_with("/dev/") || path.starts_with("/proc/")) return false;
  std::error_code ignored;
  const fs::file_status status = fs::status(path, ignored);
  return fs::is_regular_file(status) || !fs::exists(status);
}

}  // namespace

int writeTo(const std::string& path, const Write& write) {
  if (path == "-") return toStandardOutput(write);
  try {
    if (isFile(path)) {
      toRegularFile(path, write);
    } else {
      toDescriptor(Lumo::openPrivately(path, O_WRONLY | O_TRUNC), write);
    }
    return 0;
  } catch (const Lumo::PathError& error) {
    std::fprintf(stderr, "skein: cannot write %s: %s\n", path.c_str(), error.what());
    return 1;
  }
}
