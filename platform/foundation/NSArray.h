#pragma once

#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <utility>
#include <vector>

#include "platform/foundation/NSObject.h"

namespace velto {

// Walks the elements of an array or set, or the keys of a dictionary, in order. A container that is changed during the
// walk raises an NSException at the next step.
class VELTO_EXPORT ObjectIterator {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = NSObject;
  using difference_type = std::ptrdiff_t;
  using pointer = const NSObject*;
  using reference = const NSObject&;

  enum class Place { begin, end };

  ObjectIterator() = default;
  // Of a dictionary, array or set; nil has nothing to walk.
  ObjectIterator(const NSObject& container, Place place) noexcept;

  const NSObject& operator*() const {
    if (mustCheck()) check();
    return *at_;
  }
  const NSObject* operator->() const { return &**this; }
  ObjectIterator& operator++() {
    if (mustCheck() && !mayAdvance()) return *this;
    at_ += stride_;
    skipEmpty();
    return *this;
  }
  ObjectIterator operator++(int) {
    ObjectIterator before = *this;
    ++*this;
    return before;
  }
  friend bool operator==(const ObjectIterator& left, const ObjectIterator& right) { return left.at_ == right.at_; }

 protected:
  // Of a dictionary: the value under the key.
  const NSObject& value() const { return (&**this)[1]; }

 private:
  // Of what can change, and at the end.
  bool mustCheck() const noexcept { return changes_ != nullptr || at_ == end_; }
  void check() const;
  bool mayAdvance() const;
  void skipEmpty() noexcept {
    while (at_ != end_ && at_->isNil()) at_ += stride_;
  }

  const NSObject* at_ = nullptr;
  const NSObject* end_ = nullptr;
  std::size_t stride_ = 1;
  // Of a container that can change: how often it has been changed, and had been when the walk began.
  const std::size_t* changes_ = nullptr;
  std::size_t changesAtStart_ = 0;
};

}  // namespace velto

// An ordered list of objects, none of them nil. See NSObject for nil and threads.
//
//   NSArray terms{1, 2.5, "three", NSArray{4}};
//   for (const NSObject& term : terms) …
//
// Braces list elements, with one exception: around a single array they are that array itself, NSArray{other} is another
// handle on `other`. (Some compilers leave us no choice, so it is so with all.) An array of one array is made by
// NSArray::arrayWithObjects({other}). So it is with a single vector, or whatever else becomes an array.
class VELTO_EXPORT NSArray : public NSObject {
 public:
  NSArray() noexcept = default;
  NSArray(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }
  // Elements that are nil are left out.
  NSArray(std::initializer_list<NSObject> elements);
  template <std::derived_from<NSArray> Array>
  NSArray(std::initializer_list<Array> arrays)
      : NSArray(arrays.size() == 1 ? NSArray(*arrays.begin())
                                   : make(std::vector<NSObject>(arrays.begin(), arrays.end()))) {}
  template <class T>
  NSArray(std::initializer_list<std::vector<T>> lists) : NSArray(ofLists(lists)) {}
  template <velto::BecomesArray T>
  NSArray(std::initializer_list<T> lists) : NSArray(ofLists(lists)) {}
  // Of numbers, also for bytes. (NSObject makes data of those.) Raises an NSException when an element is nil; an
  // optional without a value is the null object here.
  template <class T>
  NSArray(const std::vector<T>& elements) : NSArray(ofVector(elements)) {}
  // The elements of any other range that becomes an array, of a pair or of a tuple.
  template <velto::BecomesArray T>
  // NOLINTNEXTLINE(bugprone-forwarding-reference-overload): no handle, and so no copy, meets the constraint.
  NSArray(T&& elements) : NSArray(velto::plainValue(elements)) {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept {
    return tag == velto::Tag::array || tag == velto::Tag::mutableArray;
  }
  // An empty array.
  [[nodiscard]] static NSArray array();
  // Raises an NSException when an element is nil.
  [[nodiscard]] static NSArray arrayWithObjects(std::vector<NSObject> elements);

  // nil past the end.
  [[nodiscard]] NSObject objectAtIndex(std::size_t index) const;
  [[nodiscard]] bool containsObject(const NSObject& object) const;
  [[nodiscard]] velto::ObjectIterator begin() const;
  [[nodiscard]] velto::ObjectIterator end() const;
  // An immutable snapshot of this level (the elements themselves are shared).
  [[nodiscard]] NSArray copy() const;

 protected:
  explicit NSArray(const velto::Value& adopted) noexcept : NSObject(adopted) {}
  static NSArray make(std::vector<NSObject> elements);

 private:
  template <class T>
  static NSArray ofVector(const std::vector<T>& elements) {
    if constexpr (velto::BecomesObject<T>) {
      return NSArray(velto::arrayValue(elements));
    } else {
      return make(std::vector<NSObject>(elements.begin(), elements.end()));
    }
  }
  // Some views are walked only if they are not const; they are cheap to copy.
  template <class T>
  static NSArray ofList(const T& list) {
    if constexpr (std::constructible_from<NSArray, const T&>) {
      return NSArray(list);
    } else {
      T copy(list);
      return NSArray(copy);
    }
  }
  template <class T>
  static NSArray ofLists(std::initializer_list<T> lists) {
    if (lists.size() == 1) return ofList(*lists.begin());
    std::vector<NSObject> arrays;
    for (const T& each : lists) {
      if constexpr (velto::BecomesData<const T>) {
        arrays.push_back(NSObject(each));
      } else {
        arrays.push_back(ofList(each));
      }
    }
    return make(std::move(arrays));
  }
};

// An array that can change. A handle of type NSArray on the same body sees every change.
class VELTO_EXPORT NSMutableArray : public NSArray {
 public:
  NSMutableArray() noexcept = default;
  NSMutableArray(std::nullptr_t) noexcept {}

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept { return tag == velto::Tag::mutableArray; }
  [[nodiscard]] static NSMutableArray array();
  [[nodiscard]] static NSMutableArray arrayWithArray(const NSArray& elements);

  // Adding nil raises an NSException. Adding to nil makes it an array of its own first.
  void addObject(const NSObject& object);
  // Removes every element equal to `object`.
  void removeObject(const NSObject& object);
  void removeObjectAtIndex(std::size_t index);
  void removeAllObjects();

 private:
  explicit NSMutableArray(const velto::Value& adopted) noexcept : NSArray(adopted) {}
};
