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
  explicit operator bool() const noexcept { return !isNil(); }
  // Elements that are nil are left out.
  NSSet(std::initializer_list<NSObject> elements);
  // Braces around a single set are that set itself, as with NSArray.
  template <std::derived_from<NSSet> Set>
  NSSet(std::initializer_list<Set> sets)
      : NSSet(sets.size() == 1 ? NSSet(*sets.begin())
                               : setWithObjects(std::vector<NSObject>(sets.begin(), sets.end()))) {}
  template <velto::BecomesSet T>
  NSSet(std::initializer_list<T> sets)
      : NSSet(sets.size() == 1 ? NSSet(*sets.begin())
                               : setWithObjects(std::vector<NSObject>(sets.begin(), sets.end()))) {}
  // The elements of a set of the standard library, or of what has its shape.
  template <velto::BecomesSet T>
  // NOLINTNEXTLINE(bugprone-forwarding-reference-overload): no handle, and so no copy, meets the constraint.
  NSSet(T&& elements) : NSObject(velto::plainValue(elements)) {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept {
    return tag == velto::Tag::set || tag == velto::Tag::mutableSet;
  }
  // An empty set.
  [[nodiscard]] static NSSet set();
  // Raises an NSException when an element is nil.
  [[nodiscard]] static NSSet setWithObjects(std::vector<NSObject> elements);

  [[nodiscard]] bool containsObject(const NSObject& object) const;
  [[nodiscard]] NSArray allObjects() const;
  [[nodiscard]] velto::ObjectIterator begin() const;
  [[nodiscard]] velto::ObjectIterator end() const;
  // An immutable snapshot.
  [[nodiscard]] NSSet copy() const;

 protected:
  explicit NSSet(const velto::Value& adopted) noexcept : NSObject(adopted) {}
};

// A set that can change. A handle of type NSSet on the same body sees every change.
class VELTO_EXPORT NSMutableSet : public NSSet {
 public:
  NSMutableSet() noexcept = default;
  NSMutableSet(std::nullptr_t) noexcept {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept { return tag == velto::Tag::mutableSet; }
  [[nodiscard]] static NSMutableSet set();
  // A new set with the elements of another.
  [[nodiscard]] static NSMutableSet initWithSet(const NSSet& elements);

  // Adding nil raises an NSException. Adding to nil makes it a set of its own first.
  void addObject(const NSObject& object);
  void removeObject(const NSObject& object);
  void removeAllObjects();

 private:
  explicit NSMutableSet(const velto::Value& adopted) noexcept : NSSet(adopted) {}
};
