#pragma once

#include <cstring>
#include <string>

#include <Skein/Layout.h>

namespace support {

// Shows `change` the head of each record in the bytes of a trace file, in the order of the blocks,
// and writes what it made of it.
template <class Change>
void changeRecords(std::string& bytes, Change change) {
  Skein::FileHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  for (U32 i = 0; i < header.blockCount; ++i) {
    const std::size_t start = header.blocksOffset + i * std::size_t{header.blockSize};
    const std::size_t end = start + header.blockSize;
    Skein::BlockHeader block;
    std::memcpy(&block, bytes.data() + start, sizeof block);
    for (std::size_t at = start + sizeof block; at + sizeof(Skein::RecordHeader) <= end;) {
      Skein::RecordHeader record;
      std::memcpy(&record, bytes.data() + at, sizeof record);
      if (!Skein::committedIn(block.sequence, record.commit)) break;
      change(record);
      std::memcpy(bytes.data() + at, &record, sizeof record);
      at += Skein::committedLength(record.commit);
    }
  }
}

}  // namespace support
