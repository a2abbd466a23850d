#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

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

// 0, or the error number.
int toFile(const std::string& path, const Write& write) {
  errno = 0;
  std::ofstream out(path, std::ios::trunc);
  if (out) write(out);
  out.close();
  if (out) return 0;
  return errno != 0 ? errno : EIO;
}

int toRegularFile(const std::string& path, const Write& write) {
  std::error_code ignored;
  std::error_code lost;
  const bool there = fs::exists(path, ignored);
  const std::string target = there ? fs::canonical(path, lost).string() : path;
  if (lost) return lost.value();
  const std::string unnamed = target + ".new-" + std::to_string(::getpid());
  int error = toFile(unnamed, write);
  if (error == 0 && there) fs::permissions(unnamed, fs::status(target).permissions(), ignored);
  if (error == 0 && std::rename(unnamed.c_str(), target.c_str()) != 0) error = errno;
  if (error != 0) ::unlink(unnamed.c_str());
  return error;
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
  const int error = isFile(path) ? toRegularFile(path, write) : toFile(path, write);
  if (error == 0) return 0;
  std::fprintf(stderr, "skein: cannot write %s: %s\n", path.c_str(), std::strerror(error));
  return 1;
}
