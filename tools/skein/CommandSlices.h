#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include <Skein/Reader.h>

// A point of the agent's kit that tells about a command. The index is that of the argument.
struct CommandPoint {
  const char* text;
  bool ends;  // else it announces
  int sequence;
  int type;
  int queue;
  int outcome;  // -1: none
  int depth;
};

inline constexpr const char* commandFacility = "NorvAgent";

inline constexpr CommandPoint commandPoints[] = {
    {"announced seq=%s type=%s queue=%s depth=%s", false, 0, 1, 2, -1, 3},
    {"ended seq=%s type=%s queue=%s outcome=%s depth=%s", true, 0, 1, 2, 3, 4},
};

// What such a point said about a command.
struct CommandNews {
  bool ends;
  U64 sequence;
  std::string type;
  std::string queue;
  std::string outcome;
  U64 depth;  // commands waiting in the queue, this one included until it ends
};

// None for every other record.
std::optional<CommandNews> commandNewsOf(const Skein::Record& record);

// The time during which the daemon served a command.
struct CommandSlice {
  CommandNews command;
  int thread;
  U64 startNs;
  U64 endNs;
  U64 announcedNs;  // 0: before the first record
};

// Follows the records in their order. One command is in flight at a time and commands are served
// in order: a command's service starts when it was announced or when its predecessor ended,
// whichever is later. Records may be missing: the ring goes over those of a busy thread sooner than
// over those of an idle one.
class CommandSlices {
 public:
  // The slice that this news completes, if any; none for an end of which neither the announcement
  // nor a predecessor is known.
  std::optional<CommandSlice> newsIs(const CommandNews& news, int thread, U64 timeNs);

  // The command that was in flight at `nowNs`, after the last news: what a daemon that hangs hangs
  // in. None where something says that all known commands have ended. Its outcome is "in flight",
  // its thread that of the commands before it, or of its announcement if none is known.
  std::optional<CommandSlice> inFlight(U64 nowNs) const;

 private:
  struct Announced {
    CommandNews news;
    int thread;
    U64 timeNs;
  };
  using Queue = std::map<U64, Announced>;  // by sequence

  void announced(const CommandNews& news, int thread, U64 timeNs);
  std::optional<CommandSlice> ended(const CommandNews& news, int thread, U64 timeNs);
  void forgetBefore(U64 sequence);

  std::map<std::string, Queue> open_;
  std::set<U64> early_;  // ended before their announcement was seen
  std::optional<int> worker_;
  U64 previousEndNs_ = 0;
};
