#pragma once

#include <string>

#include <Skein/Layout.h>

namespace Skein {

// Reads `size` bytes at `offset`; false when the file ends before.
bool readAt(int descriptor, U64 offset, void* bytes, std::size_t size);

// A copy of a block of a file that may be written at this moment.
struct BlockCopy {
  BlockHeader header{};  // sequence 0: the block is empty, or was reused under our hands
  U32 committed = 0;     // end of the last committed record, from the block's start
  bool damaged = false;  // a length made no sense; what precedes it is good
};

// Copies the block at `offset` to `bytes`, which has room for `size`. `probe` is scratch memory.
// Only bytes of committed records are right in the copy, and those are.
BlockCopy copyBlock(int descriptor, U64 offset, U32 size, char* bytes, std::string& probe);

}  // namespace Skein
