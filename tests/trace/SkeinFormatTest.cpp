#include <fstream>
#include <regex>
#include <sstream>

#include "TraceFixture.h"

namespace {

// The bytes of the worked example: the lines of its dump, zeros in between.
std::string exampleFrom(const std::string& document) {
  std::string bytes(16384, '\0');
  const std::regex dumpLine("(?:^|\n)([0-9a-f]{8}):((?: [0-9a-f]{2}){16})  ");
  std::size_t lines = 0;
  for (std::sregex_iterator at(document.begin(), document.end(), dumpLine), end; at != end; ++at) {
    std::istringstream values((*at)[2].str());
    std::size_t offset = std::stoul((*at)[1].str(), nullptr, 16);
    for (unsigned value; values >> std::hex >> value;) {
      bytes.at(offset++) = static_cast<char>(value);
    }
    ++lines;
  }
  EXPECT_GT(lines, 10U);
  return bytes;
}

}  // namespace

using SkeinFormat = TraceTest;

TEST_F(SkeinFormat, TheDocumentedExampleReadsAsDocumented) {
  std::ifstream in(FORMAT_DOCUMENT);
  const std::string document{std::istreambuf_iterator<char>(in), {}};
  ASSERT_FALSE(document.empty());
  std::ofstream(path, std::ios::binary) << exampleFrom(document);
  const auto records = recordsIn(path);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_NE(document.find("\n" + records[0].line), std::string::npos) << records[0].line;
  EXPECT_EQ(records[0].text, "Failure: error_code: 14 error_message: unavailable");
}

TEST_F(SkeinFormat, TheFileOfTheExampleIsStillWrittenThatWay) {
  ringIsOn({.size = 16384, .multiThreaded = false});
  Twine::trace<Sample::exampleOfTheDocument>(14, std::string("unavailable"));
  skein.reset();
  std::ifstream document(FORMAT_DOCUMENT);
  std::ifstream written(path, std::ios::binary);
  std::string expected = exampleFrom({std::istreambuf_iterator<char>(document), {}});
  std::string bytes{std::istreambuf_iterator<char>(written), {}};
  ASSERT_EQ(bytes.size(), expected.size());
  Skein::FileHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  // Clocks, process and thread are of the moment.
  const std::size_t record = header.blocksOffset + sizeof(Skein::BlockHeader);
  for (const auto& [from, to] : std::vector<std::pair<std::size_t, std::size_t>>{
           {offsetof(Skein::FileHeader, wallNs), offsetof(Skein::FileHeader, reserved)},
           {record + offsetof(Skein::RecordHeader, thread),
            record + offsetof(Skein::RecordHeader, level)},
           {record + offsetof(Skein::RecordHeader, monotonicNs),
            record + sizeof(Skein::RecordHeader)}}) {
    std::fill(bytes.begin() + static_cast<long>(from), bytes.begin() + static_cast<long>(to), '\0');
    std::fill(expected.begin() + static_cast<long>(from), expected.begin() + static_cast<long>(to),
              '\0');
  }
  EXPECT_TRUE(bytes == expected);
}
