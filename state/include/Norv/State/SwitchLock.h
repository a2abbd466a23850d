#pragma once

#include <functional>
#include <optional>
#include <string>

namespace Norv::State {

// One program at a time plans for a switch and carries it out, of those that keep their files in
// the same folder: both would go by the same record. A lock on a file there, which tells who has
// it. It ends with the object or the process, however that ends. Not thread safe.
class SwitchLock {
 public:
  // Takes nothing yet. `address` as for recordName; `program`: as what this is known to others.
  SwitchLock(const std::string& folder, const std::string& address, std::string program);
  ~SwitchLock();
  SwitchLock(const SwitchLock&) = delete;
  SwitchLock& operator=(const SwitchLock&) = delete;

  struct Holder {
    std::string program;  // empty: it cannot say
    long process = 0;
  };

  // True when this has it now. As long as another has it, `waits` is asked, again and again,
  // whether to wait for that one; without it nobody waits. Makes the folder and the file where they
  // are not there. Throws std::runtime_error when it cannot.
  using Waits = std::function<bool(const Holder&)>;
  bool take(const Waits& waits = nullptr);

  // Who else has it; none when nobody does. Throws std::runtime_error when the file cannot be read.
  std::optional<Holder> holder() const;

  const std::string& file() const { return file_; }

 private:
  const std::string file_;
  const std::string program_;
  int descriptor_ = -1;  // of the file, while this has the lock
};

// "norvd, process 1234,".
std::string text(const SwitchLock::Holder& holder);

// The programs that take it.
inline constexpr const char* keepingProgram = "norvd";           // as long as it runs
inline constexpr const char* applyingProgram = "norvctl apply";  // for one plan

}  // namespace Norv::State
