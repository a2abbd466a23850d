#pragma once

#include <google/protobuf/message.h>

#include <optional>

#include "Node.h"

// Values of the protocol's messages, written as people write them: IPv4, IPv6 and MAC addresses,
// 0x..., decimals. What the JSON form of the messages takes is taken, too.
namespace Norv::State {

using google::protobuf::Message;

// `text` as an unsigned number, decimal or 0x; none if it is none.
std::optional<std::uint64_t> numberOf(const std::string& text);
// Bytes of a field that is so wide, most significant first; none if it does not fit. A width of 0
// takes those whose form tells it.
std::optional<std::string> bytesOf(const std::string& text, std::size_t width);
// The shortest form that bytesOf reads back.
std::string textOfBytes(const std::string& bytes);
// "2:0:0:0:0:1" as "02:00:00:00:00:01"; none if it is no MAC address.
std::optional<std::string> macText(const std::string& text);

// How wide the values of a list of FieldData are, by their place in it.
using Widths = std::vector<std::size_t>;

// Fills the message from a map. `widths` are those of its lists of FieldData, unless the message
// tells them itself. What is wrong goes into `problems`, and the rest is read.
void readMessage(const Node& node, Message& message, std::vector<Problem>& problems,
                 const Widths& widths = {});
// What is set, with the fields in the order of their numbers, on one line.
Node nodeOf(const Message& message, const Widths& widths = {});

// The widths that a message tells in its `fields`.
Widths widthsIn(const Message& message);
// Writes FieldData as bytes of their width, where that is known, so that equal ones are equal.
void makeCanonical(Message& message, const Widths& widths = {});

// "fib, which is not there; did you mean fab?", as far as there is something like it.
std::string didYouMean(const std::string& name, const std::vector<std::string>& names);

}  // namespace Norv::State
