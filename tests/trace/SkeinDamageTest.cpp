#include <support/TraceBytes.h>

#include <cerrno>
#include <fstream>
#include <random>

#include "TraceFixture.h"

namespace {

std::string bytesOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// What a reader makes of a file: its complaint, or what it found.
struct Finding {
  std::string error;
  std::vector<Seen> records;
  std::string problem;
};

Finding readFile(const std::string& path) {
  Finding finding;
  try {
    Skein::Reader reader(path);
    finding.records = recordsOf(reader);
    finding.problem = reader.problem();
  } catch (const Skein::FileError& error) {
    finding.error = error.what();
  }
  return finding;
}

}  // namespace

class SkeinDamage : public TraceTest {
 protected:
  SkeinDamage() {
    ringIsOn({.size = 16 * 1024});
    for (int i = 0; i < recordCount; ++i) Twine::trace<Sample::pair>(i, std::string(i % 7, 'q'));
    skein.reset();
    whole = bytesOf(path);
    Skein::FileHeader header;
    std::memcpy(&header, whole.data(), sizeof header);
    commitOffset = header.blocksOffset + sizeof(Skein::BlockHeader);
    std::memcpy(&commit, whole.data() + commitOffset, sizeof commit);
  }
  std::string withCommit(U64 word) const {
    std::string bytes = whole;
    std::memcpy(bytes.data() + commitOffset, &word, sizeof word);
    return bytes;
  }
  Finding findingOf(const std::string& bytes) const {
    writeBytes(path, bytes);
    return readFile(path);
  }

  static constexpr int recordCount = 120;
  std::string whole;
  // Of the first record, within the file.
  std::size_t commitOffset;
  U64 commit;
};

TEST_F(SkeinDamage, AnEmptyFileIsSaidToBeEmpty) {
  EXPECT_EQ(findingOf("").error, path + " is empty: no trace was ever written to it");
}

TEST_F(SkeinDamage, AForeignFileIsSaidToBeForeign) {
  for (const char* text : {"x", "#!/bin/sh\necho hello\n", "SKEINX"}) {
    EXPECT_EQ(findingOf(text).error,
              path + " is not a trace file: it does not start with the mark of one");
  }
  EXPECT_NE(readFile(folder.file("nothing")).error.find("cannot open"), std::string::npos);
  EXPECT_NE(readFile("/dev/null").error.find("not a regular file"), std::string::npos);
  EXPECT_NE(readFile("/tmp").error.find("not a regular file"), std::string::npos);
}

TEST_F(SkeinDamage, OtherVersionsAndByteOrdersAreNamed) {
  std::string other = whole;
  other[offsetof(Skein::FileHeader, version)] = 2;
  EXPECT_NE(findingOf(other).error.find("format version 2"), std::string::npos);
  other = whole;
  std::swap(other[8], other[11]);
  std::swap(other[9], other[10]);
  EXPECT_NE(findingOf(other).error.find("byte order"), std::string::npos);
}

TEST_F(SkeinDamage, ATruncatedFileYieldsWhatIsThere) {
  const std::size_t all = findingOf(whole).records.size();
  ASSERT_EQ(all, 0U + recordCount);
  std::size_t previous = 0;
  for (std::size_t size = 1; size < whole.size(); size += 97) {
    const Finding finding = findingOf(whole.substr(0, size));
    if (size < sizeof(Skein::FileHeader)) {
      EXPECT_NE(finding.error, "") << size;
      continue;
    }
    EXPECT_EQ(finding.error, "") << size;
    EXPECT_NE(finding.problem.find("cut off"), std::string::npos) << size;
    EXPECT_GE(finding.records.size(), previous) << size;
    previous = finding.records.size();
  }
  EXPECT_GT(previous, 0U);
}

TEST_F(SkeinDamage, AnInterruptionOfEarlierIsNotTakenForOneOfTheRead) {
  writeBytes(path, whole.substr(0, 40));
  errno = EINTR;
  EXPECT_NE(readFile(path).error.find("cut off within its header"), std::string::npos);
}

TEST_F(SkeinDamage, AFileThatCannotBeReadIsRefused) {
  const std::string unreadable = "/sys/class/net/lo/speed";  // has a size, and no reading works
  if (!std::filesystem::exists(unreadable)) GTEST_SKIP() << "there is no " << unreadable;
  EXPECT_NE(readFile(unreadable).error, "");
}

TEST_F(SkeinDamage, ARecordThatWasNotCommittedIsNotSeen) {
  // As a kill leaves it: everything written but the commit word.
  const Finding finding = findingOf(withCommit(0));
  EXPECT_EQ(finding.problem, "");
  EXPECT_LT(finding.records.size(), 0U + recordCount);
  EXPECT_GT(finding.records.size(), 0U);
}

TEST_F(SkeinDamage, AWrongLengthEndsItsBlockAndIsReported) {
  for (U32 length : {0U, 8U, 16U, 4096U, 0xffffU * 8}) {
    const Finding finding = findingOf(withCommit(Skein::commitWord(commit >> 32, 1, length)));
    EXPECT_NE(finding.problem.find("damaged in 1 place"), std::string::npos) << length;
    EXPECT_LT(finding.records.size(), 0U + recordCount);
    EXPECT_GT(finding.records.size(), 0U);
  }
}

TEST_F(SkeinDamage, ADamagedBlockIsReportedOnce) {
  writeBytes(path, withCommit(Skein::commitWord(commit >> 32, 1, 8)));
  Skein::Reader reader(path);
  for (int look = 0; look < 3; ++look) {
    recordsOf(reader);
    EXPECT_EQ(reader.problem(),
              path + " is damaged in 1 place, which were skipped; the rest was read")
        << look;
  }
}

TEST_F(SkeinDamage, ADescriptorWithAnUnknownCodeIsReportedOnce) {
  std::string bytes = whole;
  // Codes and text of the only one.
  const std::size_t codes = bytes.find("isa=%s b=%s");
  ASSERT_NE(codes, std::string::npos);
  bytes[codes] = 'x';
  writeBytes(path, bytes);
  Skein::Reader reader(path);
  EXPECT_FALSE(reader.sites()[0]);
  EXPECT_EQ(reader.problem(),
            path + " is damaged in 1 place, which were skipped; the rest was read");
  // And each of its records.
  EXPECT_TRUE(recordsOf(reader).empty());
  EXPECT_EQ(reader.problem(), path + " is damaged in " + std::to_string(1 + recordCount) +
                                  " places, which were skipped; the rest was read");
}

TEST_F(SkeinDamage, ADescriptorMayEndWithTheRoomForThemOrWithTheFile) {
  Skein::FileHeader header;
  std::memcpy(&header, whole.data(), sizeof header);
  U64 entry;
  std::memcpy(&entry, whole.data() + header.indexOffset, sizeof entry);
  ASSERT_EQ(entry >> 32, 0U);  // its offset: it is the first
  const auto isRead = [&](const std::string& bytes) {
    writeBytes(path, bytes);
    const Skein::Reader reader(path);
    return reader.sites()[0] != nullptr;
  };
  for (const U32 missing : {0U, 1U}) {
    const U32 length = static_cast<U32>(entry) - missing;
    std::string bytes = whole;
    std::memcpy(bytes.data() + offsetof(Skein::FileHeader, heapSize), &length, sizeof length);
    EXPECT_EQ(isRead(bytes), missing == 0);
    EXPECT_EQ(isRead(whole.substr(0, header.heapOffset + length)), missing == 0);
  }
}

TEST_F(SkeinDamage, ARecordThatEndsBeforeItsArgumentsIsReported) {
  // Those of the first are 0 and "": behind its header they read as the end of the block.
  const Finding finding =
      findingOf(withCommit(Skein::commitWord(commit >> 32, 1, sizeof(Skein::RecordHeader))));
  EXPECT_EQ(finding.problem,
            path + " is damaged in 1 place, which were skipped; the rest was read");
  EXPECT_LT(finding.records.size(), 0U + recordCount);
  EXPECT_GT(finding.records.size(), 0U);
}

TEST_F(SkeinDamage, BlocksMayEndWithTheFileAndNotBehindIt) {
  Skein::FileHeader header;
  std::memcpy(&header, whole.data(), sizeof header);
  const U64 end = header.blocksOffset + U64{header.blockSize} * header.blockCount;
  const auto findingWith = [&](U64 size) {
    std::string bytes = whole;
    std::memcpy(bytes.data() + offsetof(Skein::FileHeader, fileSize), &size, sizeof size);
    return findingOf(bytes);
  };
  EXPECT_EQ(findingWith(end).error, "");
  EXPECT_EQ(findingWith(end).records.size(), 0U + recordCount);
  EXPECT_NE(findingWith(end - 1).error.find("its header contradicts itself"), std::string::npos);
}

TEST_F(SkeinDamage, TheHeaderMayBeAtItsLimitsAndNotBeyond) {
  using Header = Skein::FileHeader;
  const auto errorWith = [&](auto change) {
    std::string bytes = whole;
    Header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    change(header);
    std::memcpy(bytes.data(), &header, sizeof header);
    return findingOf(bytes).error;
  };
  const std::string contradiction = path + " is damaged: its header contradicts itself";
  constexpr U64 largest = U64{1} << 31;
  EXPECT_EQ(errorWith([](Header& h) { h.fileSize = largest; }), "");
  EXPECT_EQ(errorWith([](Header& h) { h.fileSize = largest + 1; }), contradiction);
  EXPECT_EQ(errorWith([](Header& h) { h.indexOffset = sizeof h; }), "");
  EXPECT_EQ(errorWith([](Header& h) { h.indexOffset = sizeof h - 8; }), contradiction);
  EXPECT_EQ(errorWith([](Header& h) { h.indexOffset = sizeof h + 4; }), contradiction);
  EXPECT_EQ(errorWith([](Header& h) { h.indexSlots = 0; }), "");
  EXPECT_EQ(errorWith([](Header& h) { h.indexSlots += 1; }), contradiction);
  EXPECT_EQ(errorWith([](Header& h) { h.heapSize += 1; }), contradiction);
  EXPECT_EQ(errorWith([](Header& h) { h.blockSize = 64; }), "");
  EXPECT_EQ(errorWith([](Header& h) { h.blockSize = 56; }), contradiction);
  EXPECT_EQ(errorWith([](Header& h) { h.blockCount = 1; }), "");
  EXPECT_EQ(errorWith([](Header& h) { h.blockCount = 0; }), contradiction);
  for (const U32 slots : {65535U, 65536U}) {
    const auto withSlots = [slots](Header& h) {
      h.fileSize = largest;
      h.indexSlots = slots;
      h.heapOffset = h.blocksOffset = h.indexOffset + slots * static_cast<U32>(sizeof(U64));
      h.heapSize = 0;
    };
    EXPECT_EQ(errorWith(withSlots), slots == 65535 ? "" : contradiction);
  }
}

TEST_F(SkeinDamage, ALeftoverOfAnotherLapIsNotARecord) {
  const U64 leftover = Skein::commitWord((commit >> 32) + 1, 1, Skein::committedLength(commit));
  const Finding finding = findingOf(withCommit(leftover));
  EXPECT_NE(finding.problem.find("damaged in 1 place"), std::string::npos);
  EXPECT_LT(finding.records.size(), 0U + recordCount);
}

TEST_F(SkeinDamage, AnUnknownIdIsReported) {
  for (U32 wrong : {0U, 2U, 31U, 1000U, 0xffffU}) {
    const Finding finding = findingOf(
        withCommit(Skein::commitWord(commit >> 32, wrong, Skein::committedLength(commit))));
    EXPECT_NE(finding.problem, "") << wrong;
    EXPECT_EQ(finding.records.size(), recordCount - 1U) << wrong;
  }
}

TEST_F(SkeinDamage, ATimeThatNoSignedNumberHoldsIsReported) {
  Skein::FileHeader header;
  std::memcpy(&header, whole.data(), sizeof header);
  const U64 latest = ~U64{0} / 2 - header.wallNs + header.monotonicNs;
  // The last of them would be a time in the past, behind all others in the order of the records.
  for (const auto& [monotonicNs, good] :
       {std::pair(latest, true), std::pair(latest + 1, false), std::pair(~U64{0} / 2 + 1, false),
        std::pair(~U64{0} - header.wallNs + header.monotonicNs, false),
        std::pair(~U64{0}, false)}) {
    std::string bytes = whole;
    std::memcpy(bytes.data() + commitOffset + offsetof(Skein::RecordHeader, monotonicNs),
                &monotonicNs, sizeof monotonicNs);
    const Finding finding = findingOf(bytes);
    EXPECT_EQ(finding.problem == "", good) << monotonicNs;
    EXPECT_EQ(finding.records.size(), recordCount - (good ? 0U : 1U)) << monotonicNs;
  }
}

TEST_F(SkeinDamage, ATimeBeforeAnyClockIsReported) {
  Skein::FileHeader header;
  std::memcpy(&header, whole.data(), sizeof header);
  Skein::RecordHeader first;
  std::memcpy(&first, whole.data() + commitOffset, sizeof first);
  // The first record lies at, and a nanosecond before, the begin of 1970.
  for (const bool good : {true, false}) {
    header.monotonicNs = first.monotonicNs + header.wallNs + (good ? 0 : 1);
    std::string bytes = whole;
    std::memcpy(bytes.data(), &header, sizeof header);
    const Finding finding = findingOf(bytes);
    EXPECT_EQ(finding.problem == "", good);
    EXPECT_EQ(finding.records.size(), recordCount - (good ? 0U : 1U));
  }
}

TEST_F(SkeinDamage, RecordsOfOneMomentStayInTheirOrder) {
  Skein::FileHeader header;
  std::memcpy(&header, whole.data(), sizeof header);
  std::string bytes = whole;
  support::changeRecords(
      bytes, [&](Skein::RecordHeader& record) { record.monotonicNs = header.monotonicNs; });
  const auto expected = findingOf(whole).records;
  const auto records = findingOf(bytes).records;
  ASSERT_EQ(records.size(), expected.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].monotonicNs, header.monotonicNs);
    EXPECT_EQ(records[i].text, expected[i].text);
  }
}

TEST_F(SkeinDamage, NoByteOfTheFileIsTrusted) {
  std::mt19937 random(7);
  int read = 0;
  int refused = 0;
  for (int round = 0; round < 1500; ++round) {
    std::string bytes = whole;
    const bool early = round % 2 == 0;  // where the header and the descriptors are
    for (unsigned i = 0; i < 1 + random() % 8; ++i) {
      bytes[random() % (early ? 600 : bytes.size())] = static_cast<char>(random());
    }
    const Finding finding = findingOf(bytes);
    finding.error.empty() ? ++read : ++refused;
    EXPECT_EQ(finding.error.find('\n'), std::string::npos);
    EXPECT_LE(finding.records.size(), 600U);
  }
  EXPECT_GT(read, 0);
  EXPECT_GT(refused, 0);
}

TEST_F(SkeinDamage, OfAWriterNothingIsShownBehindAMissingBlock) {
  const std::string ring = folder.file("ring.skein");
  {
    Skein::TraceHandle handle(ring, {.size = 64 * 1024});
    Skein::defaultSkeinHandleIs(&handle);
    for (int i = 0; i < 600; ++i) Twine::trace<Sample::numbered>(i);
    Skein::defaultSkeinHandleIs(nullptr);
  }
  const auto before = textsIn(ring);
  ASSERT_EQ(before.front(), "n=0");
  std::string bytes = bytesOf(ring);
  Skein::FileHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  // The second block of the writer goes; the third begins with this record.
  std::vector<std::size_t> blocks;
  for (U32 i = 0; i < header.blockCount; ++i) {
    Skein::BlockHeader block;
    const std::size_t at = header.blocksOffset + i * std::size_t{header.blockSize};
    std::memcpy(&block, bytes.data() + at, sizeof block);
    if (block.ordinal >= blocks.size() + 1) blocks.resize(block.ordinal);
    if (block.ordinal != 0) blocks[block.ordinal - 1] = at;
  }
  ASSERT_GE(blocks.size(), 4U);
  std::memset(bytes.data() + blocks[1], 0, sizeof(U64));
  const auto left = findingOf(bytes).records;
  ASSERT_FALSE(left.empty());
  EXPECT_EQ(left.back().text, "n=599");
  const int first = std::stoi(left.front().text.substr(2));
  EXPECT_EQ(left.size(), 600U - static_cast<std::size_t>(first));
  EXPECT_GT(first, 600 / static_cast<int>(blocks.size()));
  // Those of the first block are there, and said not to be shown.
  Skein::BlockHeader oldest;
  std::memcpy(&oldest, bytes.data() + blocks[0], sizeof oldest);
  Skein::Reader reader(path);
  for (int again = 0; again < 2; ++again) {
    recordsOf(reader);
    EXPECT_EQ(reader.counters().behindGaps, oldest.records);
  }
  EXPECT_EQ(reader.counters().overwritten, 0U);
  EXPECT_EQ(reader.problem(), "");
}

TEST_F(SkeinDamage, BlocksThatAllSayToBeTheSameOneAreReadOnceEach) {
  const std::string ring = folder.file("ring.skein");
  {
    Skein::TraceHandle handle(ring, {.size = 64 * 1024});
    Skein::defaultSkeinHandleIs(&handle);
    for (int i = 0; i < 3000; ++i) Twine::trace<Sample::numbered>(i);
    Skein::defaultSkeinHandleIs(nullptr);
  }
  const std::size_t before = textsIn(ring).size();
  std::string bytes = bytesOf(ring);
  Skein::FileHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  const U64 ordinal = 7;
  for (U32 i = 0; i < header.blockCount; ++i) {
    const std::size_t block = header.blocksOffset + i * std::size_t{header.blockSize};
    std::memcpy(bytes.data() + block + offsetof(Skein::BlockHeader, ordinal), &ordinal,
                sizeof ordinal);
  }
  writeBytes(ring, bytes);
  Skein::Reader reader(ring);
  const auto records = recordsOf(reader);
  EXPECT_FALSE(records.empty());
  EXPECT_EQ(records.size() + reader.counters().behindGaps, before);
  EXPECT_EQ(reader.problem(), "");
}

// What is left there of an earlier use of the block.
TEST_F(SkeinDamage, WhereNoRecordFitsNothingIsLookedAt) {
  ringIsOn({.size = 16 * 1024});
  for (int i = 0; i < 50; ++i) Twine::trace<Sample::plain>();
  skein.reset();
  std::string bytes = bytesOf(path);
  const Skein::FileHeader header = headerOf(path);
  ASSERT_EQ((header.blockSize - sizeof(Skein::BlockHeader)) % sizeof(Skein::RecordHeader), 8U);
  std::memset(bytes.data() + header.blocksOffset + header.blockSize - 8, 0xff, 8);
  const Finding finding = findingOf(bytes);
  EXPECT_EQ(finding.problem, "");
  EXPECT_EQ(finding.records.size(), 50U);
}
