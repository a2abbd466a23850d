#include <array>
#include <functional>
#include <sstream>

#include "TraceFixture.h"

using TracePointTest = TraceTest;

namespace {

// A text that is made when a sink asks for it.
struct Text {
  std::function<std::string_view()> make;
  operator std::string_view() const { return make(); }
};
struct Object {};

}  // namespace

template <>
inline constexpr bool Skein::isText<Text> = true;

namespace {

// Counts how often it is formatted.
Text counted(int& formatted) {
  return {[&formatted] {
    ++formatted;
    return "counted";
  }};
}

Text throwing() {
  return {[]() -> std::string_view { throw std::runtime_error("no text for you"); }};
}

}  // namespace

TEST_F(TracePointTest, HasNoEffectWithEverythingOff) {
  int formatted = 0;
  Twine::trace<Sample::textSending>(counted(formatted));
  Twine::trace<Sample::placed>(14, counted(formatted));
  Twine::trace<Sample::appended>(counted(formatted));
  EXPECT_EQ(formatted, 0);
  EXPECT_TRUE(recorder.lines().empty());
  EXPECT_EQ(Skein::defaultSkeinFile(), nullptr);
}

TEST_F(TracePointTest, WritesItsTextWithArgumentsInTheirPlaces) {
  textIsOn();
  Twine::trace<Sample::placed>(14, std::string("50%s off %s"));
  Twine::trace<Sample::bracketed>(Lumo::String("127.0.0.1:10514"));
  Twine::trace<Sample::appended>(Lumo::Name("q1"));
  Twine::trace<Sample::afterBlank>(Lumo::Name("q1"));
  Twine::trace<Sample::appendedTwo>(1, 2);
  Twine::trace<Sample::plain>();
  Twine::trace<Sample::textSending>("getVersion");
  EXPECT_EQ(recorder.texts(), (std::vector<std::string>{
                                  "Failure: error_code: 14 error_message: 50%s off %s",
                                  "To (127.0.0.1:10514)", "void handle(Name) q1", "Creating for q1",
                                  "handle 1 2", "Entry", "Sending getVersion"}));
}

TEST_F(TracePointTest, BothSinksSayTheSame) {
  textIsOn();
  ringIsOn();
  Object object;
  Twine::trace<Sample::placed>(-3, std::string("50%s off"));
  Twine::trace<Sample::bracketed>(Lumo::String(""));
  Twine::trace<Sample::appended>(Lumo::Name("q1"));
  Twine::trace<Sample::afterBlank>(Lumo::Name(""));
  Twine::trace<Sample::four>(true, false, Skein::QNull(), static_cast<Object*>(nullptr));
  Twine::trace<Sample::four>(&object, 7U, ~0ULL, -9LL);
  Twine::trace<Sample::four>('c', "literal", static_cast<const char*>(nullptr), nullptr);
  Twine::trace<Sample::plain>();
  Twine::trace<Sample::numbered>(std::string("two\nlines"));
  const auto lines = recorder.lines();
  const auto records = recordsIn(path);
  ASSERT_EQ(records.size(), lines.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(records[i].text, lines[i].text);
    EXPECT_EQ(records[i].thread, lines[i].thread);
    // The whole line too; only the moment differs by what passes between the two sinks.
    const Lumo::TraceLine line{"Sample",
                               lines[i].level,
                               lines[i].file.c_str(),
                               lines[i].line,
                               lines[i].function.c_str(),
                               lines[i].text,
                               0,
                               lines[i].thread};
    std::string expected;
    Lumo::appendTraceLine(expected, line);
    EXPECT_EQ(records[i].line.substr(26), expected.substr(26));
  }
  EXPECT_EQ(lines[4].text, "true,false,(null),0x0");
  std::ostringstream address;
  address << static_cast<void*>(&object);
  EXPECT_EQ(lines[5].text, address.str() + ",7,18446744073709551615,-9");
  EXPECT_EQ(lines[6].text, "c,literal,(null),0x0");
}

TEST_F(TracePointTest, TheRingIsWrittenWhileTheTextIsOff) {
  ringIsOn();
  Twine::trace<Sample::plain>();
  EXPECT_TRUE(recorder.lines().empty());
  EXPECT_EQ(textsIn(path), std::vector<std::string>{"Entry"});
}

TEST_F(TracePointTest, TheRingIsWrittenBeforeTheText) {
  textIsOn();
  ringIsOn();
  struct : Lumo::TraceSink {
    void lineIs(const Lumo::TraceLine&) override { recordsThen = textsIn(path).size(); }
    std::string path;
    std::size_t recordsThen = 0;
  } sink;
  sink.path = path;
  Lumo::traceSinkIs(&sink);
  Twine::trace<Sample::plain>();
  Lumo::traceSinkIs(&recorder);
  EXPECT_EQ(sink.recordsThen, 1U);
}

TEST_F(TracePointTest, ATextOnlyPointLeavesNoRecord) {
  textIsOn();
  ringIsOn();
  Twine::trace<Sample::textOnly>();
  Twine::trace<Sample::textSending>(1);
  EXPECT_EQ(recorder.lines().size(), 2U);
  EXPECT_TRUE(textsIn(path).empty());
}

TEST_F(TracePointTest, FormatsItsArgumentsOncePerSink) {
  int formatted = 0;
  ringIsOn();
  Twine::trace<Sample::placed>(14, counted(formatted));
  EXPECT_EQ(formatted, 1);
  textIsOn();
  Twine::trace<Sample::placed>(14, counted(formatted));
  EXPECT_EQ(formatted, 3);
  skein.reset();
  Twine::trace<Sample::placed>(14, counted(formatted));
  EXPECT_EQ(formatted, 4);
}

TEST_F(TracePointTest, AnArgumentThatThrowsCostsItsSinkTheLine) {
  ringIsOn();
  textIsOn();
  // More often than the thread has streams to lend: helper and converter give theirs back.
  for (int i = 0; i < 20; ++i) EXPECT_NO_THROW(Twine::trace<Sample::placed>(14, throwing()));
  Twine::trace<Sample::placed>(15, std::string("whole"));
  const std::vector<std::string> whole{"Failure: error_code: 15 error_message: whole"};
  EXPECT_EQ(recorder.texts(), whole);
  EXPECT_EQ(textsIn(path), whole);
}

TEST_F(TracePointTest, ACoverageStreamRunsTheTextBranchWithoutALine) {
  std::ostringstream coverage;
  Lumo::coverageStream_ = &coverage;
  int formatted = 0;
  Twine::trace<Sample::placed>(14, counted(formatted));
  EXPECT_EQ(formatted, 1) << "the converter runs";
  Twine::trace<Sample::textSending>(counted(formatted));
  EXPECT_EQ(formatted, 1) << "a point with the text sink only has none";
  EXPECT_TRUE(recorder.lines().empty());
  EXPECT_EQ(coverage.str(), "");
  textIsOn();
  Twine::trace<Sample::placed>(14, std::string("text"));
  EXPECT_EQ(recorder.lines().size(), 1U);
  EXPECT_EQ(coverage.str(), "");
}

TEST_F(TracePointTest, TheLevelMapStartsAsIdentity) {
  ringIsOn();
  Twine::trace<Sample::placed>(0, std::string());
  Twine::trace<Sample::numbered>(1);
  Twine::trace<Sample::plain>();
  Twine::trace<Sample::four>(1, 2, 3, 4);
  const auto records = recordsIn(path);
  ASSERT_EQ(records.size(), 4U);
  EXPECT_EQ(records[0].level, 0U);
  EXPECT_EQ(records[1].level, 3U);
  EXPECT_EQ(records[2].level, 5U);
  EXPECT_EQ(records[3].level, 9U);
}

TEST_F(TracePointTest, TheLevelMapMovesRecordsAndNotTheText) {
  ringIsOn();
  EXPECT_TRUE(Twine::levelMapIs(Sample::levelMap, {0, 9, 9, 9, 9, 9, 9, 9, 9, 9}));
  Lumo::traceSettingIs("Sample/5");
  Twine::trace<Sample::plain>();
  Twine::trace<Sample::other>(1);
  const auto records = recordsIn(path);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].level, 9U);
  EXPECT_EQ(records[1].level, 5U) << "another module has its own map";
  ASSERT_EQ(recorder.lines().size(), 1U);
  EXPECT_EQ(recorder.lines()[0].level, 5U);
  Lumo::traceSettingIs("Sample/9");
  Twine::trace<Sample::plain>();
  EXPECT_EQ(recorder.lines().size(), 1U) << "the text half tests the point's own level";
}

TEST_F(TracePointTest, ALevelMapIsTenLevelsLong) {
  struct {
    std::array<U8, 10> levels{9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
    U8 behind = 66;
  } given;
  U8 map[11] = {};
  map[10] = 77;
  Twine::levelMapIs(map, given.levels);
  for (std::size_t i = 0; i < given.levels.size(); ++i) EXPECT_EQ(map[i], given.levels[i]);
  EXPECT_EQ(map[10], 77);
}

TEST_F(TracePointTest, AConverterGivesItsStreamBack) {
  const auto lent = [] {
    Twine::SkeinConverter converter;
    return &converter.fixed();
  };
  std::ostream* const first = lent();
  EXPECT_EQ(lent(), first);
}

TEST_F(TracePointTest, ConverterTakesEveryArgumentType) {
  Twine::SkeinConverter converter;
  converter.fixed() << "x=" << 5 << ' ';
  converter << Lumo::Name("n") << Lumo::String("s") << std::string("t") << true << -1
            << static_cast<Object*>(nullptr) << Skein::QNull();
  EXPECT_EQ(converter.traceString(), Lumo::String("x=5 nsttrue-10x0(null)"));
}
