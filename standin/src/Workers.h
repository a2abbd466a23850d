#pragma once

#include <bitset>
#include <cstdint>
#include <map>
#include <string>

namespace Standin {

// The workers and the turn in which they get work that may go to any. Not thread safe; see Daemon.
class Workers {
 public:
  struct Worker {
    int core = 0;
    bool running = false;
  };
  static constexpr int limit = 64;  // Ids are below it.

  // `cores`: how many cores there are.
  explicit Workers(int cores) : cores_(cores) {}

  // Adds a paused worker; refuses bad ids, cores and schedulers.
  void add(std::int64_t id, std::int64_t core, const std::string& scheduler);
  // Refuses ids out of range, and workers that do not exist.
  void check(std::int64_t id) const;
  void erase(std::int64_t id) { workers_.erase(static_cast<int>(id)); }
  void clear() { workers_.clear(); }
  void setRunning(bool running);
  // Does nothing to a worker that does not exist.
  void setRunning(std::int64_t id, bool running);

  bool empty() const { return workers_.empty(); }
  bool exists(std::int64_t id) const { return workers_.count(static_cast<int>(id)) > 0; }
  bool anyRunning() const;
  const std::map<int, Worker>& all() const { return workers_; }
  // Whose turn it is; the turn goes on, whatever happens to the workers. There must be one.
  int next();
  // Those that run.
  std::bitset<limit> running() const;

 private:
  int cores_;
  int turn_ = 0;
  std::map<int, Worker> workers_;
};

// Workers by their ids.
using WorkerSet = std::bitset<Workers::limit>;

}  // namespace Standin
