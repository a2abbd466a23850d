#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <ostream>

#include <Lumo/AllocTrackTypeInfo.h>

namespace Lumo {

namespace {

// Head of the list of all records that have counted something. Records are pushed once, with a
// release store that publishes their fields, and never removed.
constinit std::atomic<AllocTrackTypeInfo*> head{nullptr};

std::string readable(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> text(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 ? text.get() : type.name();
}

}  // namespace

void AllocTrackTypeInfo::trackAllocation(AllocTrackTypeInfo* info, const std::type_info& type,
                                         std::size_t size) {
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
}

void AllocTrackTypeInfo::trackDeallocation(AllocTrackTypeInfo* info) {
  info->deallocations_.fetch_add(1, std::memory_order_relaxed);
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
    rows.push_back({readable(*info->type_.load(std::memory_order_relaxed)), info->allocations(),
                    info->deallocations(), info->bytes()});
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
