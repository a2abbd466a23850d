#pragma once

#include <Skein/TraceFile.h>

namespace Skein {

// The codes of a point's arguments.
class MsgFormatString {
 public:
  template <class V>
  MsgFormatString& operator<<(const V&) {
    put(static_cast<char>(codeOf<std::remove_cvref_t<V>>()));
    return *this;
  }
  void put(char code) { codes_.push_back(code); }
  const std::string& codes() const { return codes_; }

 private:
  std::string codes_;
};

// Describes a trace point in a file. Used by one thread; several may describe the same point at
// once and get the same id.
class MsgDesc {
 public:
  // `id` is the point's own integer and its identity in this process; it must outlive the file.
  // `places`: each "%s" of the text is the place of an argument. Arguments without a place follow
  // the text; where `places` is false that is all of them, and a "%s" means nothing.
  MsgDesc(TraceFile* file, int* id, char const* sourceFile, int line, bool places);

  MsgFormatString& formatString() { return format_; }
  // What the reader shows in front of the text. Without them it shows blanks and level 0.
  void originIs(const Lumo::String& facility, U8 level, char const* function);
  MsgDesc& operator<<(char const* text);
  // Writes the descriptor unless the file has it, fills the point's integer and returns the id,
  // also where the integer has meanwhile been filled for another file. 0, and the integer stays,
  // when the file has no room left for descriptors.
  int finish();

 private:
  TraceFile* const file_;
  int* const id_;
  Site site_;
  MsgFormatString format_;
};

}  // namespace Skein
