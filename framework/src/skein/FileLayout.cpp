#include "FileLayout.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <ctime>

namespace Skein {

namespace {

U64 now(clockid_t clock) {
  timespec time;
  clock_gettime(clock, &time);
  return static_cast<U64>(time.tv_sec) * 1000000000ULL + static_cast<U64>(time.tv_nsec);
}

constexpr U32 headerSize = 192;
constexpr U32 bytesPerSite = 256;  // of a descriptor, its index entry included; an average

}  // namespace

FileHeader headerFor(U64 size, bool multiThreaded) {
  FileHeader header{};
  std::memcpy(header.magic, fileMagic, sizeof header.magic);
  header.byteOrder = fileByteOrder;
  header.version = fileVersion;
  header.fileSize = size;
  const auto sitesSize = static_cast<U32>(std::clamp<U64>(size / 8, 8192, 256 * 1024) & ~U64{7});
  header.indexOffset = headerSize;
  header.indexSlots = sitesSize / bytesPerSite;
  header.heapOffset = header.indexOffset + header.indexSlots * static_cast<U32>(sizeof(U64));
  header.heapSize = headerSize + sitesSize - header.heapOffset;
  header.blocksOffset = headerSize + sitesSize;
  const U64 blocksSize = size - header.blocksOffset;
  header.blockSize =
      static_cast<U32>(std::clamp<U64>(std::bit_floor(blocksSize / 256), 1024, 64 * 1024));
  header.blockCount = static_cast<U32>(blocksSize / header.blockSize);
  header.flags = multiThreaded ? fileMultiThreaded : 0;
  header.wallNs = now(CLOCK_REALTIME);
  header.monotonicNs = now(CLOCK_MONOTONIC);
  header.pid = static_cast<U32>(::getpid());
  return header;
}

}  // namespace Skein
