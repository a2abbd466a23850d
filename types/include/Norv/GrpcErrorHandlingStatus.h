#pragma once

#include <Lumo/Entity.h>

namespace Norv {

// The one flag by which the client says that an RPC has failed. Client and manager look at it
// before they send or move more. Kept on purpose: they set it and never clear it. Clearing is the
// agent's decision.
//
// The flag is set on the client's thread, which also delivers onErrorOccured(), holding no lock: a
// reactor that touches entities takes an ActivityLockAnchor itself. The flag may be read anywhere.
class GrpcErrorHandlingStatus : public Lumo::Entity {
  LUMO_OBJECT(GrpcErrorHandlingStatus)

 public:
  class NotifieeConst : public Lumo::NotifieeConst {
    LUMO_OBJECT(NotifieeConst)

   public:
    ~NotifieeConst() override { doZombieReactor(true); }
    Lumo::Ptr<GrpcErrorHandlingStatus const> notifier() const {
      return static_cast<const GrpcErrorHandlingStatus*>(lumoRawNotifier());
    }
    virtual void onErrorOccured() {}
    virtual void lumoDoZombieReactors(bool zombie) { doZombieReactor(zombie); }

   protected:
    NotifieeConst() : Lumo::NotifieeConst(&follows<GrpcErrorHandlingStatus>) {}
    // Makes the reactor ready: active, enabled, following, registered. Only for a status whose
    // client does not run yet; otherwise begin with the other constructor and call startFollowing
    // last.
    explicit NotifieeConst(const Lumo::Ptr<GrpcErrorHandlingStatus const>& status)
        : NotifieeConst() {
      startFollowing(status);
    }
  };

  GrpcErrorHandlingStatus() = default;
  static Lumo::ValidPtr<GrpcErrorHandlingStatus> GrpcErrorHandlingStatusIs();

  Lumo::NotifieeList* notifieeList() const override { return &notifiees_; }
  void zeroReferencesIs(bool zero) override;
  ~GrpcErrorHandlingStatus() override = default;
  Lumo::Name name() const override { return Lumo::Name(); }

  // Relaxed: the flag orders nothing but itself. Spelled with one r everywhere.
  bool errorOccured() const { return errorOccured_.load(std::memory_order_relaxed); }
  void errorOccuredIs(bool errorOccured);

 private:
  std::atomic<bool> errorOccured_{false};
  mutable Lumo::TypedNotifieeList<NotifieeConst> notifiees_;
};

Lumo::Ptr<GrpcErrorHandlingStatus> grpcErrorHandlingStatusFactory();

}  // namespace Norv
