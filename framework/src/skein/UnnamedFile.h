#pragma once

#include <string>

namespace Skein {

// A file in the making, PATH.new-PID-N: whole before it is renamed to PATH, locked (flock, shared)
// by the process that makes it. Whoever is killed meanwhile leaves one behind, which the next to
// make PATH clears away: a regular file of such a name, PID and N numbers, that nobody holds and in
// which there is nothing else than the beginning of a trace file. All else is left alone.
struct UnnamedFile {
  int descriptor = -1;  // open for reading and writing; the caller's. -1: errno says why
  std::string path;
};
UnnamedFile makeUnnamedFile(const std::string& path);

}  // namespace Skein
