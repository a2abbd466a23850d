#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace Standin {

// What stands in a file. Throws std::runtime_error with the path when it cannot be read.
inline std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  if (!file || std::filesystem::is_directory(path))
    throw std::runtime_error("cannot read " + path + "; give a file");
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace Standin
