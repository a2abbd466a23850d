#include <ext/stdio_filebuf.h>
#include <fcntl.h>

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

// Closes the descriptor.
void toDescriptor(int descriptor, const Write& write) {
  errno = 0;
  __gnu_cxx::stdio_filebuf<char> buffer(descriptor, std::ios::out);
  std::ostream out(&buffer);
  write(out);
  if (buffer.close() != nullptr && out) return;
  const int error = errno != 0 ? errno : EIO;
  throw Lumo::PathError(error, std::strerror(error));
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
      // Records hold arguments, which are nobody else's.
      Lumo::replacePrivately(path, [&](int descriptor) { toDescriptor(descriptor, write); });
    } else {
      toDescriptor(Lumo::openPrivately(path, O_WRONLY | O_TRUNC), write);
    }
    return 0;
  } catch (const Lumo::PathError& error) {
    std::fprintf(stderr, "skein: cannot write %s: %s\n", path.c_str(), error.what());
    return 1;
  }
}
