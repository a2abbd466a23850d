#pragma once

#include <type_traits>
#include <utility>

#include <Lumo/Assert.h>
#include <Lumo/Exception.h>
#include <Lumo/Ptr.h>
#include <Lumo/Types.h>

namespace Lumo {

// A singly linked FIFO of entries under consecutive indexes that wrap around. An entry is a
// PtrInterface with fwkQkey(), fwkQkeyIs(Index), lqNext(), by plain reference on an entry that may
// change, and lqNextIs; the chain of lqNext from the head owns the entries, and an entry is in at
// most one queue. What lqNext() of a const entry points to should be const as well: IteratorConst
// shows no more than that.
//
// Appending, taking from the head and deleting the head take constant time; finding, deleting and
// placing by any other index walk the chain. The queue has no lock: its owner says who may use it
// when.
//
// Index is U32 in the library; a narrower type lets a test fill the index space. Indexes are
// compared as plain numbers, not around the wrap, except where it says so.
template <class Entry, class Index = U32>
class LinkQueue {
 public:
  template <class Seen>
  class Walk;
  using Iterator = Walk<Entry>;
  using IteratorConst = Walk<const Entry>;  // shows entries that cannot be changed

  explicit LinkQueue(Index start = 0) : headIndex_(start), tailIndex_(start) {}
  ~LinkQueue() {
    // A const reference would make copies of the moves below: a removed head would keep its link.
    static_assert(std::is_same_v<decltype(std::declval<Entry&>().lqNext()), Ptr<Entry>&>,
                  "give the entry a `Ptr<Entry>& lqNext()` besides its const form: the queue moves "
                  "the link out of an entry that it removes");
    _memberDelAll();
  }
  LinkQueue(const LinkQueue&) = delete;
  LinkQueue& operator=(const LinkQueue&) = delete;

  // The index of the head entry; in an empty queue, the one the next appended entry gets.
  Index headIndex() const { return headIndex_; }
  // The index the next appended entry gets. The form on a queue that may change stores it.
  Index tailIndex() const {
    if (tail_ && U64(tail_->fwkQkey()) + 1 > tailIndex_) {
      return static_cast<Index>(U64(tail_->fwkQkey()) + 1);
    }
    return tailIndex_;
  }
  Index tailIndex() { return tailIndex_ = std::as_const(*this).tailIndex(); }
  // Overwrite the index fields; no entry moves.
  void headIndexIs(Index index) { headIndex_ = index; }
  void tailIndexIs(Index index) { tailIndex_ = index; }
  // Steps, around the wrap, with every change of the structure.
  U32 version() const { return version_; }
  U32 members() const { return members_; }
  const Ptr<Entry>& head() const { return head_; }  // null: empty

  // Appends; null does nothing. RangeException "linkqueue index space full", and an unchanged
  // queue, when only one index is left: it is kept free.
  // Kept on purpose: the check runs on an empty queue too, and refuses there when headIndex
  // happens to be one above the next index.
  void memberNew(Ptr<Entry> entry);

  // Places `entry` under `index`: appends it if that is the next index; moves it if it is linked
  // already; replaces the entry that has the index; or inserts it before the first higher one. Null
  // deletes the entry under `index`. Placing checks no index space and does not know of the wrap.
  void memberIs(Index index, Ptr<Entry> entry) {
    if (index == tailIndex()) {
      memberNew(std::move(entry));
    } else {
      place(index, std::move(entry));
    }
  }
  void newMember(const Ptr<Entry>& entry) { memberIs(entry->fwkQkey(), entry); }

  // Remove and return the entry; null if there is none.
  Ptr<Entry> _memberDelHead();
  // Kept on purpose: deleting the tail takes its index back, and the next append uses it again
  // (unless it was the head as well).
  Ptr<Entry> _memberDel(Index index);
  // Drops every entry.
  void _memberDelAll();

  // The entry with exactly this index, or null.
  Ptr<Entry> operator[](Index index) const { return Ptr<Entry>(find(index)); }
  bool isMemberOf(Index index) const { return find(index) != nullptr; }
  // Where an iteration from `index` begins, around the wrap: the entry with that index or the first
  // one after it; null if there is none.
  Ptr<Entry> startAt(Index index) const;

 protected:
  // Releases a chain from the front, so that a long one is not released recursively.
  static void dropChain(Ptr<Entry> entry) {
    while (entry) {
      Ptr<Entry> next = std::move(entry->lqNext());
      entry = std::move(next);
    }
  }

 private:
  Entry* find(Index index) const {
    Entry* entry = head_.ptr();
    while (entry && entry->fwkQkey() != index) entry = entry->lqNext().ptr();
    return entry;
  }
  // memberIs for any index but the next one.
  void place(Index index, Ptr<Entry> entry);
  bool linked(const Entry& entry) const { return &entry == tail_ || entry.lqNext(); }
  void unlinkAfter(Entry* previous, Entry& found);

  Index headIndex_;
  Index tailIndex_;
  U32 version_ = 0;
  U32 members_ = 0;
  Ptr<Entry> head_;
  Entry* tail_ = nullptr;
};

// Walks a queue in FIFO order. The queue may change meanwhile: the current entry stays alive, and
// the next step finds its way by the entry's index. Invalid once the queue is gone. At the end
// there is neither key nor command: asking for one aborts.
template <class Entry, class Index>
template <class Seen>
class LinkQueue<Entry, Index>::Walk {
 public:
  Walk(const LinkQueue* queue, Ptr<Entry> entry)
      : queue_(queue), entry_(std::move(entry)), version_(queue->version()) {}

  explicit operator bool() const { return static_cast<bool>(entry_); }
  Index key() const { return seen().fwkQkey(); }
  Ptr<Seen> ptr() const { return entry_; }  // null at the end
  auto cmdBatch() const { return seen().cmdBatch(); }

  // At the end it stays there.
  Walk& operator++() {
    if (!entry_) return *this;
    if (version_ == queue_->version()) {
      entry_ = Ptr<Entry>(entry_->lqNext());
      return *this;
    }
    const Index last = entry_->fwkQkey();
    entry_ = queue_->startAt(last);
    if (entry_ && entry_->fwkQkey() == last) entry_ = Ptr<Entry>(entry_->lqNext());
    version_ = queue_->version();
    return *this;
  }

 private:
  Seen& seen() const {
    LUMO_ASSERT(entry_, "the walk is not at its end");
    return *entry_;
  }

  const LinkQueue* queue_;
  Ptr<Entry> entry_;
  U32 version_;
};

template <class Entry, class Index>
inline void LinkQueue<Entry, Index>::memberNew(Ptr<Entry> entry) {
  if (!entry) return;
  const Index next = tailIndex();
  if (static_cast<Index>(next + 1) == headIndex_) {
    throwRangeException("linkqueue index space full");
  }
  Entry* const added = entry.ptr();
  if (tail_) {
    tail_->lqNextIs(std::move(entry));
  } else {
    head_ = std::move(entry);
    headIndex_ = next;
  }
  added->lqNextIs(nullptr);
  added->fwkQkeyIs(next);
  tail_ = added;
  tailIndex_ = static_cast<Index>(next + 1);
  ++version_;
  ++members_;
}

template <class Entry, class Index>
inline void LinkQueue<Entry, Index>::place(Index index, Ptr<Entry> entry) {
  if (!entry) {
    _memberDel(index);
    return;
  }
  if (linked(*entry)) {
    if (entry->fwkQkey() == index) return;
    _memberDel(entry->fwkQkey());
    memberIs(index, entry);
    return;
  }
  Entry* previous = nullptr;
  Ptr<Entry> next = head_;
  while (next && next->fwkQkey() < index) {
    previous = next.ptr();
    next = next->lqNext();
  }
  if (next && next->fwkQkey() == index) {
    const Ptr<Entry> replaced = std::move(next);
    next = replaced->lqNext();
    replaced->lqNextIs(nullptr);
  } else {
    ++members_;
  }
  entry->lqNextIs(next);
  entry->fwkQkeyIs(index);
  if (!next) {
    tail_ = entry.ptr();
    if (tailIndex_ <= index) tailIndex_ = static_cast<Index>(index + 1);
  }
  if (previous) {
    previous->lqNextIs(entry);
  } else {
    headIndex_ = index;
    head_ = entry;
  }
  ++version_;
}

template <class Entry, class Index>
inline Ptr<Entry> LinkQueue<Entry, Index>::_memberDelHead() {
  Ptr<Entry> removed = std::move(head_);
  if (!removed) return removed;
  --members_;
  head_ = std::move(removed->lqNext());
  if (removed.ptr() == tail_) {
    tail_ = nullptr;
    headIndex_ = tailIndex();
  } else {
    headIndex_ = head_->fwkQkey();
    __builtin_prefetch(head_->lqNext().ptr());  // what the next call reads
  }
  ++version_;
  return removed;
}

template <class Entry, class Index>
inline Ptr<Entry> LinkQueue<Entry, Index>::_memberDel(Index index) {
  if (index == headIndex_) return _memberDelHead();
  Entry* previous = nullptr;
  Ptr<Entry> found = head_;
  while (found && found->fwkQkey() != index) {
    previous = found.ptr();
    found = found->lqNext();
  }
  if (found) unlinkAfter(previous, *found);
  return found;
}

template <class Entry, class Index>
void LinkQueue<Entry, Index>::unlinkAfter(Entry* previous, Entry& found) {
  if (&found == tail_) {
    tail_ = previous;
    if (previous) tailIndex_ = static_cast<Index>(previous->fwkQkey() + 1);
  }
  if (previous) {
    previous->lqNextIs(found.lqNext());
  } else {
    head_ = found.lqNext();
    headIndex_ = head_ ? head_->fwkQkey() : tailIndex();
  }
  found.lqNextIs(nullptr);
  ++version_;
  --members_;
}

template <class Entry, class Index>
inline void LinkQueue<Entry, Index>::_memberDelAll() {
  dropChain(std::move(head_));
  tail_ = nullptr;
  headIndex_ = tailIndex_;
  ++version_;
  members_ = 0;
}

template <class Entry, class Index>
inline Ptr<Entry> LinkQueue<Entry, Index>::startAt(Index index) const {
  if (!head_) return nullptr;
  const Index first = head_->fwkQkey();
  const Index last = tail_->fwkQkey();
  if (first == index) return head_;
  if (last == index) return Ptr<Entry>(tail_);
  const bool wrapped = last < first;
  const bool inLowRun = wrapped && index < first;
  if (last < index && (!wrapped || inLowRun)) return nullptr;

  Entry* entry = head_.ptr();
  Index previous = first;
  // Through the first run: past all of it when the index lies in the run behind the wrap, else up
  // to the index. Where the run ends first, the entry after the wrap is the one.
  while (entry && entry->fwkQkey() >= previous && (inLowRun || entry->fwkQkey() < index)) {
    previous = entry->fwkQkey();
    entry = entry->lqNext().ptr();
  }
  if (inLowRun) {
    while (entry && entry->fwkQkey() < index) entry = entry->lqNext().ptr();
  }
  return Ptr<Entry>(entry);
}

}  // namespace Lumo
