#pragma once

#include <string>
#include <vector>

#include <Skein/Reader.h>

// Which records a person wants to see. Empty parts let everything pass.
class Filter {
 public:
  // "5", "0-5" or "*", of the level under which records were logged, 0 to 9. False when not one of
  // these.
  bool levelsIs(const std::string& text);
  void facilitiesIs(std::vector<std::string> names) { facilities_ = std::move(names); }
  void functionsIs(std::vector<std::string> names) { functions_ = std::move(names); }
  // "2026-01-31T12:00:00[.123456]" (UTC), or "90s", "5m", "2h", "250ms": that long before the
  // newest record of the file. False when neither.
  bool sinceIs(const std::string& text);

  // Turns a since that is relative to the newest record into a moment. Reads the file once, and
  // only if need be. Throws Skein::FileError.
  void resolve(const std::string& path);

  // Says on standard error which facilities and functions the file does not have. After a read.
  void reportUnmatched(const Skein::Reader& reader) const;

  bool passes(const Skein::Record& record) const;

 private:
  unsigned lowest_ = 0;
  unsigned highest_ = ~0U;
  std::vector<std::string> facilities_;
  std::vector<std::string> functions_;
  U64 sinceNs_ = 0;  // since 1970 UTC
  U64 agoNs_ = 0;    // 0 when since is a moment
};
