#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <map>
#include <optional>
#include <utility>

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

// The blocks of a file, copied one after the other while they are written.
class Blocks {
 public:
  Blocks(int descriptor, const FileHeader& header, std::string& bytes)
      : descriptor_(descriptor), header_(header), bytes_(bytes), block_(header.blockSize, '\0') {}

  void copy() {
    U64 begun = 0;
    readAt(descriptor_, offsetof(FileHeader, blocksWanted), &begun, sizeof begun);
    for (U32 turn = 0; turn < header_.blockCount; ++turn) {
      const auto index = static_cast<U32>((begun + turn) % header_.blockCount);
      copyOne(index);  // from the oldest on, ahead of a writer
    }
    // A block that was copied half full while its writer went on with another, which was copied as
    // well, is whole by now, if it is still there.
    for (const auto& [place, copied] : std::map(placed_)) {
      const auto [writer, ordinal] = place;
      if (copied.whole || !placed_.contains({writer, ordinal + 1})) continue;
      placed_.erase(place);
      copyOne(copied.index, place);
    }
  }

 private:
  using Place = std::pair<U32, U64>;  // writer and ordinal
  struct Copied {
    U32 index;
    bool whole;  // its writer had left it by then
  };

  // Cut behind the last committed record; one in the middle of a reuse comes out empty, as does one
  // that is not at the place asked for.
  void copyOne(U32 index, const std::optional<Place>& expected = std::nullopt) {
    const U64 offset = offsetOf(index);
    const BlockCopy copy = copyBlock(descriptor_, offset, header_.blockSize, block_.data(), probe_);
    std::memset(bytes_.data() + offset, 0, header_.blockSize);
    const Place place{copy.header.writer, copy.header.ordinal};
    if (copy.header.sequence == 0 || (expected && place != *expected)) return;
    std::memcpy(bytes_.data() + offset, block_.data(), copy.committed);
    std::memset(bytes_.data() + offset + offsetof(BlockHeader, owner), 0, sizeof(U32));
    placed_[place] = {index, copy.header.records != 0};
  }
  U64 offsetOf(U32 index) const { return header_.blocksOffset + U64{index} * header_.blockSize; }

  const int descriptor_;
  const FileHeader& header_;
  std::string& bytes_;
  std::string block_;
  std::string probe_;
  std::map<Place, Copied> placed_;
};

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
  Blocks(file.descriptor_, header, bytes).copy();
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
