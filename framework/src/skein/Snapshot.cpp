#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

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

// The blocks that were begun before the copy, cut behind their last committed record; those in the
// middle of a reuse come out empty. Without this limit a block could be copied half full, and the
// one that its writer filled next as well.
void copyBlocks(int descriptor, const FileHeader& header, std::string& bytes) {
  std::string probe;
  std::string block(header.blockSize, '\0');
  U64 begun = 0;
  readAt(descriptor, offsetof(FileHeader, blocksWanted), &begun, sizeof begun);
  for (U32 turn = 0; turn < header.blockCount; ++turn) {
    const U64 index = (begun + turn) % header.blockCount;  // from the oldest on, ahead of a writer
    const U64 offset = header.blocksOffset + index * header.blockSize;
    const BlockCopy copy = copyBlock(descriptor, offset, header.blockSize, block.data(), probe);
    if (copy.header.sequence == 0 || copy.header.sequence > begun) continue;
    std::memcpy(bytes.data() + offset, block.data(), copy.committed);
    std::memset(bytes.data() + offset + offsetof(BlockHeader, owner), 0, sizeof(U32));
  }
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
  std::string bytes(header.fileSize, '\0');
  copyBlocks(file.descriptor_, header, bytes);
  // After the records, so that every point that left one is described.
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
