#pragma once

#include <Lumo/Clock.h>
#include <Norv/CmdConfigGroup.h>

namespace Norv {

class ConnectionsMgr;

// Follows one named queue for the manager and moves its commands on whenever they are announced.
// Main thread only. It keeps its queue alive until it is deleted itself. Once the manager has let
// it go, with its queue or at the manager's own end, it moves nothing any more, whoever still holds
// it.
class CmdConfigGroupSm : public Lumo::PtrInterface {
  LUMO_OBJECT(CmdConfigGroupSm)

 public:
  // Holds the clock and reacts to nothing.
  class LumoClock : public Lumo::Clock::NotifieeConst {
    LUMO_OBJECT(LumoClock)

   public:
    LumoClock(const Lumo::Ptr<const Lumo::Clock>& clock, CmdConfigGroupSm* owner);
    ~LumoClock() override { lumoDoZombieReactors(true); }
    void hasNotificationActiveIs(bool active) override;
    virtual void lumoDoZombieReactors(bool zombie) { doZombieReactor(zombie); }
    CmdConfigGroupSm* cmdConfigGroupSm() const { return cmdConfigGroupSm_; }
    void cmdConfigGroupSmIs(CmdConfigGroupSm* owner) { cmdConfigGroupSm_ = owner; }

   private:
    CmdConfigGroupSm* cmdConfigGroupSm_;  // not counted
  };

  // Calls handleBatch() when a batch is announced, and when it is pointed at another queue.
  class LumoConfigGroup : public CmdConfigGroup::NotifieeConst {
    LUMO_OBJECT(LumoConfigGroup)

   public:
    // The first queue is set without a call of handleBatch().
    LumoConfigGroup(const Lumo::Ptr<CmdConfigGroup>& group, CmdConfigGroupSm* owner);
    ~LumoConfigGroup() override { lumoDoZombieReactors(true); }
    void hasNotificationActiveIs(bool active) override;
    void notifierIs(Lumo::Ptr<Lumo::PtrInterface const> const& notifier) override;
    void onEnqueueVersion() override;
    CmdConfigGroupSm* cmdConfigGroupSm() const { return cmdConfigGroupSm_; }
    void cmdConfigGroupSmIs(CmdConfigGroupSm* owner) { cmdConfigGroupSm_ = owner; }

   private:
    void handleBatch();

    CmdConfigGroupSm* cmdConfigGroupSm_;  // not counted
  };

  // Moves the commands already waiting, at once. `configGroup` may be null. The manager is not
  // owned: it must outlive a machine that is not in its collection.
  CmdConfigGroupSm(const Lumo::Ptr<CmdConfigGroup>& configGroup, ConnectionsMgr* connectionsMgr);
  static Lumo::ValidPtr<CmdConfigGroupSm> CmdConfigGroupSmIs(
      const Lumo::Ptr<CmdConfigGroup>& configGroup, ConnectionsMgr* connectionsMgr);
  ~CmdConfigGroupSm() override;

  // Optional; the clock changes no behaviour.
  Lumo::Ptr<const Lumo::Clock> clock() const;
  void clockIs(const Lumo::Ptr<const Lumo::Clock>& clock);
  void clockDel() { clockIs(nullptr); }

  Lumo::Ptr<CmdConfigGroup> configGroup() const;  // null: follows none
  // Another queue: the same reactor follows it and its waiting commands move.
  // Kept on purpose: after configGroupDel, setting a queue does not move what already waits in it;
  // that goes with the next announcement.
  void configGroupIs(const Lumo::Ptr<CmdConfigGroup>& configGroup);
  void configGroupDel() { configGroupIs(nullptr); }

  Lumo::Name name() const;  // the queue's; empty without a queue
  ConnectionsMgr* connectionsMgr() const { return connectionsMgr_; }  // null: it has let go

  // Hands the queue to the manager's doEnqueueBatch, unless the queue is empty or the manager has
  // let the machine go.
  void handleBatch();

  // Passed on to both reactors, the clock's first.
  void lumoDoZombieReactors(bool zombie);
  void hasNotificationActiveIs(bool active) override;

  // The manager lets the machine go: a zombie without a manager.
  void letGo();

 private:
  Lumo::Ptr<LumoClock> lumoClock_;
  Lumo::Ptr<LumoConfigGroup> lumoConfigGroup_;
  ConnectionsMgr* connectionsMgr_;
};

Lumo::Ptr<CmdConfigGroupSm> cmdConfigGroupSmFactory(Lumo::Ptr<CmdConfigGroup> configGroup,
                                                    ConnectionsMgr* connectionsMgr);

}  // namespace Norv
