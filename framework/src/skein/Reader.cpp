#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include <Skein/Reader.h>

#include "BlockCopy.h"
#include "Record.h"

namespace Skein {

namespace {
constexpr U64 largestFile = U64{1} << 31;
constexpr U32 mostSites = 65535;
}  // namespace

Reader::Reader(const std::string& path) : path_(path) {
  descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
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
  counters_ = {header_.fileSize,
               now.overwritten,
               now.dropped,
               header_.pid,
               (header_.flags & fileMultiThreaded) != 0,
               header_.wallNs};
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
  if (length < sizeof head || offset + length > header_.heapSize) return nullptr;
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

bool Reader::blockHasMore(U32 index) const {
  const U64 offset = header_.blocksOffset + U64{index} * header_.blockSize;
  const Place& place = places_[index];
  U64 sequence = 0;
  if (!readAt(descriptor_, offset, &sequence, sizeof sequence) || sequence == 0) return false;
  if (sequence != place.sequence) return true;
  U64 commit = 0;
  return header_.blockSize - place.offset >= sizeof(RecordHeader) &&
         readAt(descriptor_, offset + place.offset, &commit, sizeof commit) && commit != 0;
}

void Reader::readBlock(U32 index, char* bytes, std::vector<Key>& keys) {
  const U64 offset = header_.blocksOffset + U64{index} * header_.blockSize;
  const BlockCopy copy = copyBlock(descriptor_, offset, header_.blockSize, bytes, probe_);
  if (copy.sequence == 0) return;
  Place& place = places_[index];
  if (copy.sequence != place.sequence) place = {copy.sequence, sizeof(BlockHeader)};
  while (place.offset < copy.committed) {
    RecordHeader header;
    std::memcpy(&header, bytes + place.offset, sizeof header);
    keys.push_back({header.monotonicNs, bytes + place.offset});
    place.offset += committedLength(header.commit);
  }
  if (!copy.damaged) return;
  ++damaged_;
  place.offset = header_.blockSize;  // nothing behind the damage can be found
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
  record.timeNs = header_.wallNs + (header.monotonicNs - header_.monotonicNs);
  record.raw = std::string_view(at + sizeof header, committedLength(header.commit) - sizeof header);
  return decode(record.site->codes, record.raw, [](const auto&, bool) {});
}

std::size_t Reader::read(const std::function<void(const Record&)>& take) {
  std::vector<U32> changed;
  for (U32 index = 0; index < places_.size(); ++index) {
    if (blockHasMore(index)) changed.push_back(index);
  }
  bytes_.resize(changed.size() * header_.blockSize);
  std::vector<Key> keys;
  for (std::size_t i = 0; i < changed.size(); ++i) {
    readBlock(changed[i], bytes_.data() + i * header_.blockSize, keys);
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
