#pragma once

#include <array>
#include <span>
#include <vector>

#include <Lumo/Name.h>
#include <Lumo/String.h>
#include <Lumo/Types.h>

namespace Lumo {

class GenericIf;
class GenericValue;
class LumoAttr;
class LumoType;
class PtrInterface;
using GenericArgs = std::span<const GenericValue>;

// The operations of the generic interface, by number.
enum OperationId : int {
  opRead = 0,
  opWrite = 1,
  opMemberRead = 2,
  opMemberIs = 3,
  opMemberDel = 4,
  opMemberDelAll = 5,
  opMemberEnq = 6,
  opMemberDeq = 7,
  opCall = 8,
  opCount = 9,
};

// One operation on one attribute.
class AttributeOp {
 public:
  AttributeOp(const LumoAttr* attr, int opId) : attr_(attr), opId_(opId) {}
  const LumoAttr* attr() const { return attr_; }
  int opId() const { return opId_; }

 private:
  const LumoAttr* attr_;
  int opId_;
};

// What a generic iterator on a heap can do; `iterator` is what the type's iterator function
// returned.
struct IteratorOps {
  GenericValue (*iterObj)(void* iterator);  // the member
  GenericValue (*iterKey)(void* iterator);  // its key
  bool (*iterNonnull)(void* iterator);      // false at the end
  void (*iterInc)(void* iterator);
  void (*iterDel)(void* iterator);  // frees the iterator
};

// One attribute of a type: a row of its table. Rows are constant-initialised and made by the
// builders of <Lumo/AttrTable.h>.
class LumoAttr {
 public:
  using Op = void (*)(PtrInterface* object, GenericArgs args, GenericValue* result);
  using Start = void* (*)(PtrInterface* object, const IteratorOps** ops);
  using StartAt = void* (*)(PtrInterface* object, const GenericValue& key, const IteratorOps** ops);

  const char* name() const { return name_; }
  int attributeId() const { return id_; }
  // The name of the value's type, also where the framework has no descriptor for it.
  const char* typeName() const;
  const LumoType* type() const { return type_; }  // null: no descriptor
  bool collection() const { return start_ != nullptr; }
  bool offers(int opId) const {
    return opId >= 0 && opId < opCount && ops_[static_cast<std::size_t>(opId)];
  }

  const char* name_;
  int id_;
  const char* typeName_;  // null: the descriptor's
  const LumoType* type_;
  std::array<Op, opCount> ops_{};
  Start start_ = nullptr;
  StartAt startAt_ = nullptr;
};

// The descriptor of a type: constant-initialised, so that it may be registered by a static
// initialiser of any module, whatever has run before.
class LumoType {
 public:
  using GenericIfFn = GenericIf (*)(PtrInterface* object, bool isConst);
  using AttributeOpFn = void (*)(PtrInterface* object, bool isConst, const AttributeOp& op,
                                 GenericArgs args, GenericValue* result, bool* resultSet);
  using FromCtorArgsFn = GenericValue (*)(const LumoType* type, GenericArgs args, bool* created);
  using IteratorFn = void* (*)(PtrInterface* object, const LumoAttr& attr, const IteratorOps** ops);
  using IteratorKeyFn = void* (*)(PtrInterface* object, const LumoAttr& attr,
                                  const GenericValue& key, const IteratorOps** ops);

  // The functions of a class type; all null for a built-in.
  struct Functions {
    GenericIfFn genericIf = nullptr;
    // Does `op` on `object`: an attribute id or operation that the type does not offer, and a
    // change of a const object, raise OpNotSupportedException; arguments that do not fit raise
    // RangeException. Nothing is changed then. `*resultSet` tells whether `*result` was assigned.
    AttributeOpFn attributeOp = nullptr;
    // Makes an object through the type's factory; null when the type has none.
    FromCtorArgsFn fromCtorArgs = nullptr;
    // A new heap iterator over a collection attribute, with `*ops` set to its operations. For any
    // other attribute null, and `*ops` is left alone.
    IteratorFn iterator = nullptr;
    IteratorKeyFn iteratorKey = nullptr;
  };

  constexpr explicit LumoType(const char* typeName) : typeName_(typeName) {}
  constexpr LumoType(const char* typeName, std::span<const LumoAttr> attributes,
                     Functions functions)
      : genericIf(functions.genericIf),
        attributeOp(functions.attributeOp),
        fromCtorArgs(functions.fromCtorArgs),
        iterator(functions.iterator),
        iteratorKey(functions.iteratorKey),
        typeName_(typeName),
        attributes_(attributes) {}

  const char* typeName() const { return typeName_; }
  std::span<const LumoAttr> attributes() const { return attributes_; }
  const LumoAttr* attr(const char* name) const;  // null: no such attribute
  const LumoAttr* attr(int attributeId) const {  // null: no such attribute
    for (const LumoAttr& row : attributes_) {
      if (row.attributeId() == attributeId) return &row;
    }
    return nullptr;
  }

  const GenericIfFn genericIf = nullptr;
  const AttributeOpFn attributeOp = nullptr;
  const FromCtorArgsFn fromCtorArgs = nullptr;
  const IteratorFn iterator = nullptr;
  const IteratorKeyFn iteratorKey = nullptr;

 private:
  const char* typeName_;
  std::span<const LumoAttr> attributes_;
};

// The registry of the types that loaded libraries offer by name. Registration happens in static
// initialisers, on the loading thread; look-ups may come from any thread afterwards.
void typeNodeIs(const LumoType* type);
const LumoType* typeNode(const String& name);  // null: not registered
std::vector<const LumoType*> typeNodes();      // in the order of registration

// Descriptors of the built-in value types.
template <class T>
struct Builtin {
  static const LumoType _lumoType;
};
template <>
const LumoType Builtin<bool>::_lumoType;
template <>
const LumoType Builtin<int>::_lumoType;
template <>
const LumoType Builtin<unsigned short>::_lumoType;
template <>
const LumoType Builtin<unsigned int>::_lumoType;
template <>
const LumoType Builtin<unsigned long long>::_lumoType;
template <>
const LumoType Builtin<String>::_lumoType;
extern const LumoType _lumoType_void;

}  // namespace Lumo
