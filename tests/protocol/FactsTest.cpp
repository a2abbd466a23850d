// The facts beside the messages: they name messages that there are, and agree with the tables of
// the protocol where these lie beside the checkout.

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

#include <Bess/Facts.h>

namespace {

using Bess::Taker;

void expectMessage(const Taker& taker) {
  EXPECT_TRUE(taker.argument.empty() || Bess::message(taker.argument))
      << taker.name << " takes " << taker.argument;
}

TEST(Facts, ArgumentsAreMessages) {
  for (const Bess::ModuleClass& one : Bess::moduleClasses()) {
    expectMessage(one);
    for (const Taker& command : one.commands) expectMessage(command);
  }
  for (const Taker& driver : Bess::portDrivers()) expectMessage(driver);
  for (const Taker& hook : Bess::gateHooks()) expectMessage(hook);
}

TEST(Facts, NamesAreFoundOnce) {
  std::set<std::string_view> names;
  for (const Bess::ModuleClass& one : Bess::moduleClasses()) {
    EXPECT_TRUE(names.insert(one.name).second) << one.name;
    EXPECT_EQ(Bess::moduleClass(one.name), &one);
  }
  EXPECT_EQ(names.size(), 62u);
  EXPECT_EQ(Bess::moduleClass("None"), nullptr);
  EXPECT_EQ(Bess::portDriver("PMDPort")->argument, "PMDPortArg");
  EXPECT_EQ(Bess::gateHook("Track")->argument, "TrackArg");
  EXPECT_EQ(Bess::command(*Bess::moduleClass("Queue"), "set_size")->argument,
            "QueueCommandSetSizeArg");
}

TEST(Facts, MessagesAreFoundByEitherName) {
  EXPECT_EQ(Bess::message("QueueArg"), Bess::message("bess.pb.QueueArg"));
  EXPECT_EQ(Bess::message("NoSuchArg"), nullptr);
  const auto* inner = Bess::message("ACLArg.Rule");
  ASSERT_TRUE(inner);
  EXPECT_EQ(Bess::shortName(*inner), "ACLArg.Rule");
}

TEST(Facts, CommentsAreThoseOfTheFiles) {
  const auto* message = Bess::message("CreateModuleRequest");
  EXPECT_EQ(Bess::comment(*message), "Makes a module.");
  EXPECT_EQ(Bess::comment(*message->FindFieldByName("arg")), "The argument message of the class.");
  EXPECT_EQ(Bess::comment(*message->FindFieldByName("mclass")), "");
  EXPECT_EQ(Bess::rpcComment("KillBess"), "Answers, then ends the daemon.");
}

TEST(Facts, ClassesAreThoseOfADaemonOfToday) {
  std::ifstream file(std::string(NORV_PROTOCOL_TABLES) + "/classes.tsv");
  if (!file) GTEST_SKIP() << "there are no tables at " << NORV_PROTOCOL_TABLES;
  std::string line;
  std::getline(file, line);  // the titles
  std::size_t known = 0;
  for (; std::getline(file, line); ++known) {
    std::istringstream words(line);
    std::string name;
    words >> name;
    const Bess::ModuleClass* found = Bess::moduleClass(name);
    ASSERT_TRUE(found) << name;
    std::size_t commands = 0;
    for (std::string word; words >> word && word != "-"; ++commands) {
      const std::size_t bracket = word.find('(');
      const Taker* command = Bess::command(*found, word.substr(0, bracket));
      ASSERT_TRUE(command) << name << " " << word;
      const std::string argument = word.substr(bracket + 1, word.size() - bracket - 2);
      EXPECT_EQ(command->argument, Bess::message(argument) ? argument : "") << name << " " << word;
    }
    EXPECT_EQ(found->commands.size(), commands) << name;
  }
  EXPECT_EQ(known, Bess::moduleClasses().size());
}

}  // namespace
