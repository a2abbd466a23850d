#include "Node.h"

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

namespace Norv::State {

namespace {

struct Stop {};

// Builds the tree as the parser goes, and ends it at the first thing that is out of bounds: the
// parser itself recurses with the depth of what it reads.
class Builder : public YAML::EventHandler {
 public:
  Builder(std::string file, std::vector<Problem>& problems, const Limits& limits)
      : file_(std::move(file)), problems_(problems), limits_(limits) {}

  Node root;

  // Where in the text two characters were put in that are not in the file.
  void insertedAt(const std::string& text, const std::vector<std::size_t>& places) {
    std::size_t line = 1, lineStart = 0, at = 0;
    for (const std::size_t place : places) {
      for (; at < place; ++at) {
        if (text[at] != '\n') continue;
        ++line;
        lineStart = at + 1;
      }
      inserted_[line].push_back(place - lineStart + 1);
    }
  }

  void OnDocumentStart(const YAML::Mark&) override {}
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark& mark, YAML::anchor_t) override { enter(mark, Node()); }
  void OnAlias(const YAML::Mark& mark, YAML::anchor_t) override {
    stop(mark, "an alias; write what it stands for");
  }
  void OnScalar(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t,
                const std::string& value) override {
    checkTag(mark, tag);
    Node node = Node::text(value);
    node.style = tag == "!" ? Node::Style::quoted : Node::Style::plain;
    enter(mark, std::move(node));
  }
  void OnSequenceStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t,
                       YAML::EmitterStyle::value) override {
    checkTag(mark, tag);
    open(mark, Node::list());
  }
  void OnSequenceEnd() override { stack_.pop_back(); }
  void OnMapStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t,
                  YAML::EmitterStyle::value) override {
    checkTag(mark, tag);
    open(mark, Node::map());
  }
  void OnMapEnd() override { stack_.pop_back(); }

 private:
  struct Open {
    Node* node;
    std::set<std::string> keys;  // of a map
    bool keyNext = true;
  };

  Mark markOf(const YAML::Mark& mark) const {
    const std::size_t line = static_cast<std::size_t>(mark.line) + 1;
    std::size_t column = static_cast<std::size_t>(mark.column) + 1;
    const auto inserted = inserted_.find(line);
    if (inserted == inserted_.end()) return {file_, line, column};
    std::size_t before = 0;  // characters that are not in the file
    for (const std::size_t at : inserted->second)
      before += at + before < column ? insertedLength : 0;
    return {file_, line, column - before};
  }
  [[noreturn]] void stop(const YAML::Mark& mark, const std::string& what) {
    problems_.push_back({markOf(mark), what});
    throw Stop();
  }
  void checkTag(const YAML::Mark& mark, const std::string& tag) {
    if (tag != "?" && tag != "!" && !tag.empty())
      stop(mark, "a tag, \"" + tag + "\"; leave it out");
  }

  // Where the node goes, or null when it was a key.
  Node* enter(const YAML::Mark& mark, Node node) {
    node.mark = markOf(mark);
    if (stack_.empty()) {
      root = std::move(node);
      return &root;
    }
    Open& open = stack_.back();
    if (open.node->kind == Node::Kind::list) {
      open.node->children.push_back(std::move(node));
      return &open.node->children.back();
    }
    if (open.keyNext) {
      if (node.kind == Node::Kind::list || node.kind == Node::Kind::map) {
        stop(mark, "a key that is no text");
      }
      if (!open.keys.insert(node.scalar).second) {
        stop(mark, "\"" + node.scalar + "\" a second time in the same map");
      }
      open.node->keys.push_back(node.scalar);
      open.node->keyMarks.push_back(node.mark);
      open.keyNext = false;
      return nullptr;
    }
    open.keyNext = true;
    open.node->children.push_back(std::move(node));
    return &open.node->children.back();
  }

  void open(const YAML::Mark& mark, Node node) {
    if (stack_.size() == limits_.depth) {
      stop(mark, "nested more than " + std::to_string(limits_.depth) + " deep");
    }
    // A parent gets no further child while one of its children is open, so the pointer stays.
    Node* const entered = enter(mark, std::move(node));
    if (entered == nullptr) stop(mark, "a key that is no text");
    stack_.push_back({entered, {}, true});
  }

  const std::string file_;
  std::vector<Problem>& problems_;
  const Limits limits_;
  std::vector<Open> stack_;
  static constexpr std::size_t insertedLength = 2;
  std::map<std::size_t, std::vector<std::size_t>> inserted_;  // columns, by their line
};

nlohmann::ordered_json jsonOf(const Node& node) {
  using Json = nlohmann::ordered_json;
  switch (node.kind) {
    case Node::Kind::null:
      return nullptr;
    case Node::Kind::scalar: {
      if (node.style == Node::Style::quoted) return node.scalar;
      const Json value = Json::parse(node.scalar, nullptr, false);
      return value.is_discarded() ? Json(node.scalar) : value;
    }
    case Node::Kind::list: {
      Json list = Json::array();
      for (const Node& child : node.children) list.push_back(jsonOf(child));
      return list;
    }
    case Node::Kind::map: {
      Json map = Json::object();
      for (std::size_t i = 0; i < node.keys.size(); ++i)
        map[node.keys[i]] = jsonOf(node.children[i]);
      return map;
    }
  }
  return nullptr;
}

bool plainLooking(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c >= 32 && c != 127; });
}

// A parser looks for the colon of a key no further than 1,024 characters, of which a character
// takes up to ten when it is escaped; what is longer needs a "?" before it.
constexpr std::size_t longKey = 100;

// JSON with a "?" before its long keys; `marks` gets where, in the text as it was.
std::string withLongKeysMarked(const std::string& text, std::vector<std::size_t>& marks) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos || text[first] != '{') return text;
  std::string marked;
  std::size_t copied = 0;
  for (std::size_t at = text.find('"'); at != std::string::npos; at = text.find('"', at)) {
    const std::size_t begin = at++;
    while (at < text.size() && text[at] != '"') at += text[at] == '\\' ? 2 : 1;
    if (at >= text.size()) break;
    const std::size_t behind = text.find_first_not_of(" \t\r\n", ++at);
    if (at - begin <= longKey || behind == std::string::npos || text[behind] != ':') continue;
    marked.append(text, copied, begin - copied).append("? ");
    marks.push_back(begin);
    copied = begin;
  }
  // In YAML a quote may be a letter among others.
  if (marked.empty() || !nlohmann::json::accept(text)) {
    marks.clear();
    return text;
  }
  return marked.append(text, copied);
}

// JSON with the two halves of a character, as in "\ud83d\ude00", as that character: a parser of
// YAML takes each for one of its own.
std::string withHalvesJoined(const std::string& text) {
  static const std::regex halves("\\\\u[dD][89abAB][0-9a-fA-F]{2}\\\\u[dD][c-fC-F][0-9a-fA-F]{2}");
  if (text.find("\\ud") == std::string::npos && text.find("\\uD") == std::string::npos) return text;
  if (!nlohmann::json::accept(text)) return text;
  std::string joined;
  std::size_t copied = 0;
  for (std::size_t at = text.find('\\'); at != std::string::npos; at = text.find('\\', at)) {
    if (std::regex_search(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(), halves,
                          std::regex_constants::match_continuous)) {
      constexpr std::size_t length = 12;
      joined.append(text, copied, at - copied);
      joined += nlohmann::json::parse('"' + text.substr(at, length) + '"').get<std::string>();
      at = copied = at + length;
    } else {
      at += 2;
    }
  }
  return joined.append(text, copied);
}

void emitScalar(YAML::Emitter& out, const std::string& text) {
  // Control characters are escaped only where there are double quotes.
  if (!plainLooking(text)) out << YAML::DoubleQuoted;
  out << text;
}

void emit(YAML::Emitter& out, const Node& node) {
  switch (node.kind) {
    case Node::Kind::null:
      out << YAML::Null;
      return;
    case Node::Kind::scalar:
      emitScalar(out, node.scalar);
      return;
    case Node::Kind::list:
      if (node.flow || node.empty()) out << YAML::Flow;
      out << YAML::BeginSeq;
      for (const Node& child : node.children) {
        emit(out, child);
        if (!child.comment.empty()) out << YAML::Comment(child.comment);
      }
      out << YAML::EndSeq;
      return;
    case Node::Kind::map:
      if (node.flow || node.empty()) out << YAML::Flow;
      out << YAML::BeginMap;
      for (std::size_t i = 0; i < node.keys.size(); ++i) {
        const Node& child = node.children[i];
        if (node.keys[i].size() > longKey) out << YAML::LongKey;
        out << YAML::Key;
        emitScalar(out, node.keys[i]);
        out << YAML::Value;
        emit(out, child);
        if (!child.comment.empty()) out << YAML::Comment(child.comment);
      }
      out << YAML::EndMap;
      return;
  }
}

// Where the first byte stands that is no UTF-8; the size of the text when all of it is.
std::size_t badUtf8(const std::string& text) {
  std::size_t at = 0;
  while (at < text.size()) {
    const auto byte = [&](std::size_t i) {
      return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
    };
    const unsigned lead = byte(at);
    const std::size_t length = lead < 0x80   ? 1
                               : lead < 0xc2 ? 0
                               : lead < 0xe0 ? 2
                               : lead < 0xf0 ? 3
                               : lead < 0xf5 ? 4
                                             : 0;
    if (length == 0) return at;
    for (std::size_t i = 1; i < length; ++i) {
      if ((byte(at + i) & 0xc0) != 0x80) return at;
    }
    const unsigned second = byte(at + 1);
    const bool overlong = (lead == 0xe0 && second < 0xa0) || (lead == 0xf0 && second < 0x90);
    const bool outside = (lead == 0xed && second > 0x9f) || (lead == 0xf4 && second > 0x8f);
    if (overlong || outside) return at;
    at += length;
  }
  return at;
}

// Where the first control character of ASCII stands that YAML has no place for; the size of the
// text when there is none.
std::size_t controlIn(const std::string& text) {
  const auto found = std::find_if(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
  });
  return static_cast<std::size_t>(found - text.begin());
}

Mark markOf(const std::string& text, std::size_t at, const std::string& file) {
  const auto begin = text.begin();
  const auto end = begin + static_cast<std::ptrdiff_t>(at);
  const std::size_t lastEnd = at == 0 ? std::string::npos : text.rfind('\n', at - 1);
  const std::size_t lineStart = lastEnd == std::string::npos ? 0 : lastEnd + 1;
  return {file, static_cast<std::size_t>(std::count(begin, end, '\n')) + 1, at - lineStart + 1};
}

}  // namespace

std::string text(const Mark& mark) {
  return mark.file + ":" + std::to_string(mark.line) + ":" + std::to_string(mark.column);
}

const Node* Node::find(std::string_view key) const {
  const auto found = std::find(keys.begin(), keys.end(), key);
  return found == keys.end() ? nullptr : &children[static_cast<std::size_t>(found - keys.begin())];
}

Node& Node::at(const std::string& key) {
  const auto found = std::find(keys.begin(), keys.end(), key);
  if (found != keys.end()) return children[static_cast<std::size_t>(found - keys.begin())];
  keys.push_back(key);
  keyMarks.emplace_back();
  return add();
}

Node& Node::add() {
  children.emplace_back();
  return children.back();
}

Node Node::text(std::string_view text) {
  Node node;
  node.kind = Kind::scalar;
  node.scalar = text;
  node.style = Style::quoted;
  return node;
}

Node Node::plain(std::string_view text) {
  Node node = Node::text(text);
  node.style = Style::plain;
  return node;
}

Node Node::map(bool flow) {
  Node node;
  node.kind = Kind::map;
  node.flow = flow;
  return node;
}

Node Node::list(bool flow) {
  Node node;
  node.kind = Kind::list;
  node.flow = flow;
  return node;
}

Node readYaml(const std::string& text, const std::string& file, std::vector<Problem>& problems,
              const Limits& limits) {
  Builder builder(file, problems, limits);
  if (text.size() > limits.bytes) {
    problems.push_back(
        {{file, 1, 1}, "more than " + std::to_string(limits.bytes >> 20) + " MiB; split it up"});
    return builder.root;
  }
  if (const std::size_t bad = badUtf8(text); bad != text.size()) {
    problems.push_back({markOf(text, bad, file), "no UTF-8"});
    return builder.root;
  }
  if (const std::size_t control = controlIn(text); control != text.size()) {
    problems.push_back(
        {markOf(text, control, file),
         "a control character, which YAML does not know; write it as \"\\x01\", in quotes"});
    return builder.root;
  }
  try {
    const std::string joined = withHalvesJoined(text);
    std::vector<std::size_t> marks;
    std::istringstream stream(withLongKeysMarked(joined, marks));
    builder.insertedAt(joined, marks);
    YAML::Parser parser(stream);
    parser.HandleNextDocument(builder);
    for (Mark last = builder.root.mark;;) {
      Builder other(file, problems, limits);
      if (!parser.HandleNextDocument(other)) break;
      const Node& root = other.root;
      if (root.kind != Node::Kind::null) {
        problems.push_back({root.mark, "a second document in the file; join them"});
        break;
      }
      // What begins no value is left where it is, and comes as an empty document for ever.
      if (root.mark.line == last.line && root.mark.column == last.column) {
        problems.push_back({root.mark, "not YAML: no value begins so"});
        break;
      }
      last = root.mark;
    }
  } catch (const Stop&) {
  } catch (const YAML::Exception& error) {
    problems.push_back({{file, static_cast<std::size_t>(error.mark.line + 1),
                         static_cast<std::size_t>(error.mark.column + 1)},
                        "not YAML: " + error.msg});
  }
  return builder.root;
}

std::string writeYaml(const Node& node) {
  YAML::Emitter out;
  emit(out, node);
  return std::string(out.c_str()) + "\n";
}

std::string writeJson(const Node& node) {
  return jsonOf(node).dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace Norv::State
