#pragma once

#include <string_view>
#include <tuple>

#include <Lumo/GenericIf.h>

// Builders of the attribute table of a type, for the one source file that defines its descriptor:
//
//   constexpr auto attributes = attrTable<ConnectionConfig>(
//       readOnly<ConnectionConfig, &ConnectionConfig::portNum>(130, "portNum"),
//       readOnly<ConnectionConfig, &ConnectionConfig::host>(131, "host"));
//   constinit const LumoType ConnectionConfig::_lumoType("Norv::ConnectionConfig", attributes,
//       genericFunctions<ConnectionConfig, connectionConfigFactory>());
//
// All generic access to the type works from that table. Two rows with one id or one name do not
// compile.
namespace Lumo {

namespace detail {

template <class F>
struct Member;
template <class R, class C, class... A>
struct Member<R (C::*)(A...)> {
  using Result = std::remove_cvref_t<R>;
  using Args = std::tuple<std::remove_cvref_t<A>...>;
};
template <class R, class C, class... A>
struct Member<R (C::*)(A...) const> : Member<R (C::*)(A...)> {};
template <class R, class... A>
struct Member<R (*)(A...)> {
  using Result = std::remove_cvref_t<R>;
  using Args = std::tuple<std::remove_cvref_t<A>...>;
};

// The operation that calls one member function, its arguments unwrapped and its result wrapped.
// `result` holds nothing before, which need not be destroyed: the value is made in its place.
template <class T, auto Function>
void callMember(PtrInterface* object, GenericArgs args, GenericValue* result) {
  using M = Member<decltype(Function)>;
  auto values = GenericIfImpl::unwrapFunctionArgs<typename M::Args>(args);
  std::apply(
      [&](auto&... value) {
        if constexpr (std::is_void_v<typename M::Result>) {
          (static_cast<T*>(object)->*Function)(value...);
        } else {
          ::new (static_cast<void*>(result))
              GenericValue(GenericIfImpl::wrapAttrValue<typename M::Result>(
                  (static_cast<T*>(object)->*Function)(value...)));
        }
      },
      values);
}

template <auto Function>
constexpr const LumoType* resultType() {
  using Result = typename Member<decltype(Function)>::Result;
  if constexpr (std::is_void_v<Result>) {
    return &_lumoType_void;
  } else {
    return GenericTraits<Result>::type;
  }
}

// A heap iterator over a collection; it keeps the collection's owner alive.
template <class T, class Iteration>
struct HeapIterator {
  Ptr<T> owner;
  typename Iteration::Iterator iterator;

  static HeapIterator& of(void* iterator) { return *static_cast<HeapIterator*>(iterator); }
  static constexpr IteratorOps ops{
      [](void* it) { return GenericIfImpl::wrapObject(Iteration::value(of(it).iterator)); },
      [](void* it) { return GenericIfImpl::wrapAttrIndex(of(it).iterator.key()); },
      [](void* it) { return static_cast<bool>(of(it).iterator); },
      [](void* it) { ++of(it).iterator; },
      [](void* it) { delete &of(it); },
  };
  static void* start(PtrInterface* object, const IteratorOps** out) {
    T* owner = static_cast<T*>(object);
    *out = &ops;
    return new HeapIterator{Ptr<T>(owner), Iteration::start(*owner)};
  }
  static void* startAt(PtrInterface* object, const GenericValue& key, const IteratorOps** out) {
    T* owner = static_cast<T*>(object);
    const auto typedKey = GenericTraits<typename Iteration::Key>::unwrap(key);
    *out = &ops;
    return new HeapIterator{Ptr<T>(owner), Iteration::startAt(*owner, typedKey)};
  }
};

}  // namespace detail

// A plain value that can be read.
template <class T, auto Get>
constexpr LumoAttr readOnly(int id, const char* name) {
  LumoAttr row{name, id, nullptr, detail::resultType<Get>()};
  row.ops_[opRead] = &detail::callMember<T, Get>;
  return row;
}

// A plain value that can be read and written.
template <class T, auto Get, auto Set>
constexpr LumoAttr readWrite(int id, const char* name) {
  LumoAttr row = readOnly<T, Get>(id, name);
  row.ops_[opWrite] = &detail::callMember<T, Set>;
  return row;
}

// An action.
template <class T, auto Function>
constexpr LumoAttr function(int id, const char* name) {
  LumoAttr row{name, id, nullptr, detail::resultType<Function>()};
  row.ops_[opCall] = &detail::callMember<T, Function>;
  return row;
}

// An attribute that the generic interface names but does not touch.
constexpr LumoAttr described(int id, const char* name, const char* typeName) {
  return LumoAttr{name, id, typeName, nullptr};
}

// A collection. `Iteration` has the types Iterator and Key, and the functions start(T&),
// startAt(T&, Key) and value(Iterator), the last returning a Ptr to the member.
template <class T, class Iteration>
constexpr LumoAttr collection(int id, const char* name, const LumoType* memberType) {
  LumoAttr row{name, id, nullptr, memberType};
  row.start_ = &detail::HeapIterator<T, Iteration>::start;
  row.startAt_ = &detail::HeapIterator<T, Iteration>::startAt;
  return row;
}

// One more operation of a collection.
template <class T, auto Function>
constexpr LumoAttr with(LumoAttr row, OperationId opId) {
  row.ops_[opId] = &detail::callMember<T, Function>;
  return row;
}

// The rows of a type, checked.
template <class... Row>
consteval std::array<LumoAttr, sizeof...(Row)> attrTable(Row... row) {
  std::array<LumoAttr, sizeof...(Row)> rows{row...};
  for (std::size_t i = 0; i < rows.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (rows[i].id_ == rows[j].id_ || std::string_view(rows[i].name_) == rows[j].name_) {
        throw "two attributes share an id or a name";
      }
    }
  }
  return rows;
}

// The functions of the descriptor of T, which generic construction makes through `Factory`.
template <class T, auto Factory>
constexpr LumoType::Functions genericFunctions() {
  LumoType::Functions functions;
  functions.genericIf = [](PtrInterface* object, bool isConst) {
    return GenericIf(object, isConst);
  };
  functions.attributeOp = [](PtrInterface* object, bool isConst, const AttributeOp& op,
                             GenericArgs args, GenericValue* result, bool* resultSet) {
    GenericIfImpl::attributeOp(T::_lumoType, object, isConst, op, args, result, resultSet);
  };
  functions.fromCtorArgs = [](const LumoType*, GenericArgs args, bool* created) {
    using Args = typename detail::Member<decltype(Factory)>::Args;
    auto values = GenericIfImpl::unwrapConstructorArgs<Args>(args);
    auto object = std::apply([](auto&... value) { return Factory(value...); }, values);
    *created = true;
    return GenericIfImpl::wrapObject(object);
  };
  functions.iterator = [](PtrInterface* object, const LumoAttr& attr, const IteratorOps** ops) {
    return GenericIfImpl::iterator(T::_lumoType, object, attr, ops);
  };
  functions.iteratorKey = [](PtrInterface* object, const LumoAttr& attr, const GenericValue& key,
                             const IteratorOps** ops) {
    return GenericIfImpl::iteratorKey(T::_lumoType, object, attr, key, ops);
  };
  return functions;
}

}  // namespace Lumo
