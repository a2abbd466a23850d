#pragma once

#include <atomic>
#include <cstddef>
#include <iosfwd>
#include <string>
#include <typeinfo>
#include <vector>

#include <Lumo/Types.h>

namespace Lumo {

// What one class has allocated: counters that its operator new and delete keep, readable at any
// time from any thread; a reader sees all that happened before by the order of threads. A record is
// constant-initialised and enters the process-wide list of records at its first allocation. Most
// threads count for themselves, so that counting needs no atomic change; reading adds them up.
class AllocTrackTypeInfo {
 public:
  constexpr AllocTrackTypeInfo() = default;
  AllocTrackTypeInfo(const AllocTrackTypeInfo&) = delete;
  AllocTrackTypeInfo& operator=(const AllocTrackTypeInfo&) = delete;

  // `size` is the class's own fixed size in bytes, also where a larger subclass was allocated.
  static void trackAllocation(AllocTrackTypeInfo* info, const std::type_info& type,
                              std::size_t size);
  static void trackDeallocation(AllocTrackTypeInfo* info);
  // The same for an array: one allocation, however many elements; `size` is the whole array's.
  static void trackArrayAllocation(AllocTrackTypeInfo* info, const std::type_info& type,
                                   std::size_t size);
  static void trackArrayDeallocation(AllocTrackTypeInfo* info);

  U64 allocations() const { return counted().allocations + arrays(); }
  U64 deallocations() const { return counted().deallocations; }
  U64 live() const {
    const U64 gone = deallocations();  // first: none is gone before it was there
    return allocations() - gone;
  }
  // Bytes recorded by all allocations so far; deallocations do not lower it.
  U64 bytes() const {
    return counted().allocations * size_.load(std::memory_order_relaxed) +
           arrayBytes_.load(std::memory_order_relaxed);
  }

 private:
  friend std::vector<struct AllocTrackRow> allocTrackSnapshot();

  struct Counts {
    U64 allocations = 0;  // of single objects
    U64 deallocations = 0;
  };

  void enterList(const std::type_info& type);
  Counts counted() const;
  U64 arrays() const { return arrayAllocations_.load(std::memory_order_relaxed); }

  // Counters are independent of each other and of the memory they count: relaxed. One of them
  // changes per allocation; the bytes of single objects follow from their number.
  //
  // The place of this class among the counts of a thread. Until it has one, where there is none
  // left and by threads without counts of their own, the two counters below are changed.
  static constexpr std::size_t noPlace = ~std::size_t{0};
  std::atomic<std::size_t> place_{noPlace};
  std::atomic<U64> allocations_{0};
  std::atomic<U64> deallocations_{0};
  std::atomic<std::size_t> size_{0};
  std::atomic<U64> arrayAllocations_{0};
  std::atomic<U64> arrayBytes_{0};
  // Set before the record is published in the list (release), never changed after.
  std::atomic<const std::type_info*> type_{nullptr};
  AllocTrackTypeInfo* next_ = nullptr;
};

// One class in a snapshot of the records.
struct AllocTrackRow {
  std::string typeName;
  U64 allocations = 0;
  U64 deallocations = 0;
  U64 bytes = 0;
  U64 live() const { return allocations - deallocations; }
};

// Every class that has allocated so far, sorted by name.
std::vector<AllocTrackRow> allocTrackSnapshot();
// What happened between two snapshots; classes without a change are left out.
std::vector<AllocTrackRow> allocTrackDifference(const std::vector<AllocTrackRow>& before,
                                                const std::vector<AllocTrackRow>& after);
// A line per class: live objects, allocations, deallocations, bytes, name.
void allocTrackReport(std::ostream& out);

}  // namespace Lumo
