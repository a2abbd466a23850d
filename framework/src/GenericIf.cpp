#include <functional>
#include <sstream>

#include <Lumo/Entity.h>
#include <Lumo/GenericIf.h>

namespace Lumo {

namespace {

template <class... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

[[noreturn]] void throwTypeMismatch(const char* expected, const GenericValue& value) {
  throwRangeException(String("expected ") + expected + ", got " + value.typeName() + " " +
                      value.strep());
}

// The type's row of an attribute: mostly it is asked with that very row.
const LumoAttr* rowOf(const LumoType& type, const LumoAttr& attr) {
  const auto rows = type.attributes();
  const std::less<const LumoAttr*> before;
  const bool own = !before(&attr, rows.data()) && before(&attr, rows.data() + rows.size());
  return own ? &attr : type.attr(attr.attributeId());
}

}  // namespace

String objectStrep(const PtrInterface* object) {
  if (!object) return "(null)";
  std::ostringstream text;
  text << object->fwkType()->typeName();
  if (const Entity* entity = dynamic_cast<const Entity*>(object)) {
    text << "(\"" << entity->name() << "\")";
  }
  text << '@' << static_cast<const void*>(object);
  return text.str();
}

const char* GenericValue::typeName() const {
  return std::visit(Overloaded{
                        [](const std::monostate&) { return _lumoType_void.typeName(); },
                        [](bool) { return Builtin<bool>::_lumoType.typeName(); },
                        [](int) { return Builtin<int>::_lumoType.typeName(); },
                        [](U16) { return Builtin<U16>::_lumoType.typeName(); },
                        [](U32) { return Builtin<U32>::_lumoType.typeName(); },
                        [](U64) { return Builtin<U64>::_lumoType.typeName(); },
                        [](const String&) { return Builtin<String>::_lumoType.typeName(); },
                        [](const Name&) { return Name::_lumoType.typeName(); },
                        [](const Enum& value) { return value.type->typeName(); },
                        [](const Object& value) {
                          return value.object ? value.object->fwkType()->typeName()
                                              : PtrInterface::_lumoType.typeName();
                        },
                        [](const Opaque& value) { return value.typeName; },
                    },
                    storage_);
}

U64 GenericValue::number() const {
  return std::visit(Overloaded{
                        [](int value) {
                          if (value < 0) throwRangeException("a negative number does not fit");
                          return static_cast<U64>(value);
                        },
                        [](U16 value) { return static_cast<U64>(value); },
                        [](U32 value) { return static_cast<U64>(value); },
                        [](U64 value) { return value; },
                        [](const Enum& value) { return static_cast<U64>(value.value); },
                        [this](const auto&) -> U64 { throwTypeMismatch("a number", *this); },
                    },
                    storage_);
}

String GenericValue::text() const {
  if (const String* text = std::get_if<String>(&storage_)) return *text;
  if (const Name* name = std::get_if<Name>(&storage_)) return name->stringValue();
  throwTypeMismatch("a text", *this);
}

const GenericValue::Object& GenericValue::object() const {
  if (const Object* object = std::get_if<Object>(&storage_)) return *object;
  throwTypeMismatch("an object", *this);
}

String GenericValue::strep() const {
  std::ostringstream text;
  std::visit(Overloaded{
                 [&](const std::monostate&) {},
                 [&](bool value) { text << (value ? "true" : "false"); },
                 [&](const Enum& value) {
                   EnumType<U32>::operatorLessLess(*value.type, text, value.value);
                 },
                 [&](const Object& value) { text << objectStrep(value.object.ptr()); },
                 [&](const Opaque& value) { text << value.typeName << '@' << value.pointer; },
                 [&](const auto& value) { text << value; },
             },
             storage_);
  return text.str();
}

bool GenericTraits<bool>::unwrap(const GenericValue& value) {
  if (const bool* flag = std::get_if<bool>(&value.storage())) return *flag;
  throwTypeMismatch("a bool", value);
}

void GenericIfImpl::throwWrongCount(std::size_t expected, std::size_t got) {
  throwRangeException("expected " + std::to_string(expected) + " argument(s), got " +
                      std::to_string(got));
}

void GenericIfImpl::attributeOp(const LumoType& type, PtrInterface* object, bool isConst,
                                const AttributeOp& op, GenericArgs args, GenericValue* result,
                                bool* resultSet) {
  const LumoAttr* row = op.attr() ? rowOf(type, *op.attr()) : nullptr;
  const bool changes = op.opId() != opRead && op.opId() != opMemberRead;
  if (!row || !row->offers(op.opId()) || (isConst && changes)) throwOpNotSupportedException(op);
  if (result->isVoid()) {
    row->ops_[op.opId()](object, args, result);
    *resultSet = !result->isVoid();
    return;
  }
  GenericValue value;
  row->ops_[op.opId()](object, args, &value);
  *resultSet = !value.isVoid();
  if (*resultSet) *result = std::move(value);
}

void* GenericIfImpl::iterator(const LumoType& type, PtrInterface* object, const LumoAttr& attr,
                              const IteratorOps** ops) {
  const LumoAttr* row = rowOf(type, attr);
  return row && row->collection() ? row->start_(object, ops) : nullptr;
}

void* GenericIfImpl::iteratorKey(const LumoType& type, PtrInterface* object, const LumoAttr& attr,
                                 const GenericValue& key, const IteratorOps** ops) {
  const LumoAttr* row = rowOf(type, attr);
  return row && row->collection() ? row->startAt_(object, key, ops) : nullptr;
}

GenericValue GenericIf::value() const {
  if (isConst_) return GenericValue(Ptr<PtrInterface const>(object_));
  return GenericValue(object_);
}

const LumoAttr& GenericIf::attr(const char* name) const {
  const LumoAttr* found = type().attr(name);
  if (!found) {
    throw OpNotSupportedException(String("type ") + type().typeName() + " has no attribute \"" +
                                  name + "\"");
  }
  return *found;
}

GenericValue GenericIf::op(const LumoAttr& attr, int opId, GenericArgs args) const {
  GenericValue result;
  bool resultSet = false;
  type().attributeOp(object_.ptr(), isConst_, AttributeOp(&attr, opId), args, &result, &resultSet);
  return result;
}

GenericValue GenericIf::read(const char* attribute) const {
  return op(attr(attribute), opRead);
}

void GenericIf::write(const char* attribute, const GenericValue& value) const {
  op(attr(attribute), opWrite, GenericArgs(&value, 1));
}

GenericValue GenericIf::call(const char* attribute, GenericArgs args) const {
  return op(attr(attribute), opCall, args);
}

GenericIterator GenericIf::iterate(const char* attribute) const {
  const IteratorOps* ops = nullptr;
  void* iterator = type().iterator(object_.ptr(), attr(attribute), &ops);
  return iterator ? GenericIterator(iterator, ops) : GenericIterator();
}

GenericIterator GenericIf::iterateFrom(const char* attribute, const GenericValue& key) const {
  const IteratorOps* ops = nullptr;
  void* iterator = type().iteratorKey(object_.ptr(), attr(attribute), key, &ops);
  return iterator ? GenericIterator(iterator, ops) : GenericIterator();
}

template <class W>
GenericValue GenericIfEnum<W>::FromStrRep(const EnumLumoType& type, const String& text) {
  return GenericValue(GenericValue::Enum{&type, EnumType<W>::instance(type, text)});
}

template <class W>
GenericValue GenericIfEnum<W>::FromVoidPointer(const EnumLumoType& type, const void* value) {
  return GenericValue(GenericValue::Enum{&type, *static_cast<const W*>(value)});
}

template struct GenericIfEnum<unsigned int>;

GenericValue genericNewArgs(const String& typeName, GenericArgs args) {
  const LumoType* type = typeNode(typeName);
  if (!type) throwRangeException(String("no type \"") + typeName + "\" is registered");
  if (!type->fromCtorArgs) {
    throw OpNotSupportedException(String("objects of type \"") + typeName +
                                  "\" cannot be made from arguments");
  }
  bool created = false;
  return type->fromCtorArgs(type, args, &created);
}

}  // namespace Lumo
