#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <new>
#include <ostream>
#include <string_view>

#include <Lumo/Catching.h>
#include <Lumo/Trace.h>
#include <Skein/MsgDesc.h>
#include <Skein/TraceHandle.h>
#include <Twine/SkeinConverter.h>

// Trace points. A point is a constexpr row; `Twine::trace<row>(arguments...)` is the statement.
//
//   inline constexpr Twine::Module module{&_defaultTraceHandle, levelMap, "GrpcClient.cpp"};
//   inline constexpr Twine::Point failed{&module, 102, "processResponseCommon", 0,
//                                        Twine::Sinks::both, "Failure: error_code: %s"};
//   Twine::trace<failed>(code);
//
// Each "%s" of the text is the place of an argument; a text without any is followed by as many
// arguments as the row says. Arguments are not formatted until a sink wants them. Any thread.
//
// A point raises nothing of its own: where memory runs out or formatting an argument throws, the
// line or the record is lost and nothing else. Only what a TraceSink throws passes through.
namespace Twine {

using ::U8;

enum class Sinks : U8 { text, both };

// What the points of a module share.
struct Module {
  constexpr Module(Lumo::TraceHandle& (*handleOf)(), U8 (&map)[10], const char* fileName)
      : handle(handleOf), levelMap(map), textOnly(false), file(fileName) {}
  constexpr Module(Lumo::TraceHandle& (*handleOf)(), std::nullptr_t, const char* fileName)
      : handle(handleOf), levelMap(nullptr), textOnly(true), file(fileName) {}

  Lumo::TraceHandle& (*handle)();
  U8* levelMap;   // see levelMapIs; null where all points are text only
  bool textOnly;  // asked instead of the pointer, which no sanitizer's build takes for a constant
  const char* file;  // named in lines and descriptors, whatever the real file is called
};

struct Point {
  const Module* module;
  int line;  // likewise given, never that of the statement
  const char* function;
  U8 level;
  Sinks sinks;
  const char* text;
  U8 appended = 0;  // arguments that follow a text without places
};

// Sets a module's map from trace level to the level under which ring records are logged; true.
// Any thread, also while the module traces.
bool levelMapIs(U8* levelMap, const std::array<U8, 10>& levels);

namespace detail {

// Whether `make` came to its end.
template <class Make>
bool made(Make&& make) {
  bool raised = false;
  Lumo::catching(make, [&] { raised = true; });
  return !raised;
}

// A module's handle, kept where a point reaches it with one load. Made at the first trace.
template <const Module& module>
inline constinit std::atomic<Lumo::TraceHandle*> knownHandle{nullptr};

template <const Module& module>
[[gnu::noinline]] inline Lumo::TraceHandle* firstHandle() {
  made([] { knownHandle<module>.store(&module.handle(), std::memory_order_release); });
  return knownHandle<module>.load(std::memory_order_acquire);
}

// Null when there was no memory to make it.
template <const Module& module>
inline Lumo::TraceHandle* handleOf() {
  Lumo::TraceHandle* const handle = knownHandle<module>.load(std::memory_order_acquire);
  return handle ? handle : firstHandle<module>();
}

template <const Module& module>
bool textWanted(unsigned level) {
  Lumo::TraceHandle* const handle = handleOf<module>();
  return (handle && handle->enabled(level)) ||
         Lumo::coverageStream_.load(std::memory_order_relaxed) != nullptr;
}

// The pieces of a point's text: one before each argument and one after the last.
template <const Point& point, std::size_t count>
constexpr std::array<std::string_view, count + 1> piecesOf() {
  std::array<std::string_view, count + 1> pieces{};
  std::string_view rest = point.text;
  const bool places = Skein::placesIn(rest) != 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t length = places ? rest.find("%s") : (i == 0 ? rest.size() : 0);
    pieces[i] = rest.substr(0, length);
    rest.remove_prefix(length + (places ? 2 : 0));
  }
  pieces[count] = rest;
  return pieces;
}

// Writes the text with its arguments in place: `text(string_view)` and `argument(value)` in turn.
template <const Point& point, class Text, class Argument, class... Args>
void write(Text&& text, Argument&& argument, const Args&... args) {
  constexpr std::string_view whole = point.text;
  constexpr bool appended = Skein::placesIn(whole) == 0;
  static constexpr auto pieces = piecesOf<point, sizeof...(Args)>();
  [[maybe_unused]] std::size_t i = 0;
  [[maybe_unused]] const auto one = [&](const auto& value) {
    if (!pieces[i].empty()) text(pieces[i]);
    if (appended && Skein::blankBeforeArgument(whole, i)) text(std::string_view(" "));
    argument(value);
    ++i;
  };
  (one(args), ...);
  if (!pieces[sizeof...(Args)].empty()) text(pieces[sizeof...(Args)]);
}

// Straight into the stream's memory: nothing that a stream prepares for formatting is needed.
inline void writeText(std::ostream& out, std::string_view text) {
  out.rdbuf()->sputn(text.data(), static_cast<std::streamsize>(text.size()));
}

// An argument of a text-only point: like the other sinks where they know its type, streamed
// otherwise.
template <class T>
void writeArgument(std::ostream& out, const T& value) {
  if constexpr (Skein::isArgument<T>) {
    Skein::render(value, [&out](const char* text, std::size_t length) {
      writeText(out, std::string_view(text, length));
    });
  } else {
    out << value;
  }
}

// The ring half: describes the point unless this file knows it, then writes the record.
template <const Point& point, class... Args>
void record(Skein::TraceFile& file, const Args&... args) {
  static int msgId = 0;
  int id = std::atomic_ref<int>(msgId).load(std::memory_order_acquire);
  if (!file.msgIdInitialized(id)) [[unlikely]] {
    Skein::MsgDesc descriptor(&file, &msgId, point.module->file, point.line, true);
    (descriptor.formatString() << ... << args);
    descriptor.originIs(point.module->handle().name(), point.level, point.function);
    descriptor << point.text;
    id = descriptor.finish();
  }
  const U8 level =
      std::atomic_ref<U8>(point.module->levelMap[point.level]).load(std::memory_order_relaxed);
  Skein::RingBuf& ring = file.log(level);
  ring.startMsg(&file, id);
  (ring.put(args), ...);
  ring.endMsg();
}

template <const Point& point, class... Args>
[[gnu::noinline]] void recordInDefaultFile(const Args&... args) {
  made([&] {
    const Skein::InTracePoint inTracePoint;
    if (Skein::TraceFile* file = Skein::defaultSkeinFile()) record<point>(*file, args...);
  });
}

template <const Point& point>
inline Lumo::TraceHelper* helperIn(void* storage) {
  Lumo::TraceHandle* const handle = handleOf<*point.module>();
  return handle ? Lumo::TraceHelper::createIfEnabled(*handle, point.level, storage) : nullptr;
}

// One line: `format(helper, storage)` makes a helper in the storage, unless the level is off, and
// its text.
template <const Point& point, class Format>
void line(Format&& format) {
  alignas(void*) std::byte storage[Lumo::TraceHelper::storageSize];
  Lumo::TraceHelper* helper = nullptr;
  const bool complete = made([&] { format(helper, storage); });
  const Lumo::EnsureTraceHelperIsDestroyed ensure(helper);
  if (helper && complete) helper->trace(point.module->file, point.line, point.function);
}

// The text half of a point with both sinks.
template <const Point& point, class... Args>
[[gnu::noinline]] void convert(const Args&... args) {
  line<point>([&](Lumo::TraceHelper*& helper, void* storage) {
    SkeinConverter converter;
    write<point>([&](std::string_view text) { writeText(converter.fixed(), text); },
                 [&](const auto& value) { converter << value; }, args...);
    helper = helperIn<point>(storage);
    if (helper) writeText(helper->stringstream(), converter.text());
  });
}

// A point with the text sink only.
template <const Point& point, class... Args>
[[gnu::noinline]] void print(const Args&... args) {
  line<point>([&](Lumo::TraceHelper*& helper, void* storage) {
    helper = helperIn<point>(storage);
    if (!helper) return;
    std::ostream& out = helper->stringstream();
    write<point>([&](std::string_view text) { writeText(out, text); },
                 [&](const auto& value) { writeArgument(out, value); }, args...);
  });
}

}  // namespace detail

template <const Point& point, class... Args>
inline void trace(const Args&... args) {
  constexpr std::size_t places = Skein::placesIn(point.text);
  static_assert(places == 0 || point.appended == 0,
                "a text with places takes no arguments after it");
  static_assert(places + point.appended == sizeof...(Args),
                "the text of the point has a \"%s\" for each argument, or its row says how many "
                "follow it");
  static_assert(point.level < Lumo::TraceFacility::levelCount, "levels are 0 to 9");
  if constexpr (point.sinks == Sinks::both) {
    static_assert(!point.module->textOnly, "a point with both sinks needs a level map");
    if (Skein::defaultHandle_.load(std::memory_order_relaxed)) [[unlikely]] {
      detail::recordInDefaultFile<point>(args...);
    }
  }
  if (detail::textWanted<*point.module>(point.level)) [[unlikely]] {
    if constexpr (point.sinks == Sinks::both) {
      detail::convert<point>(args...);
    } else {
      detail::print<point>(args...);
    }
  }
}

}  // namespace Twine
