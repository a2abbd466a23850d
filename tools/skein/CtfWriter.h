#pragma once

#include <babeltrace2/babeltrace.h>

#include <map>
#include <set>
#include <stdexcept>
#include <vector>

#include "Recording.h"

// A step of the trace library failed; the text says which.
class CtfError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};
// Throws CtfError unless the step went well.
void checkStep(bool good, const char* step);

// Describes a recording to the trace library and hands out its messages in order of time: a stream
// per thread, an event class per site. Lives within one run of one graph.
class CtfWriter {
 public:
  explicit CtfWriter(const Recording& recording) : recording_(recording) {}
  ~CtfWriter();
  CtfWriter(const CtfWriter&) = delete;
  CtfWriter& operator=(const CtfWriter&) = delete;

  // Makes the classes and streams. Throws CtfError.
  void describe(bt_self_component* component);
  // The next message, which becomes the caller's, or null at the end. Throws CtfError.
  const bt_message* next(bt_self_message_iterator* iterator);

 private:
  bt_field_class* fieldClassOf(char code);
  void describeSite(const Skein::Site& site);
  void describeContext();
  bt_message* messageOf(bt_self_message_iterator* iterator, const Skein::Record& record);

  const Recording& recording_;
  bt_trace_class* traceClass_ = nullptr;
  bt_clock_class* clockClass_ = nullptr;
  bt_stream_class* streamClass_ = nullptr;
  bt_trace* trace_ = nullptr;
  std::map<const Skein::Site*, bt_event_class*> eventClasses_;
  std::map<int, bt_stream*> streams_;  // by thread
  std::vector<bt_stream*> unbegun_;
  std::vector<bt_stream*> unended_;
  std::size_t nextRecord_ = 0;
};
