#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <Lumo/Exception.h>
#include <Skein/TraceFile.h>

#include "FileLayout.h"
#include "OpenFiles.h"
#include "PreviousFile.h"
#include "UnnamedFile.h"

namespace Skein {

namespace {

constexpr int tagCount = 1 << 15;  // ids of a file share their upper half with every 32768th file

template <class T>
std::atomic_ref<T> shared(T& value) {
  return std::atomic_ref<T>(value);
}

[[noreturn]] void fail(const std::string& path, const char* advice) {
  const int error = errno;
  throw Lumo::ErrnoException(
      "cannot make the trace file " + path + ": " + std::strerror(error) + "; " + advice, error);
}

U64 nextSerial() {
  OpenFiles& open = OpenFiles::instance();
  std::lock_guard guard(open.mutex);
  return ++open.lastSerial;
}

U64 recordsIn(const char* bytes, U32 size) {
  const auto& header = *reinterpret_cast<const BlockHeader*>(bytes);
  if (header.records != 0) return header.records;
  const U64 sequence = header.sequence;  // the writer was killed: count them
  U64 count = 0;
  for (U32 at = sizeof(BlockHeader); size - at >= sizeof(RecordHeader);) {
    const U64 commit = reinterpret_cast<const RecordHeader*>(bytes + at)->commit;
    const U32 length = committedLength(commit);
    if (!committedIn(sequence, commit) || length == 0 || length > size - at) break;
    at += length;
    ++count;
  }
  return count;
}

std::string descriptorOf(const Site& site) {
  const auto clipped = [](const std::string& text) {
    return std::string_view(text).substr(0, 0xffff);
  };
  const std::string_view texts[] = {clipped(site.file), clipped(site.function),
                                    clipped(site.facility), clipped(site.codes),
                                    clipped(site.text)};
  SiteHeader header{};
  header.line = static_cast<U32>(site.line);
  header.fileLength = static_cast<U16>(texts[0].size());
  header.functionLength = static_cast<U16>(texts[1].size());
  header.facilityLength = static_cast<U16>(texts[2].size());
  header.codesLength = static_cast<U16>(texts[3].size());
  header.textLength = static_cast<U16>(texts[4].size());
  header.level = site.level;
  header.places = site.places ? 1 : 0;
  std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
  for (std::string_view text : texts) bytes.append(text);
  return bytes;
}

// As posix_fallocate(3), without the signals that would interrupt it.
int reserve(int descriptor, U64 size) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const int error = ::posix_fallocate(descriptor, 0, static_cast<off_t>(size));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return error;
}

}  // namespace

TraceFile::TraceFile(const std::string& path, TraceOptions options)
    : path_(options.keepPrevious ? targetOfLinks(path) : path),
      multiThreaded_(options.multiThreaded),
      serial_(nextSerial()),
      tag_(static_cast<int>((serial_ - 1) % tagCount)) {
  if (options.size < minimalFileSize || options.size > (U64{1} << 31)) {
    Lumo::throwRangeException("trace file " + path + ": its size must be from 16 KiB to 2 GiB");
  }
  const bool older = options.keepPrevious && isOlderTraceFile(path_);
  const UnnamedFile unnamed = makeUnnamedFile(path_);
  descriptor_ = unnamed.descriptor;  // locked as long as it is open
  if (descriptor_ < 0) fail(path_, "check that its folder exists and may be written");
  void* bytes = MAP_FAILED;
  // Space is reserved now: a full disk must not kill the process at some later record.
  errno = reserve(descriptor_, options.size);
  if (errno == 0) {
    bytes = ::mmap(nullptr, options.size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE,
                   descriptor_, 0);
  }
  if (bytes != MAP_FAILED) {
    bytes_ = static_cast<char*>(bytes);
    header() = headerFor(options.size, multiThreaded_);
  }
  const bool made = bytes != MAP_FAILED && (!older || keepAsPrevious(path_)) &&
                    ::rename(unnamed.path.c_str(), path_.c_str()) == 0;
  if (!made) {
    const int error = errno;
    if (bytes_) ::munmap(bytes_, options.size);
    ::close(descriptor_);
    ::unlink(unnamed.path.c_str());
    errno = error;
    fail(path_, "check the free space and that no folder has this name");
  }
  OpenFiles& open = OpenFiles::instance();
  std::lock_guard guard(open.mutex);
  open.files.push_back(this);
}

TraceFile::~TraceFile() {
  {
    OpenFiles& open = OpenFiles::instance();
    std::lock_guard guard(open.mutex);
    std::erase(open.files, this);
    for (const auto& ring : rings_) ring->leaveBlock();
  }
  single_.leaveBlock();
  ::munmap(bytes_, header().fileSize);
  ::close(descriptor_);
}

int TraceFile::siteIs(const int* key, const Site& site) {
  OpenFiles& open = OpenFiles::instance();
  std::lock_guard guard(open.mutex);
  const auto known = described_.find(key);
  // The address alone could be that of a point in a library that was unloaded.
  if (known != described_.end() && known->second.site == site) return known->second.id;
  const std::string bytes = descriptorOf(site);
  U32 slot = findSite(bytes);
  if (slot == 0) slot = appendSite(bytes);
  if (slot == 0) return 0;
  const int id = (tag_ << idBits) | static_cast<int>(slot);
  described_[key] = {id, site};
  return id;
}

// The point may have been described by the other side of a fork.
U32 TraceFile::findSite(const std::string& bytes) {
  FileHeader& head = header();
  auto* index = reinterpret_cast<U64*>(bytes_ + head.indexOffset);
  const auto count =
      std::min<U64>(shared(head.sitesWanted).load(std::memory_order_relaxed), head.indexSlots);
  for (U32 slot = 0; slot < count; ++slot) {
    const U64 entry = shared(index[slot]).load(std::memory_order_acquire);
    const std::string_view described(bytes_ + head.heapOffset + (entry >> 32), entry & 0xffffffffU);
    if (described == bytes) return slot + 1;
  }
  return 0;
}

// Reserve, write, publish: a forked process may append at the same time, and whoever is killed in
// between leaves a hole that no index entry names.
U32 TraceFile::appendSite(const std::string& bytes) {
  FileHeader& head = header();
  const U64 size = (bytes.size() + 7) & ~std::size_t{7};
  const U64 at = shared(head.heapWanted).fetch_add(size, std::memory_order_relaxed);
  const U64 slot = shared(head.sitesWanted).fetch_add(1, std::memory_order_relaxed);
  if (at + size > head.heapSize || slot >= head.indexSlots) return 0;
  std::memcpy(bytes_ + head.heapOffset + at, bytes.data(), bytes.size());
  auto& entry = reinterpret_cast<U64*>(bytes_ + head.indexOffset)[slot];
  shared(entry).store(at << 32 | bytes.size(), std::memory_order_release);
  return static_cast<U32>(slot + 1);
}

void TraceFile::countDropped() {
  shared(header().dropped).fetch_add(1, std::memory_order_relaxed);
}

// Claims a block that nobody writes. One whose writer is gone without a farewell is free too: a
// forked child that was killed.
bool TraceFile::claimBlock(BlockHeader& block) {
  const auto self = static_cast<U32>(::getpid());
  U32 owner = shared(block.owner).load(std::memory_order_relaxed);
  if (owner == self) return false;
  if (owner != 0 && (::kill(static_cast<pid_t>(owner), 0) == 0 || errno != ESRCH)) return false;
  return shared(block.owner).compare_exchange_strong(owner, self, std::memory_order_acquire);
}

// The next block in turn, emptied, or null when every block is being written. Blocks come in the
// order of their sequence, so the oldest one goes; one that a thread is writing is passed over.
char* TraceFile::takeBlock(RingBuf& ring) {
  const int errnoOfCaller = errno;
  FileHeader& head = header();
  char* taken = nullptr;
  for (U32 attempt = 0; attempt < head.blockCount && !taken; ++attempt) {
    const U64 sequence = shared(head.blocksWanted).fetch_add(1, std::memory_order_relaxed) + 1;
    char* bytes =
        bytes_ + head.blocksOffset + (sequence - 1) % head.blockCount * U64{head.blockSize};
    auto& block = *reinterpret_cast<BlockHeader*>(bytes);
    if (!claimBlock(block)) continue;
    if (block.sequence != 0) {
      shared(head.overwritten)
          .fetch_add(recordsIn(bytes, head.blockSize), std::memory_order_relaxed);
    }
    // A reader that sees any byte of a newer record sees that the old sequence is gone.
    shared(block.sequence).exchange(0, std::memory_order_seq_cst);
    shared(reinterpret_cast<RecordHeader*>(bytes + sizeof(BlockHeader))->commit)
        .store(0, std::memory_order_release);
    if (ring.writer_ == 0) {
      ring.writer_ =
          static_cast<U32>(shared(head.writersWanted).fetch_add(1, std::memory_order_relaxed) + 1);
    }
    ring.sequence_ = sequence;
    block.writer = ring.writer_;
    block.ordinal = ++ring.ordinal_;
    block.records = 0;
    shared(block.sequence).store(sequence, std::memory_order_release);
    taken = bytes;
  }
  errno = errnoOfCaller;
  return taken;
}

RingBuf& TraceFile::threadRing() {
  ThreadRings& mine = ThreadRings::mine();
  if (mine.serial == serial_) return *mine.ring;
  return newThreadRing(mine);
}

RingBuf& TraceFile::newThreadRing(ThreadRings& mine) {
  OpenFiles& open = OpenFiles::instance();
  std::lock_guard guard(open.mutex);
  std::erase_if(mine.entries, [&](const auto& entry) { return !open.isOpen(entry.serial); });
  RingBuf* ring = nullptr;
  for (const auto& entry : mine.entries) {
    if (entry.serial == serial_) ring = entry.ring.get();
  }
  if (!ring) {
    std::shared_ptr<RingBuf> made;
    if (idleRings_.empty()) {
      made = std::make_shared<RingBuf>();
      rings_.push_back(made);
    } else {
      made = std::move(idleRings_.back());
      idleRings_.pop_back();
    }
    ring = made.get();
    mine.entries.push_back({serial_, this, std::move(made)});
  }
  mine.serial = serial_;
  mine.ring = ring;
  return *ring;
}

void TraceFile::ringIsIdle(std::shared_ptr<RingBuf> ring) {
  idleRings_.push_back(std::move(ring));
}

}  // namespace Skein
