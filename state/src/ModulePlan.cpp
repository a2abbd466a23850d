#include <google/protobuf/io/coded_stream.h>

#include <algorithm>
#include <functional>

#include "Node.h"
#include "PlanBuilder.h"

// How one module is changed.

namespace Norv::State {

namespace {

using google::protobuf::FieldDescriptor;

// Of a list in a request, with the names around it.
constexpr std::size_t mostListBytes = mostRequestBytes - (64 << 10);
// With so many entries to change, and half of all, the table is set as a whole.
constexpr std::size_t manyEntries = 32;

// The message with that field alone, in bytes that compare.
std::string fieldBytes(const Message& message, const FieldDescriptor& field) {
  return serialized(*only({field.name()}, message));
}

std::string shown(const Message& message, const FieldDescriptor& field) {
  const Node node = nodeOf(message);
  const Node* value = node.find(field.name());
  if (value == nullptr) return "none";
  std::string text = writeYaml(*value);
  text.pop_back();
  constexpr std::size_t most = 60;
  if (text.size() > most) text = text.substr(0, most - 3) + "...";
  return text;
}

// The command's argument with what the setting takes from the class's argument.
std::unique_ptr<Message> settingArgument(const ClassRow& row, const Setting& setting,
                                         const Message& argument) {
  const Node values = nodeOf(argument);
  const auto from = words(setting.fields);
  const auto to = words(setting.commandFields);
  Node node = Node::map();
  for (std::size_t i = 0; i < from.size(); ++i) {
    const Node* value = values.find(from[i]);
    if (value == nullptr) continue;
    node.at(to[i]) = *value;
  }
  auto message = newMessage(*argumentOf(row, setting.command));
  std::vector<Problem> problems;
  readMessage(node, *message, problems);
  return message;
}

ModuleCommand numberCommand(const ClassRow& row, const Setting& setting, std::uint64_t value) {
  Node node = Node::map();
  node.at(std::string(setting.commandFields)) = Node::plain(std::to_string(value));
  auto message = newMessage(*argumentOf(row, setting.command));
  std::vector<Problem> problems;
  readMessage(node, *message, problems);
  return {std::string(setting.command), std::move(message),
          (setting.traits & Setting::whileRunning) != 0};
}

ModuleCommand clearCommand(std::string_view command) {
  ModuleCommand clear{std::string(command), std::make_unique<bess::pb::EmptyArg>(), false};
  clear.edit.clears = true;
  return clear;
}

// Entries of a repeated field, serialized each as the message with that entry alone.
std::vector<std::string> entriesOf(const Message& argument, const FieldDescriptor& field) {
  std::vector<std::string> entries;
  const int size = argument.GetReflection()->FieldSize(argument, &field);
  for (int i = 0; i < size; ++i) {
    const std::unique_ptr<Message> alone(argument.New());
    if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
      alone->GetReflection()
          ->AddMessage(alone.get(), &field)
          ->CopyFrom(argument.GetReflection()->GetRepeatedMessage(argument, &field, i));
    } else {
      alone->GetReflection()->AddString(
          alone.get(), &field, argument.GetReflection()->GetRepeatedString(argument, &field, i));
    }
    entries.push_back(serialized(*alone));
  }
  return entries;
}

// What a message of that size takes in a list.
std::size_t listed(std::size_t bytes) {
  return 1 + google::protobuf::io::CodedOutputStream::VarintSize64(bytes) + bytes;
}

// What an entry is removed by.
std::string removalKey(const ArgumentTable& table, const Message& prototype,
                       const FieldDescriptor& field, const std::string& entry) {
  const std::unique_ptr<Message> message(prototype.New());
  message->ParseFromString(entry);
  return serialized(
      *only(words(table.key), message->GetReflection()->GetRepeatedMessage(*message, &field, 0)));
}

// Enters the key of the entry of that number.
using EnterKey = std::function<void(TableEdit& edit, std::size_t number)>;

// Each is the command's argument with one entry in its list; in as few requests as can be.
void sendEntries(const ClassRow& row, std::string_view command,
                 const std::vector<std::string>& entries, std::vector<ModuleCommand>& commands,
                 const EnterKey& enterKey = {}) {
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (i == 0 || bytes + entries[i].size() > mostListBytes) {
      commands.push_back({std::string(command), newMessage(*argumentOf(row, command)), false});
      commands.back().parts = 0;
      bytes = 0;
    }
    commands.back().argument->MergeFromString(entries[i]);
    ++commands.back().parts;
    if (enterKey) enterKey(commands.back().edit, i);
    bytes += entries[i].size();
  }
}

// What a module is created with, with as many entries of its table as fit into that request; the
// others by commands.
NewModule creation(const ClassRow* row, const Module& module) {
  NewModule made;
  made.argument = *module.arg;
  const bool fits = module.arg->value().size() <= mostListBytes;
  if (fits || row == nullptr || row->argumentTable == nullptr) return made;
  const auto message = unpacked(*module.arg);
  const FieldDescriptor& table =
      *message->GetDescriptor()->FindFieldByName(std::string(row->argumentTable->field));
  const auto entries = entriesOf(*message, table);
  message->GetReflection()->ClearField(message.get(), &table);
  std::size_t bytes = message->ByteSizeLong();
  auto entry = entries.begin();
  for (; entry != entries.end() && bytes + entry->size() <= mostListBytes; ++entry) {
    message->MergeFromString(*entry);
    bytes += entry->size();
  }
  made.argument.PackFrom(*message);
  sendEntries(*row, "add", {entry, entries.end()}, made.commands);
  return made;
}

class ArgumentDifference {
 public:
  ArgumentDifference(const ClassRow& row, const Message& live, const Message& wanted,
                     ModuleDifference& result)
      : row_(row), live_(live), wanted_(wanted), result_(result) {}

  void find() {
    std::set<const Setting*> used;
    for (int i = 0; i < live_.GetDescriptor()->field_count(); ++i) {
      const FieldDescriptor& field = *live_.GetDescriptor()->field(i);
      if (fieldBytes(live_, field) == fieldBytes(wanted_, field)) continue;
      if (row_.argumentTable != nullptr && row_.argumentTable->field == field.name()) {
        changeTable(*row_.argumentTable, field);
        continue;
      }
      result_.details.push_back("arg." + field.name() + ": " + shown(live_, field) + " -> " +
                                shown(wanted_, field));
      const Setting* setting = settingOf(field);
      if (setting == nullptr || !canSet(*setting, field)) {
        if (result_.recreate.empty()) {
          result_.recreate = "no command of class " + std::string(row_.name) +
                             (setting == nullptr ? " changes " : " can clear ") + field.name();
        }
      } else if (used.insert(setting).second) {
        result_.commands.push_back({std::string(setting->command),
                                    settingArgument(row_, *setting, wanted_),
                                    (setting->traits & Setting::whileRunning) != 0});
      }
    }
  }

 private:
  const Setting* settingOf(const FieldDescriptor& field) const {
    for (const Setting& setting : row_.settings) {
      const auto fields = words(setting.fields);
      if (setting.inArgument() &&
          std::find(fields.begin(), fields.end(), field.name()) != fields.end()) {
        return &setting;
      }
    }
    return nullptr;
  }

  bool canSet(const Setting& setting, const FieldDescriptor& field) const {
    return !(setting.traits & Setting::zeroKeeps) || !fieldBytes(wanted_, field).empty();
  }

  void changeTable(const ArgumentTable& table, const FieldDescriptor& field) {
    const auto before = entriesOf(live_, field);
    const auto after = entriesOf(wanted_, field);
    std::vector<std::string> removed, added;
    const auto missingIn = [](std::vector<std::string> from, std::vector<std::string> in) {
      std::sort(from.begin(), from.end());
      std::sort(in.begin(), in.end());
      std::vector<std::string> missing;
      std::set_difference(from.begin(), from.end(), in.begin(), in.end(),
                          std::back_inserter(missing));
      return missing;
    };
    removed = missingIn(before, after);
    added = missingIn(after, before);
    const std::string name = "arg." + field.name();
    if (table.ordered()) {
      if (before.size() < after.size() && std::equal(before.begin(), before.end(), after.begin())) {
        result_.details.push_back(name + ": " + std::to_string(after.size() - before.size()) +
                                  " added at the end");
        return add({after.begin() + static_cast<std::ptrdiff_t>(before.size()), after.end()});
      }
      result_.details.push_back(name + ": all " + std::to_string(after.size()) + " set again");
      result_.commands.push_back(clearCommand(table.clear));
      return add(after);
    }
    if (removed.empty() && added.empty()) return;  // in another order, which does not matter
    result_.details.push_back(name + ": " + std::to_string(added.size()) + " added, " +
                              std::to_string(removed.size()) + " removed");
    if (!removed.empty() && !table.remove.empty() && distinct(table, field, before) &&
        distinct(table, field, after)) {
      send(table.remove, removed);
      return add(added);
    }
    if (removed.empty()) return add(added);
    if (!table.whole.empty()) {
      auto message = newMessage(*argumentOf(row_, table.whole));
      for (const std::string& entry : after) message->MergeFromString(entry);
      if (message->ByteSizeLong() < mostListBytes) {
        result_.commands.push_back({std::string(table.whole), std::move(message), false});
        result_.commands.back().parts = after.size();
        return;
      }
    }
    result_.commands.push_back(clearCommand(table.clear));
    add(after);
  }

  // Whether no two entries are removed by the same.
  bool distinct(const ArgumentTable& table, const FieldDescriptor& field,
                const std::vector<std::string>& entries) const {
    std::set<std::string> keys;
    return std::all_of(entries.begin(), entries.end(), [&](const std::string& entry) {
      return keys.insert(removalKey(table, live_, field, entry)).second;
    });
  }

  void add(const std::vector<std::string>& entries) { send("add", entries); }
  void send(std::string_view command, const std::vector<std::string>& entries) {
    sendEntries(row_, command, entries, result_.commands);
  }

  const ClassRow& row_;
  const Message& live_;
  const Message& wanted_;
  ModuleDifference& result_;
};

// The commands that bring a table of entries from one state to another.
class TableDifference {
 public:
  TableDifference(const ClassRow& row, const Module& wanted, std::vector<ModuleCommand>& commands)
      : row_(row), table_(*row.entryTable), wanted_(wanted), commands_(commands) {}

  // False when no command can do it.
  bool change(const Entries& live) {
    Rows removed, replaced, added;
    for (const auto& one : live) {
      const auto now = wanted_.table->find(one.first);
      if (now == wanted_.table->end()) {
        removed.push_back(&one);
      } else if (now->second != one.second) {
        replaced.push_back(&one);
      }
    }
    for (const auto& one : *wanted_.table) {
      const auto before = live.find(one.first);
      if (before == live.end() || before->second != one.second) added.push_back(&one);
    }
    summary = std::to_string(added.size() - replaced.size()) + " added, " +
              std::to_string(removed.size()) + " removed, " + std::to_string(replaced.size()) +
              " changed";
    changed = !removed.empty() || !added.empty();
    const std::size_t touched = removed.size() + added.size();
    const bool much = touched > manyEntries && touched * 2 > wanted_.table->size();
    if (much && setWhole()) return true;
    if (!table_.addReplaces) removed.insert(removed.end(), replaced.begin(), replaced.end());
    if (!removed.empty() && table_.remove.empty()) {
      if (table_.clear.empty()) return false;
      return setAgain();
    }
    remove(removed);
    add(added);
    return true;
  }

  // From an unknown state; false when no command can do it.
  bool setAgain() {
    if (setWhole()) return true;
    if (table_.clear.empty()) return false;
    commands_.push_back(clearCommand(table_.clear));
    return fill();
  }

  // Into an empty table.
  bool fill() {
    if (wanted_.table->size() > 1 && setWhole()) return true;
    Rows all;
    for (const auto& one : *wanted_.table) all.push_back(&one);
    add(all);
    return true;
  }

  std::string summary;
  bool changed = false;
  bool wholeSet = false;  // and with it what the request holds beside the entries

 private:
  using Rows = std::vector<const Entries::value_type*>;

  // All entries in one request, and what does not fit into it one by one.
  bool setWhole() {
    if (table_.whole.empty()) return false;
    auto message = newMessage(*argumentOf(row_, table_.whole));
    const FieldDescriptor* list =
        message->GetDescriptor()->FindFieldByName(std::string(table_.name));
    std::size_t bytes = 0;
    Rows rest;
    TableEdit edit;
    edit.clears = true;
    for (const auto& one : *wanted_.table) {
      bytes += listed(one.second.size());
      if (bytes > mostListBytes) {
        rest.push_back(&one);
      } else {
        message->GetReflection()->AddMessage(message.get(), list)->ParseFromString(one.second);
        edit.added.push_back(one.first);
      }
    }
    const auto gate = wanted_.settings.find("default_gate");
    if (const auto* field = message->GetDescriptor()->FindFieldByName("default_gate")) {
      message->GetReflection()->SetUInt64(message.get(), field,
                                          gate == wanted_.settings.end() ? dropGate : gate->second);
    }
    const std::size_t parts = 1 + edit.added.size();
    commands_.push_back(
        {std::string(table_.whole), std::move(message), false, std::move(edit), parts});
    add(rest);
    wholeSet = true;
    return true;
  }

  void add(const Rows& rows) {
    if (!table_.addList.empty()) return addListed(rows);
    for (const auto* row : rows) {
      auto message = newMessage(*argumentOf(row_, table_.add));
      message->ParseFromString(row->second);
      commands_.push_back(
          {std::string(table_.add), std::move(message), false, {false, {}, {row->first}}});
    }
  }

  void addListed(const Rows& rows) {
    std::vector<std::string> alone;  // each as the command's argument with that entry in its list
    for (const auto* row : rows) {
      const auto message = newMessage(*argumentOf(row_, table_.add));
      const auto* list = message->GetDescriptor()->FindFieldByName(std::string(table_.addList));
      message->GetReflection()->AddMessage(message.get(), list)->ParseFromString(row->second);
      alone.push_back(serialized(*message));
    }
    sendEntries(row_, table_.add, alone, commands_, [&](TableEdit& edit, std::size_t number) {
      edit.added.push_back(rows[number]->first);
    });
  }

  void remove(const Rows& rows) {
    if (!table_.removeList.empty()) return removeListed(rows);
    const auto keys = words(table_.key);
    for (const auto* row : rows) {
      const auto entry = newEntry(row_);
      entry->ParseFromString(row->second);
      const Node values = nodeOf(*entry);
      Node node = Node::map();
      for (const std::string& key : keys) {
        if (const Node* value = values.find(key)) node.at(key) = *value;
      }
      auto message = newMessage(*argumentOf(row_, table_.remove));
      std::vector<Problem> problems;
      readMessage(node, *message, problems);
      commands_.push_back(
          {std::string(table_.remove), std::move(message), false, {false, {row->first}, {}}});
    }
  }

  // By a list of keys, each one text.
  void removeListed(const Rows& rows) {
    std::vector<std::string> alone;
    for (const auto* row : rows) {
      const auto entry = newEntry(row_);
      entry->ParseFromString(row->second);
      const auto* key = entry->GetDescriptor()->FindFieldByName(std::string(table_.key));
      const auto message = newMessage(*argumentOf(row_, table_.remove));
      const auto* list = message->GetDescriptor()->FindFieldByName(std::string(table_.removeList));
      message->GetReflection()->AddString(message.get(), list,
                                          entry->GetReflection()->GetString(*entry, key));
      alone.push_back(serialized(*message));
    }
    sendEntries(row_, table_.remove, alone, commands_, [&](TableEdit& edit, std::size_t number) {
      edit.removed.push_back(rows[number]->first);
    });
  }

  const ClassRow& row_;
  const EntryTable& table_;
  const Module& wanted_;
  std::vector<ModuleCommand>& commands_;
};

void changeSettings(const ClassRow& row, const Module& live, const Module& wanted, bool wholeSet,
                    bool recreateUnknown, ModuleDifference& result) {
  for (const Setting& setting : row.settings) {
    const std::string name(setting.fields);
    const auto now = wanted.settings.find(name);
    if (setting.inArgument() || now == wanted.settings.end()) continue;
    const auto before = live.settings.find(name);
    const bool told = before != live.settings.end();
    if (told && before->second == now->second) continue;
    if (!told && !recreateUnknown) {
      result.assumed.push_back(name);
      continue;
    }
    result.details.push_back(name + ": " + (told ? std::to_string(before->second) : "not told") +
                             " -> " + std::to_string(now->second));
    if (!wholeSet || name != "default_gate") {
      result.commands.push_back(numberCommand(row, setting, now->second));
    }
  }
}

}  // namespace

ModuleDifference difference(const Module& live, const Module& wanted, bool recreateUnknown) {
  ModuleDifference result;
  if (live.moduleClass != wanted.moduleClass) {
    result.details.push_back("class: " + live.moduleClass + " -> " + wanted.moduleClass);
    result.recreate = "another class";
    return result;
  }
  const ClassRow* row = classRow(wanted.moduleClass);
  if (wanted.arg && !live.arg) {
    if (recreateUnknown) {
      result.recreate = "the daemon does not tell its argument";
    } else {
      result.assumed.push_back("arg");
    }
  } else if (wanted.arg) {
    const auto before = fullArgument(live);
    const auto after = fullArgument(wanted);
    if (before && after) {
      ArgumentDifference(*row, *before, *after, result).find();
    } else if (!same(*live.arg, *wanted.arg)) {
      result.details.push_back("arg: of another type");
      result.recreate = "another argument";
    }
  }
  if (row == nullptr || !result.recreate.empty()) return result;
  bool wholeSet = false;
  if (wanted.table && !live.table && !recreateUnknown) {
    result.assumed.emplace_back(row->entryTable->name);
  } else if (wanted.table) {
    TableDifference table(*row, wanted, result.commands);
    const bool done = live.table ? table.change(*live.table) : table.setAgain();
    if (!done) result.recreate = "no command takes an entry out of its table";
    wholeSet = table.wholeSet;
    if (!live.table) {
      result.details.push_back(std::string(row->entryTable->name) + ": set again, as not told");
    } else if (table.changed) {
      result.details.push_back(std::string(row->entryTable->name) + ": " + table.summary);
    }
  }
  changeSettings(*row, live, wanted, wholeSet, recreateUnknown, result);
  return result;
}

NewModule newModule(const Module& wanted) {
  const ClassRow* row = classRow(wanted.moduleClass);
  NewModule made = creation(row, wanted);
  if (row == nullptr) return made;
  bool wholeSet = false;
  if (wanted.table && !wanted.table->empty()) {
    TableDifference table(*row, wanted, made.commands);
    table.fill();
    wholeSet = table.wholeSet;
  }
  for (const Setting& setting : row->settings) {
    const auto now = wanted.settings.find(std::string(setting.fields));
    if (setting.inArgument() || now == wanted.settings.end()) continue;
    const bool gate = setting.fields == "default_gate";
    if (gate && (wholeSet || now->second == dropGate)) continue;
    made.commands.push_back(numberCommand(*row, setting, now->second));
  }
  return made;
}

std::unique_ptr<Message> commandRequest(const std::string& module, const ModuleCommand& command) {
  auto request = std::make_unique<bess::pb::CommandRequest>();
  request->set_name(module);
  request->set_cmd(command.command);
  request->mutable_arg()->PackFrom(*command.argument);
  return request;
}

}  // namespace Norv::State
