#pragma once

#include <google/protobuf/message.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// What can be changed of a module while it lives, per class, in one table: which command sets what,
// what holds entries, how an entry is told from others, what the daemon tells again. The rest of an
// argument can only be changed by making the module anew.
namespace Norv::State {

// A command that takes some fields of the class's argument over, or a number that is no part of it.
struct Setting {
  // In the argument, or, of a number of the module itself, its name in a document; a list "a,b".
  std::string_view fields;
  std::string_view command;
  std::string_view commandFields;  // of the command's argument, in the same order
  unsigned traits = 0;

  enum Trait : unsigned {
    ofModule = 1,      // no part of the argument
    whileRunning = 2,  // workers that reach the module need not pause
    zeroKeeps = 4,     // the command cannot set a field back to 0
  };
  bool inArgument() const { return !(traits & ofModule); }
};

// A repeated field of the class's argument that can be changed by its entries. The commands take
// the same message as the creation.
struct ArgumentTable {
  std::string_view field;
  std::string_view remove;  // takes entries out; empty: there is no such command
  std::string_view clear;
  std::string_view whole;  // sets all entries in one request; empty: there is no such command
  // What an entry is removed by, "a,b"; empty: entries are worked through in order.
  std::string_view key = {};

  bool ordered() const { return key.empty(); }
};

// A table that is no part of the argument.
struct EntryTable {
  std::string_view name;  // in a document
  std::string_view add;
  std::string_view addList;  // the repeated field of its argument; empty: one entry a request
  std::string_view remove;   // empty: there is no such command
  std::string_view removeList;
  std::string_view clear;
  std::string_view whole;  // sets the table, and the settings whose names its argument has
  std::string_view key;    // the fields of an entry that tell it from others: "a,b"
  // The repeated field of the module's argument that tells how wide the values of an entry are.
  std::string_view widths = {};
  bool addReplaces = true;  // an entry of the same key; else it has to be removed first
};

struct ClassRow {
  std::string_view name;
  std::uint32_t inputs;  // gates are below these
  std::uint32_t outputs;
  bool tasks;  // work that a worker does
  std::span<const Setting> settings;
  const ArgumentTable* argumentTable = nullptr;
  const EntryTable* entryTable = nullptr;
  // get_runtime_config tells fields of the argument, or settings, under their names.
  bool readsBack = false;
  // Which field of the argument names a port that the module holds.
  std::string_view port = {};
  // Writes out what the daemon takes in the place of what is left out, where it tells that.
  void (*fillDefaults)(google::protobuf::Message& argument) = nullptr;
};

// Null when the class is none of ours.
const ClassRow* classRow(std::string_view name);
std::span<const ClassRow> classRows();

// The parts of "a,b".
std::vector<std::string> words(std::string_view list);
// The words that a text field of an argument takes; none: it takes any.
std::vector<std::string> wordsFor(const google::protobuf::FieldDescriptor& field);
// The argument of a class, or of one of its commands; null when the protocol has none.
const google::protobuf::Descriptor* argumentOf(const ClassRow& row);
const google::protobuf::Descriptor* argumentOf(const ClassRow& row, std::string_view command);
// The message that one entry of the table is.
const google::protobuf::Descriptor* entryOf(const ClassRow& row);

}  // namespace Norv::State
