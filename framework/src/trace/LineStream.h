#pragma once

#include <ostream>
#include <streambuf>
#include <string_view>
#include <vector>

namespace Lumo {

// The memory behind a LineStream; it grows as needed.
class LineBuffer : public std::streambuf {
 public:
  LineBuffer();

  std::string_view text() const {
    return std::string_view(pbase(), static_cast<std::size_t>(pptr() - pbase()));
  }
  void clear();

 private:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* text, std::streamsize length) override;
  void grow(std::size_t atLeast);

  std::vector<char> memory_;
};

// A stream into memory that is used again: making a std::ostream costs more than a short line.
// Numbers are always written as in the "C" locale.
class LineStream : public std::ostream {
 public:
  LineStream();

  // Lends the calling thread a stream, empty and with default formatting. Give it back on the
  // same thread. Works in any state of the thread, also while its thread-locals are destroyed.
  static LineStream* borrow();
  static void giveBack(LineStream* stream);

  std::string_view text() const { return buffer_.text(); }

 private:
  struct ThreadStreams;

  static void makeThreadStreams();
  void reset();

  LineBuffer buffer_;
  bool lent_ = false;
  bool owned_ = false;  // one of the thread's, not made for a single line
};

}  // namespace Lumo
