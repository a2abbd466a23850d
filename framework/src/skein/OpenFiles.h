#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include <Skein/TraceFile.h>

namespace Skein {

// What a thread keeps for the files it writes in multi-threaded mode.
struct alignas(64) ThreadRings {
  struct Entry {
    U64 serial;
    TraceFile* file;
    std::shared_ptr<RingBuf> ring;
  };

  // The calling thread's; made at first use, and again if a thread traces while it ends.
  static ThreadRings& mine();

  // Whether the thread is inside a trace point, where the default file must not go away.
  std::atomic<bool> inTracePoint{false};
  U64 serial = 0;  // of the file written last; serials start at 1
  RingBuf* ring = nullptr;
  std::vector<Entry> entries;  // guarded by the mutex of OpenFiles
};

// The files that this process writes and the threads that do so. Never destroyed. A fork finds the
// mutex free; the child goes on with blocks of its own.
struct OpenFiles {
  static OpenFiles& instance();

  bool isOpen(U64 serial) const;
  // Returns when no other thread is inside a trace point that it entered before this call.
  void waitForTracePoints();

  std::mutex mutex;
  std::vector<TraceFile*> files;
  std::vector<ThreadRings*> threads;
  U64 lastSerial = 0;
  bool barrier = false;  // the kernel gives us its memory barrier on all our threads

 private:
  OpenFiles();
  void inChild();
};

}  // namespace Skein
