#include <gtest/gtest.h>
#include <support/Environment.h>
#include <support/TemporaryFolder.h>

#include <cctype>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <Lumo/EnumType.h>
#include <Lumo/GenericIf.h>

namespace {

using Lumo::EnumLumoType;
using Lumo::EnumRow;
using Lumo::GenericIfEnum;
using Lumo::GenericValue;
using Lumo::RangeException;
using Lumo::String;
using Colour = Lumo::EnumType<unsigned int>;

constexpr EnumRow rows[] = {{"red", 0}, {"dark_red", 1}, {"green2", 70000}, {"azAZ09", 3}};
constinit const EnumLumoType colours("sample::Colour", rows);

TEST(EnumType, FindsAValueByName) {
  EXPECT_EQ(Colour::instance(colours, String("red")), 0u);
  EXPECT_EQ(Colour::instance(colours, String("green2")), 70000u);
  EXPECT_THROW(Colour::instance(colours, String("Red")), RangeException);
  EXPECT_THROW(Colour::instance(colours, String("")), RangeException);
}

TEST(EnumType, FindsAValueByNumber) {
  EXPECT_EQ(Colour::instance(colours, 70000u), 70000u);
  EXPECT_THROW(Colour::instance(colours, 2u), RangeException);
}

TEST(EnumType, SaysWhatItDoesNotKnow) {
  try {
    Colour::instance(colours, String("blue"));
    FAIL() << "found";
  } catch (const RangeException& exception) {
    EXPECT_STREQ(exception.what(), "\"blue\" is not a value of sample::Colour");
  }
}

TEST(EnumType, GivesTheNameOfAValue) {
  EXPECT_EQ(Colour::stringValue(colours, 1), "dark_red");
  EXPECT_EQ(Colour::valueToStrep(colours, 70000), "green2");
}

TEST(EnumType, GivesTheNumberOfAnUnknownValue) {
  EXPECT_EQ(Colour::stringValue(colours, 99), "99");
  EXPECT_EQ(Colour::valueToStrep(colours, 4294967295u), "4294967295");
  std::ostringstream out;
  Colour::operatorLessLess(colours, out, 0) << ',';
  Colour::operatorLessLess(colours, out, 7);
  EXPECT_EQ(out.str(), "red,7");
}

TEST(EnumType, ReadsNamesFromAText) {
  const String text("dark_red,green2 red");
  auto at = text.iteratorConst();
  unsigned value = 99;
  Colour::sequenceToValue(colours, at, text.endConst(), &value);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(*at, ',');
  ++at;
  Colour::sequenceToValue(colours, at, text.endConst(), &value);
  EXPECT_EQ(value, 70000u);
  ++at;
  Colour::sequenceToValue(colours, at, text.endConst(), &value);
  EXPECT_EQ(value, 0u);
  EXPECT_TRUE(at == text.endConst());
}

TEST(EnumType, ReadsNamesOfAnyLettersAndDigits) {
  const String text("azAZ09-");
  auto at = text.iteratorConst();
  unsigned value = 99;
  Colour::sequenceToValue(colours, at, text.endConst(), &value);
  EXPECT_EQ(value, 3u);
  EXPECT_EQ(*at, '-');
}

// A locale of one byte per character, in which there are letters beyond ASCII.
bool makeLocale(const support::TemporaryFolder& folder) {
  std::ofstream charmap(folder.file("charmap"));
  charmap << "<code_set_name> ONE-BYTE\n<escape_char> /\n<mb_cur_min> 1\n<mb_cur_max> 1\nCHARMAP\n";
  for (int code = 0; code < 256; ++code) {
    char line[32];
    std::snprintf(line, sizeof line, "<U%04X> /x%02x\n", code, code);
    charmap << line;
  }
  charmap << "END CHARMAP\n";
  charmap.close();
  std::ofstream(folder.file("source")) << "LC_CTYPE\n"
                                          "upper <U0041>..<U005A>\n"
                                          "lower <U0061>..<U007A>;<U00E4>\n"
                                          "END LC_CTYPE\n";
  const std::string command = "localedef --no-archive -c -f " + folder.file("charmap") + " -i " +
                              folder.file("source") + " " + folder.file("sample") +
                              " >/dev/null 2>&1";
  [[maybe_unused]] const int status =
      std::system(command.c_str());  // 1: no other category is there
  return std::filesystem::exists(folder.file("sample/LC_CTYPE"));
}

TEST(EnumType, ReadsNamesInAsciiWhateverTheLocaleCallsALetter) {
  const support::TemporaryFolder folder;
  if (!makeLocale(folder)) GTEST_SKIP() << "localedef makes no locale here";
  const support::Environment where("LOCPATH", folder.file(""));
  const std::string before = std::setlocale(LC_CTYPE, nullptr);
  ASSERT_NE(std::setlocale(LC_CTYPE, "sample"), nullptr);
  const bool isLetter = std::isalnum(0xe4) != 0;
  const String text("red\xe4");
  auto at = text.iteratorConst();
  unsigned value = 99;
  EXPECT_NO_THROW(Colour::sequenceToValue(colours, at, text.endConst(), &value));
  std::setlocale(LC_CTYPE, before.c_str());
  ASSERT_TRUE(isLetter);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(*at, '\xe4');
}

TEST(EnumType, StaysWhereItWasOnATextItCannotRead) {
  for (const char* bad : {"redder", "", ",red", "70000"}) {
    const String text(bad);
    auto at = text.iteratorConst();
    unsigned value = 99;
    EXPECT_THROW(Colour::sequenceToValue(colours, at, text.endConst(), &value), RangeException);
    EXPECT_EQ(value, 99u);
    EXPECT_TRUE(at == text.iteratorConst());
  }
}

TEST(GenericIfEnum, MakesValuesOfTextsAndOfNumbersInMemory) {
  const GenericValue text = GenericIfEnum<unsigned int>::FromStrRep(colours, "dark_red");
  EXPECT_EQ(text.number(), 1u);
  EXPECT_STREQ(text.typeName(), "sample::Colour");
  EXPECT_EQ(text.strep(), "dark_red");
  EXPECT_THROW(GenericIfEnum<unsigned int>::FromStrRep(colours, "pink"), RangeException);
  const unsigned int number = 70000;
  EXPECT_EQ(GenericIfEnum<unsigned int>::FromVoidPointer(colours, &number).strep(), "green2");
}

}  // namespace
