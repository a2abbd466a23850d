#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <optional>

#include <Skein/Reader.h>

#include "BlockCopy.h"
#include "Record.h"

namespace Skein {

namespace {
constexpr U64 largestFile = U64{1} << 31;
constexpr U32 mostSites = 65535;
constexpr U64 latestTime = ~U64{0} >> 1;  // in 2262; no clock is there yet, and signed counts end

// None where it would lie before 1970 or after the latest time: the file is damaged there.
std::optional<U64> wallTimeOf(U64 monotonicNs, const FileHeader& file) {
  U64 timeNs = 0;
  const bool outside =
      monotonicNs < file.monotonicNs
          ? __builtin_sub_overflow(file.wallNs, file.monotonicNs - monotonicNs, &timeNs)
          : __builtin_add_overflow(file.wallNs, monotonicNs - file.monotonicNs, &timeNs);
  if (outside || timeNs > latestTime) return std::nullopt;
  return timeNs;
}

}  // namespace

Reader::Reader(const std::string& path) : path_(path) {
  descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor_ < 0) {
    throw FileError("cannot open " + path + ": " + std::strerror(errno));
  }
  try {
    checkHeader();
  } catch (...) {
    ::close(descriptor_);
    throw;
  }
  const U64 present =
      (std::min(actualSize_, header_.fileSize) - std::min<U64>(actualSize_, header_.blocksOffset)) /
      header_.blockSize;
  places_.resize(std::min<U64>(header_.blockCount, present));
  sites_.resize(header_.indexSlots);
  siteDamaged_.resize(header_.indexSlots);
  readCounters();
  readSites();
}

Reader::~Reader() {
  ::close(descriptor_);
}

void Reader::checkHeader() {
  struct stat status;
  if (::fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode)) {
    throw FileError(path_ + " is not a regular file: give the path of a trace file");
  }
  actualSize_ = static_cast<U64>(status.st_size);
  if (actualSize_ == 0) throw FileError(path_ + " is empty: no trace was ever written to it");
  const bool whole = readAt(descriptor_, 0, &header_, sizeof header_);
  const std::size_t magicSize = std::min<std::size_t>(actualSize_, sizeof fileMagic);
  if (std::memcmp(header_.magic, fileMagic, magicSize) != 0) {
    throw FileError(path_ + " is not a trace file: it does not start with the mark of one");
  }
  if (!whole) throw FileError(path_ + " is cut off within its header: nothing of it can be read");
  if (header_.byteOrder != fileByteOrder) {
    throw FileError(path_ + " was written with another byte order: read it on such a machine");
  }
  if (header_.version != fileVersion) {
    throw FileError(path_ + " has format version " + std::to_string(header_.version) +
                    ": this reader knows version " + std::to_string(fileVersion));
  }
  const FileHeader& h = header_;
  const bool sound = h.fileSize <= largestFile && h.indexSlots <= mostSites &&
                     h.indexOffset >= sizeof(FileHeader) && h.indexOffset % 8 == 0 &&
                     h.indexOffset + U64{h.indexSlots} * sizeof(U64) <= h.heapOffset &&
                     U64{h.heapOffset} + h.heapSize <= h.blocksOffset && h.blocksOffset % 8 == 0 &&
                     h.blockSize % 8 == 0 && h.blockSize >= 64 && h.blockCount > 0 &&
                     h.blocksOffset + U64{h.blockSize} * h.blockCount <= h.fileSize;
  if (!sound) throw FileError(path_ + " is damaged: its header contradicts itself");
}

void Reader::readCounters() {
  FileHeader now = header_;
  readAt(descriptor_, 0, &now, sizeof now);
  header_.sitesWanted = now.sitesWanted;
  header_.blocksWanted = now.blocksWanted;
  counters_ = {header_.fileSize,
               now.overwritten,
               now.dropped,
               header_.pid,
               (header_.flags & fileMultiThreaded) != 0,
               header_.wallNs,
               behindGaps_};
}

void Reader::readSites() {
  const auto count = std::min<U64>(header_.sitesWanted, header_.indexSlots);
  for (std::size_t slot = 0; slot < count; ++slot) {
    if (sites_[slot] || siteDamaged_[slot]) continue;
    U64 entry = 0;
    if (!readAt(descriptor_, header_.indexOffset + slot * sizeof entry, &entry, sizeof entry))
      return;
    if (entry == 0) continue;  // not committed
    sites_[slot] = readSite(entry);
    if (sites_[slot]) continue;
    siteDamaged_[slot] = true;
    ++damaged_;
  }
}

std::unique_ptr<Site> Reader::readSite(U64 entry) const {
  const U64 offset = entry >> 32;
  const U64 length = entry & 0xffffffffU;
  SiteHeader head;
  if (length < sizeof head || offset + length > header_.heapSize ||
      header_.heapOffset + offset + length > actualSize_) {
    return nullptr;
  }
  std::string bytes(length, '\0');
  if (!readAt(descriptor_, header_.heapOffset + offset, bytes.data(), length)) return nullptr;
  std::memcpy(&head, bytes.data(), sizeof head);
  std::size_t at = sizeof head;
  if (at + head.fileLength + head.functionLength + head.facilityLength + head.codesLength +
          head.textLength !=
      length) {
    return nullptr;
  }
  const auto next = [&](std::size_t size) {
    at += size;
    return bytes.substr(at - size, size);
  };
  auto site = std::make_unique<Site>();
  site->line = static_cast<int>(head.line);
  site->level = head.level;
  site->places = head.places != 0;
  site->file = next(head.fileLength);
  site->function = next(head.functionLength);
  site->facility = next(head.facilityLength);
  site->codes = next(head.codesLength);
  site->text = next(head.textLength);
  if (site->codes.find_first_not_of("bciulUpsn") != std::string::npos) return nullptr;
  return site;
}

// The blocks that were begun before this read; later ones are the next read's. Without this limit
// a block could be missed while its successor is seen.
std::vector<Reader::Block> Reader::findBlocks() {
  readCounters();
  const U64 begun = header_.blocksWanted;
  bool beyond = false;
  std::vector<Block> blocks;
  for (std::size_t turn = 0; turn < places_.size(); ++turn) {
    // From the newest back: what a writer reuses meanwhile is the oldest.
    const auto index = static_cast<U32>((begun + places_.size() - 1 - turn) % places_.size());
    const U64 offset = header_.blocksOffset + U64{index} * header_.blockSize;
    Block block{index, {}, false, nullptr, 0, false};
    if (!readAt(descriptor_, offset, &block.header, sizeof block.header)) continue;
    if (block.header.sequence == 0) continue;
    if (block.header.sequence > begun) {
      beyond = true;
      continue;
    }
    const Place& place = places_[index];
    U64 commit = 0;
    block.changed =
        block.header.sequence != place.sequence ||
        (header_.blockSize - place.offset >= sizeof(RecordHeader) &&
         readAt(descriptor_, offset + place.offset, &commit, sizeof commit) && commit != 0);
    blocks.push_back(block);
  }
  if (beyond) {
    readCounters();
    if (header_.blocksWanted == begun) ++damaged_;  // nobody hands out such sequences
  }
  return blocks;
}

void Reader::copyChanged(std::vector<Block>& blocks) {
  const auto changed =
      std::count_if(blocks.begin(), blocks.end(), [](const Block& block) { return block.changed; });
  bytes_.resize(static_cast<std::size_t>(changed) * header_.blockSize);
  char* to = bytes_.data();
  for (Block& block : blocks) {
    if (!block.changed) continue;
    const U64 offset = header_.blocksOffset + U64{block.index} * header_.blockSize;
    const BlockCopy copy = copyBlock(descriptor_, offset, header_.blockSize, to, probe_);
    if (copy.header.sequence != block.header.sequence) block.header.sequence = 0;
    block.bytes = to;
    block.committed = copy.committed;
    block.damaged = copy.damaged;
    to += header_.blockSize;
  }
  std::erase_if(blocks, [](const Block& block) { return block.header.sequence == 0; });
}

// Of each writer the blocks from its newest one back to where one is missing.
void Reader::markChainEnds(std::vector<Block>& blocks, std::vector<bool>& shown) {
  std::sort(blocks.begin(), blocks.end(), [](const Block& a, const Block& b) {
    if (a.header.writer != b.header.writer) return a.header.writer < b.header.writer;
    return a.header.ordinal > b.header.ordinal;
  });
  shown.assign(blocks.size(), true);
  for (std::size_t i = 1; i < blocks.size(); ++i) {
    const BlockHeader& newer = blocks[i - 1].header;
    const BlockHeader& older = blocks[i].header;
    if (newer.writer != older.writer) continue;
    shown[i] = shown[i - 1] && older.ordinal + 1 == newer.ordinal;
  }
}

void Reader::takeKeys(const Block& block, bool shown, std::vector<Key>& keys) {
  Place& place = places_[block.index];
  if (block.header.sequence != place.sequence) {
    place = {block.header.sequence, static_cast<U32>(sizeof(BlockHeader))};
  }
  while (place.offset < block.committed) {
    RecordHeader header;
    std::memcpy(&header, block.bytes + place.offset, sizeof header);
    if (shown) {
      keys.push_back({header.monotonicNs, block.bytes + place.offset});
    } else {
      ++behindGaps_;
    }
    place.offset += committedLength(header.commit);
  }
  if (!shown || block.damaged) place.offset = header_.blockSize;
  if (block.damaged) ++damaged_;
}

bool Reader::recordAt(const char* at, Record& record) const {
  RecordHeader header;
  std::memcpy(&header, at, sizeof header);
  const U32 id = committedId(header.commit);
  if (id == 0 || id > sites_.size() || !sites_[id - 1]) return false;
  record.id = static_cast<int>(id);
  record.site = sites_[id - 1].get();
  record.level = header.level;
  record.thread = static_cast<int>(header.thread);
  record.monotonicNs = header.monotonicNs;
  const auto timeNs = wallTimeOf(header.monotonicNs, header_);
  if (!timeNs) return false;
  record.timeNs = *timeNs;
  record.raw = std::string_view(at + sizeof header, committedLength(header.commit) - sizeof header);
  return decode(record.site->codes, record.raw, [](const auto&, bool) {});
}

std::size_t Reader::read(const std::function<void(const Record&)>& take) {
  std::vector<Block> blocks = findBlocks();
  copyChanged(blocks);
  std::vector<bool> shown;
  markChainEnds(blocks, shown);
  std::vector<Key> keys;
  // From the oldest block of each writer on: records of the same nanosecond stay in their order.
  for (std::size_t i = blocks.size(); i-- > 0;) {
    if (blocks[i].changed) takeKeys(blocks[i], shown[i], keys);
  }
  // After the records: a point is described before its first record is written.
  readCounters();
  readSites();
  const auto earlier = [](const Key& a, const Key& b) { return a.monotonicNs < b.monotonicNs; };
  if (!std::is_sorted(keys.begin(), keys.end(), earlier)) {
    std::stable_sort(keys.begin(), keys.end(), earlier);
  }
  std::size_t count = 0;
  for (const Key& key : keys) {
    Record record;
    if (!recordAt(key.at, record)) {
      ++damaged_;
      continue;
    }
    take(record);
    ++count;
  }
  return count;
}

std::string Reader::problem() const {
  if (actualSize_ < header_.fileSize) {
    return path_ + " is cut off: " + std::to_string(actualSize_) + " of " +
           std::to_string(header_.fileSize) + " bytes are there; the rest was read";
  }
  if (damaged_ != 0) {
    return path_ + " is damaged in " + std::to_string(damaged_) +
           (damaged_ == 1 ? " place" : " places") + ", which were skipped; the rest was read";
  }
  return {};
}

bool Reader::replaced() const {
  struct stat ours;
  struct stat named;
  if (::fstat(descriptor_, &ours) != 0) return false;
  if (::stat(path_.c_str(), &named) != 0) return true;
  return ours.st_ino != named.st_ino || ours.st_dev != named.st_dev;
}

}  // namespace Skein
