#pragma once

#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <vector>

#include "platform/foundation/NSObject.h"

namespace velto {

// Walks the elements of an array or set, or the keys of a dictionary, in order. A container that is changed during the
// walk raises an NSException at the next step.
class VELTO_EXPORT ObjectIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = NSObject;
  using difference_type = std::ptrdiff_t;
  using pointer = const NSObject*;
  using reference = const NSObject&;

  ObjectIterator() = default;
  ObjectIterator(const ObjectBody* container, std::size_t position);

  const NSObject& operator*() const;
  const NSObject* operator->() const { return &**this; }
  ObjectIterator& operator++();
  friend bool operator==(const ObjectIterator& left, const ObjectIterator& right) { return left.equals(right); }

 private:
  bool equals(const ObjectIterator& other) const;

  const ObjectBody* container_ = nullptr;
  std::size_t position_ = 0;
  std::size_t changes_ = 0;
};

}  // namespace velto

// An ordered list of objects, none of them nil. See NSObject for nil and threads.
//
//   NSArray terms{1, 2.5, "three", NSArray{4}};
//   for (const NSObject& term : terms) …
//
// Braces list elements, with one exception: around a single array they are that array itself, NSArray{other} is another
// handle on `other`. (Some compilers leave us no choice, so it is so with all.) An array of one array is made by
// NSArray::arrayWithObjects({other}).
class VELTO_EXPORT NSArray : public NSObject {
 public:
  NSArray() noexcept = default;
  NSArray(std::nullptr_t) noexcept {}
  // Raises an NSException when an element is nil.
  NSArray(std::initializer_list<NSObject> elements);
  template <std::derived_from<NSArray> Array>
  NSArray(std::initializer_list<Array> arrays)
      : NSArray(arrays.size() == 1 ? NSArray(*arrays.begin())
                                   : make(std::vector<NSObject>(arrays.begin(), arrays.end()))) {}
  template <class T>
  NSArray(const std::vector<T>& elements) : NSArray(make(std::vector<NSObject>(elements.begin(), elements.end()))) {}

  static Class classObject();
  // An empty array.
  static NSArray array();
  static NSArray arrayWithObjects(std::vector<NSObject> elements);

  // nil past the end.
  NSObject objectAtIndex(std::size_t index) const;
  bool containsObject(const NSObject& object) const;
  velto::ObjectIterator begin() const;
  velto::ObjectIterator end() const;
  // An immutable snapshot of this level (the elements themselves are shared).
  NSArray copy() const;

 protected:
  explicit NSArray(velto::ObjectBody* body) noexcept : NSObject(body) {}
  static NSArray make(std::vector<NSObject> elements);
};

// An array that can change. A handle of type NSArray on the same body sees every change.
class VELTO_EXPORT NSMutableArray : public NSArray {
 public:
  NSMutableArray() noexcept = default;
  NSMutableArray(std::nullptr_t) noexcept {}

  static Class classObject();
  static NSMutableArray array();
  static NSMutableArray arrayWithArray(const NSArray& elements);

  // Adding nil raises an NSException. Changing nil does nothing.
  void addObject(const NSObject& object);
  // Removes every element equal to `object`.
  void removeObject(const NSObject& object);
  void removeObjectAtIndex(std::size_t index);
  void removeAllObjects();

 private:
  explicit NSMutableArray(velto::ObjectBody* body) noexcept : NSArray(body) {}
};
