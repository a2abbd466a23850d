#pragma once

#include <cstddef>

#include <Lumo/Types.h>

// The bytes of a trace file, as docs/skein-format.md describes them. All numbers have the byte
// order of the machine that wrote the file.
namespace Skein {

using ::U16;
using ::U32;
using ::U64;
using ::U8;

inline constexpr char fileMagic[8] = {'S', 'K', 'E', 'I', 'N', '\r', '\n', '\x1a'};
inline constexpr U32 fileByteOrder = 0x01020304;
inline constexpr U32 fileVersion = 1;
inline constexpr U32 fileMultiThreaded = 1;  // in FileHeader::flags

// At offset 0. The first part is written before the file gets its name and never changes; the
// counters at the end move while the file is written, by several threads and processes.
struct FileHeader {
  char magic[8];
  U32 byteOrder;
  U32 version;
  U64 fileSize;
  U32 indexOffset;  // U64 entries: heap offset << 32 | length; 0 while not committed
  U32 indexSlots;
  U32 heapOffset;
  U32 heapSize;
  U32 blocksOffset;
  U32 blockSize;
  U32 blockCount;
  U32 flags;
  U64 wallNs;       // the same moment on the wall clock (since 1970 UTC) ...
  U64 monotonicNs;  // ... and on the clock of the records
  U32 pid;
  U32 reserved;
  U64 pad[4];
  // The counters, by fetch-and-add.
  U64 sitesWanted;    // index slots handed out; may exceed indexSlots
  U64 heapWanted;     // heap bytes handed out; may exceed heapSize
  U64 blocksWanted;   // the last block sequence handed out
  U64 overwritten;    // records that went with a reused block
  U64 dropped;        // records that found no place
  U64 writersWanted;  // the last writer handed out
};

// In the heap, followed by file, function, facility, argument codes and text without terminators.
struct SiteHeader {
  U32 line;
  U16 fileLength;
  U16 functionLength;
  U16 facilityLength;
  U16 codesLength;
  U16 textLength;
  U8 level;
  U8 places;  // 1: each "%s" of the text is the place of an argument; 0: "%s" means nothing
};

// At the start of each block. The blocks of a writer are a chain by their ordinals; where one is
// missing the ring has gone over it, and what is left of the older ones is not shown.
struct BlockHeader {
  U64 sequence;  // 0 while the block is empty or being reused
  U32 owner;     // the process that writes it, 0 for none
  U32 writer;    // from 1 on
  U64 ordinal;   // of the block among those of its writer, from 1 on
  U32 records;   // filled in when the writer leaves the block, 0 before
  U32 reserved;
};

// At the start of each record, followed by the raw arguments, padded to a multiple of 8.
struct RecordHeader {
  U64 commit;  // written last; 0 or that of an older record while this one is not committed
  U32 thread;
  U32 level;
  U64 monotonicNs;
};

// The commit word: the low half of the block's sequence, the id, and the record's length in units
// of 8 bytes. The sequence tells a record from a leftover of the block's former use.
constexpr U64 commitWord(U64 sequence, U32 id, std::size_t length) {
  return sequence << 32 | U64{id} << 16 | length / 8;
}
constexpr U32 committedLength(U64 commit) {
  return static_cast<U32>(commit & 0xffff) * 8;
}
constexpr U32 committedId(U64 commit) {
  return static_cast<U32>(commit >> 16 & 0xffff);
}
constexpr bool committedIn(U64 sequence, U64 commit) {
  return commit != 0 && commit >> 32 == (sequence & 0xffffffffU);
}

inline constexpr U32 clippedText = 0x80000000U;  // in a text's length: its end was cut off

static_assert(offsetof(FileHeader, sitesWanted) == 112 && sizeof(FileHeader) == 160);
static_assert(sizeof(SiteHeader) == 16 && sizeof(BlockHeader) == 32 && sizeof(RecordHeader) == 24);

}  // namespace Skein
