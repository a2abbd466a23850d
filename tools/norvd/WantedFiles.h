#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <Norv/State/Document.h>

namespace Norvd {

// The files of the wanted document, followed as they change: by inotify on their folders, and on
// those of what symbolic links lead to, so that one that is replaced by rename or behind a link is
// seen, too. For the main thread.
class WantedFiles {
 public:
  explicit WantedFiles(const std::vector<std::string>& files);
  ~WantedFiles();
  WantedFiles(const WantedFiles&) = delete;
  WantedFiles& operator=(const WantedFiles&) = delete;

  // Whether they are other than what was read, looked at when something happened in their folders;
  // never waits for that.
  bool stirred() const;
  // Reads them again; whether that gives something else than before.
  bool changed();
  // Their document as they were read. Throws Norv::State::DocumentError.
  Norv::State::Document document(const Norv::State::Offer& offer) const;

 private:
  struct Contents {
    std::vector<Norv::State::Source> sources;
    std::string unreadable;  // the first file that could not be read, with the reason
    bool operator==(const Contents& other) const;
  };
  Contents read() const;
  void watch() const;

  const std::vector<std::string> files_;
  const int inotify_;
  Contents contents_;
};

}  // namespace Norvd
