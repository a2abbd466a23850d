#include "Recording.h"

Recording::Recording(const std::string& path, const Filter& filter) : reader_(path) {
  reader_.read([&](const Skein::Record& record) {
    if (!filter.passes(record)) return;
    records_.push_back(record);
    records_.back().raw = raw_.emplace_back(record.raw);
  });
}
