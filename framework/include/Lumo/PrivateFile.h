#pragma once

#include <fcntl.h>
#include <linux/magic.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

// Files that hold what only their owner should read, under names that a person has given. In a
// folder that everybody may write, nothing that somebody else has put there is followed, written or
// replaced; what the folder's owner has put there is, who could put anything. So the kernel does
// it where it is told to (protected_symlinks and protected_regular in sysctl/fs) and the folder is
// sticky; here it holds everywhere, for the last name of a path and for each link that it leads to.
//
// In a header alone: the stand-in keeps the rule without linking the library. Any thread.
namespace Lumo {

// what() is the reason, a sentence without its full stop.
class PathError : public std::runtime_error {
 public:
  PathError(int errnoValue, const std::string& reason)
      : std::runtime_error(reason), errnoValue_(errnoValue) {}
  int errnoValue() const { return errnoValue_; }

 private:
  const int errnoValue_;
};

namespace detail {

inline std::string parentOf(const std::filesystem::path& path) {
  return path.has_parent_path() ? path.parent_path().string() : ".";
}

// Whether the name is of /proc: there it leads to a descriptor, as /dev/stdout and /dev/fd do, and
// what can be read of the link may be no path at all.
inline bool isOfProc(const std::filesystem::path& path) {
  struct statfs system {};
  return ::statfs(parentOf(path).c_str(), &system) == 0 && system.f_type == PROC_SUPER_MAGIC;
}

}  // namespace detail

// Throws PathError, EACCES, where somebody else has put what the status is of where everybody may
// write; `kind` is the word for it.
inline void checkOwner(const std::string& path, const struct stat& status, const char* kind) {
  struct stat folder {};
  if (::stat(detail::parentOf(path).c_str(), &folder) != 0)
    return;  // or whoever opens it finds out
  const bool everybodys = (folder.st_mode & S_IWOTH) != 0;
  if (!everybodys || status.st_uid == ::geteuid() || status.st_uid == folder.st_uid) return;
  throw PathError(EACCES, path + " is a " + kind +
                              " that somebody else has put where everybody may write; remove it "
                              "or name another");
}

// The path itself, or where the symbolic links of that name lead, there or not; a name of /proc
// stays. Throws PathError where one may not be followed, or they lead in a circle.
inline std::string targetOfLinks(const std::string& path) {
  constexpr int mostLinks = 40;
  std::filesystem::path target = path;
  struct stat status {};
  for (int links = 0; ::lstat(target.c_str(), &status) == 0 && S_ISLNK(status.st_mode); ++links) {
    if (detail::isOfProc(target)) break;
    if (links == mostLinks) throw PathError(ELOOP, std::strerror(ELOOP));
    checkOwner(target, status, "link");
    std::error_code error;
    const std::filesystem::path next = std::filesystem::read_symlink(target, error);
    if (error) throw PathError(error.value(), error.message());
    target = target.parent_path() / next;
  }
  return target;
}

namespace detail {

// Whether there is something under the name that links lead to, and what. Throws PathError for what
// somebody else has put there.
inline bool isThere(const std::string& target, struct stat& status) {
  if (::lstat(target.c_str(), &status) != 0) return false;
  checkOwner(target, status, "file");
  return true;
}

[[noreturn]] inline void fail(int errnoValue) {
  throw PathError(errnoValue, std::strerror(errnoValue));
}

}  // namespace detail

// The folder that the path leads to, there or not. Throws PathError as above, also for a folder
// that everybody may write: what is read from it could be anybody's.
inline std::string trustedFolder(const std::string& path) {
  const std::filesystem::path named = path;
  std::string folder = targetOfLinks(named.has_filename() ? path : named.parent_path().string());
  struct stat status {};
  if (::lstat(folder.c_str(), &status) != 0) return folder;  // or whoever opens it finds out
  checkOwner(folder, status, "folder");
  if (S_ISDIR(status.st_mode) && (status.st_mode & S_IWOTH) != 0) {
    throw PathError(EACCES, folder +
                                " is a folder that everybody may write; take that away "
                                "(chmod o-w) or name another");
  }
  return folder;
}

// As open(2) with the flags O_WRONLY or O_RDWR, and O_APPEND or O_TRUNC: the descriptor, the
// caller's, closed on exec. A new file only its owner can read, whatever the umask; one that is
// there keeps its mode. Throws PathError; nothing is changed then.
inline int openPrivately(const std::string& path, int flags) {
  const std::string target = targetOfLinks(path);
  struct stat status {};
  // Also before it is opened: a pipe of somebody else's would wait for whoever reads it.
  detail::isThere(target, status);
  int usual = (flags & ~O_TRUNC) | O_CLOEXEC;
  if (!detail::isOfProc(target)) usual |= O_NOFOLLOW;  // a link that has come meanwhile
  int descriptor = -1;
  do {
    descriptor = ::open(target.c_str(), usual);
    if (descriptor < 0 && errno == ENOENT) {
      descriptor = ::open(target.c_str(), usual | O_CREAT | O_EXCL, 0600);
    }
  } while (descriptor < 0 && errno == EEXIST);  // it has come meanwhile
  if (descriptor < 0) detail::fail(errno);
  try {
    if (::fstat(descriptor, &status) != 0) detail::fail(errno);
    checkOwner(target, status, "file");
    const bool emptied = (flags & O_TRUNC) != 0 && S_ISREG(status.st_mode);
    if (emptied && ::ftruncate(descriptor, 0) != 0) detail::fail(errno);
  } catch (...) {
    ::close(descriptor);
    throw;
  }
  return descriptor;
}

// Replaces the file that the path leads to by a whole new one: written beside it, under a name that
// nobody has, and then put in its place. Only its owner can read it, unless there was a file that
// others could. `write` is called with a descriptor, which it closes, and throws what goes wrong.
// Throws PathError, and what `write` throws; the file stays as it was then.
template <class Write>
void replacePrivately(const std::string& path, Write write) {
  const std::string target = targetOfLinks(path);
  struct stat former {};
  const bool there = detail::isThere(target, former);
  std::string beside = target + ".new-XXXXXX";
  const int descriptor = ::mkostemp(beside.data(), O_CLOEXEC);
  if (descriptor < 0) detail::fail(errno);
  try {
    if (there) ::fchmod(descriptor, former.st_mode & 07777);
    write(descriptor);
    if (std::rename(beside.c_str(), target.c_str()) != 0) detail::fail(errno);
  } catch (...) {
    ::unlink(beside.c_str());
    throw;
  }
}

}  // namespace Lumo
