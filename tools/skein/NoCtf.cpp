#include <cstdio>

#include "Export.h"

int exportCtf(const Recording&, const std::string&) {
  std::fprintf(stderr,
               "skein: built without libbabeltrace2: install libbabeltrace2-dev and build again, "
               "or use --format perfetto\n");
  return 1;
}
