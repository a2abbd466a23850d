#include "OpenFiles.h"

#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include <Skein/TraceHandle.h>

namespace Skein {

namespace {

[[gnu::tls_model("initial-exec")]] thread_local constinit ThreadRings* threadRings = nullptr;

// Set before the first file exists and only read afterwards.
constinit std::atomic<bool> barrierFromKernel{false};

int membarrier(int command) {
  return static_cast<int>(::syscall(SYS_membarrier, command, 0, 0));
}

// The blocks that the thread held go on with the next thread that comes.
void threadEnds(void* state) {
  auto* rings = static_cast<ThreadRings*>(state);
  OpenFiles& open = OpenFiles::instance();
  std::lock_guard guard(open.mutex);
  for (ThreadRings::Entry& entry : rings->entries) {
    if (open.isOpen(entry.serial)) entry.file->ringIsIdle(std::move(entry.ring));
  }
  std::erase(open.threads, rings);
  threadRings = nullptr;
  delete rings;
}

// No local static: a child that is forked while another thread makes the key would wait for ever.
pthread_once_t keyMade = PTHREAD_ONCE_INIT;
pthread_key_t key;

// A key's destructor runs after the thread's C++ thread-locals are gone, and not for the main
// thread: destructors of either kind may still trace.
void makeThreadRings() {
  pthread_once(&keyMade, [] { pthread_key_create(&key, threadEnds); });
  auto* made = new ThreadRings;
  pthread_setspecific(key, made);
  OpenFiles& open = OpenFiles::instance();
  std::lock_guard guard(open.mutex);
  open.threads.push_back(made);
  threadRings = made;
}

}  // namespace

ThreadRings& ThreadRings::mine() {
  if (!threadRings) [[unlikely]]
    makeThreadRings();
  return *threadRings;
}

OpenFiles::OpenFiles() {
  barrier = membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
  barrierFromKernel.store(barrier, std::memory_order_relaxed);
  pthread_atfork([] { instance().mutex.lock(); }, [] { instance().mutex.unlock(); },
                 [] {
                   instance().inChild();
                   instance().mutex.unlock();
                 });
}

OpenFiles& OpenFiles::instance() {
  static auto* open = new OpenFiles;
  return *open;
}

bool OpenFiles::isOpen(U64 serial) const {
  return std::any_of(files.begin(), files.end(),
                     [&](const TraceFile* file) { return file->serial_ == serial; });
}

void OpenFiles::inChild() {
  for (TraceFile* file : files) {
    file->single_.startOver();
    for (const auto& ring : file->rings_) ring->startOver();
  }
  for (ThreadRings* thread : threads) {
    if (thread == threadRings) continue;
    for (ThreadRings::Entry& entry : thread->entries) {
      if (isOpen(entry.serial)) entry.file->ringIsIdle(std::move(entry.ring));
    }
    delete thread;
  }
  threads.clear();
  if (threadRings) threads.push_back(threadRings);
  if (barrier) membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED);
}

void OpenFiles::waitForTracePoints() {
  if (barrier) membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
  const auto someoneInside = [this] {
    std::lock_guard guard(mutex);
    return std::any_of(threads.begin(), threads.end(), [](const ThreadRings* thread) {
      return thread != threadRings && thread->inTracePoint.load();
    });
  };
  while (someoneInside()) std::this_thread::yield();
}

constinit std::atomic<TraceHandle*> defaultHandle_{nullptr};

// A thread says that it is inside, then reads the default handle; a closing thread takes the
// default handle away, then reads who is inside. The order of store and load on the tracing side
// comes from the closing side's kernel barrier, or else from a costlier store.
InTracePoint::InTracePoint()
    : inside_(threadRings ? threadRings->inTracePoint : ThreadRings::mine().inTracePoint) {
  if (barrierFromKernel.load(std::memory_order_relaxed)) {
    inside_.store(true, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  } else {
    inside_.exchange(true, std::memory_order_seq_cst);
  }
}

TraceHandle::TraceHandle(const std::string& path, TraceOptions options) : file_(path, options) {}

TraceHandle::~TraceHandle() {
  TraceHandle* self = this;
  defaultHandle_.compare_exchange_strong(self, nullptr);
  if (file_.multiThreaded()) OpenFiles::instance().waitForTracePoints();
}

void defaultSkeinHandleIs(TraceHandle* handle) {
  defaultHandle_.store(handle);
}

}  // namespace Skein
