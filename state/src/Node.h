#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <Norv/State/Document.h>

namespace Norv::State {

// A document as a tree, YAML or JSON. Keys keep their order.
struct Node {
  enum class Kind { null, scalar, list, map };
  // How a scalar is written, and what a quoted one was.
  enum class Style { plain, quoted };

  Kind kind = Kind::null;
  std::string scalar;
  Style style = Style::plain;
  std::vector<std::string> keys;  // of a map
  std::vector<Node> children;     // of a list, or beside the keys
  std::vector<Mark> keyMarks;     // beside the keys, when it was read or made by at()
  Mark mark;
  // When it is written: on one line, and with a comment behind it.
  bool flow = false;
  std::string comment;

  // Null when there is none.
  const Node* find(std::string_view key) const;
  // Made at the end when there is none.
  Node& at(const std::string& key);
  Node& add();
  bool empty() const { return children.empty(); }

  static Node text(std::string_view text);   // quoted where JSON needs it
  static Node plain(std::string_view text);  // a number, true or false
  static Node map(bool flow = false);
  static Node list(bool flow = false);
};

// What stands in the place of a value that is not known; it is left as it is.
inline constexpr const char* unknownWord = "unknown";

// Bounds of a document that is read; no alias is taken, so nothing grows beyond them.
struct Limits {
  std::size_t bytes = 256u << 20;
  std::size_t depth = 32;
};

// One YAML or JSON document. What is wrong goes into `problems`, and the tree is what there is
// before it.
Node readYaml(const std::string& text, const std::string& file, std::vector<Problem>& problems,
              const Limits& limits = {});
std::string writeYaml(const Node& node);
std::string writeJson(const Node& node);

}  // namespace Norv::State
