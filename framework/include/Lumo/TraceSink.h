#pragma once

#include <string>
#include <string_view>

#include <Lumo/String.h>

namespace Lumo {

// One line of the text trace. The pointers and views live as long as the call that hands it out.
struct TraceLine {
  std::string_view facility;
  unsigned level = 0;
  const char* file = "";
  int line = 0;
  const char* function = "";
  std::string_view text;
  U64 timeNs = 0;  // since 1970-01-01 UTC
  int thread = 0;  // the kernel's thread id
};

// Appends the line as a person reads it, with its newline:
// 2026-01-31T12:00:00.123456 4711 GrpcClient/5 GrpcClient.cpp:77 doProcessGrpcCmd: TEXT
// Time is UTC. Each part reads as appendTraceText writes it.
void appendTraceLine(std::string& out, const TraceLine& line);

// Writes the line, as appendTraceLine makes it, to standard error, where text traces go while no
// sink is set: for a sink that passes lines on to there. Any thread, also within a sink.
//
// Lines of several threads do not mix, however long they are, and one that does not fit waits for
// the reader, also where standard error does not block. Leaves errno alone and raises nothing: a
// line is lost where memory runs out or standard error takes no more.
void writeToStandardError(const TraceLine& line);

// Appends a text, read as UTF-8, so that it stays on its line and leaves a terminal alone, and so
// that different texts look different: a backslash becomes two, line ends and tabs \n, \r and \t,
// every other ASCII control character and every byte that is no UTF-8 \x and two hexadecimal
// digits, as ESC \x1b, and the other characters that a terminal obeys (U+0080 to U+009F, line and
// paragraph ends, marks of the direction of writing) \u and four, as \u202e. What comes out is
// UTF-8.
void appendTraceText(std::string& out, std::string_view text);

// Where text lines go. `lineIs` is called on the tracing thread, from several threads at once, and
// with whatever locks that thread holds: the manager traces under threadLock, so a sink that waits
// for the worker or takes the activity lock does not come back. An exception of a sink reaches the
// code that traced; on the client's worker nobody catches it.
class TraceSink {
 public:
  virtual ~TraceSink() = default;
  // `line` and the texts in it are gone after the call.
  virtual void lineIs(const TraceLine& line) = 0;
};

// Replaces the sink; null brings back standard error. The sink stays the caller's. On return no
// thread is inside the previous sink, so it may be destroyed: do not call this from within a sink.
void traceSinkIs(TraceSink* sink);
TraceSink* traceSink();  // null for standard error

}  // namespace Lumo
