#pragma once

#include <string>
#include <vector>

namespace Norvctl {

// A line of the shell as words: blanks part them, quotes of both kinds keep them together and a
// backslash keeps the next character, as elsewhere; a word that begins with { or [ goes on to the
// bracket that closes it, so that JSON needs no quotes.
struct Words {
  std::vector<std::string> words;
  bool complete = true;  // false: a quote or a bracket is open, more lines follow
};
Words wordsOf(const std::string& line);

}  // namespace Norvctl
