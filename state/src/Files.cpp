#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <Lumo/PrivateFile.h>
#include <Norv/State/Files.h>

namespace Norv::State {

void failFile(const std::string& what, const std::string& file) {
  throw std::runtime_error(what + " " + file + ": " + std::strerror(errno));
}

void checkFolder(const std::string& folder) {
  try {
    Lumo::trustedFolder(folder);
  } catch (const Lumo::PathError& error) {
    if (error.errnoValue() != EACCES) return;  // whoever writes there finds out
    throw std::runtime_error("cannot keep the state in " + folder + ": " + error.what());
  }
}

bool makeFolder(const std::string& folder) {
  std::filesystem::path made;
  for (const std::filesystem::path& name : std::filesystem::path(folder)) {
    made /= name;
    if (mkdir(made.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

void replaceFile(const std::string& file, const std::string& text) {
  const std::filesystem::path folder = std::filesystem::path(file).parent_path();
  if (!makeFolder(folder)) failFile("cannot make", folder);
  const std::string fresh = file + ".new";
  // A file of our own, not what an interrupted call, or somebody else, has left there.
  unlink(fresh.c_str());
  const int descriptor = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0) failFile("cannot write", fresh);
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t part = write(descriptor, text.data() + written, text.size() - written);
    if (part < 0 && errno == EINTR) continue;
    if (part < 0) {
      const int why = errno;
      close(descriptor);
      unlink(fresh.c_str());
      errno = why;
      failFile("cannot write", fresh);
    }
    written += static_cast<std::size_t>(part);
  }
  const bool synced = fsync(descriptor) == 0;
  if (close(descriptor) != 0 || !synced) failFile("cannot write", fresh);
  if (std::rename(fresh.c_str(), file.c_str()) != 0) failFile("cannot replace", file);
  const int folderDescriptor =
      open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderDescriptor >= 0) {
    fsync(folderDescriptor);
    close(folderDescriptor);
  }
}

}  // namespace Norv::State
