// Prints how far the stand-in agrees with recordings of a daemon: per file, in all, and the
// differences grouped by what they are about. Arguments are files and folders; with -v every
// difference is shown, without it one of each group.

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Replay.h"

namespace {

struct Group {
  int count = 0;
  std::vector<std::string> examples;
};

std::string shown(const std::string& file, const StandinTest::Difference& difference) {
  return "    " + file + ":" + std::to_string(difference.line) + " " + difference.request +
         "\n      recorded " + difference.recorded + "\n      answered " + difference.answered +
         "\n";
}

}  // namespace

int main(int argc, char** argv) {
  bool all = false;
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "-v")
      all = true;
    else if (std::filesystem::is_directory(word))
      for (const auto& file : StandinTest::recordings(word)) files.push_back(file);
    else
      files.push_back(word);
  }
  if (files.empty()) {
    std::puts("usage: standin_replay_report [-v] FILE|FOLDER...");
    return 1;
  }
  StandinTest::ReplayResult total;
  std::map<std::string, Group> groups;
  for (const auto& file : files) {
    const StandinTest::ReplayResult result = StandinTest::replay(file);
    total += result;
    if (result.bodies < result.lines)
      std::printf("%-26s %s\n", file.stem().c_str(), result.summary().c_str());
    for (const StandinTest::Difference& difference : result.differences) {
      Group& group = groups[difference.subject + "  " + difference.outcomes];
      ++group.count;
      if (all || group.count == 1) group.examples.push_back(shown(file.stem(), difference));
    }
  }
  for (const auto& [title, group] : groups) {
    std::printf("%4d  %s\n", group.count, title.c_str());
    for (const std::string& example : group.examples) std::fputs(example.c_str(), stdout);
  }
  std::printf("%zu files: %s\n", files.size(), total.summary().c_str());
  return 0;
}
