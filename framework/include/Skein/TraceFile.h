#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <Skein/RingBuf.h>

namespace Skein {

struct ThreadRings;

// What a descriptor says about a trace point.
struct Site {
  std::string file;
  int line = 0;
  std::string function;
  std::string facility;
  U8 level = 0;  // of the point; records carry the level under which they were logged
  bool places = true;
  std::string codes;
  std::string text;

  bool operator==(const Site&) const = default;
};

struct TraceOptions {
  U64 size = 4 * 1024 * 1024;  // of the whole file, in bytes; at least minimalFileSize
  bool multiThreaded = true;   // false: only one thread writes records
  // An older trace file is kept as PATH.previous; anything else that is there is left alone.
  bool keepPrevious = false;
};

inline constexpr U64 minimalFileSize = 16 * 1024;

// A trace file that this process writes. A TraceHandle makes and owns it.
// It is in place from the constructor on, with all of its space reserved, under the name given; a
// file of that name is replaced, not overwritten, so that whoever still writes or reads the old
// one goes on undisturbed. A forked child goes on writing into the same file beside its parent.
// As long as either does, it holds a shared flock(2) on the file.
// Whoever truncates the file ends the processes that write it: SIGBUS, as with any mapped file.
class TraceFile {
 public:
  // Throws Lumo::ErrnoException with the path when the file cannot be made, Lumo::RangeException
  // when the size is below the minimum or beyond 2 GiB. With keepPrevious a symbolic link is
  // followed, but for one of somebody else's in a folder that everybody may write (EACCES), and the
  // ErrnoException has EEXIST where something else than a trace file or an empty file has the name,
  // EBUSY where somebody writes the trace file that has it.
  TraceFile(const std::string& path, TraceOptions options);
  ~TraceFile();
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  // Whether the id was given out by this file. An id names the file too, in its upper half, so
  // that a point notices when the default file has changed.
  bool msgIdInitialized(int id) const { return (id & idMask) != 0 && (id >> idBits) == tag_; }

  // The calling thread's writer, set to log at `level`. In single-threaded mode there is one
  // writer. The reference is the thread's until its endMsg.
  RingBuf& log(U8 level) {
    RingBuf& ring = multiThreaded_ ? threadRing() : single_;
    ring.level_ = level;
    return ring;
  }

  // For the end of a thread: its writer goes on with the next thread. Under the mutex of the open
  // files.
  void ringIsIdle(std::shared_ptr<RingBuf> ring);

  // As given, or with keepPrevious what a link of that name leads to.
  const std::string& path() const { return path_; }
  bool multiThreaded() const { return multiThreaded_; }

 private:
  friend class MsgDesc;
  friend class RingBuf;
  friend struct OpenFiles;
  friend void snapshot(TraceFile& file, const std::string& path);

  static constexpr int idBits = 16;
  static constexpr int idMask = (1 << idBits) - 1;

  FileHeader& header() const { return *reinterpret_cast<FileHeader*>(bytes_); }
  int siteIs(const int* key, const Site& site);
  U32 findSite(const std::string& bytes);
  U32 appendSite(const std::string& bytes);
  char* takeBlock(RingBuf& ring);
  bool claimBlock(BlockHeader& block);
  void countDropped();
  RingBuf& threadRing();
  RingBuf& newThreadRing(ThreadRings& mine);

  const std::string path_;
  const bool multiThreaded_;
  const U64 serial_;  // of the file in this process, from 1 on
  const int tag_;
  int descriptor_ = -1;
  char* bytes_ = nullptr;
  RingBuf single_;
  // Guarded by the mutex of the open files (OpenFiles).
  std::vector<std::shared_ptr<RingBuf>> rings_;
  std::vector<std::shared_ptr<RingBuf>> idleRings_;  // of threads that ended; their block goes on
  struct Described {
    int id;
    Site site;
  };
  std::map<const int*, Described> described_;
};

// Copies the records of a file that is being written to another file that every reader of trace
// files reads: what a flight recorder keeps. Of each thread it has a run without a gap, up to this
// moment or, while it goes on tracing into its block, a little longer. Any thread, also while
// others trace: where they take blocks of the ring faster than they are copied, those begun first
// are missing, and with one that a slow thread has been at for long, its newest records; what is
// missing is among the overwritten ones that the copy counts. Throws Lumo::ErrnoException when the
// copy cannot be written.
void snapshot(TraceFile& file, const std::string& path);

}  // namespace Skein
