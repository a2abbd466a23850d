#pragma once

#include <support/Eventually.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace support {

inline std::ptrdiff_t entriesOf(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder),
                       std::filesystem::directory_iterator());
}

inline std::ptrdiff_t openDescriptors() {
  return entriesOf("/proc/self/fd");
}

// Whether a thread of this process waits for something.
inline bool sleeps(int thread) {
  std::string stat;
  std::getline(std::ifstream("/proc/self/task/" + std::to_string(thread) + "/stat"), stat);
  return stat.find(") S ") != std::string::npos;
}

// The threads of this process, but for those of gRPC, which come and go as it likes: it gives them
// names of its own, soon after their start; a thread that nobody named is called as the program is.
inline std::set<int> ownThreads() {
  const auto nameOf = [](const std::filesystem::path& task) {
    std::string name;
    std::getline(std::ifstream(task / "comm"), name);
    return name;
  };
  const std::string program = nameOf("/proc/self");
  std::set<int> threads;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    const std::string name = nameOf(task.path());
    if (name == program || name == "norv-worker") {
      threads.insert(std::stoi(task.path().filename()));
    }
  }
  return threads;
}

// Whether there are none but these, as soon as gRPC has named those that it just started.
inline bool noThreadsBut(const std::set<int>& known) {
  return eventually([&] { return std::ranges::includes(known, ownThreads()); });
}

}  // namespace support
