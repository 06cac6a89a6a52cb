#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/foundation/NSCoding.h"
#include "platform/foundation/NSObject.h"
#include "platform/xpc/wire/ComparisonCost.h"

namespace velto::wire {

// The containers that a decoder has open, innermost last, and the objects that are complete but not yet in theirs.
// Takes the place of recursion. It holds what has arrived, never what was only declared.
class ContainerStack {
 public:
  enum class Kind : std::uint8_t { array, dictionary, set, error, coded };

  // Opens a container of `items` objects: twice the pairs for a dictionary. `work` is what comparing it costs beside
  // them and beside what it costs for every container.
  void open(Kind kind, std::uint64_t items, std::uint64_t work);
  // Opens an error, whose items are those of its user info.
  void openError(NSObject domain, NSObject code, std::uint64_t items, std::uint64_t work);
  // Opens the contents of an object of a registered class: one value.
  void openCoded(CodedClass coded);

  // Adds a complete object to the innermost container.
  void push(NSObject object, const ComparisonCost& cost);
  std::size_t depth() const noexcept { return levels_.size(); }
  // Whether the innermost container has all that it declared.
  bool isFull() const noexcept { return objects_.size() - levels_.back().base == levels_.back().items; }
  Kind kind() const noexcept { return levels_.back().kind; }

  // The most comparisons that making the innermost container can take.
  std::uint64_t comparisonsToClose() const noexcept { return levels_.back().cost.toMake(); }
  // Closes the innermost container, which is full: the object that it makes, or nil for a key or an element that comes
  // twice. (For a coded object see closeCoded().)
  NSObject close(ComparisonCost& cost);
  // The contents, and the class that they are for.
  NSObject closeCoded(CodedClass& coded, ComparisonCost& cost);
  void clear() noexcept;

 private:
  struct Level {
    Kind kind = Kind::array;
    std::size_t base = 0;
    std::uint64_t items = 0;
    ContainerCost cost;
  };

  Level popLevel(ComparisonCost& cost) noexcept;
  std::vector<NSObject> takeFrom(std::size_t base);
  NSObject closeDictionary(std::size_t base);
  NSObject closeSet(std::size_t base);
  NSObject closeError(std::size_t base);

  std::vector<Level> levels_;
  std::vector<NSObject> objects_;
  std::vector<CodedClass> coded_;
};

}  // namespace velto::wire
