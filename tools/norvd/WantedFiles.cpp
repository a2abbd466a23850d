#include "WantedFiles.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
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
void WantedFiles::watch() const {
  if (inotify_ < 0) return;
  const auto add = [this](const std::filesystem::path& folder) {
    inotify_add_watch(inotify_, folder.empty() ? "." : folder.c_str(),
                      IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE);
  };
  for (const std::string& file : files_) {
    add(std::filesystem::path(file).parent_path());
    std::error_code error;
    const auto target = std::filesystem::canonical(file, error);
    if (!error) add(target.parent_path());
  }
}

bool WantedFiles::stirred() const {
  char events[4096];
  bool any = false;
  while (inotify_ >= 0 && ::read(inotify_, events, sizeof events) > 0) any = true;
  return any && !(read() == contents_);
}

bool WantedFiles::changed() {
  watch();
  Contents now = read();
  const bool equal = now == contents_;
  contents_ = std::move(now);
  return !equal;
}

bool WantedFiles::Contents::operator==(const Contents& other) const {
  const auto same = [](const auto& one, const auto& two) { return one.text == two.text; };
  return unreadable == other.unreadable &&
         std::equal(sources.begin(), sources.end(), other.sources.begin(), other.sources.end(),
                    same);
}

WantedFiles::Contents WantedFiles::read() const {
  Contents contents;
  for (const std::string& file : files_) {
    std::error_code error;
    const auto status = std::filesystem::status(file, error);
    std::ostringstream text;
    std::string why;
    if (status.type() != std::filesystem::file_type::regular) {
      // To open a pipe would wait for who writes it.
      why = error ? error.message() : exists(status) ? "is no regular file" : std::strerror(ENOENT);
    } else {
      std::ifstream stream(file, std::ios::binary);
      if (!stream.is_open()) {
        why = std::strerror(errno);
      } else if (stream.peek() != std::ifstream::traits_type::eof() &&
                 !(text << stream.rdbuf()).good()) {
        why = std::strerror(EIO);
      }
    }
    if (!why.empty() && contents.unreadable.empty()) {
      contents.unreadable = file + ": cannot be read: " + why;
    }
    contents.sources.push_back({file, text.str()});
  }
  return contents;
}

Norv::State::Document WantedFiles::document(const Norv::State::Offer& offer) const {
  if (!contents_.unreadable.empty()) {
    throw Norv::State::DocumentError({{{}, contents_.unreadable}});
  }
  return Norv::State::readDocument(contents_.sources, offer);
}

}  // namespace Norvd
