#pragma once

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include <Lumo/LinkQueue.h>
#include <Lumo/PtrInterface.h>

// An independent reference for the indexed queue: entries in a vector, every rule written down once
// more in terms of positions. The model test and the fuzz target drive it and the queue with the
// same operations and compare all that can be seen.
namespace model {

// An entry with a value to tell entries apart.
template <class Index>
class Entry : public Lumo::PtrInterface {
 public:
  Entry(Index index, int value) : index_(index), value_(value) {}
  Index fwkQkey() const { return index_; }
  void fwkQkeyIs(Index index) { index_ = index; }
  int value() const { return value_; }
  const Lumo::Ptr<Entry>& lqNext() const { return next_; }
  Lumo::Ptr<Entry>& lqNext() { return next_; }
  void lqNextIs(const Lumo::Ptr<Entry>& next) { next_ = next; }

 private:
  Index index_;
  const int value_;
  Lumo::Ptr<Entry> next_;
};

template <class Index>
class Queue {
 public:
  struct Item {
    Index index;
    int value;
    bool operator==(const Item&) const = default;
  };

  std::vector<Item> items;
  Index head = 0;
  Index storedTail = 0;
  U32 version = 0;

  Index tail() const {
    if (!items.empty() && U64(items.back().index) + 1 > storedTail) return items.back().index + 1;
    return storedTail;
  }
  // False: the index space is full.
  bool append(int value) {
    const Index next = storedTail = tail();
    if (static_cast<Index>(next + 1) == head) return false;
    if (items.empty()) head = next;
    items.push_back({next, value});
    storedTail = tail();
    ++version;
    return true;
  }
  std::optional<int> takeHead() {
    if (items.empty()) return std::nullopt;
    const int value = items.front().value;
    items.erase(items.begin());
    head = items.empty() ? storedTail : items.front().index;
    ++version;
    return value;
  }
  std::optional<int> del(Index index) {
    if (index == head) return takeHead();
    const auto found = find(index);
    if (found == items.end()) return std::nullopt;
    const int value = found->value;
    const bool first = found == items.begin();
    const bool last = found + 1 == items.end();
    if (last && !first) storedTail = (found - 1)->index + 1;
    items.erase(found);
    if (first) head = items.empty() ? storedTail : items.front().index;
    ++version;
    return value;
  }
  // Places a fresh entry; false: the index space is full.
  bool place(Index index, int value) {
    storedTail = tail();
    if (index == storedTail) return append(value);
    const auto at = std::find_if(items.begin(), items.end(),
                                 [&](const Item& item) { return item.index >= index; });
    const bool first = at == items.begin();
    if (at != items.end() && at->index == index) {
      at->value = value;
      if (at + 1 == items.end() && storedTail <= index) storedTail = index + 1;
    } else {
      const bool last = at == items.end();
      items.insert(at, {index, value});
      if (last && storedTail <= index) storedTail = index + 1;
    }
    if (first) head = index;
    ++version;
    return true;
  }
  // Moves the entry under `from`; false: the index space is full, and the entry is out.
  bool move(Index from, Index to) {
    storedTail = tail();
    if (from == to) return true;
    const std::optional<int> value = del(from);
    return !value || place(to, *value);
  }
  // Where an iterator goes from the entry with this value, or, if the queue has changed since the
  // iterator's last step, from this index.
  std::optional<Index> next(int value, Index index, bool changed) const {
    std::size_t at = items.size();
    if (changed) {
      at = startAt(index);
      if (at < items.size() && items[at].index == index) ++at;
    } else {
      const auto is = [&](const Item& item) { return item.value == value; };
      at = static_cast<std::size_t>(std::find_if(items.begin(), items.end(), is) - items.begin());
      ++at;
    }
    return indexAt(at);
  }
  std::optional<Index> indexAt(std::size_t at) const {
    return at < items.size() ? std::optional(items[at].index) : std::nullopt;
  }
  // A position; that of the end if there is nowhere to start.
  std::size_t startAt(Index index) const {
    const std::size_t end = items.size();
    if (items.empty()) return end;
    const Index first = items.front().index;
    const Index last = items.back().index;
    if (index == first) return 0;
    if (index == last) return end - 1;
    std::size_t at = 0;
    const auto inRun = [&](std::size_t i) {
      return i < end && (i == 0 || items[i].index >= items[i - 1].index);
    };
    if (last >= first || index >= first) {
      if (last >= first && last < index) return end;
      while (inRun(at) && items[at].index < index) ++at;
    } else {
      if (last < index) return end;
      while (inRun(at)) ++at;
      while (at < end && items[at].index < index) ++at;
    }
    return at;
  }

 private:
  typename std::vector<Item>::iterator find(Index index) {
    return std::find_if(items.begin(), items.end(),
                        [&](const Item& item) { return item.index == index; });
  }
};

// The queue and its model side by side. Each call does one operation on both and tells whether they
// still agree.
template <class Index>
class Pair {
 public:
  using LinkQueue = Lumo::LinkQueue<Entry<Index>, Index>;

  bool append() {
    const int value = nextValue_++;
    bool appended = true;
    try {
      queue.memberNew(Lumo::allocate<Entry<Index>>(Index(0), value));
    } catch (const Lumo::RangeException&) {
      appended = false;
    }
    return appended == model.append(value) && same();
  }
  bool takeHead() { return valueOf(queue._memberDelHead()) == model.takeHead() && same(); }
  bool del(Index index) { return valueOf(queue._memberDel(index)) == model.del(index) && same(); }
  bool place(Index index) {
    const int value = nextValue_++;
    bool placed = true;
    try {
      queue.memberIs(index, Lumo::allocate<Entry<Index>>(index, value));
    } catch (const Lumo::RangeException&) {
      placed = false;
    }
    return placed == model.place(index, value) && same();
  }
  // Moves a linked entry. Not to the next index, where the queue appends it a second time, and not
  // while the head index is stale: both end in chains that the model has no notion of.
  bool move(Index from, Index to) {
    const auto entry = queue[from];
    if (!entry || to == std::as_const(queue).tailIndex() || stale()) return true;
    bool placed = true;
    try {
      queue.memberIs(to, entry);
    } catch (const Lumo::RangeException&) {
      placed = false;
    }
    return placed == model.move(from, to) && same();
  }
  // One iterator stands in the queue over all operations; at the end it starts again.
  bool step() {
    if (!iterator_ || !*iterator_) {
      iterator_.emplace(&queue, queue.head());
      seen_ = queue.version();
      return true;
    }
    const std::optional<Index> expected =
        model.next(iterator_->ptr()->value(), iterator_->key(),
                   std::exchange(seen_, queue.version()) != queue.version());
    ++*iterator_;
    return *iterator_ ? expected == iterator_->key() : !expected;
  }
  bool metadata(Index head, Index tail) {
    queue.headIndexIs(head);
    queue.tailIndexIs(tail);
    model.head = head;
    model.storedTail = tail;
    return same();
  }
  bool startAt(Index index) const {
    const auto entry = queue.startAt(index);
    const std::optional<Index> expected = model.indexAt(model.startAt(index));
    return entry ? expected == entry->fwkQkey() : !expected;
  }

  LinkQueue queue;
  Queue<Index> model;

 private:
  bool stale() const { return queue.head() && queue.head()->fwkQkey() != queue.headIndex(); }
  static std::optional<int> valueOf(const Lumo::Ptr<Entry<Index>>& entry) {
    return entry ? std::optional(entry->value()) : std::nullopt;
  }
  bool same() const {
    std::vector<typename Queue<Index>::Item> items;
    for (auto it = typename LinkQueue::Iterator(&queue, queue.head()); it; ++it) {
      items.push_back({it.key(), it.ptr()->value()});
    }
    return items == model.items && queue.members() == model.items.size() &&
           queue.headIndex() == model.head && queue.tailIndex() == model.tail() &&
           queue.version() == model.version;
  }

  int nextValue_ = 0;
  std::optional<typename LinkQueue::Iterator> iterator_;
  U32 seen_ = 0;  // the queue's version at the iterator's last step
};

}  // namespace model
