#pragma once

#include <cstddef>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/NSArray.h"
#include "platform/foundation/NSObject.h"

// Values under keys. A key may be any object; neither key nor value is nil. Keys keep the order in which they were
// first put in; equality does not regard it. See NSObject for nil and threads.
//
//   NSDictionary message{{"op", "sum"}, {"terms", NSArray{1, 2, 3.5}}};
//   double first = message["terms"][0].doubleValue();
class VELTO_EXPORT NSDictionary : public NSObject {
 public:
  struct Entry {
    NSObject key;
    NSObject value;
  };

  NSDictionary() noexcept = default;
  NSDictionary(std::nullptr_t) noexcept {}
  // The last entry of a key wins. Raises an NSException when a key or a value is nil.
  NSDictionary(std::initializer_list<Entry> entries);
  template <class Key, class Value>
  NSDictionary(const std::map<Key, Value>& entries) : NSDictionary(make(listOf(entries))) {}

  static Class classObject();
  // An empty dictionary.
  static NSDictionary dictionary();
  static NSDictionary dictionaryWithEntries(std::vector<Entry> entries);

  // nil when there is none, and for a nil key.
  NSObject objectForKey(const NSObject& key) const;
  NSObject objectForKeyedSubscript(const NSObject& key) const { return objectForKey(key); }
  NSArray allKeys() const;
  NSArray allValues() const;
  // Walks the keys.
  velto::ObjectIterator begin() const;
  velto::ObjectIterator end() const;
  // An immutable snapshot of this level (keys and values themselves are shared).
  NSDictionary copy() const;

 protected:
  explicit NSDictionary(velto::ObjectBody* body) noexcept : NSObject(body) {}
  static NSDictionary make(std::vector<Entry> entries);

 private:
  template <class Entries>
  static std::vector<Entry> listOf(const Entries& entries) {
    std::vector<Entry> list;
    list.reserve(entries.size());
    for (const auto& [key, value] : entries) list.push_back({key, value});
    return list;
  }
};

// A dictionary that can change. A handle of type NSDictionary on the same body sees every change.
class VELTO_EXPORT NSMutableDictionary : public NSDictionary {
 public:
  NSMutableDictionary() noexcept = default;
  NSMutableDictionary(std::nullptr_t) noexcept {}

  static Class classObject();
  static NSMutableDictionary dictionary();
  static NSMutableDictionary dictionaryWithDictionary(const NSDictionary& entries);

  // Raises an NSException when the object or the key is nil. Changing nil does nothing.
  void setObject(const NSObject& object, const NSObject& forKey);
  // The same, but a nil object removes the key.
  void setObjectForKeyedSubscript(const NSObject& object, const NSObject& key);
  void removeObjectForKey(const NSObject& key);
  void removeAllObjects();

 private:
  explicit NSMutableDictionary(velto::ObjectBody* body) noexcept : NSDictionary(body) {}
};
