// Bytes and names as they stand in texts.

#include <gtest/gtest.h>

#include <Bess/Text.h>

namespace {

TEST(Text, Base64IsPadded) {
  EXPECT_EQ(Bess::base64(""), "");
  EXPECT_EQ(Bess::base64("f"), "Zg==");
  EXPECT_EQ(Bess::base64("fo"), "Zm8=");
  EXPECT_EQ(Bess::base64("foo"), "Zm9v");
  EXPECT_EQ(Bess::base64("\xff\xfe\xfd\xfc"), "//79/A==");
}

TEST(Text, Base64ComesBackWithAndWithoutPaddingAndInBothAlphabets) {
  for (const char* text : {"//79/A==", "//79/A=", "//79/A", "__79_A"}) {
    EXPECT_EQ(Bess::fromBase64(text), "\xff\xfe\xfd\xfc") << text;
  }
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  for (std::size_t length = 0; length <= all.size(); ++length) {
    const std::string bytes = all.substr(0, length);
    EXPECT_EQ(Bess::fromBase64(Bess::base64(bytes)), bytes);
  }
}

TEST(Text, WhatIsNoBase64IsNone) {
  for (const char* text : {"A", "AAAAA", "AA===", "A=A=", "AA A", "AA.A", "?"}) {
    EXPECT_FALSE(Bess::fromBase64(text)) << text;
  }
}

TEST(Text, UnlikenessCountsLettersCaseApart) {
  EXPECT_EQ(Bess::unlikeness("Sink", "sink"), 0u);
  EXPECT_EQ(Bess::unlikeness("Sinc", "Sink"), 1u);
  EXPECT_EQ(Bess::unlikeness("", "abc"), 3u);
  EXPECT_EQ(Bess::unlikeness("kitten", "sitting"), 3u);
  EXPECT_EQ(Bess::unlikeness(std::string(100000, 'a'), std::string(100000, 'b')), 100u);
}

}  // namespace
