#pragma once

#include <Lumo/Entity.h>
#include <Norv/CmdBatch.h>

namespace Norv {

class CmdConfigGroup;
template <>
const Lumo::LumoType CmdBatchEntry<CmdConfigGroup>::_lumoType;

// A named queue of one producer: it appends commands and then raises enqueueVersion, which moves
// all of them on. Main thread only; reactors are called inside the mutators and see the new state.
class CmdConfigGroup : public Lumo::Entity {
  LUMO_OBJECT(CmdConfigGroup)

 public:
  using LumoCmdBatch = CmdBatchEntry<CmdConfigGroup>;
  using CmdBatchMetadata = Norv::CmdBatchMetadata;
  using CmdBatchIterator = CmdBatch<CmdConfigGroup>::Iterator;
  using CmdBatchIteratorConst = CmdBatch<CmdConfigGroup>::IteratorConst;

  class NotifieeConst : public Lumo::NotifieeConst {
    LUMO_OBJECT(NotifieeConst)

   public:
    ~NotifieeConst() override { doZombieReactor(true); }
    Lumo::Ptr<CmdConfigGroup const> notifier() const {
      return static_cast<const CmdConfigGroup*>(lumoRawNotifier());
    }
    virtual void onCmdBatch(U32 /*index*/) {}  // an entry was added, replaced or removed
    virtual void onCmdBatchlumoImmediate() {}  // offered by the framework, never fired
    virtual void onCmdBatch() {}               // likewise
    virtual void onCmdBatchMetadata() {}
    virtual void onEnqueueVersion() {}
    virtual void onIgnoreConfigQueueLimit() {}
    virtual void lumoDoZombieReactors(bool zombie) { doZombieReactor(zombie); }

   protected:
    NotifieeConst() : Lumo::NotifieeConst(&follows<CmdConfigGroup>) {}
    // Makes the reactor ready: active, enabled, following, registered.
    explicit NotifieeConst(const Lumo::Ptr<CmdConfigGroup const>& group) : NotifieeConst() {
      startFollowing(group);
    }
  };

  explicit CmdConfigGroup(Lumo::Name name) : name_(name) {}
  static Lumo::ValidPtr<CmdConfigGroup> CmdConfigGroupIs(Lumo::Name name);

  Lumo::NotifieeList* notifieeList() const override { return &notifiees_; }
  void zeroReferencesIs(bool zero) override;
  ~CmdConfigGroup() override = default;
  void nameIsFromBackup(Lumo::Name name) override { name_ = name; }
  Lumo::Name name() const override { return name_; }

  // The queue, as LinkQueue describes it. Each change fires onCmdBatch(index). Enqueuing and
  // inserting pass the queue's RangeException on, before any notification; a reference that was
  // given away with std::move is gone then, too.
  void cmdBatchEnq(const Lumo::Ptr<GrpcCmd>& cmd);
  void cmdBatchEnq(Lumo::Ptr<GrpcCmd>&& cmd);
  // Inserts (absent), replaces (present) or, with null, deletes.
  // Kept on purpose: setting the command an entry already holds fires nothing only if the index is
  // below the number of entries.
  void cmdBatchIs(U32 index, const Lumo::Ptr<GrpcCmd>& cmd);
  // The command of the head entry, which is taken out; null, and no notification, if the queue is
  // empty. Of the entry `index` likewise.
  Lumo::Ptr<GrpcCmd> cmdBatchDeq();
  Lumo::Ptr<GrpcCmd> cmdBatchDel(U32 index);
  // As CmdGroup's, with a notification for each entry.
  void cmdBatchDelAll();
  Lumo::Ptr<GrpcCmd> cmdBatch(U32 index) const { return cmdBatch_.cmd(index); }
  bool cmdBatchHas(U32 index) const { return cmdBatch_.isMemberOf(index); }
  U32 cmdBatchs() const { return cmdBatch_.members(); }
  CmdBatchIterator cmdBatchIterator() { return cmdBatch_.iterator(); }
  CmdBatchIteratorConst cmdBatchIteratorConst() const { return cmdBatch_.iteratorConst(); }
  CmdBatchIteratorConst cmdBatchIteratorConst(U32 index) const {
    return cmdBatch_.iteratorConst(index);
  }
  CmdBatchMetadata cmdBatchMetadata() const { return cmdBatch_.metadata(); }
  // Restores the index range; no entry moves. Always fires onCmdBatchMetadata().
  void cmdBatchMetadataIs(const CmdBatchMetadata& metadata);
  U32 cmdBatchVersion() const { return cmdBatch_.version(); }

  // Raised by the producer each time a batch is ready; the value itself means nothing.
  U64 enqueueVersion() const { return enqueueVersion_; }
  void enqueueVersionIs(const U64& version);
  // Adds modulo 2^64 and returns the sum.
  U64 enqueueVersionInc(const U64& delta);

  // For producers to keep; the manager moves every command whatever it says.
  bool ignoreConfigQueueLimit() const { return ignoreConfigQueueLimit_; }
  void ignoreConfigQueueLimitIs(bool ignore);

 private:
  void cmdBatchNotify(U32 index);

  Lumo::Name name_;
  CmdBatch<CmdConfigGroup> cmdBatch_;
  U64 enqueueVersion_ = 0;
  bool ignoreConfigQueueLimit_ = false;
  mutable Lumo::TypedNotifieeList<NotifieeConst> notifiees_;
};

Lumo::Ptr<CmdConfigGroup> cmdConfigGroupFactory(Lumo::Name name);

}  // namespace Norv
