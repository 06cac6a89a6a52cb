#pragma once

#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/BracedEntry.h"
#include "platform/foundation/NSArray.h"
#include "platform/foundation/NSObject.h"

namespace velto {

// Walks the keys of a dictionary as an ObjectIterator does, each with its value. What it answers are handles of their
// own, which may be kept.
class PairIterator : private ObjectIterator {
 public:
  struct Pair {
    NSObject key;
    NSObject value;
  };
  using iterator_concept = std::forward_iterator_tag;
  using iterator_category = std::input_iterator_tag;
  using value_type = Pair;
  using difference_type = std::ptrdiff_t;
  using pointer = void;
  using reference = Pair;
  using ObjectIterator::Place;

  PairIterator() = default;
  PairIterator(const NSObject& dictionary, Place place) noexcept : ObjectIterator(dictionary, place) {}

  Pair operator*() const { return {ObjectIterator::operator*(), ObjectIterator::value()}; }
  PairIterator& operator++() {
    ObjectIterator::operator++();
    return *this;
  }
  PairIterator operator++(int) {
    PairIterator before = *this;
    ++*this;
    return before;
  }
  friend bool operator==(const PairIterator& left, const PairIterator& right) {
    return static_cast<const ObjectIterator&>(left) == static_cast<const ObjectIterator&>(right);
  }
};

// The pairs of a dictionary, which is kept alive meanwhile.
class Pairs {
 public:
  explicit Pairs(NSObject dictionary) noexcept : dictionary_(std::move(dictionary)) {}

  [[nodiscard]] PairIterator begin() const { return {dictionary_, PairIterator::Place::begin}; }
  [[nodiscard]] PairIterator end() const { return {dictionary_, PairIterator::Place::end}; }

 private:
  NSObject dictionary_;
};

}  // namespace velto

// Values under keys. A key may be any object; neither key nor value is nil. Keys keep the order in which they were
// first put in; equality does not regard it. See NSObject for nil and threads.
//
// A pair of empty braces is a default-constructed dictionary, hence nil: NSDictionary::dictionary() makes an empty one.
// Only where a message or a reply is handed over, sendMessage({}, …) and reply({}), do empty braces stand for that.
//
//   NSDictionary message{{"op", "sum"}, {"terms", NSArray{1, 2, 3.5}}};
//   double first = message["terms"][0].doubleValue();
class VELTO_EXPORT NSDictionary : public NSObject {
 public:
  // Mutable, so that the entries of a braced list can be moved from.
  struct Entry {
    mutable NSObject key;
    mutable NSObject value;
  };

  NSDictionary() noexcept = default;
  NSDictionary(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }
  // The last entry of a key wins. An entry whose key or value is nil is left out.
  NSDictionary(std::initializer_list<Entry>&& entries) : NSDictionary(takeEntries(entries.begin(), entries.size())) {}
  NSDictionary(const std::initializer_list<Entry>& entries) : NSDictionary(copyEntries(entries)) {}
  // The same with values that are in braces themselves: NSDictionary{{"terms", {1, 2}}}. See velto::BracedEntry.
  template <int = 0>
  NSDictionary(std::initializer_list<velto::BracedEntry<NSObject>> entries)
      : NSObject(velto::bracedDictionary(entries)) {}
  // Raises an NSException when a key or a value is nil; an entry whose value is an optional without one is left out.
  template <class Key, class Value>
  NSDictionary(const std::map<Key, Value>& entries) : NSDictionary(ofMap(entries)) {}
  // Any other map whose keys are distinct.
  template <velto::BecomesDictionary T>
  // NOLINTNEXTLINE(bugprone-forwarding-reference-overload): no handle, and so no copy, meets the constraint.
  NSDictionary(T&& entries) : NSObject(velto::plainValue(entries)) {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept {
    return tag == velto::Tag::dictionary || tag == velto::Tag::mutableDictionary;
  }
  // An empty dictionary.
  [[nodiscard]] static NSDictionary dictionary();
  // Raises an NSException when a key or a value is nil.
  [[nodiscard]] static NSDictionary dictionaryWithEntries(std::vector<Entry> entries);

  // nil when there is none, and for a nil key.
  [[nodiscard]] NSObject objectForKey(const NSObject& key) const;
  [[nodiscard]] NSObject objectForKeyedSubscript(const NSObject& key) const { return objectForKey(key); }
  [[nodiscard]] NSArray allKeys() const;
  [[nodiscard]] NSArray allValues() const;
  // Walks the keys.
  [[nodiscard]] velto::ObjectIterator begin() const;
  [[nodiscard]] velto::ObjectIterator end() const;
  // Walks the keys with their values:
  //   for (const auto& [key, value] : dictionary.pairs()) …
  [[nodiscard]] velto::Pairs pairs() const { return velto::Pairs(*this); }
  // An immutable snapshot of this level (keys and values themselves are shared).
  [[nodiscard]] NSDictionary copy() const;

 protected:
  explicit NSDictionary(const velto::Value& adopted) noexcept : NSObject(adopted) {}
  static NSDictionary make(std::vector<Entry> entries);

 private:
  static NSDictionary takeEntries(const Entry* first, std::size_t count);
  static NSDictionary copyEntries(const std::initializer_list<Entry>& entries) {
    const std::vector<Entry> copies(entries);
    return takeEntries(copies.data(), copies.size());
  }
  template <class Entries>
  static NSDictionary ofMap(const Entries& entries) {
    if constexpr (velto::BecomesDictionary<const Entries>) {
      return NSDictionary(velto::dictionaryValue(entries));
    } else {
      std::vector<Entry> list;
      list.reserve(entries.size());
      for (const auto& [key, value] : entries) list.push_back({key, value});
      return make(std::move(list));
    }
  }
};

// A dictionary that can change. A handle of type NSDictionary on the same body sees every change.
class VELTO_EXPORT NSMutableDictionary : public NSDictionary {
 public:
  NSMutableDictionary() noexcept = default;
  NSMutableDictionary(std::nullptr_t) noexcept {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept { return tag == velto::Tag::mutableDictionary; }
  [[nodiscard]] static NSMutableDictionary dictionary();
  [[nodiscard]] static NSMutableDictionary dictionaryWithDictionary(const NSDictionary& entries);

  // The value under a key, which can be assigned to: message["key"] = 2. Assigning nil removes the key.
  class Place : public NSObject {
   public:
    Place(NSMutableDictionary& dictionary, const NSObject& key)
        : NSObject(static_cast<const NSDictionary&>(dictionary)[key]), dictionary_(dictionary), key_(key) {}
    Place(const Place&) = default;
    Place& operator=(const NSObject& object) {
      dictionary_.setObjectForKeyedSubscript(object, key_);
      return *this;
    }
    Place& operator=(const Place& other) { return *this = static_cast<const NSObject&>(other); }

   private:
    NSMutableDictionary& dictionary_;
    const NSObject key_;
  };
  using NSObject::operator[];
  Place operator[](const NSObject& key) { return Place(*this, key); }
  Place operator[](const char* key) { return Place(*this, key); }
  template <std::integral T>
  Place operator[](T key) {
    return Place(*this, key);
  }

  // Raises an NSException when the object or the key is nil. Setting something in nil makes it a dictionary of its own
  // first.
  void setObject(const NSObject& object, const NSObject& forKey);
  // The same, but a nil object removes the key.
  void setObjectForKeyedSubscript(const NSObject& object, const NSObject& key);
  void removeObjectForKey(const NSObject& key);
  void removeAllObjects();

 private:
  explicit NSMutableDictionary(const velto::Value& adopted) noexcept : NSDictionary(adopted) {}
};

// It is declared in terms of NSDictionary: hence an include at the end.
#include "platform/foundation/DictionaryHandler.h"
