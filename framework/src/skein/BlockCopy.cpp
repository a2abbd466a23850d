#include "BlockCopy.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Skein {

bool readAt(int descriptor, U64 offset, void* bytes, std::size_t size) {
  auto* to = static_cast<char*>(bytes);
  while (size > 0) {
    const ssize_t count = ::pread(descriptor, to, size, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    to += count;
    offset += static_cast<U64>(count);
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

namespace {

void findCommitted(const char* bytes, U32 size, BlockCopy& copy) {
  copy.committed = sizeof(BlockHeader);
  while (size - copy.committed >= sizeof(RecordHeader)) {
    U32 length;
    std::memcpy(&length, bytes + copy.committed, sizeof length);
    if (length == 0) return;
    if (length % 8 != 0 || length < sizeof(RecordHeader) || length > size - copy.committed) {
      copy.damaged = true;
      return;
    }
    copy.committed += length;
  }
}

}  // namespace

BlockCopy copyBlock(int descriptor, U64 offset, U32 size, char* bytes, std::string& probe) {
  constexpr int attempts = 8;
  probe.resize(size);
  for (int attempt = 0; attempt < attempts; ++attempt) {
    BlockCopy copy;
    BlockHeader before;
    BlockHeader after;
    // The lengths come from a first reading and the records from a second one: a record whose
    // length was seen is complete by then, in whatever order a read copies its bytes.
    if (!readAt(descriptor, offset, probe.data(), size)) return {};
    std::memcpy(&before, probe.data(), sizeof before);
    if (before.sequence == 0) return {};
    findCommitted(probe.data(), size, copy);
    if (!readAt(descriptor, offset, bytes, copy.committed)) return {};
    if (!readAt(descriptor, offset, &after, sizeof after)) return {};
    if (after.sequence != before.sequence) continue;
    // The lengths in `bytes` must be those that were walked; they never change once committed.
    copy.sequence = before.sequence;
    return copy;
  }
  return {};
}

}  // namespace Skein
