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

// A word that is neither 0 nor of this block's sequence: a leftover, seen because a read may take
// its bytes in any order. Writers clear it before they commit the record in front of it, so that
// one which is still there at another look is damage.
bool isDamage(int descriptor, U64 offset, U64 seen) {
  U64 again = 0;
  return readAt(descriptor, offset, &again, sizeof again) && again == seen;
}

void findCommitted(int descriptor, U64 offset, const std::string& bytes, BlockCopy& copy) {
  copy.committed = sizeof(BlockHeader);
  while (bytes.size() - copy.committed >= sizeof(RecordHeader)) {
    U64 commit;
    std::memcpy(&commit, bytes.data() + copy.committed, sizeof commit);
    if (commit == 0) return;
    const U32 length = committedLength(commit);
    if (!committedIn(copy.header.sequence, commit) || length < sizeof(RecordHeader) ||
        length > bytes.size() - copy.committed) {
      copy.damaged = isDamage(descriptor, offset + copy.committed, commit);
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
    // The commit words come from a first reading and the records from a second one: a record whose
    // word was seen is complete by then, in whatever order a read takes its bytes.
    if (!readAt(descriptor, offset, probe.data(), size)) return {};
    BlockCopy copy;
    std::memcpy(&copy.header, probe.data(), sizeof copy.header);
    if (copy.header.sequence == 0) return {};
    findCommitted(descriptor, offset, probe, copy);
    if (!readAt(descriptor, offset, bytes, copy.committed)) return {};
    BlockHeader after;
    if (!readAt(descriptor, offset, &after, sizeof after)) return {};
    if (after.sequence == copy.header.sequence) return copy;
  }
  return {};
}

}  // namespace Skein
