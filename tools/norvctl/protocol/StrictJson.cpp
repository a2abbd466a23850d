#include "StrictJson.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <vector>

namespace Norvctl {

namespace {

using nlohmann::json;

// No message nests as deeply, and what does would exhaust the stack of those who walk through it.
constexpr int deepestNesting = 100;

// Refuses what the parser would take: nesting without end, and a key given twice in one object.
class Strictness {
 public:
  explicit Strictness(const std::string& text) : text_(text) {}

  bool operator()(int depth, json::parse_event_t event, json& parsed) {
    if (depth > deepestNesting) {
      throw Complaint{0, "nested more than " + std::to_string(deepestNesting) + " levels deep"};
    }
    if (event == json::parse_event_t::object_start) {
      seen_.emplace_back();
    } else if (event == json::parse_event_t::object_end) {
      seen_.pop_back();
    } else if (event == json::parse_event_t::key) {
      const auto& key = parsed.get_ref<const std::string&>();
      if (std::find(seen_.back().begin(), seen_.back().end(), key) != seen_.back().end()) {
        throw Complaint{columnOf(text_, key, 2), "the key \"" + key + "\" comes twice"};
      }
      seen_.back().push_back(key);
    }
    return true;
  }

 private:
  const std::string& text_;
  std::vector<std::vector<std::string>> seen_;
};

}  // namespace

std::size_t columnOf(const std::string& text, const std::string& key, int time) {
  const std::string quoted = '"' + key + '"';
  std::size_t at = text.find(quoted);
  for (; time > 1 && at != std::string::npos; --time) at = text.find(quoted, at + 1);
  return at == std::string::npos ? 0 : at + 1;
}

json parseStrictly(const std::string& text) {
  if (const std::size_t nul = text.find('\0'); nul != std::string::npos) {
    throw Complaint{nul + 1, "there is a NUL byte"};
  }
  try {
    return json::parse(text, Strictness(text));
  } catch (const json::out_of_range& error) {
    // "[json.exception.out_of_range.406] number overflow parsing '1e999'"
    const std::string reason = error.what();
    throw Complaint{0, "malformed JSON: " + reason.substr(reason.find("] ") + 2)};
  } catch (const json::parse_error& error) {
    std::string reason = error.what();
    // "[json.exception.parse_error.101] parse error at line 1, column 8: REASON"
    if (const auto colon = reason.find(": "); colon != std::string::npos) {
      reason.erase(0, colon + 2);
    }
    throw Complaint{error.byte, "malformed JSON: " + reason};
  }
}

}  // namespace Norvctl
