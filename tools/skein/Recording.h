#pragma once

#include <deque>
#include <string>
#include <vector>

#include "Filter.h"

// The records of a file, kept in memory in order of time.
class Recording {
 public:
  // Throws Skein::FileError.
  Recording(const std::string& path, const Filter& filter);

  const std::vector<Skein::Record>& records() const { return records_; }
  const Skein::Reader& reader() const { return reader_; }

 private:
  Skein::Reader reader_;
  std::deque<std::string> raw_;
  std::vector<Skein::Record> records_;
};
