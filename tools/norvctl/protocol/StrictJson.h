#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Norvctl {

// What is wrong with a line or body; column 0 when the place is not known.
struct Complaint {
  std::size_t column;  // counted in bytes from the beginning of the text
  std::string reason;
};

// JSON as a person means it: no NUL byte, no key twice in one object, and no nesting without end.
// Throws Complaint.
nlohmann::json parseStrictly(const std::string& text);

// Where the quoted key stands in the text, the given time from 1, for the reader's eye; 0 where it
// does not.
std::size_t columnOf(const std::string& text, const std::string& key, int time = 1);

}  // namespace Norvctl
