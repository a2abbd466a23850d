#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <Norv/State/Document.h>

namespace Norvd {

// The files of the wanted document, followed as they change: by inotify on their folders, so that
// one that is replaced by rename or through a symbolic link is seen, too. For the main thread.
class WantedFiles {
 public:
  explicit WantedFiles(const std::vector<std::string>& files);
  ~WantedFiles();
  WantedFiles(const WantedFiles&) = delete;
  WantedFiles& operator=(const WantedFiles&) = delete;

  // Whether something happened in their folders since it was asked last; never waits.
  bool stirred();
  // Reads them again; whether that gives something else than before.
  bool changed();
  // Their document as they were read. Throws Norv::State::DocumentError.
  Norv::State::Document document(const Norv::State::Offer& offer) const;

 private:
  void watch();

  const std::vector<std::string> files_;
  int inotify_;
  std::vector<Norv::State::Source> sources_;
  std::string unreadable_;  // of a file that could not be read, with the reason
};

}  // namespace Norvd
