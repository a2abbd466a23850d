// Replays the fuzz target's corpus, and damaged variants of the whole files in it. The target
// ends the process where it finds a fault.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size);

namespace {

int feed(const std::string& input) {
  return LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(input.data()), input.size());
}

// The inputs; with an odd first byte a whole file behind it, otherwise changes to a sound one.
std::vector<std::string> corpus() {
  std::vector<std::string> inputs;
  for (const auto& entry : std::filesystem::directory_iterator(SKEIN_CORPUS)) {
    std::ifstream in(entry.path(), std::ios::binary);
    inputs.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return inputs;
}

std::vector<std::string> wholeFiles() {
  std::vector<std::string> files;
  for (const std::string& input : corpus()) {
    if (!input.empty() && input[0] % 2 == 1) files.push_back(input);
  }
  return files;
}

}  // namespace

TEST(SkeinCorpus, IsReadOrRefused) {
  const auto inputs = corpus();
  ASSERT_GE(inputs.size(), 5U);
  for (const std::string& input : inputs) EXPECT_EQ(feed(input), 0);
}

TEST(SkeinCorpus, IsReadOrRefusedCutOffAnywhere) {
  const auto files = wholeFiles();
  ASSERT_FALSE(files.empty());
  for (const std::string& file : files) {
    for (std::size_t size = 0; size < file.size(); size += 61) {
      EXPECT_EQ(feed(file.substr(0, size)), 0);
    }
  }
}

TEST(SkeinCorpus, IsReadOrRefusedWithBytesChanged) {
  std::mt19937 random(11);
  for (const std::string& file : wholeFiles()) {
    for (int round = 0; round < 300; ++round) {
      std::string damaged = file;
      // Every other round where the header and the descriptors are.
      const std::size_t reach = round % 2 == 0 ? 1500 : damaged.size() - 1;
      for (unsigned i = 0; i < 1 + random() % 6; ++i) {
        damaged[1 + random() % reach] = static_cast<char>(random());
      }
      EXPECT_EQ(feed(damaged), 0);
    }
  }
}
