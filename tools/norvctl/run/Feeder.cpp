#include "Feeder.h"

namespace Norvctl {

namespace {

// Read ahead at most.
constexpr std::size_t mostSteps = 1000;
constexpr std::size_t mostBytes = 8 << 20;

}  // namespace

struct Feeder::Shared {
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Step> ahead;
  std::size_t bytes = 0;
  bool atEnd = false;
  bool stopped = false;
  std::string complaint;

  bool full() const { return ahead.size() >= mostSteps || bytes >= mostBytes; }

  void read(StepSource& source, const std::function<void()>& wake) {
    std::string wrong;
    try {
      while (std::optional<Step> step = source.next()) {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return stopped || !full(); });
        if (stopped) return;
        const bool first = ahead.empty();
        bytes += step->bytes;
        ahead.push_back(std::move(*step));
        changed.notify_all();
        if (first) wake();
      }
    } catch (const std::exception& error) {
      wrong = error.what();
    }
    std::unique_lock lock(mutex);
    if (stopped) return;
    atEnd = true;
    complaint = wrong;
    changed.notify_all();
    wake();
  }

  std::optional<Step> takeFirst() {
    if (ahead.empty()) return std::nullopt;
    Step step = std::move(ahead.front());
    ahead.pop_front();
    bytes -= step.bytes;
    changed.notify_all();
    return step;
  }
};

Feeder::Feeder(StepSource& source, std::function<void()> wake)
    : shared_(std::make_shared<Shared>()) {
  thread_ = std::thread(
      [shared = shared_, &source, wake = std::move(wake)] { shared->read(source, wake); });
}

Feeder::~Feeder() {
  stop();
}

void Feeder::stop() {
  if (!thread_.joinable()) return;
  bool done = false;
  {
    const std::lock_guard guard(shared_->mutex);
    shared_->stopped = true;
    done = shared_->atEnd;
    shared_->changed.notify_all();
  }
  if (done) {
    thread_.join();
  } else {
    thread_.detach();
  }
}

std::optional<Step> Feeder::take() {
  const std::lock_guard guard(shared_->mutex);
  return shared_->takeFirst();
}

std::optional<Step> Feeder::takeNext() {
  std::unique_lock lock(shared_->mutex);
  shared_->changed.wait(lock, [&] { return shared_->atEnd || !shared_->ahead.empty(); });
  return shared_->takeFirst();
}

bool Feeder::ended() const {
  const std::lock_guard guard(shared_->mutex);
  return shared_->atEnd && shared_->ahead.empty();
}

std::string Feeder::complaint() const {
  const std::lock_guard guard(shared_->mutex);
  return shared_->atEnd ? shared_->complaint : std::string();
}

}  // namespace Norvctl
