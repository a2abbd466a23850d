#pragma once

#include <cstddef>
#include <map>
#include <unordered_map>
#include <utility>

#include <Lumo/Assert.h>
#include <Lumo/Ptr.h>
#include <Lumo/Types.h>

namespace Lumo {

// A hash map from Key to Ptr<Value> that is walked in the order of insertion; replacing a member
// keeps its place. Members may be added and deleted under a walk: it goes on with the next one that
// was there or has come since. Nothing should depend on the order. No lock: the owner's rules hold.
template <class Key, class Value>
class KeyedCollection {
 public:
  class Iterator;
  using IteratorConst = Iterator;

  KeyedCollection() = default;
  // `sizeHint`: how many members to be ready for.
  explicit KeyedCollection(std::size_t sizeHint) { places_.reserve(sizeHint); }

  U32 members() const { return static_cast<U32>(places_.size()); }
  bool isMemberOf(const Key& key) const { return places_.contains(key); }
  Ptr<Value> operator[](const Key& key) const {  // null: absent
    const auto place = places_.find(key);
    return place == places_.end() ? nullptr : members_.at(place->second).second;
  }
  // Inserts, or replaces what stands under `key`.
  void memberIs(const Key& key, const Ptr<Value>& value) {
    const auto [place, fresh] = places_.try_emplace(key, nextPlace_);
    if (fresh) ++nextPlace_;
    members_[place->second] = {key, value};
  }
  // Removes and returns; null: absent.
  Ptr<Value> memberDel(const Key& key) {
    const auto place = places_.find(key);
    if (place == places_.end()) return nullptr;
    auto member = members_.extract(place->second);
    places_.erase(place);
    return std::move(member.mapped().second);
  }

  Iterator iterator() const { return Iterator(this, members_.begin()); }
  // From the member under `key`; at the end if there is none.
  Iterator iterator(const Key& key) const {
    const auto place = places_.find(key);
    return Iterator(this, place == places_.end() ? members_.end() : members_.find(place->second));
  }

 private:
  using Members = std::map<U64, std::pair<Key, Ptr<Value>>>;

  std::unordered_map<Key, U64> places_;
  Members members_;  // by place, which only grows
  U64 nextPlace_ = 0;
};

// Keeps the member it stands on alive. Invalid once the collection is gone. At the end it has no
// key: asking for it aborts.
template <class Key, class Value>
class KeyedCollection<Key, Value>::Iterator {
 public:
  explicit operator bool() const { return static_cast<bool>(value_); }
  const Key& key() const {
    LUMO_ASSERT(value_, "the walk is not at its end");
    return key_;
  }
  const Ptr<Value>& ptr() const { return value_; }
  // At the end it stays there.
  Iterator& operator++() {
    if (value_) standOn(collection_->members_.upper_bound(place_));
    return *this;
  }

 private:
  friend class KeyedCollection;

  Iterator(const KeyedCollection* collection, typename Members::const_iterator member)
      : collection_(collection) {
    standOn(member);
  }
  void standOn(typename Members::const_iterator member) {
    if (member == collection_->members_.end()) {
      value_ = nullptr;
      return;
    }
    place_ = member->first;
    key_ = member->second.first;
    value_ = member->second.second;
  }

  const KeyedCollection* collection_;
  U64 place_ = 0;
  Key key_;
  Ptr<Value> value_;
};

}  // namespace Lumo
