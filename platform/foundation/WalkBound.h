#pragma once

#include <cstddef>

#include "platform/foundation/Export.h"

namespace velto {

// Containers that nest deeper than this are not walked (compared, encoded, checked, printed to the end). Far beyond any
// sensible message, and shallow enough for the smallest stack that a thread is given here.
inline constexpr std::size_t kMaximumNestingDepth = 512;
// Structs, each in another, that are made of a value at most: a struct that holds its like (a tree) is as deep as who
// wrote the value likes. What travels does not nest deeper, and a stack has room for it even if the structs are large.
inline constexpr std::size_t kMaximumNestedStructs = 128;
// Objects that one walk visits at most. Shared containers can stand for exponentially many: forty arrays, each holding
// the one before twice, are a million million elements.
inline constexpr std::size_t kMaximumWalkedObjects = std::size_t{1} << 26;
// Bytes of a description after which it is cut with "…". It is for people, who read no more than that, and it keeps a
// description's cost bounded whatever the object holds. (A string's own description is its text, whole.)
inline constexpr std::size_t kMaximumDescriptionBytes = std::size_t{16} * 1024;

// The bound of one walk over nested containers: how deep it may still go and how many objects it may still visit.
class VELTO_EXPORT WalkBound {
 public:
  explicit WalkBound(std::size_t depth = kMaximumNestingDepth, std::size_t objects = kMaximumWalkedObjects)
      : maximumDepth_(depth), maximumObjects_(objects), depth_(depth), objects_(objects) {}

  std::size_t maximumDepth() const noexcept { return maximumDepth_; }
  std::size_t maximumObjects() const noexcept { return maximumObjects_; }

  // One level of a container: false when it is one too deep. Leaves when destroyed.
  class Level {
   public:
    explicit Level(WalkBound& bound) : bound_(bound), entered_(bound.depth_ > 0) {
      if (entered_) --bound_.depth_;
    }
    ~Level() {
      if (entered_) ++bound_.depth_;
    }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;
    explicit operator bool() const noexcept { return entered_; }

   private:
    WalkBound& bound_;
    const bool entered_;
  };

  // Counts one object: false when it is one too many.
  bool visit() noexcept {
    if (objects_ == 0) return false;
    --objects_;
    return true;
  }

 private:
  const std::size_t maximumDepth_;
  const std::size_t maximumObjects_;
  std::size_t depth_;
  std::size_t objects_;
};

}  // namespace velto
