#pragma once

#include <Lumo/KeyedCollection.h>
#include <Norv/CmdConfigGroup.h>

namespace Norv {

// All named queues of the agent, by name. Main thread only; reactors are called inside the mutators
// and see the new state.
class GrpcGlobalCmdConfig : public Lumo::Entity {
  LUMO_OBJECT(GrpcGlobalCmdConfig)

 public:
  using CmdConfigGroupIterator = Lumo::KeyedCollection<Lumo::Name, CmdConfigGroup>::Iterator;
  using CmdConfigGroupIteratorConst = CmdConfigGroupIterator;

  class NotifieeConst : public Lumo::NotifieeConst {
    LUMO_OBJECT(NotifieeConst)

   public:
    ~NotifieeConst() override { doZombieReactor(true); }
    Lumo::Ptr<GrpcGlobalCmdConfig const> notifier() const {
      return static_cast<const GrpcGlobalCmdConfig*>(lumoRawNotifier());
    }
    virtual void onCmdConfigGroup(Lumo::Name /*name*/) {}  // added, replaced or removed
    virtual void onCmdConfigGrouplumoImmediate() {}        // offered by the framework, never fired
    virtual void onCmdConfigGroup() {}                     // likewise
    virtual void lumoDoZombieReactors(bool zombie) { doZombieReactor(zombie); }

   protected:
    NotifieeConst() : Lumo::NotifieeConst(&follows<GrpcGlobalCmdConfig>) {}
    // Makes the reactor ready: active, enabled, following, registered.
    explicit NotifieeConst(const Lumo::Ptr<GrpcGlobalCmdConfig const>& config) : NotifieeConst() {
      startFollowing(config);
    }
  };

  explicit GrpcGlobalCmdConfig(Lumo::Name name) : name_(name) {}
  static Lumo::ValidPtr<GrpcGlobalCmdConfig> GrpcGlobalCmdConfigIs(Lumo::Name name);

  Lumo::NotifieeList* notifieeList() const override { return &notifiees_; }
  void zeroReferencesIs(bool zero) override;
  ~GrpcGlobalCmdConfig() override = default;
  void nameIsFromBackup(Lumo::Name name) override { name_ = name; }
  Lumo::Name name() const override { return name_; }

  Lumo::Ptr<CmdConfigGroup> cmdConfigGroup(Lumo::Name name) const {  // null: absent
    return cmdConfigGroup_[name];
  }
  bool cmdConfigGroupHas(Lumo::Name name) const { return cmdConfigGroup_.isMemberOf(name); }
  U32 cmdConfigGroups() const { return cmdConfigGroup_.members(); }
  // Adds the queue under its own name, or replaces the one that has the name; fires
  // onCmdConfigGroup(name) unless it is there already. Null is refused with a RangeException and
  // changes nothing.
  // With a connection manager alive, replacing a queue by another object of the same name raises
  // the manager's NameInUseException from the notification: the new queue is then in the
  // collection, and the manager still follows the old one. Delete the old queue first.
  void cmdConfigGroupIs(const Lumo::Ptr<CmdConfigGroup>& cmdConfigGroup);
  // Remove and return; null, and no notification, if absent.
  Lumo::Ptr<CmdConfigGroup> cmdConfigGroupDel(Lumo::Name name);
  // By iterator: null as well, and nothing removed, at its end and where the queue that it stands
  // on is the collection's no longer.
  Lumo::Ptr<CmdConfigGroup> cmdConfigGroupDel(CmdConfigGroupIterator& iterator);
  // Removes one by one, each with its notification.
  void cmdConfigGroupDelAll();
  CmdConfigGroupIterator cmdConfigGroupIterator() { return cmdConfigGroup_.iterator(); }
  CmdConfigGroupIteratorConst cmdConfigGroupIteratorConst() const {
    return cmdConfigGroup_.iterator();
  }
  CmdConfigGroupIteratorConst cmdConfigGroupIteratorConst(Lumo::Name name) const {
    return cmdConfigGroup_.iterator(name);
  }

 private:
  void cmdConfigGroupNotify(const Lumo::Name& name);

  Lumo::Name name_;
  Lumo::KeyedCollection<Lumo::Name, CmdConfigGroup> cmdConfigGroup_;
  mutable Lumo::TypedNotifieeList<NotifieeConst> notifiees_;
};

Lumo::Ptr<GrpcGlobalCmdConfig> grpcGlobalCmdConfigFactory(Lumo::Name name);

}  // namespace Norv
