#include "Graphviz.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "../text/Text.h"

namespace Norvctl {

std::string dotText(const std::string& text) {
  std::string out;
  for (const char c : escaped(text)) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

std::string svgOf(const std::string& dot) {
  // By way of a file: dot reads all before it writes, but need not.
  char path[] = "/tmp/norvctl-dot-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) throw std::runtime_error("cannot make a file in /tmp for the picture");
  const bool written = write(fd, dot.data(), dot.size()) == static_cast<ssize_t>(dot.size());
  close(fd);
  std::string svg;
  int status = -1;
  if (std::FILE* pipe =
          written ? popen(("dot -Tsvg " + std::string(path)).c_str(), "r") : nullptr) {
    char buffer[65536];
    while (const std::size_t length = std::fread(buffer, 1, sizeof buffer, pipe)) {
      svg.append(buffer, length);
    }
    status = pclose(pipe);
  }
  unlink(path);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(
        "graphviz's dot could not draw the picture; is the package graphviz installed? `norvctl "
        "show --dot` prints what it would be given");
  }
  return svg;
}

}  // namespace Norvctl
