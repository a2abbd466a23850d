#pragma once

#include <string>
#include <string_view>

// The terminal at standard output or standard error, if it is one.
namespace Norvctl {

// Whether `fd` shows colours: a terminal, and the environment has no NO_COLOR.
bool coloursAt(int fd);
// Its width in columns; 80 where it does not tell.
std::size_t columnsAt(int fd);

// Escape sequences, empty without colours.
struct Colours {
  explicit Colours(bool on) : on_(on) {}
  const char* good() const { return on_ ? "\033[32m" : ""; }
  const char* warning() const { return on_ ? "\033[33m" : ""; }
  const char* bad() const { return on_ ? "\033[31m" : ""; }
  const char* strong() const { return on_ ? "\033[1m" : ""; }
  const char* faint() const { return on_ ? "\033[2m" : ""; }
  const char* end() const { return on_ ? "\033[0m" : ""; }

 private:
  bool on_;
};

// The columns that UTF-8 text takes, one for each character.
std::size_t columnsOf(const std::string& text);

// Opens something in the place of standard input, output and error where they are closed, so that
// no other file gets their numbers. Reading and writing these fails.
void fillStandardFiles();

// Writes text to standard output.
void print(std::string_view text);

// Writes out what is buffered for standard output. False, and a word on standard error the first
// time, when it or anything before it could not be written.
bool flushOutput();

}  // namespace Norvctl
