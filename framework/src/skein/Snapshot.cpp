#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <Lumo/Exception.h>
#include <Skein/TraceFile.h>

#include "BlockCopy.h"
#include "UnnamedFile.h"

namespace Skein {

namespace {

[[noreturn]] void fail(const std::string& path, int error) {
  throw Lumo::ErrnoException("cannot write the copy of the trace to " + path + ": " +
                                 std::strerror(error) + "; check its folder and the free space",
                             error);
}

// The sequence of the block begun last.
U64 blocksBegun(int descriptor) {
  U64 begun = 0;
  readAt(descriptor, offsetof(FileHeader, blocksWanted), &begun, sizeof begun);
  return begun;
}

// Copies the blocks of a file that were begun before this moment, from the newest one back: what
// writers reuse meanwhile is the oldest of them, so that of each writer a run without a gap is
// left, up to this moment, or longer within its block. Blocks begun later are left out: those
// before them may be half full in the copy. False when writers have gone round the ring before
// anything was copied, and when no block begun on the last way round it has a record.
bool copyBlocks(int descriptor, const FileHeader& header, std::string& bytes) {
  bytes.assign(header.fileSize, '\0');
  std::string block(header.blockSize, '\0');
  std::string probe;
  const U64 begun = blocksBegun(descriptor);
  bool copied = false;
  for (U32 turn = 1; turn <= header.blockCount; ++turn) {
    const U64 index = (begun + header.blockCount - turn) % header.blockCount;
    const U64 offset = header.blocksOffset + index * header.blockSize;
    const BlockCopy copy = copyBlock(descriptor, offset, header.blockSize, block.data(), probe);
    if (copy.header.sequence == 0 || copy.header.sequence > begun) continue;
    // One that is left alone, of a writer that is about to take it, is no copy of this moment, be
    // it from the lap before or because the writers have gone round meanwhile.
    const bool ofThisLap = copy.header.sequence + header.blockCount > begun;
    if (!copied && ofThisLap && copy.committed > sizeof(BlockHeader)) {
      if (blocksBegun(descriptor) >= begun + header.blockCount) return false;
      copied = true;
    }
    // Cut behind the last committed record, and nobody's any more.
    std::memcpy(bytes.data() + offset, block.data(), copy.committed);
    std::memset(bytes.data() + offset + offsetof(BlockHeader, owner), 0, sizeof(U32));
  }
  return copied || begun == 0;
}

// The error number, 0 for none.
int writeAll(int descriptor, const std::string& bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t count = ::write(descriptor, bytes.data() + at, bytes.size() - at);
    if (count >= 0) {
      at += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

}  // namespace

void snapshot(TraceFile& file, const std::string& path) {
  const FileHeader& header = file.header();
  std::string bytes;
  // Kept from running for long, it starts from a later moment.
  constexpr int attempts = 8;
  for (int i = 0; i < attempts && !copyBlocks(file.descriptor_, header, bytes); ++i) {
  }
  // After the records: every point that left one is described, and what has gone is counted.
  if (!readAt(file.descriptor_, 0, bytes.data(), header.blocksOffset)) fail(path, EIO);
  const UnnamedFile unnamed = makeUnnamedFile(path);
  if (unnamed.descriptor < 0) fail(path, errno);
  int error = writeAll(unnamed.descriptor, bytes);
  if (error == 0 && ::rename(unnamed.path.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) ::unlink(unnamed.path.c_str());
  if (::close(unnamed.descriptor) != 0 && error == 0) error = errno;
  if (error == 0) return;
  fail(path, error);
}

}  // namespace Skein
