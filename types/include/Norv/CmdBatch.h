#pragma once

#include <algorithm>
#include <utility>

#include <Lumo/LinkQueue.h>
#include <Norv/GrpcCmd.h>

namespace Norv {

// The externally visible form of a queue's two index fields.
struct CmdBatchMetadata {
  CmdBatchMetadata() = default;
  CmdBatchMetadata(U32 head, U32 tail) : headIndex(head), tailIndex(tail) {}
  bool operator==(const CmdBatchMetadata&) const = default;

  U32 headIndex = 0;
  U32 tailIndex = 0;
};

// One place in the queue of an `Owner`: the index, the command (which may be null) and the link
// that owns the next place.
template <class Owner>
class CmdBatchEntry : public Lumo::PtrInterface {
  LUMO_OBJECT(CmdBatchEntry)

 public:
  CmdBatchEntry(U32 index, Lumo::Ptr<GrpcCmd> cmd) : index_(index), cmdBatch_(std::move(cmd)) {}

  U32 fwkQkey() const { return index_; }
  void fwkQkeyIs(U32 index) { index_ = index; }
  const Lumo::Ptr<GrpcCmd>& cmdBatch() const { return cmdBatch_; }
  Lumo::Ptr<GrpcCmd>& cmdBatch() { return cmdBatch_; }
  void cmdBatchIs(const Lumo::Ptr<GrpcCmd>& cmd) { cmdBatch_ = cmd; }
  // From an entry that may not be changed, none of the others can be either.
  Lumo::Ptr<const CmdBatchEntry> lqNext() const { return lqNext_; }
  Lumo::Ptr<CmdBatchEntry>& lqNext() { return lqNext_; }
  void lqNextIs(Lumo::Ptr<CmdBatchEntry> next) { lqNext_ = std::move(next); }

 private:
  U32 index_;
  Lumo::Ptr<GrpcCmd> cmdBatch_;
  Lumo::Ptr<CmdBatchEntry> lqNext_;
};

// The indexed queue of commands inside an `Owner`, which adds its notifications around these calls.
// Entries that were taken wait for the next appends, so that a queue whose commands come and go,
// also in batches, asks the heap for nothing. Those of a large batch go, some at a time, where the
// batches after it are smaller.
template <class Owner>
class CmdBatch : public Lumo::LinkQueue<CmdBatchEntry<Owner>> {
 public:
  using Entry = CmdBatchEntry<Owner>;

  CmdBatch() = default;
  ~CmdBatch() { this->dropChain(std::move(spare_)); }

  // Appends `cmd`, null included, and returns its index.
  U32 enq(Lumo::Ptr<GrpcCmd> cmd) {
    const U32 index = this->tailIndex();
    this->memberNew(entry(index, std::move(cmd)));
    return index;
  }
  // Sets, inserts or (null) deletes the command under `index`; false if there was nothing to do.
  bool is(U32 index, const Lumo::Ptr<GrpcCmd>& cmd) {
    const Lumo::Ptr<Entry> present = (*this)[index];
    if (!present && !cmd) return false;
    if (!present) {
      this->newMember(entry(index, cmd));
    } else if (!cmd) {
      this->_memberDel(index);
    } else {
      present->cmdBatchIs(cmd);
    }
    return true;
  }
  // The command of a removed entry (null: of none), and the end of the entry. If an iterator stands
  // on it, the command stays there as well.
  Lumo::Ptr<GrpcCmd> cmdOf(Lumo::Ptr<Entry> removed) {
    if (!removed) return nullptr;
    if (removed->references() > 1) return removed->cmdBatch();
    Lumo::Ptr<GrpcCmd> cmd = std::move(removed->cmdBatch());
    if (spares_ < mostSpares) {
      removed->lqNextIs(std::move(spare_));
      spare_ = std::move(removed);
      ++spares_;
    }
    if (!this->head()) dropUnused();
    return cmd;
  }
  Lumo::Ptr<GrpcCmd> cmd(U32 index) const {
    const Lumo::Ptr<Entry> present = (*this)[index];
    return present ? present->cmdBatch() : nullptr;
  }
  CmdBatchMetadata metadata() const { return {this->headIndex(), this->tailIndex()}; }
  void metadataIs(const CmdBatchMetadata& metadata) {
    this->headIndexIs(metadata.headIndex);
    this->tailIndexIs(metadata.tailIndex);
  }
  typename CmdBatch::Iterator iterator() { return {this, this->head()}; }
  typename CmdBatch::IteratorConst iteratorConst() const { return {this, this->head()}; }
  typename CmdBatch::IteratorConst iteratorConst(U32 index) const {
    return {this, this->startAt(index)};
  }

 private:
  static constexpr U32 mostSpares = 128 * 1024;  // 6 MiB of heap
  static constexpr U32 fewSpares = 1024;         // 48 KiB, kept in any case
  static constexpr U32 mostDropped = 1024;       // at a time: tens of microseconds

  Lumo::Ptr<Entry> entry(U32 index, Lumo::Ptr<GrpcCmd> cmd) {
    if (!spare_) return Lumo::allocate<Entry>(index, std::move(cmd));
    Lumo::Ptr<Entry> reused = takeSpare();
    reused->fwkQkeyIs(index);
    reused->cmdBatch() = std::move(cmd);
    return reused;
  }
  Lumo::Ptr<Entry> takeSpare() {
    Lumo::Ptr<Entry> taken = std::move(spare_);
    spare_ = std::move(taken->lqNext());
    --spares_;
    return taken;
  }
  // The queue has become empty: what the appends since it was so before cannot have needed.
  void dropUnused() {
    const U32 appended = std::as_const(*this).tailIndex() - emptyAt_;
    emptyAt_ += appended;
    U32 going = std::min(spares_ - std::min(appended, spares_), mostDropped);
    for (; going > 0 && spares_ > fewSpares; --going) takeSpare();
  }

  Lumo::Ptr<Entry> spare_;  // the first of a chain without commands
  U32 spares_ = 0;
  U32 emptyAt_ = 0;  // the tail index when the queue became empty last
};

}  // namespace Norv
