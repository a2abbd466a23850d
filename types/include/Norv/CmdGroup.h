#pragma once

#include <Norv/CmdBatch.h>

namespace Norv {

class CmdGroup;
template <>
const Lumo::LumoType CmdBatchEntry<CmdGroup>::_lumoType;

// The pending queue between the manager and the client: commands that wait to be sent. It has no
// lock of its own; the two share it under the manager's threadLock, and so must anyone else.
class CmdGroup : public Lumo::PtrInterface {
  LUMO_OBJECT(CmdGroup)

 public:
  using LumoCmdBatch = CmdBatchEntry<CmdGroup>;
  using CmdBatchMetadata = Norv::CmdBatchMetadata;
  using CmdBatchIterator = CmdBatch<CmdGroup>::Iterator;
  using CmdBatchIteratorConst = CmdBatch<CmdGroup>::IteratorConst;

  CmdGroup() = default;
  static Lumo::ValidPtr<CmdGroup> CmdGroupIs();
  ~CmdGroup() override = default;

  // The queue, as LinkQueue describes it. Enqueuing and inserting pass its RangeException on; a
  // reference that was given away with std::move is gone then, too.
  void cmdBatchEnq(const Lumo::Ptr<GrpcCmd>& cmd) { cmdBatch_.enq(cmd); }
  void cmdBatchEnq(Lumo::Ptr<GrpcCmd>&& cmd) { cmdBatch_.enq(std::move(cmd)); }
  // Inserts (absent), replaces (present) or, with null, deletes.
  void cmdBatchIs(U32 index, const Lumo::Ptr<GrpcCmd>& cmd) { cmdBatch_.is(index, cmd); }
  // The command of the head entry, which is taken out; null if the queue is empty. Of the entry
  // `index` likewise.
  Lumo::Ptr<GrpcCmd> cmdBatchDeq() { return cmdBatch_.cmdOf(cmdBatch_._memberDelHead()); }
  Lumo::Ptr<GrpcCmd> cmdBatchDel(U32 index);
  // Deletes entry by entry through an iterator.
  // Kept on purpose: the iterator does not find its way around the wrap. As long as the indexes of
  // the queue wrap somewhere between head and tail, a call deletes the head entry and no other.
  void cmdBatchDelAll();
  // Null if there is no such entry.
  Lumo::Ptr<GrpcCmd> cmdBatch(U32 index) const { return cmdBatch_.cmd(index); }
  bool cmdBatchHas(U32 index) const { return cmdBatch_.isMemberOf(index); }
  U32 cmdBatchs() const { return cmdBatch_.members(); }
  CmdBatchIterator cmdBatchIterator() { return cmdBatch_.iterator(); }
  CmdBatchIteratorConst cmdBatchIteratorConst() const { return cmdBatch_.iteratorConst(); }
  CmdBatchIteratorConst cmdBatchIteratorConst(U32 index) const {
    return cmdBatch_.iteratorConst(index);
  }
  CmdBatchMetadata cmdBatchMetadata() const { return cmdBatch_.metadata(); }
  void cmdBatchMetadataIs(const CmdBatchMetadata& metadata) { cmdBatch_.metadataIs(metadata); }
  U32 cmdBatchVersion() const { return cmdBatch_.version(); }
  // Nobody follows a pending queue: does nothing.
  void cmdBatchNotify(U32) {}

  // A ceiling for the queue's users to read; nothing here or in the manager or client enforces it.
  U16 limit() const { return limit_; }
  void limitIs(U16 limit) { limit_ = limit; }
  // A count for the queue's users to keep; neither manager nor client touches it. pendingCountInc
  // adds modulo 2^16 and returns the sum; to subtract, add the two's complement.
  U16 pendingCount() const { return pendingCount_; }
  void pendingCountIs(U16 count) { pendingCount_ = count; }
  U16 pendingCountInc(U16 delta) { return pendingCount_ = static_cast<U16>(pendingCount_ + delta); }

 private:
  CmdBatch<CmdGroup> cmdBatch_;
  U16 limit_ = 4096;
  U16 pendingCount_ = 0;
};

Lumo::Ptr<CmdGroup> cmdGroupFactory();

}  // namespace Norv
