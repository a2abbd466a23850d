#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <memory>
#include <ostream>
#include <utility>

#include <Lumo/AllocTrackTypeInfo.h>

namespace Lumo {

namespace {

// Head of the list of all records that have counted something. Records are pushed once, with a
// release store that publishes their fields, and never removed.
constinit std::atomic<AllocTrackTypeInfo*> head{nullptr};

// How many classes a thread counts for itself, and how many threads at once do.
constexpr std::size_t places = 128;
constexpr std::size_t threads = 64;

constinit std::atomic<std::size_t> placesTaken{0};

// What one thread has counted. It is the only one that writes here, so a load and a store are a
// change. When it ends, a later thread goes on with its counts.
struct ThreadCounts {
  struct OfClass {
    std::atomic<U64> allocations{0};
    std::atomic<U64> deallocations{0};
  };
  static void inc(std::atomic<U64>& counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }

  std::array<OfClass, places> of;
  std::atomic<bool> inUse{false};
};
// Not on the heap, so that counting takes no memory there; pages that no thread uses take none.
constinit std::array<ThreadCounts, threads> allCounts;

// What this thread counts with; null and `counts` for one that changes the counters of all.
[[gnu::tls_model("initial-exec")]] thread_local constinit ThreadCounts* ownCounts = nullptr;
[[gnu::tls_model("initial-exec")]] thread_local constinit bool counts = false;

// Gives the counts of a thread back at its end. What is allocated after that, by what else ends
// with the thread, is counted with all others'.
struct AtThreadEnd {
  ~AtThreadEnd() {
    std::exchange(ownCounts, nullptr)->inUse.store(false, std::memory_order_release);
  }
};

ThreadCounts* takeCounts() {
  counts = true;
  const auto unused = std::find_if(allCounts.begin(), allCounts.end(), [](ThreadCounts& one) {
    return !one.inUse.exchange(true, std::memory_order_acquire);
  });
  if (unused == allCounts.end()) return nullptr;
  ownCounts = &*unused;
  static thread_local AtThreadEnd atThreadEnd;
  return ownCounts;
}

// Null where all threads count together.
ThreadCounts::OfClass* ownCountsOf(std::size_t place) {
  if (place >= places) return nullptr;
  ThreadCounts* const own = counts ? ownCounts : takeCounts();
  return own ? &own->of[place] : nullptr;
}

std::string readable(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> text(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 ? text.get() : type.name();
}

}  // namespace

void AllocTrackTypeInfo::trackAllocation(AllocTrackTypeInfo* info, const std::type_info& type,
                                         std::size_t size) {
  if (auto* own = ownCountsOf(info->place_.load(std::memory_order_relaxed))) {
    ThreadCounts::inc(own->allocations);
    return;
  }
  info->allocations_.fetch_add(1, std::memory_order_relaxed);
  if (info->size_.load(std::memory_order_relaxed) != size) {
    info->size_.store(size, std::memory_order_relaxed);
  }
  info->enterList(type);
}

void AllocTrackTypeInfo::enterList(const std::type_info& type) {
  if (type_.load(std::memory_order_relaxed)) return;
  const std::type_info* none = nullptr;
  if (!type_.compare_exchange_strong(none, &type, std::memory_order_relaxed)) return;
  next_ = head.load(std::memory_order_relaxed);
  while (!head.compare_exchange_weak(next_, this, std::memory_order_release,
                                     std::memory_order_relaxed)) {
  }
  place_.store(placesTaken.fetch_add(1, std::memory_order_relaxed), std::memory_order_relaxed);
}

void AllocTrackTypeInfo::trackDeallocation(AllocTrackTypeInfo* info) {
  if (auto* own = ownCountsOf(info->place_.load(std::memory_order_relaxed))) {
    ThreadCounts::inc(own->deallocations);
  } else {
    info->deallocations_.fetch_add(1, std::memory_order_relaxed);
  }
}

AllocTrackTypeInfo::Counts AllocTrackTypeInfo::counted() const {
  Counts sum{allocations_.load(std::memory_order_relaxed),
             deallocations_.load(std::memory_order_relaxed)};
  const std::size_t place = place_.load(std::memory_order_relaxed);
  if (place >= places) return sum;
  for (const ThreadCounts& one : allCounts) {
    sum.allocations += one.of[place].allocations.load(std::memory_order_relaxed);
    sum.deallocations += one.of[place].deallocations.load(std::memory_order_relaxed);
  }
  return sum;
}

void AllocTrackTypeInfo::trackArrayAllocation(AllocTrackTypeInfo* info, const std::type_info& type,
                                              std::size_t size) {
  info->arrayAllocations_.fetch_add(1, std::memory_order_relaxed);
  info->arrayBytes_.fetch_add(size, std::memory_order_relaxed);
  info->enterList(type);
}

void AllocTrackTypeInfo::trackArrayDeallocation(AllocTrackTypeInfo* info) {
  trackDeallocation(info);
}

std::vector<AllocTrackRow> allocTrackSnapshot() {
  std::vector<AllocTrackRow> rows;
  for (const AllocTrackTypeInfo* info = head.load(std::memory_order_acquire); info;
       info = info->next_) {
    const U64 gone = info->deallocations();  // first: none is gone before it was there
    rows.push_back({readable(*info->type_.load(std::memory_order_relaxed)), info->allocations(),
                    gone, info->bytes()});
  }
  std::sort(rows.begin(), rows.end(),
            [](const AllocTrackRow& a, const AllocTrackRow& b) { return a.typeName < b.typeName; });
  return rows;
}

std::vector<AllocTrackRow> allocTrackDifference(const std::vector<AllocTrackRow>& before,
                                                const std::vector<AllocTrackRow>& after) {
  std::map<std::string, AllocTrackRow> old;
  for (const AllocTrackRow& row : before) old[row.typeName] = row;
  std::vector<AllocTrackRow> rows;
  for (const AllocTrackRow& row : after) {
    const AllocTrackRow& was = old[row.typeName];
    const AllocTrackRow change{row.typeName, row.allocations - was.allocations,
                               row.deallocations - was.deallocations, row.bytes - was.bytes};
    if (change.allocations != 0 || change.deallocations != 0) rows.push_back(change);
  }
  return rows;
}

void allocTrackReport(std::ostream& out) {
  out << "live allocations deallocations bytes type\n";
  for (const AllocTrackRow& row : allocTrackSnapshot()) {
    out << row.live() << ' ' << row.allocations << ' ' << row.deallocations << ' ' << row.bytes
        << ' ' << row.typeName << '\n';
  }
}

}  // namespace Lumo
