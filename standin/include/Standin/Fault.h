#pragma once

#include <cstdint>
#include <string>

namespace Standin {

// A fault to inject, and into which calls. Its text form is a list of words `key=value`, of which
// `kind` is needed: "kind=status rpc=createModule name=fib nth=3 code=14 text=gone for good". A
// name with blanks stands in quotes; a `text` goes on to the end.
struct Fault {
  enum class Kind {
    Delay,          // Answers after `ms` to `maxMs` milliseconds.
    Status,         // Ends the call with gRPC status `code` and `text`, without effect.
    Error,          // Answers the in-band error `code` and `text`, without effect.
    Undecodable,    // Answers bytes that are no message; the call has its effect.
    TooLarge,       // Answers more than 4 MiB; the call has its effect.
    NoReply,        // Answers nothing until the client gives up; the call has its effect.
    HangUp,         // Closes the client's connection, before the effect.
    HangUpAfter,    // The same, after the effect.
    Exit,           // Ends the process at once, before the effect.
    StopAccepting,  // Takes no further connections; those that are go on.
  };

  Kind kind = Kind::Delay;
  std::string rpc = "*";    // The request's name, such as createModule, not its RPC's; * for all.
  std::string name;         // A module, port or class that the request names; empty for any.
  std::uint64_t nth = 0;    // Only this matching call, counted from 1; 0 for any.
  std::uint64_t every = 0;  // Every so many matching calls; 0 for each.
  double probability = 1;   // Of those.
  std::uint64_t seed = 0;
  std::uint32_t ms = 0;
  std::uint32_t maxMs = 0;  // 0: as `ms`.
  int code = 0;             // 0: 14 for a status, 5 for an error.
  std::string text;

  // Takes the name of a request or of its RPC. Throws std::invalid_argument with what is wrong and
  // what would be right, also for words that would do nothing.
  static Fault parse(const std::string& text);
  std::string toString() const;
};

// A rule in force and what it did.
struct FaultCount {
  std::string rule;
  std::uint64_t matched = 0;   // Calls it was about.
  std::uint64_t injected = 0;  // Those it struck.
};

}  // namespace Standin
