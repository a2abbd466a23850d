#include "Words.h"

namespace Norvctl {

namespace {

// Reads JSON from `at`, up to the bracket that closes it; false when it is still open.
bool readJson(const std::string& line, std::size_t& at, std::string& word) {
  int depth = 0;
  bool inText = false;
  for (; at < line.size(); ++at) {
    const char c = line[at];
    word += c;
    if (inText) {
      if (c == '\\' && at + 1 < line.size()) {
        word += line[++at];
      } else if (c == '"') {
        inText = false;
      }
      continue;
    }
    if (c == '"') inText = true;
    if (c == '{' || c == '[') ++depth;
    if ((c == '}' || c == ']') && --depth == 0) {
      ++at;
      return true;
    }
  }
  return false;
}

// Reads a word that is no JSON; false when a quote is open.
bool readWord(const std::string& line, std::size_t& at, std::string& word) {
  char quote = 0;
  for (; at < line.size(); ++at) {
    const char c = line[at];
    if (quote == 0 && (c == ' ' || c == '\t' || c == '\n')) return true;
    if (c == '\\' && quote != '\'') {
      if (++at == line.size()) return false;
      word += line[at];
    } else if (c == quote) {
      quote = 0;
    } else if (quote == 0 && (c == '"' || c == '\'')) {
      quote = c;
    } else {
      word += c;
    }
  }
  return quote == 0;
}

}  // namespace

Words wordsOf(const std::string& line) {
  Words result;
  std::size_t at = 0;
  while (true) {
    at = line.find_first_not_of(" \t\n", at);
    if (at == std::string::npos) return result;
    if (line[at] == '#' && result.words.empty()) return result;
    std::string word;
    const bool json = line[at] == '{' || line[at] == '[';
    const bool whole = json ? readJson(line, at, word) : readWord(line, at, word);
    result.words.push_back(word);
    if (!whole) {
      result.complete = false;
      return result;
    }
  }
}

}  // namespace Norvctl
