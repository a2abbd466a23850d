#include "Values.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

#include <Bess/Facts.h>
#include <Bess/Text.h>
#include <Norv/State/ClassTable.h>
#include <bess/pb/service.pb.h>

namespace Norv::State {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Reflection;

// Fields whose width stands in another field of the same message, which comes before them.
struct WidthRow {
  const char* message;
  const char* field;
  const char* width;
};
constexpr WidthRow widthRows[] = {
    {"GenericEncapArg.EncapField", "value", "size"},
    {"RandomUpdateArg.Field", "max", "size"},
    {"RandomUpdateArg.Field", "min", "size"},
    {"SetMetadataArg.Attribute", "mask", "size"},
    {"SetMetadataArg.Attribute", "value_bin", "size"},
    {"SetMetadataArg.Attribute", "value_int", "size"},
    {"UpdateArg.Field", "value", "size"},
};
constexpr std::size_t widestValue = 64;

std::size_t widthOf(const Message& message, const FieldDescriptor& field) {
  const std::string name = Bess::shortName(*message.GetDescriptor());
  for (const WidthRow& row : widthRows) {
    if (name != row.message || field.name() != row.field) continue;
    const auto* width = message.GetDescriptor()->FindFieldByName(row.width);
    const std::uint64_t value = message.GetReflection()->GetUInt64(message, width);
    return value > widestValue ? 0 : static_cast<std::size_t>(value);
  }
  return 0;
}

std::optional<std::string> hexBytes(const std::string& digits) {
  std::string bytes;
  const std::string even = digits.size() % 2 == 0 ? digits : "0" + digits;
  for (std::size_t at = 0; at < even.size(); at += 2) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(&even[at], &even[at] + 2, value, 16);
    if (error != std::errc() || end != &even[at] + 2) return {};
    bytes += static_cast<char>(value);
  }
  return bytes;
}

std::optional<std::string> widened(const std::string& bytes, std::size_t width) {
  const std::size_t first = std::min(bytes.find_first_not_of('\0'), bytes.size());
  const std::string short_ = bytes.substr(first);
  if (short_.size() > width) return {};
  return std::string(width - short_.size(), '\0') + short_;
}

std::uint64_t bigEndian(const std::string& bytes) {
  std::uint64_t value = 0;
  for (const char byte : bytes) value = value << 8 | static_cast<unsigned char>(byte);
  return value;
}

std::string bigEndian(std::uint64_t value, std::size_t width) {
  std::string bytes(width, '\0');
  for (std::size_t at = width; at-- > 0; value >>= 8) bytes[at] = static_cast<char>(value & 255);
  return bytes;
}

class MessageReader {
 public:
  MessageReader(std::vector<Problem>& problems) : problems_(problems) {}

  void read(const Node& node, Message& message, const Widths& given) {
    const Descriptor& type = *message.GetDescriptor();
    if (node.kind == Node::Kind::null) return;
    if (node.kind != Node::Kind::map) {
      problem(node, "a map of the fields of " + Bess::shortName(type) + " belongs here");
      return;
    }
    checkNames(node, type);
    Widths widths = given;
    // In the order of the fields, so that a width is known before what it is of.
    for (int i = 0; i < type.field_count(); ++i) {
      const FieldDescriptor& field = *type.field(i);
      const Node* value = node.find(field.name());
      if (value == nullptr) value = node.find(field.json_name());
      if (value != nullptr && value->kind != Node::Kind::null) {
        readField(*value, message, field, widths);
      }
      if (field.name() == "fields" && widths.empty()) widths = widthsIn(message);
    }
  }

 private:
  void problem(const Node& node, const std::string& text) {
    problems_.push_back({node.mark, text});
  }

  void checkNames(const Node& node, const Descriptor& type) {
    std::vector<std::string> names;
    names.reserve(static_cast<std::size_t>(type.field_count()));
    for (int i = 0; i < type.field_count(); ++i) names.push_back(type.field(i)->name());
    std::map<const google::protobuf::OneofDescriptor*, std::string> chosen;
    std::set<const FieldDescriptor*> seen;
    for (std::size_t i = 0; i < node.keys.size(); ++i) {
      const std::string& key = node.keys[i];
      const FieldDescriptor* field = type.FindFieldByName(key);
      if (field == nullptr) field = type.FindFieldByCamelcaseName(key);
      if (field == nullptr) {
        problems_.push_back({node.keyMarks[i], "no field \"" + key + "\" in " +
                                                   Bess::shortName(type) + didYouMean(key, names)});
        continue;
      }
      if (!seen.insert(field).second) {
        problems_.push_back({node.keyMarks[i], "field \"" + field->name() + "\" a second time"});
      }
      const auto* oneof = field->real_containing_oneof();
      if (oneof == nullptr || node.children[i].kind == Node::Kind::null) continue;
      const auto [other, first] = chosen.emplace(oneof, key);
      if (!first) {
        problems_.push_back(
            {node.keyMarks[i], "\"" + key + "\" beside \"" + other->second + "\"; one of them"});
      }
    }
  }

  void readField(const Node& value, Message& message, const FieldDescriptor& field,
                 const Widths& widths) {
    if (field.is_map()) return readMap(value, message, field);
    if (!field.is_repeated()) return readValue(value, message, field, widthOf(message, field));
    if (value.kind != Node::Kind::list) return problem(value, "a list belongs here");
    for (std::size_t i = 0; i < value.children.size(); ++i) {
      readValue(value.children[i], message, field, i < widths.size() ? widths[i] : 0);
    }
  }

  void readMap(const Node& value, Message& message, const FieldDescriptor& field) {
    if (value.kind != Node::Kind::map) return problem(value, "a map belongs here");
    for (std::size_t i = 0; i < value.keys.size(); ++i) {
      Message& entry = *message.GetReflection()->AddMessage(&message, &field);
      Node key = Node::text(value.keys[i]);
      key.mark = value.keyMarks[i];
      readValue(key, entry, *field.message_type()->map_key(), 0);
      readValue(value.children[i], entry, *field.message_type()->map_value(), 0);
    }
  }

  // Sets the field, or adds to it.
  void readValue(const Node& node, Message& message, const FieldDescriptor& field,
                 std::size_t width) {
    const Reflection& reflection = *message.GetReflection();
    const bool add = field.is_repeated();
    if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
      Message& inner = *(add ? reflection.AddMessage(&message, &field)
                             : reflection.MutableMessage(&message, &field));
      if (inner.GetDescriptor() == bess::pb::FieldData::descriptor()) {
        return readFieldData(node, static_cast<bess::pb::FieldData&>(inner), width);
      }
      return read(node, inner, {});
    }
    if (node.kind != Node::Kind::scalar) {
      return problem(node, "a value belongs here, of field \"" + field.name() + "\"");
    }
    const std::string& text = node.scalar;
    switch (field.cpp_type()) {
      case FieldDescriptor::CPPTYPE_STRING: {
        std::string value = text;
        if (field.type() == FieldDescriptor::TYPE_BYTES) {
          const auto bytes = bytesValue(node, width);
          if (!bytes) return problem(node, notBytes(text, width));
          value = *bytes;
        }
        checkWord(node, field);
        add ? reflection.AddString(&message, &field, value)
            : reflection.SetString(&message, &field, value);
        return;
      }
      case FieldDescriptor::CPPTYPE_BOOL: {
        if (text != "true" && text != "false") return problem(node, "true or false belongs here");
        add ? reflection.AddBool(&message, &field, text == "true")
            : reflection.SetBool(&message, &field, text == "true");
        return;
      }
      case FieldDescriptor::CPPTYPE_DOUBLE: {
        double value = 0;
        const char* end = text.data() + text.size();
        const auto result = std::from_chars(text.data(), end, value);
        if (result.ec != std::errc() || result.ptr != end) return problem(node, "no number");
        add ? reflection.AddDouble(&message, &field, value)
            : reflection.SetDouble(&message, &field, value);
        return;
      }
      default:
        return readInteger(node, message, field, width);
    }
  }

  void checkWord(const Node& node, const FieldDescriptor& field) {
    const auto allowed = wordsFor(field);
    if (allowed.empty() || node.scalar.empty()) return;
    if (std::find(allowed.begin(), allowed.end(), node.scalar) != allowed.end()) return;
    std::string all;
    for (const std::string& word : allowed) all += (all.empty() ? "" : ", ") + word;
    problem(node,
            "no \"" + field.name() + "\" is called \"" + node.scalar + "\"; there are " + all);
  }

  void readInteger(const Node& node, Message& message, const FieldDescriptor& field,
                   std::size_t width) {
    const Reflection& reflection = *message.GetReflection();
    const bool negative = !node.scalar.empty() && node.scalar[0] == '-';
    auto value = numberOf(negative ? node.scalar.substr(1) : node.scalar);
    if (!value && width != 0 && width <= 8) {
      if (const auto bytes = bytesOf(node.scalar, width)) value = bigEndian(*bytes);
    }
    const auto range = [&]() -> std::pair<std::uint64_t, std::uint64_t> {  // highest, lowest
      switch (field.cpp_type()) {
        case FieldDescriptor::CPPTYPE_UINT32:
          return {std::numeric_limits<std::uint32_t>::max(), 0};
        case FieldDescriptor::CPPTYPE_INT32:
          return {std::numeric_limits<std::int32_t>::max(), std::uint64_t{1} << 31};
        case FieldDescriptor::CPPTYPE_INT64:
          return {std::numeric_limits<std::int64_t>::max(), std::uint64_t{1} << 63};
        default:
          return {std::numeric_limits<std::uint64_t>::max(), 0};
      }
    }();
    if (!value || *value > (negative ? range.second : range.first)) {
      return problem(node, "no number that fits field \"" + field.name() + "\": " + node.scalar);
    }
    const auto number = negative ? std::uint64_t{0} - *value : *value;
    const bool add = field.is_repeated();
    switch (field.cpp_type()) {
      case FieldDescriptor::CPPTYPE_UINT32:
        add ? reflection.AddUInt32(&message, &field, static_cast<std::uint32_t>(number))
            : reflection.SetUInt32(&message, &field, static_cast<std::uint32_t>(number));
        return;
      case FieldDescriptor::CPPTYPE_INT32:
        add ? reflection.AddInt32(&message, &field, static_cast<std::int32_t>(number))
            : reflection.SetInt32(&message, &field, static_cast<std::int32_t>(number));
        return;
      case FieldDescriptor::CPPTYPE_INT64:
        add ? reflection.AddInt64(&message, &field, static_cast<std::int64_t>(number))
            : reflection.SetInt64(&message, &field, static_cast<std::int64_t>(number));
        return;
      default:
        add ? reflection.AddUInt64(&message, &field, number)
            : reflection.SetUInt64(&message, &field, number);
        return;
    }
  }

  static std::string notBytes(const std::string& text, std::size_t width) {
    return "\"" + text + "\" is " +
           (width == 0 ? "no base64, and no address or 0x number"
                       : "no value of " + std::to_string(width) +
                             " bytes: an address, a number, 0x... or base64 belongs here");
  }

  // Quoted text is base64 first, as in JSON, which pads it; all other text is an address or a
  // number first, which a JSON export quotes as well.
  static std::optional<std::string> bytesValue(const Node& node, std::size_t width) {
    auto coded = Bess::fromBase64(node.scalar);
    if (coded && width != 0 && coded->size() != width) coded.reset();
    const auto spoken = bytesOf(node.scalar, width);
    const bool padded = node.scalar.size() % 4 == 0;
    if (node.style == Node::Style::quoted && padded) return coded ? coded : spoken;
    return spoken ? spoken : coded;
  }

  void readFieldData(const Node& node, bess::pb::FieldData& data, std::size_t width) {
    if (node.kind == Node::Kind::scalar) {
      const auto bytes = bytesOf(node.scalar, width);
      const auto number = numberOf(node.scalar);
      if (bytes) {
        data.set_value_bin(*bytes);
      } else if (number && width == 0) {
        data.set_value_int(*number);
      } else {
        problem(node, notBytes(node.scalar, width));
      }
      return;
    }
    read(node, data, {});
    if (width == 0) return;
    if (data.encoding_case() == bess::pb::FieldData::kValueBin &&
        data.value_bin().size() != width) {
      problem(node, "value_bin has " + std::to_string(data.value_bin().size()) + " bytes, not " +
                        std::to_string(width));
    }
    if (data.encoding_case() == bess::pb::FieldData::kValueInt && width < 8 &&
        data.value_int() >> (8 * width) != 0) {
      problem(node, "value_int does not fit " + std::to_string(width) + " bytes");
    }
  }

  std::vector<Problem>& problems_;
};

std::string shortestDouble(double value) {
  char text[40];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  return std::string(text, end);
}

Node fieldDataNode(const bess::pb::FieldData& data, std::size_t width) {
  const bool number = data.encoding_case() == bess::pb::FieldData::kValueInt;
  if (width != 0 && number && width <= 8) {
    return Node::text(textOfBytes(bigEndian(data.value_int(), width)));
  }
  if (width != 0 && data.value_bin().size() == width)
    return Node::text(textOfBytes(data.value_bin()));
  return nodeOf(data);
}

Node valueNode(const Message& message, const FieldDescriptor& field, int index, std::size_t width) {
  const Reflection& reflection = *message.GetReflection();
  const bool one = index < 0;
  switch (field.cpp_type()) {
    case FieldDescriptor::CPPTYPE_MESSAGE: {
      const Message& inner = one ? reflection.GetMessage(message, &field)
                                 : reflection.GetRepeatedMessage(message, &field, index);
      if (inner.GetDescriptor() == bess::pb::FieldData::descriptor()) {
        return fieldDataNode(static_cast<const bess::pb::FieldData&>(inner), width);
      }
      return nodeOf(inner);
    }
    case FieldDescriptor::CPPTYPE_STRING: {
      const std::string value = one ? reflection.GetString(message, &field)
                                    : reflection.GetRepeatedString(message, &field, index);
      if (field.type() != FieldDescriptor::TYPE_BYTES) return Node::text(value);
      return Node::text(width != 0 && value.size() == width ? textOfBytes(value)
                                                            : Bess::base64(value));
    }
    case FieldDescriptor::CPPTYPE_BOOL:
      return Node::plain((one ? reflection.GetBool(message, &field)
                              : reflection.GetRepeatedBool(message, &field, index))
                             ? "true"
                             : "false");
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return Node::plain(
          shortestDouble(one ? reflection.GetDouble(message, &field)
                             : reflection.GetRepeatedDouble(message, &field, index)));
    case FieldDescriptor::CPPTYPE_UINT32:
      return Node::plain(
          std::to_string(one ? reflection.GetUInt32(message, &field)
                             : reflection.GetRepeatedUInt32(message, &field, index)));
    case FieldDescriptor::CPPTYPE_INT32:
      return Node::plain(std::to_string(one ? reflection.GetInt32(message, &field)
                                            : reflection.GetRepeatedInt32(message, &field, index)));
    case FieldDescriptor::CPPTYPE_INT64:
      return Node::plain(std::to_string(one ? reflection.GetInt64(message, &field)
                                            : reflection.GetRepeatedInt64(message, &field, index)));
    default:
      return Node::plain(
          std::to_string(one ? reflection.GetUInt64(message, &field)
                             : reflection.GetRepeatedUInt64(message, &field, index)));
  }
}

Node mapNode(const Message& message, const FieldDescriptor& field) {
  const Reflection& reflection = *message.GetReflection();
  std::map<std::string, Node> sorted;
  for (int i = 0; i < reflection.FieldSize(message, &field); ++i) {
    const Message& entry = reflection.GetRepeatedMessage(message, &field, i);
    const auto& type = *field.message_type();
    sorted[valueNode(entry, *type.map_key(), -1, 0).scalar] =
        valueNode(entry, *type.map_value(), -1, 0);
  }
  Node map = Node::map(true);
  for (auto& [key, value] : sorted) map.at(key) = std::move(value);
  return map;
}

}  // namespace

std::optional<std::uint64_t> numberOf(const std::string& text) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const char* begin = text.data() + (hex ? 2 : 0);
  const char* end = text.data() + text.size();
  std::uint64_t value = 0;
  const auto result = std::from_chars(begin, end, value, hex ? 16 : 10);
  if (result.ec != std::errc() || result.ptr != end) return {};
  return value;
}

std::optional<std::string> macText(const std::string& text) {
  std::string normal;
  std::size_t at = 0;
  for (int part = 0; part < 6; ++part) {
    const std::size_t end = part == 5 ? text.size() : text.find(':', at);
    if (end == std::string::npos || end == at || end - at > 2) return {};
    const auto byte = hexBytes(text.substr(at, end - at));
    if (!byte) return {};
    constexpr char digits[] = "0123456789abcdef";
    const auto value = static_cast<unsigned char>((*byte)[0]);
    normal += (part == 0 ? "" : ":");
    normal += digits[value >> 4];
    normal += digits[value & 15];
    at = end + 1;
  }
  return normal;
}

std::optional<std::string> bytesOf(const std::string& text, std::size_t width) {
  char address[16];
  if ((width == 0 || width == 4) && inet_pton(AF_INET, text.c_str(), address) == 1) {
    return std::string(address, 4);
  }
  if (width == 0 || width == 6) {
    if (const auto mac = macText(text)) {
      std::string digits = *mac;
      std::erase(digits, ':');
      return hexBytes(digits);
    }
  }
  if ((width == 0 || width == 16) && text.find(':') != std::string::npos &&
      inet_pton(AF_INET6, text.c_str(), address) == 1) {
    return std::string(address, 16);
  }
  if (text.size() > 2 && (text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0)) {
    auto bytes = hexBytes(text.substr(2));
    if (!bytes || width == 0) return bytes;
    return widened(*bytes, width);
  }
  if (width == 0) return {};
  const auto number = numberOf(text);
  return number ? widened(bigEndian(*number, 8), width) : std::nullopt;
}

std::string textOfBytes(const std::string& bytes) {
  char text[INET6_ADDRSTRLEN];
  if (bytes.size() == 4) return inet_ntop(AF_INET, bytes.data(), text, sizeof text);
  if (bytes.size() == 16) return inet_ntop(AF_INET6, bytes.data(), text, sizeof text);
  if (bytes.size() <= 2) return std::to_string(bigEndian(bytes));
  constexpr char digits[] = "0123456789abcdef";
  const bool mac = bytes.size() == 6;
  std::string written = mac ? "" : "0x";
  for (const char byte : bytes) {
    if (mac && !written.empty()) written += ':';
    written += digits[static_cast<unsigned char>(byte) >> 4];
    written += digits[byte & 15];
  }
  return written;
}

void readMessage(const Node& node, Message& message, std::vector<Problem>& problems,
                 const Widths& widths) {
  MessageReader(problems).read(node, message, widths);
}

Node nodeOf(const Message& message, const Widths& given) {
  const Widths widths = given.empty() ? widthsIn(message) : given;
  Node node = Node::map(true);
  std::vector<const FieldDescriptor*> fields;
  message.GetReflection()->ListFields(message, &fields);
  for (const FieldDescriptor* field : fields) {
    Node& value = node.at(field->name());
    if (field->is_map()) {
      value = mapNode(message, *field);
    } else if (!field->is_repeated()) {
      value = valueNode(message, *field, -1, widthOf(message, *field));
    } else {
      value = Node::list(true);
      for (int i = 0; i < message.GetReflection()->FieldSize(message, field); ++i) {
        const auto at = static_cast<std::size_t>(i);
        value.children.push_back(
            valueNode(message, *field, i, at < widths.size() ? widths[at] : 0));
      }
    }
  }
  return node;
}

Widths widthsIn(const Message& message) {
  Widths widths;
  const auto* fields = message.GetDescriptor()->FindFieldByName("fields");
  if (fields == nullptr || !fields->is_repeated() ||
      fields->message_type() != bess::pb::Field::descriptor()) {
    return widths;
  }
  const Reflection& reflection = *message.GetReflection();
  for (int i = 0; i < reflection.FieldSize(message, fields); ++i) {
    const auto& field =
        static_cast<const bess::pb::Field&>(reflection.GetRepeatedMessage(message, fields, i));
    widths.push_back(field.num_bytes() > widestValue ? 0 : field.num_bytes());
  }
  return widths;
}

void makeCanonical(Message& message, const Widths& given) {
  const Widths widths = given.empty() ? widthsIn(message) : given;
  const Reflection& reflection = *message.GetReflection();
  std::vector<const FieldDescriptor*> fields;
  reflection.ListFields(message, &fields);
  const auto visit = [](Message& inner, std::size_t width) {
    if (inner.GetDescriptor() != bess::pb::FieldData::descriptor()) return makeCanonical(inner);
    auto& data = static_cast<bess::pb::FieldData&>(inner);
    if (data.encoding_case() != bess::pb::FieldData::kValueInt || width == 0 || width > 8) return;
    if (width < 8 && data.value_int() >> (8 * width) != 0) return;
    data.set_value_bin(bigEndian(data.value_int(), width));
  };
  for (const FieldDescriptor* field : fields) {
    if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE || field->is_map()) continue;
    if (!field->is_repeated()) {
      visit(*reflection.MutableMessage(&message, field), widthOf(message, *field));
      continue;
    }
    for (int i = 0; i < reflection.FieldSize(message, field); ++i) {
      const auto at = static_cast<std::size_t>(i);
      visit(*reflection.MutableRepeatedMessage(&message, field, i),
            at < widths.size() ? widths[at] : 0);
    }
  }
}

std::string didYouMean(const std::string& name, const std::vector<std::string>& names) {
  std::string best;
  std::size_t least = std::min<std::size_t>(name.size(), 100) / 2 + 2;
  for (const std::string& candidate : names) {
    const std::size_t unlike = Bess::unlikeness(name, candidate);
    if (unlike >= least) continue;
    least = unlike;
    best = candidate;
  }
  return best.empty() ? "" : "; did you mean \"" + best + "\"?";
}

}  // namespace Norv::State
