#include "CtfWriter.h"

#include <string>

namespace {

template <class T>
T* made(T* object, const char* what) {
  checkStep(object != nullptr, what);
  return object;
}

void append(bt_field_class* structure, const std::string& name, bt_field_class* member) {
  checkStep(bt_field_class_structure_append_member(structure, name.c_str(), member) ==
                BT_FIELD_CLASS_STRUCTURE_APPEND_MEMBER_STATUS_OK,
            "describe a field");
  bt_field_class_put_ref(member);
}

void setText(bt_field* field, std::string_view text) {
  bt_field_string_clear(field);
  // Strings of the format end at a NUL.
  text = text.substr(0, text.find('\0'));
  checkStep(bt_field_string_append_with_length(field, text.data(), text.size()) ==
                BT_FIELD_STRING_APPEND_STATUS_OK,
            "write a text");
}

void setField(bt_field* field, const Skein::Value& value) {
  std::visit(
      [&](const auto& held) {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, std::string_view>) {
          setText(field, held);
        } else if constexpr (std::is_same_v<Held, char>) {
          setText(field, std::string_view(&held, 1));
        } else if constexpr (std::is_same_v<Held, Skein::QNull>) {
          setText(field, "(null)");
        } else if constexpr (std::is_same_v<Held, Skein::Address>) {
          bt_field_integer_unsigned_set_value(field, held.value);
        } else if constexpr (std::is_same_v<Held, bool>) {
          bt_field_integer_unsigned_set_value(field, held ? 1 : 0);
        } else if constexpr (std::is_signed_v<Held>) {
          bt_field_integer_signed_set_value(field, held);
        } else {
          bt_field_integer_unsigned_set_value(field, held);
        }
      },
      value);
}

}  // namespace

void checkStep(bool good, const char* step) {
  if (!good) throw CtfError(std::string("the trace library failed to ") + step);
}

CtfWriter::~CtfWriter() {
  for (const auto& [thread, stream] : streams_) bt_stream_put_ref(stream);
  for (const auto& [site, eventClass] : eventClasses_) bt_event_class_put_ref(eventClass);
  bt_trace_put_ref(trace_);
  bt_stream_class_put_ref(streamClass_);
  bt_clock_class_put_ref(clockClass_);
  bt_trace_class_put_ref(traceClass_);
}

bt_field_class* CtfWriter::fieldClassOf(char code) {
  bt_field_class* field = nullptr;
  switch (static_cast<Skein::Code>(code)) {
    case Skein::Code::integer:
    case Skein::Code::longInteger:
      field = bt_field_class_integer_signed_create(traceClass_);
      break;
    case Skein::Code::pointer:
      field = bt_field_class_integer_unsigned_create(traceClass_);
      if (field) {
        bt_field_class_integer_set_preferred_display_base(
            field, BT_FIELD_CLASS_INTEGER_PREFERRED_DISPLAY_BASE_HEXADECIMAL);
      }
      break;
    case Skein::Code::boolean:
    case Skein::Code::unsignedInteger:
    case Skein::Code::unsignedLongInteger:
      field = bt_field_class_integer_unsigned_create(traceClass_);
      break;
    case Skein::Code::character:
    case Skein::Code::text:
    case Skein::Code::null:
      field = bt_field_class_string_create(traceClass_);
      break;
  }
  return made(field, "make a field class");
}

void CtfWriter::describeContext() {
  bt_field_class* context =
      made(bt_field_class_structure_create(traceClass_), "make a field class");
  append(context, "tid", fieldClassOf('i'));
  append(context, "level", fieldClassOf('u'));
  checkStep(bt_stream_class_set_event_common_context_field_class(streamClass_, context) ==
                BT_STREAM_CLASS_SET_FIELD_CLASS_STATUS_OK,
            "describe the context of events");
  bt_field_class_put_ref(context);
}

void CtfWriter::describeSite(const Skein::Site& site) {
  bt_event_class* event = made(bt_event_class_create(streamClass_), "make an event class");
  eventClasses_[&site] = event;
  const std::string name = site.facility + ":" + site.function + ":" + std::to_string(site.line);
  checkStep(bt_event_class_set_name(event, name.c_str()) == BT_EVENT_CLASS_SET_NAME_STATUS_OK,
            "name an event class");
  bt_field_class* payload =
      made(bt_field_class_structure_create(traceClass_), "make a field class");
  append(payload, "text", fieldClassOf('s'));
  for (std::size_t i = 0; i < site.codes.size(); ++i) {
    append(payload, "arg" + std::to_string(i), fieldClassOf(site.codes[i]));
  }
  checkStep(bt_event_class_set_payload_field_class(event, payload) ==
                BT_EVENT_CLASS_SET_FIELD_CLASS_STATUS_OK,
            "describe an event");
  bt_field_class_put_ref(payload);
}

void CtfWriter::describe(bt_self_component* component) {
  traceClass_ = made(bt_trace_class_create(component), "make a trace class");
  clockClass_ = made(bt_clock_class_create(component), "make a clock class");
  bt_clock_class_set_frequency(clockClass_, 1000000000);
  bt_clock_class_set_origin_is_unix_epoch(clockClass_, BT_TRUE);
  streamClass_ = made(bt_stream_class_create(traceClass_), "make a stream class");
  checkStep(bt_stream_class_set_default_clock_class(streamClass_, clockClass_) ==
                BT_STREAM_CLASS_SET_DEFAULT_CLOCK_CLASS_STATUS_OK,
            "set the clock");
  describeContext();
  trace_ = made(bt_trace_create(traceClass_), "make a trace");
  for (const Skein::Record& record : recording_.records()) {
    if (!eventClasses_.count(record.site)) describeSite(*record.site);
    if (streams_.count(record.thread)) continue;
    bt_stream* stream = made(bt_stream_create(streamClass_, trace_), "make a stream");
    streams_[record.thread] = stream;
    unbegun_.push_back(stream);
  }
}

bt_message* CtfWriter::messageOf(bt_self_message_iterator* iterator, const Skein::Record& record) {
  bt_message* message =
      made(bt_message_event_create_with_default_clock_snapshot(
               iterator, eventClasses_[record.site], streams_[record.thread], record.timeNs),
           "make an event");
  bt_event* event = bt_message_event_borrow_event(message);
  bt_field* context = bt_event_borrow_common_context_field(event);
  bt_field_integer_signed_set_value(bt_field_structure_borrow_member_field_by_index(context, 0),
                                    record.thread);
  bt_field_integer_unsigned_set_value(bt_field_structure_borrow_member_field_by_index(context, 1),
                                      record.level);
  bt_field* payload = bt_event_borrow_payload_field(event);
  std::string text;
  record.appendText(text);
  setText(bt_field_structure_borrow_member_field_by_index(payload, 0), text);
  U64 index = 0;
  for (const Skein::Value& value : record.arguments()) {
    setField(bt_field_structure_borrow_member_field_by_index(payload, ++index), value);
  }
  return message;
}

const bt_message* CtfWriter::next(bt_self_message_iterator* iterator) {
  if (!unbegun_.empty()) {
    bt_stream* stream = unbegun_.back();
    unbegun_.pop_back();
    unended_.push_back(stream);
    return made(bt_message_stream_beginning_create(iterator, stream), "begin a stream");
  }
  if (nextRecord_ < recording_.records().size()) {
    return messageOf(iterator, recording_.records()[nextRecord_++]);
  }
  if (unended_.empty()) return nullptr;
  bt_stream* stream = unended_.back();
  unended_.pop_back();
  return made(bt_message_stream_end_create(iterator, stream), "end a stream");
}
