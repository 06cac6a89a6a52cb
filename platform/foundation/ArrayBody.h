#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/Region.h"

namespace velto {

// The elements of an NSArray that never changes: they follow.
class ArrayBody final : public Body {
 public:
  // Empty, with room for so many elements.
  static ArrayBody& make(std::size_t capacity, Region* region = nullptr) {
    if (capacity >= UINT32_MAX) throw std::length_error("an array of four billion elements");
    return *new (allocateBody(sizeFor(capacity), region)) ArrayBody(region);
  }

  // Takes the reference over. There is room for it.
  void add(Value value) noexcept { new (first() + count_++) NSObject(NSObject::adopt(value)); }

  // Makes it full, with nil, since it is let go of before it was: it knows its size by its elements.
  void fillUp(std::size_t capacity) noexcept {
    while (count_ < capacity) add(Value());
  }

  std::span<const NSObject> elements() const noexcept { return {const_cast<ArrayBody*>(this)->first(), count_}; }
  void dismantle(class Demolition& demolition) const noexcept;

 private:
  static std::size_t sizeFor(std::size_t count) noexcept { return sizeof(ArrayBody) + count * sizeof(NSObject); }
  explicit ArrayBody(Region* region) noexcept : Body(Tag::array, region) {}
  NSObject* first() noexcept { return reinterpret_cast<NSObject*>(this + 1); }

  std::uint32_t count_ = 0;
};

// The elements of an NSMutableArray. A change is complete before anything that it removed is let go of, since the
// destructor of a removed object may use the array again.
class MutableArrayBody final : public Body {
 public:
  explicit MutableArrayBody(std::vector<NSObject> elements) noexcept
      : Body(Tag::mutableArray, nullptr), elements_(std::move(elements)) {}

  void add(NSObject object) {
    elements_.push_back(std::move(object));
    ++changes_;
  }
  // Returns the former elements, so that they are let go of once the array is whole again.
  std::vector<NSObject> replaceElements(std::vector<NSObject> elements) noexcept {
    ++changes_;
    return std::exchange(elements_, std::move(elements));
  }
  // Past the end, does nothing.
  void removeAt(std::size_t index);

  const std::vector<NSObject>& elements() const noexcept { return elements_; }
  const std::size_t& changes() const noexcept { return changes_; }
  void dismantle(class Demolition& demolition) const noexcept;

 private:
  std::size_t changes_ = 0;
  std::vector<NSObject> elements_;
};

inline bool isArray(Tag tag) noexcept {
  return tag == Tag::array || tag == Tag::mutableArray;
}
// The elements of an array of either kind; none for anything else.
inline std::span<const NSObject> elementsOf(const Value& value) noexcept {
  if (value.tag() == Tag::array) return static_cast<const ArrayBody&>(value.body()).elements();
  if (value.tag() == Tag::mutableArray) return static_cast<const MutableArrayBody&>(value.body()).elements();
  return {};
}

}  // namespace velto
