#pragma once

#include <google/protobuf/message.h>

#include <memory>
#include <set>

#include <Bess/Facts.h>
#include <Norv/State/ClassTable.h>
#include <Norv/State/Switch.h>

#include "Values.h"

// What the table of classes says of a module, applied: its entries, its port, its argument.
namespace Norv::State {

std::unique_ptr<Message> newMessage(const google::protobuf::Descriptor& type);
std::unique_ptr<Message> newEntry(const ClassRow& row);
// A copy with these fields alone.
std::unique_ptr<Message> only(const std::vector<std::string>& fields, const Message& message);
// The widths of the values in an entry, as the module's argument tells them.
Widths entryWidths(const ClassRow& row, const Module& module);
// Serialized fields that tell an entry from others.
std::string entryKey(const ClassRow& row, const Message& entry);
// Writes addresses in their one form; false, and why, when the entry cannot be. `values`: how many
// an entry has; 0: not known.
bool normaliseEntry(const ClassRow& row, Message& entry, std::size_t values,
                    std::string& complaint);

// Gates that the module's argument names and its class does not have: a daemon refuses them, or
// cuts them to 16 bits and takes another.
std::set<std::int64_t> gatesBeyond(const Module& module);

// The port that the module holds; empty: none.
std::string portOf(const Module& module);
// The argument as its message, defaults and widths written out; null when it is none of the
// class's, or not told.
std::unique_ptr<Message> fullArgument(const Module& module);

// "in -> fib", "fib:1 -> 0:drop"; false when it is neither.
bool parseConnection(const std::string& text, Gate& from, Gate& to);
// The shortest form that parseConnection takes; empty where names need a map.
std::string connectionText(const Gate& from, const Gate& to);

// A class of hooks by the protocol's name or the daemon's; null when there is none.
const Bess::Taker* hookClass(const std::string& name);
// How the daemon calls it.
std::string daemonHookName(std::string_view name);

}  // namespace Norv::State
