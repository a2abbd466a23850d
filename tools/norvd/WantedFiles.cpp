#include "WantedFiles.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace Norvd {

WantedFiles::WantedFiles(const std::vector<std::string>& files)
    : files_(files), inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  changed();
}

WantedFiles::~WantedFiles() {
  if (inotify_ >= 0) close(inotify_);
}

// A folder that is watched already is not watched twice; one that is not there is found by the next
// look at the files, which comes with every look at the switch.
void WantedFiles::watch() {
  if (inotify_ < 0) return;
  for (const std::string& file : files_) {
    const auto folder = std::filesystem::path(file).parent_path();
    inotify_add_watch(inotify_, folder.empty() ? "." : folder.c_str(),
                      IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE);
  }
}

bool WantedFiles::stirred() {
  char events[4096];
  bool any = false;
  while (inotify_ >= 0 && read(inotify_, events, sizeof events) > 0) any = true;
  return any;
}

bool WantedFiles::changed() {
  watch();
  std::vector<Norv::State::Source> sources;
  std::string unreadable;
  for (const std::string& file : files_) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    if (!stream.is_open() || !(text << stream.rdbuf()).good()) {
      // An empty file has nothing to give, which a stream takes for a failure.
      std::error_code error;
      if (std::filesystem::is_regular_file(file, error) &&
          std::filesystem::file_size(file, error) == 0 && stream.is_open()) {
        text.clear();
      } else if (unreadable.empty()) {
        unreadable = file + ": cannot be read: " + std::strerror(errno ? errno : EIO);
      }
    }
    sources.push_back({file, text.str()});
  }
  const auto same = [](const auto& one, const auto& other) { return one.text == other.text; };
  const bool equal = unreadable == unreadable_ && sources.size() == sources_.size() &&
                     std::equal(sources.begin(), sources.end(), sources_.begin(), same);
  sources_ = std::move(sources);
  unreadable_ = std::move(unreadable);
  return !equal;
}

Norv::State::Document WantedFiles::document(const Norv::State::Offer& offer) const {
  if (!unreadable_.empty()) throw Norv::State::DocumentError({{{}, unreadable_}});
  return Norv::State::readDocument(sources_, offer);
}

}  // namespace Norvd
