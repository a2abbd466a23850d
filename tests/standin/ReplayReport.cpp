// Prints how far the stand-in agrees with each recorded command file; with names, also what
// differs.

#include <cstdio>
#include <string>
#include <vector>

#include "Replay.h"

int main(int argc, char** argv) {
  std::vector<std::string> names(argv + 1, argv + argc);
  const bool differences = !names.empty();
  if (names.empty()) names = StandinTest::recordings();
  if (names.empty()) {
    std::printf("There are no recordings at %s.\n", StandinTest::recordingsFolder().c_str());
    return 1;
  }
  for (const std::string& name : names) {
    const StandinTest::ReplayResult result = StandinTest::replay(name);
    std::printf("%-26s %4d lines, codes agree in %4d, bodies in %4d%s\n", name.c_str(),
                result.lines, result.codes, result.bodies,
                result.codes < result.lines    ? "  CODES DIFFER"
                : result.bodies < result.lines ? "  bodies differ"
                                               : "");
    if (!differences) continue;
    for (const std::string& difference : result.differences)
      std::printf("  %s\n", difference.c_str());
  }
  return 0;
}
