#include <Lumo/AttrTable.h>
#include <Norv/GrpcErrorHandlingStatus.h>

namespace Norv {

namespace {

constexpr auto attributes = Lumo::attrTable(
    Lumo::readOnly<GrpcErrorHandlingStatus, &GrpcErrorHandlingStatus::name>(257, "name"),
    Lumo::readWrite<GrpcErrorHandlingStatus, &GrpcErrorHandlingStatus::errorOccured,
                    &GrpcErrorHandlingStatus::errorOccuredIs>(258, "errorOccured"));

}  // namespace

constinit const Lumo::LumoType GrpcErrorHandlingStatus::_lumoType(
    "Norv::GrpcErrorHandlingStatus", attributes,
    Lumo::genericFunctions<GrpcErrorHandlingStatus, &grpcErrorHandlingStatusFactory>());
constinit const Lumo::LumoType GrpcErrorHandlingStatus::NotifieeConst::_lumoType(
    "Norv::GrpcErrorHandlingStatus::NotifieeConst");

Lumo::ValidPtr<GrpcErrorHandlingStatus> GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs() {
  return Lumo::allocate<GrpcErrorHandlingStatus>();
}

void GrpcErrorHandlingStatus::zeroReferencesIs(bool zero) {
  if (zero) notifyZeroReferences(notifiees_);
}

void GrpcErrorHandlingStatus::errorOccuredIs(bool errorOccured) {
  fwkEntityVersionIncShared();
  if (errorOccured_.exchange(errorOccured, std::memory_order_relaxed) == errorOccured) return;
  const auto kept = keptFor(notifiees_);
  assertNoReadsPreserved();
  notifiees_.notify(&NotifieeConst::onErrorOccured);
}

Lumo::Ptr<GrpcErrorHandlingStatus> grpcErrorHandlingStatusFactory() {
  return GrpcErrorHandlingStatus::GrpcErrorHandlingStatusIs();
}

}  // namespace Norv
