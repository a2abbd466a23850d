#pragma once

#include <memory>
#include <tuple>

#include <Lumo/GenericValue.h>
#include <Lumo/TypeRegistry.h>

namespace Lumo {

// The pieces that the glue of every type is made of.
struct GenericIfImpl {
  template <class T, class V>
  static GenericValue wrapAttrValue(V&& value) {
    return GenericTraits<T>::wrap(std::forward<V>(value));
  }
  template <class Key>
  static GenericValue wrapAttrIndex(const Key& key) {
    return GenericTraits<Key>::wrap(key);
  }
  template <class T>
  static GenericValue wrapObject(const Ptr<T>& object) {
    return GenericValue(object);
  }

  // A tuple of typed values from generic arguments. A wrong count or an argument that does not fit
  // raises RangeException before anything is called.
  template <class Tuple>
  static Tuple unwrapFunctionArgs(GenericArgs args) {
    return unwrap<Tuple>(args, std::make_index_sequence<std::tuple_size_v<Tuple>>());
  }
  template <class Tuple>
  static Tuple unwrapMutatorArgs(GenericArgs args) {
    return unwrapFunctionArgs<Tuple>(args);
  }
  template <class Tuple>
  static Tuple unwrapConstructorArgs(GenericArgs args) {
    static_assert(std::tuple_size_v<Tuple> <= 8, "constructors take up to eight arguments");
    return unwrapFunctionArgs<Tuple>(args);
  }

  // The one dispatcher: finds the row of `type` with the id of op.attr() and does the operation.
  static void attributeOp(const LumoType& type, PtrInterface* object, bool isConst,
                          const AttributeOp& op, GenericArgs args, GenericValue* result,
                          bool* resultSet);
  static void* iterator(const LumoType& type, PtrInterface* object, const LumoAttr& attr,
                        const IteratorOps** ops);
  static void* iteratorKey(const LumoType& type, PtrInterface* object, const LumoAttr& attr,
                           const GenericValue& key, const IteratorOps** ops);

 private:
  template <class Tuple, std::size_t... I>
  static Tuple unwrap(GenericArgs args, std::index_sequence<I...>) {
    if (args.size() != sizeof...(I)) throwWrongCount(sizeof...(I), args.size());
    return Tuple{GenericTraits<std::tuple_element_t<I, Tuple>>::unwrap(args[I])...};
  }
  [[noreturn]] static void throwWrongCount(std::size_t expected, std::size_t got);
};

// A walk over a collection attribute; move-only. Follows the rules of the collection's own
// iterators when the collection changes under it.
class GenericIterator {
 public:
  GenericIterator() : GenericIterator(nullptr, nullptr) {}  // at the end
  GenericIterator(void* iterator, const IteratorOps* ops) : iterator_(iterator, Delete{ops}) {}
  explicit operator bool() const { return iterator_ && ops().iterNonnull(iterator_.get()); }
  // RangeException at the end.
  GenericValue object() const {
    checkHere();
    return ops().iterObj(iterator_.get());
  }
  GenericValue key() const {
    checkHere();
    return ops().iterKey(iterator_.get());
  }
  // At the end it stays there.
  GenericIterator& operator++() {
    if (*this) ops().iterInc(iterator_.get());
    return *this;
  }

 private:
  struct Delete {
    const IteratorOps* ops;
    void operator()(void* iterator) const { ops->iterDel(iterator); }
  };
  const IteratorOps& ops() const { return *iterator_.get_deleter().ops; }
  void checkHere() const {
    if (!*this) throwRangeException("the walk is at its end: there is no object and no key");
  }

  std::unique_ptr<void, Delete> iterator_;
};

// The generic view of one object: its attributes by name. Holds a reference on the object. Used
// where the object may be used: entities and managers on the main thread.
//
// A name that the type does not have, and an operation that an attribute does not offer, raise
// OpNotSupportedException; arguments that do not fit raise RangeException.
class GenericIf {
 public:
  // RangeException for null.
  GenericIf(PtrInterface* object, bool isConst) : object_(present(object)), isConst_(isConst) {}
  GenericIf(const Ptr<PtrInterface>& object) : GenericIf(object.ptr(), false) {}
  GenericIf(const Ptr<PtrInterface const>& object)
      : GenericIf(const_cast<PtrInterface*>(object.ptr()), true) {}

  // The object itself; RangeException for null.
  static PtrInterface* present(PtrInterface* object) {
    if (!object) throwRangeException("a null pointer has no attributes");
    return object;
  }

  const LumoType& type() const { return *object_->fwkType(); }
  bool isConst() const { return isConst_; }
  GenericValue value() const;  // the object itself, as a value

  GenericValue op(const LumoAttr& attr, int opId, GenericArgs args = {}) const;
  GenericValue read(const char* attribute) const;
  void write(const char* attribute, const GenericValue& value) const;
  GenericValue call(const char* attribute, GenericArgs args = {}) const;
  // At the end at once when the attribute is no collection.
  GenericIterator iterate(const char* attribute) const;
  GenericIterator iterateFrom(const char* attribute, const GenericValue& key) const;

 private:
  const LumoAttr& attr(const char* name) const;

  Ptr<PtrInterface> object_;
  bool isConst_;
};

// Enumeration values as generic values.
template <class W>
struct GenericIfEnum {
  static GenericValue FromStrRep(const EnumLumoType& type, const String& text);
  static GenericValue FromVoidPointer(const EnumLumoType& type, const void* value);
};
extern template struct GenericIfEnum<unsigned int>;

// Objects of base B as generic values.
template <class B>
struct GenericIfPtrInterface {
  static GenericValue FromPtrInterface(B* object) { return GenericValue(Ptr<B>(object)); }
  // Only the null pointer has a text that can be read back; anything else raises RangeException.
  static GenericValue FromStrRep(const String& text) {
    if (text != objectStrep(nullptr)) {
      throwRangeException(String("an object cannot be made from the text ") + text);
    }
    return GenericValue(Ptr<B>());
  }
};

// The short way for tests and tools: genericNew("Norv::CmdConfigGroup", "ports"). A null pointer
// raises RangeException.
template <class T>
GenericIf genericIf(const Ptr<T>& object) {
  auto* const present =
      GenericIf::present(const_cast<PtrInterface*>(static_cast<const PtrInterface*>(object.ptr())));
  return present->fwkType()->genericIf(present, std::is_const_v<T>);
}
template <class T>
GenericValue genericAttribute(const Ptr<T>& object, const char* name) {
  return genericIf(object).read(name);
}
template <class T>
void genericAttributeIs(const Ptr<T>& object, const char* name, const GenericValue& value) {
  genericIf(object).write(name, value);
}
template <class T, class... Args>
GenericValue genericCall(const Ptr<T>& object, const char* name, const Args&... args) {
  const std::array<GenericValue, sizeof...(Args)> values{GenericValue(args)...};
  return genericIf(object).call(name, values);
}
// RangeException when no type of that name is registered; OpNotSupportedException when the type
// cannot be made this way.
GenericValue genericNewArgs(const String& typeName, GenericArgs args);
template <class... Args>
GenericValue genericNew(const String& typeName, const Args&... args) {
  const std::array<GenericValue, sizeof...(Args)> values{GenericValue(args)...};
  return genericNewArgs(typeName, values);
}

}  // namespace Lumo
