#pragma once

#include <Lumo/Assert.h>

namespace Lumo {

// `bits` flags in one word. A position outside 0 .. bits-1 aborts.
template <int bits, class Word>
class BitSet {
 public:
  bool bit(int pos) const { return (word_ & mask(pos)) != 0; }
  void bitIs(int pos, bool on) { on ? set(pos) : reset(pos); }
  void set(int pos) { word_ |= mask(pos); }
  void reset(int pos) { word_ &= ~mask(pos); }
  void clear() { word_ = 0; }

 private:
  static Word mask(int pos) {
    LUMO_ASSERT(pos >= 0 && pos < bits, "pos >= 0 && pos < bits");
    return Word(1) << pos;
  }

  Word word_ = 0;
};

}  // namespace Lumo
