#pragma once

#include <Lumo/AttrTable.h>
#include <Norv/GrpcCmd.h>

namespace Norv {

// The generic iteration over the commands of an `Owner`'s queue.
template <class Owner>
struct CmdBatchIteration {
  using Iterator = typename Owner::CmdBatchIteratorConst;
  using Key = U32;
  static Iterator start(const Owner& owner) { return owner.cmdBatchIteratorConst(); }
  static Iterator startAt(const Owner& owner, Key index) {
    return owner.cmdBatchIteratorConst(index);
  }
  static Lumo::Ptr<GrpcCmd> value(const Iterator& iterator) { return iterator.cmdBatch(); }
};

// The row of the attribute "cmdBatch" of an `Owner`, with all operations of a queue.
template <class Owner>
constexpr Lumo::LumoAttr cmdBatchAttr(int id) {
  using namespace Lumo;
  LumoAttr row = collection<Owner, CmdBatchIteration<Owner>>(id, "cmdBatch", &GrpcCmd::_lumoType);
  row = with<Owner, &Owner::cmdBatch>(row, opMemberRead);
  row = with<Owner, &Owner::cmdBatchIs>(row, opMemberIs);
  row = with<Owner, &Owner::cmdBatchDel>(row, opMemberDel);
  row = with<Owner, &Owner::cmdBatchDelAll>(row, opMemberDelAll);
  row = with<Owner, static_cast<void (Owner::*)(const Ptr<GrpcCmd>&)>(&Owner::cmdBatchEnq)>(
      row, opMemberEnq);
  return with<Owner, &Owner::cmdBatchDeq>(row, opMemberDeq);
}

}  // namespace Norv
