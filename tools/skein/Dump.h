#pragma once

#include <string>

#include "Filter.h"

struct DumpOptions {
  std::string file;
  bool follow = false;
  bool json = false;
  Filter filter;
};

// Writes the records to standard output, as the text trace writes its lines or as one JSON object
// per line. Returns the exit status. Throws Skein::FileError.
int dump(DumpOptions& options);
