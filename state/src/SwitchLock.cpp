#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>
#include <utility>

#include <Norv/State/Files.h>
#include <Norv/State/Record.h>
#include <Norv/State/SwitchLock.h>

namespace Norv::State {

namespace {

constexpr std::chrono::milliseconds betweenLooks(50);
// Who has just taken it is about to write who it is.
constexpr int looksForAName = 20;

std::string lockFile(const std::string& folder, const std::string& address) {
  std::filesystem::path file = std::filesystem::path(folder) / recordName(address);
  return file.replace_extension("lock");
}

// Locks of the open file and not of the process: two objects of one process are two, and closing
// another descriptor of the file ends nothing.
struct flock lockOf(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

// A descriptor that is closed with its scope.
class OpenFile {
 public:
  OpenFile(const std::string& file, int flags)
      : number_(open(file.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, 0600)) {}
  ~OpenFile() {
    if (number_ >= 0) close(number_);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int number() const { return number_; }
  int release() { return std::exchange(number_, -1); }

 private:
  int number_;
};

SwitchLock::Holder namedIn(int descriptor) {
  char text[200];
  const ssize_t size = pread(descriptor, text, sizeof text, 0);
  std::istringstream line(std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0));
  SwitchLock::Holder holder;
  line >> holder.process >> std::ws;
  std::getline(line, holder.program);
  return holder;
}

// As far as it can be seen from here: in a container, perhaps not.
bool lives(pid_t process) {
  return kill(process, 0) == 0 || errno != ESRCH;
}

// None when nobody has a lock on it. A name of a process that is gone is of a former holder.
std::optional<SwitchLock::Holder> holderOf(int descriptor, const std::string& file) {
  for (int look = 1;; ++look) {
    struct flock lock = lockOf(F_RDLCK);
    if (fcntl(descriptor, F_OFD_GETLK, &lock) != 0) failFile("cannot look at", file);
    if (lock.l_type == F_UNLCK) return {};
    SwitchLock::Holder holder = namedIn(descriptor);
    const bool there = !holder.program.empty() && lives(holder.process);
    if (there || look == looksForAName) return holder;
    std::this_thread::sleep_for(betweenLooks);
  }
}

}  // namespace

SwitchLock::SwitchLock(const std::string& folder, const std::string& address, std::string program)
    : file_(lockFile(folder, address)), program_(std::move(program)) {}

SwitchLock::~SwitchLock() {
  if (descriptor_ < 0) return;
  // Where it stays, nobody believes it without a lock.
  [[maybe_unused]] const int emptied = ftruncate(descriptor_, 0);
  close(descriptor_);
}

bool SwitchLock::take(const Waits& waits) {
  if (descriptor_ >= 0) return true;
  makeFolder(std::filesystem::path(file_).parent_path());  // where it cannot, the file says so
  OpenFile file(file_, O_RDWR | O_CREAT);
  if (file.number() < 0) failFile("cannot write", file_);
  while (true) {
    struct flock lock = lockOf(F_WRLCK);
    if (fcntl(file.number(), F_OFD_SETLK, &lock) == 0) break;
    if (errno != EAGAIN && errno != EACCES) failFile("cannot lock", file_);
    const auto holder = holderOf(file.number(), file_);
    if (!holder) continue;
    if (!waits || !waits(*holder)) return false;
    std::this_thread::sleep_for(betweenLooks);
  }
  descriptor_ = file.release();
  // On a full disk it is a lock all the same.
  const std::string text = std::to_string(getpid()) + " " + program_ + "\n";
  [[maybe_unused]] const bool written =
      ftruncate(descriptor_, 0) == 0 && pwrite(descriptor_, text.data(), text.size(), 0) > 0;
  return true;
}

std::optional<SwitchLock::Holder> SwitchLock::holder() const {
  const OpenFile file(file_, O_RDONLY);
  if (file.number() < 0 && errno == ENOENT) return {};
  if (file.number() < 0) failFile("cannot read", file_);
  return holderOf(file.number(), file_);
}

std::string text(const SwitchLock::Holder& holder) {
  if (holder.program.empty()) return "another program";
  return holder.program + ", process " + std::to_string(holder.process) + ",";
}

}  // namespace Norv::State
