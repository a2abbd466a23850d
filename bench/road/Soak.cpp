// Sends many commands through one manager, in batches, and prints the memory of the process as it
// goes: it must stay flat. Usage: road_soak [COMMANDS], 10,000,000 by default.

#include <Standin/Server.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include <Norv/ConnectionsMgr.h>
#include <Norv/TypedCmd.h>

namespace {

using namespace Norv;

// Resident memory in MiB.
double residentMiB() {
  std::ifstream statm("/proc/self/statm");
  double total = 0;
  double resident = 0;
  statm >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

class Counting : public TypedCmd<listWorkers> {
 public:
  explicit Counting(std::atomic<U64>* done) : done_(done) {}
  void onSuccess(const Response&) override { done_->fetch_add(1, std::memory_order_release); }

 private:
  std::atomic<U64>* const done_;
};

}  // namespace

int main(int argc, char** argv) {
  const U64 total = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 10000000;
  constexpr U64 batch = 5000;
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  Standin::Server daemon(options);
  const auto config = GrpcGlobalCmdConfig::GrpcGlobalCmdConfigIs("soak");
  const auto queue = CmdConfigGroup::CmdConfigGroupIs("main");
  config->cmdConfigGroupIs(queue);
  const auto status = GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
  const auto manager = ConnectionsMgr::ConnectionsMgrIs(
      ConnectionConfig::ConnectionConfigIs(static_cast<U16>(daemon.port()), "127.0.0.1"), config,
      CmdGroup::CmdGroupIs(), status);
  std::atomic<U64> done{0};
  double early = 0;
  for (U64 sent = 0; sent < total;) {
    {
      Lumo::ActivityLockAnchor activity;
      for (U64 i = 0; i < batch; ++i, ++sent) queue->cmdBatchEnq(Lumo::allocate<Counting>(&done));
      queue->enqueueVersionInc(1);
    }
    while (done.load(std::memory_order_acquire) < sent && !status->errorOccured()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      Lumo::LockAnchor anchor(manager->threadLock());
      manager->threadCondition()->signal();
    }
    if (status->errorOccured()) {
      std::puts("an RPC failed");
      _exit(1);
    }
    if (sent == total / 20 / batch * batch) early = residentMiB();
    if (sent % (total / 10 / batch * batch) == 0) {
      std::printf("%llu commands, %.1f MiB, %llu live\n", sent, residentMiB(),
                  GrpcCmd::lumoAllocTrackTypeInfo_.live());
      std::fflush(stdout);
    }
  }
  const double late = residentMiB();
  std::printf("memory after a twentieth: %.1f MiB, at the end: %.1f MiB\n", early, late);
  std::fflush(stdout);
  _exit(late < early * 1.05 + 4 ? 0 : 1);
}
