#pragma once

#include <string>

namespace Norv::State {

// Where a JSON document does not fit the schema of documents; empty where it does. Knows the words
// of a schema that ours has, and throws at another.
std::string schemaProblem(const std::string& document);

}  // namespace Norv::State
