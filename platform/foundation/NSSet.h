#pragma once

#include <concepts>
#include <initializer_list>
#include <vector>

#include "platform/foundation/NSArray.h"
#include "platform/foundation/NSObject.h"

// Distinct objects, none of them nil, in the order in which they were put in; equality does not regard the order. See
// NSObject for nil and threads.
class VELTO_EXPORT NSSet : public NSObject {
 public:
  NSSet() noexcept = default;
  NSSet(std::nullptr_t) noexcept {}
  // Raises an NSException when an element is nil.
  NSSet(std::initializer_list<NSObject> elements);
  // Braces around a single set are that set itself, as with NSArray.
  template <std::derived_from<NSSet> Set>
  NSSet(std::initializer_list<Set> sets)
      : NSSet(sets.size() == 1 ? NSSet(*sets.begin())
                               : setWithObjects(std::vector<NSObject>(sets.begin(), sets.end()))) {}

  static Class classObject();
  // An empty set.
  static NSSet set();
  static NSSet setWithObjects(std::vector<NSObject> elements);

  bool containsObject(const NSObject& object) const;
  NSArray allObjects() const;
  velto::ObjectIterator begin() const;
  velto::ObjectIterator end() const;
  // An immutable snapshot.
  NSSet copy() const;

 protected:
  explicit NSSet(velto::ObjectBody* body) noexcept : NSObject(body) {}
};

// A set that can change. A handle of type NSSet on the same body sees every change.
class VELTO_EXPORT NSMutableSet : public NSSet {
 public:
  NSMutableSet() noexcept = default;
  NSMutableSet(std::nullptr_t) noexcept {}

  static Class classObject();
  static NSMutableSet set();
  // A new set with the elements of another.
  static NSMutableSet initWithSet(const NSSet& elements);

  // Adding nil raises an NSException. Changing nil does nothing.
  void addObject(const NSObject& object);
  void removeObject(const NSObject& object);
  void removeAllObjects();

 private:
  explicit NSMutableSet(velto::ObjectBody* body) noexcept : NSSet(body) {}
};
