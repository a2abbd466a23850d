#include "Workers.h"

#include <algorithm>
#include <cerrno>

#include "Refusal.h"

namespace Standin {

namespace {

void checkRange(std::int64_t id) {
  if (id < 0 || id >= Workers::limit) throw Refusal(EINVAL, "Invalid worker id");
}

}  // namespace

void Workers::add(std::int64_t id, std::int64_t core, const std::string& scheduler) {
  checkRange(id);
  const int cut = static_cast<int>(core);
  if (cut < 0 || cut >= cores_) throw Refusal(EINVAL, "Invalid core " + std::to_string(cut));
  if (exists(id)) throw Refusal(EEXIST, "worker:" + std::to_string(id) + " is already active");
  if (!scheduler.empty() && scheduler != "experimental")
    throw Refusal(EINVAL, "Invalid scheduler " + scheduler);
  workers_[static_cast<int>(id)].core = cut;
}

void Workers::check(std::int64_t id) const {
  checkRange(id);
  if (!exists(id)) throw Refusal(ENOENT, "Worker " + std::to_string(id) + " is not active");
}

void Workers::setRunning(bool running) {
  for (auto& [id, worker] : workers_) worker.running = running;
}

void Workers::setRunning(std::int64_t id, bool running) {
  if (id < 0 || id >= limit) return;
  const auto found = workers_.find(static_cast<int>(id));
  if (found != workers_.end()) found->second.running = running;
}

bool Workers::anyRunning() const {
  return std::any_of(workers_.begin(), workers_.end(),
                     [](const auto& entry) { return entry.second.running; });
}

std::bitset<Workers::limit> Workers::running() const {
  std::bitset<limit> ids;
  for (const auto& [id, worker] : workers_) ids.set(static_cast<std::size_t>(id), worker.running);
  return ids;
}

int Workers::next() {
  while (!exists(turn_)) turn_ = (turn_ + 1) % limit;
  const int id = turn_;
  turn_ = (turn_ + 1) % limit;
  return id;
}

}  // namespace Standin
