#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

#include <Lumo/Exception.h>
#include <Skein/TraceFile.h>

#include "BlockCopy.h"

namespace Skein {

namespace {

[[noreturn]] void fail(const std::string& path, int error) {
  throw Lumo::ErrnoException("cannot write the copy of the trace to " + path + ": " +
                                 std::strerror(error) + "; check its folder and the free space",
                             error);
}

// The blocks as they are, cut behind their last committed record; those in the middle of a reuse
// come out empty.
void copyBlocks(int descriptor, const FileHeader& header, std::string& bytes) {
  std::string probe;
  std::string block(header.blockSize, '\0');
  U64 begun = 0;
  readAt(descriptor, offsetof(FileHeader, blocksWanted), &begun, sizeof begun);
  for (U32 turn = 0; turn < header.blockCount; ++turn) {
    const U64 index = (begun + turn) % header.blockCount;  // from the oldest on, ahead of a writer
    const U64 offset = header.blocksOffset + index * header.blockSize;
    const BlockCopy copy = copyBlock(descriptor, offset, header.blockSize, block.data(), probe);
    if (copy.header.sequence == 0) continue;
    std::memcpy(bytes.data() + offset, block.data(), copy.committed);
    std::memset(bytes.data() + offset + offsetof(BlockHeader, owner), 0, sizeof(U32));
  }
}

int writeFile(const std::string& path, const std::string& bytes) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor < 0) return errno;
  int error = 0;
  for (std::size_t at = 0; at < bytes.size() && error == 0;) {
    const ssize_t count = ::write(descriptor, bytes.data() + at, bytes.size() - at);
    if (count >= 0) {
      at += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      error = errno;
    }
  }
  if (::close(descriptor) != 0 && error == 0) error = errno;
  return error;
}

}  // namespace

void snapshot(TraceFile& file, const std::string& path) {
  const FileHeader& header = file.header();
  std::string bytes(header.fileSize, '\0');
  copyBlocks(file.descriptor_, header, bytes);
  // After the records, so that every point that left one is described.
  if (!readAt(file.descriptor_, 0, bytes.data(), header.blocksOffset)) fail(path, EIO);
  const std::string unnamed = path + ".new-" + std::to_string(::getpid());
  int error = writeFile(unnamed, bytes);
  if (error == 0 && ::rename(unnamed.c_str(), path.c_str()) != 0) error = errno;
  if (error == 0) return;
  ::unlink(unnamed.c_str());
  fail(path, error);
}

}  // namespace Skein
