#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "Export.h"

int writeTo(const std::string& path, const std::function<void(std::ostream&)>& write) {
  if (path == "-") {
    errno = 0;
    write(std::cout);
    std::cout.flush();
    if (std::cout) return 0;
    std::fprintf(stderr, "skein: cannot write to standard output: %s\n", std::strerror(errno));
    return 1;
  }
  errno = 0;
  std::ofstream out(path, std::ios::trunc);
  if (out) write(out);
  out.close();
  if (out) return 0;
  std::fprintf(stderr, "skein: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
  return 1;
}
