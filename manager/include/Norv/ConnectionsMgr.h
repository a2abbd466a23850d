#pragma once

#include <thread>

#include <Lumo/Lock.h>
#include <Norv/CmdConfigGroupSm.h>
#include <Norv/CmdGroup.h>
#include <Norv/ConnectionConfig.h>
#include <Norv/GrpcErrorHandlingStatus.h>
#include <Norv/GrpcGlobalCmdConfig.h>

namespace Norv {

class GrpcClient;

// Ties the producers' queues to the daemon: connects as soon as it exists, follows every named
// queue with a state machine, and moves announced batches into the pending queue, from which its
// client thread sends them.
//
// With the environment variable SIMULATION_NORV set, to any value, there is no connection and no
// thread: batches pile up in the pending queue. The variable is read afresh at each decision;
// change it only while no action of the manager runs.
//
// Main thread only. The manager and its client thread share the pending queue under threadLock. A
// connected manager cannot be destroyed: see destroyGrpcClient.
class ConnectionsMgr : public Lumo::PtrInterface {
  LUMO_OBJECT(ConnectionsMgr)

 public:
  using CmdConfigGroupSmIterator = Lumo::KeyedCollection<Lumo::Name, CmdConfigGroupSm>::Iterator;
  using CmdConfigGroupSmIteratorConst = CmdConfigGroupSmIterator;

  // Tells the manager of queues that come and go.
  class LumoGlobalCmdConfig : public GrpcGlobalCmdConfig::NotifieeConst {
    LUMO_OBJECT(LumoGlobalCmdConfig)

   public:
    LumoGlobalCmdConfig(const Lumo::Ptr<GrpcGlobalCmdConfig>& config, ConnectionsMgr* owner);
    ~LumoGlobalCmdConfig() override { lumoDoZombieReactors(true); }
    void hasNotificationActiveIs(bool active) override;
    using GrpcGlobalCmdConfig::NotifieeConst::onCmdConfigGroup;
    void onCmdConfigGroup(Lumo::Name name) override;
    ConnectionsMgr* connectionsMgr() const { return connectionsMgr_; }
    void connectionsMgrIs(ConnectionsMgr* owner) { connectionsMgr_ = owner; }

   private:
    ConnectionsMgr* connectionsMgr_;  // not counted
  };

  // Ends by calling handleInitialized. None of them may be null. What a producer's reactor throws
  // when waiting commands move comes out of here, and nothing of the connection stays behind;
  // commands already moved stay in the pending queue.
  ConnectionsMgr(const Lumo::Ptr<const ConnectionConfig>& hostConfig,
                 const Lumo::Ptr<GrpcGlobalCmdConfig>& globalCmdConfig,
                 const Lumo::Ptr<CmdGroup>& pendingQueue,
                 const Lumo::Ptr<GrpcErrorHandlingStatus>& grpcErrorHandlingStatus);
  static Lumo::ValidPtr<ConnectionsMgr> ConnectionsMgrIs(
      const Lumo::Ptr<const ConnectionConfig>& hostConfig,
      const Lumo::Ptr<GrpcGlobalCmdConfig>& globalCmdConfig,
      const Lumo::Ptr<CmdGroup>& pendingQueue,
      const Lumo::Ptr<GrpcErrorHandlingStatus>& grpcErrorHandlingStatus);
  // Ends the process while a worker runs; see destroyGrpcClient.
  ~ConnectionsMgr() override;

  Lumo::Ptr<const ConnectionConfig> hostConfig() const { return hostConfig_; }
  Lumo::Ptr<GrpcGlobalCmdConfig> globalCmdConfig() const;
  // Follows another collection from now on. Its queues are not walked, and the machines stay, until
  // notifications for their names arrive. Null: follows none until another one is set; the machines
  // go on.
  void globalCmdConfigIs(const Lumo::Ptr<GrpcGlobalCmdConfig>& config);
  Lumo::Ptr<CmdGroup> pendingQueue() const { return pendingQueue_; }
  Lumo::Ptr<GrpcErrorHandlingStatus> grpcErrorHandlingStatus() const {
    return grpcErrorHandlingStatus_;
  }

  // Owned by plain pointers, null in simulation. Setting one stores it and deletes nothing.
  GrpcClient* client() const { return client_; }
  void clientIs(GrpcClient* client) { client_ = client; }
  std::thread* grpcReplyThread() const { return grpcReplyThread_; }
  void grpcReplyThreadIs(std::thread* thread) { grpcReplyThread_ = thread; }
  Lumo::Lock* threadLock() const { return threadLock_; }
  void threadLockIs(Lumo::Lock* lock) { threadLock_ = lock; }
  Lumo::Condition* threadCondition() const { return threadCondition_; }
  void threadConditionIs(Lumo::Condition* condition) { threadCondition_ = condition; }

  // One machine per named queue, by the queue's name.
  Lumo::Ptr<CmdConfigGroupSm> cmdConfigGroupSm(Lumo::Name name) const {  // null: absent
    return cmdConfigGroupSm_[name];
  }
  bool cmdConfigGroupSmHas(Lumo::Name name) const { return cmdConfigGroupSm_.isMemberOf(name); }
  // The machine of the group, made if absent. RangeException for null.
  // Kept on purpose: NameInUseException, and nothing changed, if the name's machine follows another
  // group, also when that one has been replaced in the collection.
  Lumo::ValidPtr<CmdConfigGroupSm> cmdConfigGroupSmIs(const Lumo::Ptr<CmdConfigGroup>& group);
  // Removes, lets go and returns the machine; null: absent. By iterator: null as well, and nothing
  // removed, at its end and where the machine that it stands on is the collection's no longer.
  Lumo::Ptr<CmdConfigGroupSm> cmdConfigGroupSmDel(Lumo::Name name);
  Lumo::Ptr<CmdConfigGroupSm> cmdConfigGroupSmDel(CmdConfigGroupSmIterator& iterator);
  void cmdConfigGroupSmDelAll();
  U32 cmdConfigGroupSms() const { return cmdConfigGroupSm_.members(); }
  CmdConfigGroupSmIterator cmdConfigGroupSmIterator() { return cmdConfigGroupSm_.iterator(); }
  CmdConfigGroupSmIteratorConst cmdConfigGroupSmIteratorConst() const {
    return cmdConfigGroupSm_.iterator();
  }
  CmdConfigGroupSmIteratorConst cmdConfigGroupSmIteratorConst(Lumo::Name name) const {
    return cmdConfigGroupSm_.iterator(name);
  }

  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }

  // Connects (or not, in simulation) and makes a machine for every queue that is there. A second
  // call only traces. The worker begins when all are made; an exception takes the connection down
  // again, and the next call starts over.
  void handleInitialized();

  // Deletes thread, condition, lock and client, each asserted to be there; in simulation nothing.
  // Kept on purpose: the thread is not joined and cannot be told to stop, so that this ends the
  // process while a worker runs; and the pointers stay as they were, so that it works once only.
  void destroyGrpcClient();

  // Deletes every pending command, under threadLock. In simulation, and before initialization,
  // nothing. Only reached by name, through the generic interface.
  void doFlushPendingQueue();

  // Moves every command of the group to the pending queue, in order, under one hold of threadLock,
  // and wakes the client once. While the error flag is set the commands are deleted instead.
  // RangeException for null, here and below. A producer's reactor may set the pointer that was
  // given.
  void doEnqueueBatch(const Lumo::Ptr<CmdConfigGroup>& group);
  // The move itself; returns how many there were at its start.
  // Kept on purpose: stops at a null command.
  U32 doEnqueueBatchHelper(const Lumo::Ptr<CmdConfigGroup>& group);

  // A queue has come, changed or gone. RangeException where no collection is followed.
  void handleCmdConfigGroup(Lumo::Name name);
  void lumo_handleGlobalCmdConfig_cmdConfigGroup(Lumo::Name name) { handleCmdConfigGroup(name); }

  // Marks the manager's own reactor; not those of the machines.
  void lumoDoZombieReactors(bool zombie);
  // Passed on to the manager's reactor and to every machine.
  void hasNotificationActiveIs(bool active) override;

 private:
  class Connecting;

  void leave();

  Lumo::Ptr<const ConnectionConfig> hostConfig_;
  Lumo::Ptr<LumoGlobalCmdConfig> lumoGlobalCmdConfig_;
  Lumo::Ptr<CmdGroup> pendingQueue_;
  Lumo::Ptr<GrpcErrorHandlingStatus> grpcErrorHandlingStatus_;
  GrpcClient* client_ = nullptr;
  std::thread* grpcReplyThread_ = nullptr;
  Lumo::Lock* threadLock_ = nullptr;
  Lumo::Condition* threadCondition_ = nullptr;
  Lumo::KeyedCollection<Lumo::Name, CmdConfigGroupSm> cmdConfigGroupSm_{4};
  bool initialized_ = false;
};

Lumo::Ptr<ConnectionsMgr> connectionsMgrFactory(
    Lumo::Ptr<ConnectionConfig const> hostConfig, Lumo::Ptr<GrpcGlobalCmdConfig> globalCmdConfig,
    Lumo::Ptr<CmdGroup> pendingQueue, Lumo::Ptr<GrpcErrorHandlingStatus> grpcErrorHandlingStatus);

}  // namespace Norv
