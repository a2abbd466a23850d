#include "Describe.h"

#include <algorithm>
#include <set>

#include <Bess/Facts.h>

#include "../Verb.h"
#include "../text/Table.h"
#include "../text/Text.h"
#include "Requests.h"
#include "Template.h"

namespace Norvctl {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

const char* const noMessage = "  its argument is no message of this protocol\n";

// Writes messages with their fields, and then those that these have, each once.
class MessageText {
 public:
  void add(const Descriptor* message, const std::string& title) {
    known_.insert(message);
    out_ += title + "\n";
    const std::string comment = Bess::comment(*message);
    if (!comment.empty()) out_ += "  " + comment + "\n";
    fields(message);
  }
  // The messages that fields are of.
  void addInner() {
    for (std::size_t i = 0; i < inner_.size(); ++i) {
      out_ += "\n";
      const Descriptor* message = inner_[i];
      add(message, Bess::shortName(*message));
    }
  }
  void line(const std::string& text) { out_ += text + "\n"; }
  std::string text() { return std::move(out_); }

 private:
  void fields(const Descriptor* message) {
    if (message->field_count() == 0) {
      out_ += "  no fields\n";
      return;
    }
    Table table({{"  field"}, {"type"}, {"what it is"}});
    for (int i = 0; i < message->field_count(); ++i) {
      const FieldDescriptor* field = message->field(i);
      std::string about = Bess::comment(*field);
      if (const auto* oneof = field->real_containing_oneof()) {
        std::string others;
        for (int other = 0; other < oneof->field_count(); ++other) {
          if (oneof->field(other) == field) continue;
          others += (others.empty() ? "" : ", ") + oneof->field(other)->json_name();
        }
        about += (about.empty() ? "instead of " : "; instead of ") + others;
      }
      table.add({"  " + field->json_name(), typeText(*field), about});
      follow(field);
    }
    out_ += table.text(Colours(false));
  }
  void follow(const FieldDescriptor* field) {
    const Descriptor* message = field->message_type();
    if (field->is_map()) message = message->field(1)->message_type();
    if (!message || message->file()->package() != "bess.pb" || message->name() == "Error") return;
    if (known_.insert(message).second) inner_.push_back(message);
  }

  std::set<const Descriptor*> known_;
  std::vector<const Descriptor*> inner_;
  std::string out_;
};

void argument(MessageText& text, const Bess::Taker& taker, const std::string& title) {
  const Descriptor* message = taker.argument.empty() ? nullptr : Bess::message(taker.argument);
  if (message) {
    text.add(message, title + " " + std::string(taker.argument));
  } else {
    text.line(title + ":\n" + noMessage);
  }
}

std::string ofRequest(const RequestInfo& info) {
  MessageText text;
  text.line(std::string(info.name) + ": request type " + std::to_string(info.type) + ", RPC " +
            std::string(info.rpc));
  if (const std::string about = Bess::rpcComment(info.rpc); !about.empty()) text.line("  " + about);
  text.line("");
  text.add(Bess::message(info.requestMessage), "request " + std::string(info.requestMessage));
  text.line("");
  text.add(Bess::message(info.responseMessage), "response " + std::string(info.responseMessage));
  text.addInner();
  text.line("\n`norvctl template " + std::string(info.name) + "` prints a body to fill in");
  return text.text();
}

std::string ofClass(const Bess::ModuleClass& known) {
  MessageText text;
  text.line(std::string(known.name) + ": module class");
  if (!known.commands.empty()) {
    Table table({{"  command"}, {"argument"}});
    for (const Bess::Taker& command : known.commands) {
      table.add({"  " + std::string(command.name), command.argument.empty()
                                                       ? "not of this protocol"
                                                       : std::string(command.argument)});
    }
    text.line("\n" + table.text(Colours(false)));
  } else {
    text.line("  no commands\n");
  }
  argument(text, known, "createModule takes");
  for (const Bess::Taker& command : known.commands) {
    const bool shown = !command.argument.empty() && command.argument != "EmptyArg" &&
                       command.argument != known.argument;
    if (!shown) continue;
    text.line("");
    argument(text, command, std::string(command.name) + " takes");
  }
  text.addInner();
  return text.text();
}

std::string ofTaker(const Bess::Taker& taker, const std::string& what, const std::string& request) {
  MessageText text;
  text.line(std::string(taker.name) + ": " + what + "\n");
  argument(text, taker, request + " takes");
  text.addInner();
  return text.text();
}

// Who takes the message, a line each.
std::string takers(std::string_view message) {
  std::string lines;
  for (const RequestInfo& info : requestInfos()) {
    if (info.requestMessage == message) lines += "  request of " + std::string(info.name) + "\n";
    if (info.responseMessage == message) lines += "  response of " + std::string(info.name) + "\n";
  }
  for (const Bess::ModuleClass& known : Bess::moduleClasses()) {
    if (known.argument == message) lines += "  class " + std::string(known.name) + "\n";
    for (const Bess::Taker& command : known.commands) {
      if (command.argument != message || message == "EmptyArg") continue;
      lines += "  command " + std::string(command.name) + " of " + std::string(known.name) + "\n";
    }
  }
  for (const Bess::Taker& driver : Bess::portDrivers()) {
    if (driver.argument == message) lines += "  driver " + std::string(driver.name) + "\n";
  }
  for (const Bess::Taker& hook : Bess::gateHooks()) {
    if (hook.argument == message) lines += "  gate hook " + std::string(hook.name) + "\n";
  }
  return lines;
}

std::string ofMessage(const Descriptor* message) {
  const std::string name = Bess::shortName(*message);
  MessageText text;
  text.add(message, name + ": message");
  text.addInner();
  const std::string users = takers(name);
  return text.text() + (users.empty() ? "" : "\nused by\n" + users);
}

template <class Named>
void appendNames(std::string& text, const char* title, const std::vector<Named>& all) {
  text += std::string(title) + "\n";
  std::string line = " ";
  for (const Named& one : all) {
    if (line.size() + one.name.size() > 98) {
      text += line + "\n";
      line = " ";
    }
    line += " " + std::string(one.name);
  }
  text += line + "\n";
}

std::string overview() {
  std::string text = "`norvctl describe NAME` tells of any of these, and of their messages.\n\n";
  appendNames(text, "Request types", requestInfos());
  appendNames(text, "\nModule classes", Bess::moduleClasses());
  appendNames(text, "\nPort drivers", Bess::portDrivers());
  appendNames(text, "\nGate hooks", Bess::gateHooks());
  return text;
}

// What to say where nothing is called `name`: the names that have it in them, else the nearest.
std::string unknownName(const std::string& name) {
  constexpr std::size_t shown = 12;
  const std::string nothing = "nothing is called \"" + escaped(name) + "\"; ";
  std::vector<std::string> having = namesWith(name, describedNames());
  const std::size_t more = having.size() > shown ? having.size() - shown : 0;
  having.resize(having.size() - more);
  if (having.empty()) {
    return nothing + "the nearest are " + listed(nearestNames(name, describedNames(), 3)) + "\n";
  }
  if (more != 0) having.push_back(std::to_string(more) + " more");
  return nothing + "there is " + listed(having) + " (`norvctl describe` lists all)\n";
}

}  // namespace

std::vector<std::string> describedNames() {
  std::vector<std::string> names = requestNames();
  for (const Bess::ModuleClass& one : Bess::moduleClasses()) names.emplace_back(one.name);
  for (const Bess::Taker& one : Bess::portDrivers()) names.emplace_back(one.name);
  for (const Bess::Taker& one : Bess::gateHooks()) names.emplace_back(one.name);
  for (const Descriptor* one : Bess::messages()) names.push_back(Bess::shortName(*one));
  return names;
}

bool describe(const std::string& name, std::string& text) {
  if (name.empty()) {
    text = overview();
  } else if (const RequestInfo* info = requestInfo(name)) {
    text = ofRequest(*info);
  } else if (const Bess::ModuleClass* known = Bess::moduleClass(name)) {
    text = ofClass(*known);
  } else if (const Bess::Taker* driver = Bess::portDriver(name)) {
    text = ofTaker(*driver, "port driver", "createPort");
  } else if (const Bess::Taker* hook = Bess::gateHook(name)) {
    text = ofTaker(*hook, "gate hook", "configureGateHook");
  } else if (const Descriptor* message = Bess::message(name)) {
    text = ofMessage(message);
  } else {
    text = unknownName(name);
    return false;
  }
  return true;
}

}  // namespace Norvctl
