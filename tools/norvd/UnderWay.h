#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

namespace Norvd {

// The change that a command is under way for, in a small file of its own: if daemon or process dies
// of it, the next process knows of what. Written in place and not synced, so that it costs a few
// hundredths of the command: it has to outlive the process, not the machine. Any thread.
class UnderWay {
 public:
  UnderWay() = default;
  UnderWay(const UnderWay&) = delete;
  UnderWay& operator=(const UnderWay&) = delete;
  ~UnderWay();

  // Keeps the note in that file, unless it has one already; throws std::runtime_error. Without it
  // nothing is kept.
  void fileIs(const std::string& file);
  // How an earlier process died, if it did, once.
  struct Death {
    std::string note;  // as it was; empty: nothing was under way
    bool aborted;      // by a signal; else the connection died
  };
  std::optional<Death> takeDeath();

  // A line, at most `most` bytes; empty: nothing is under way.
  static constexpr std::size_t most = 4000;
  void noteIs(const std::string& note);
  // The connection, or the process, died under what is noted, and that stays so: later notes are
  // not taken. Safe in a signal handler.
  void died();
  void aborted();
  bool dead() const { return dead_; }
  // Throws std::runtime_error, which names the file, when a note could not be written last.
  void verify(const std::string& file) const;

 private:
  void end(char how);

  int file_ = -1;
  std::atomic<int> error_{0};
  std::mutex mutex_;
  std::atomic<bool> dead_{false};
};

}  // namespace Norvd
