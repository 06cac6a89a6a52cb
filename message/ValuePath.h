#pragma once

#include <cstddef>
#include <vector>

#include "platform/foundation/NSObject.h"

namespace velto {

// The way to a value inside nested containers, noted from the value outwards. It reads `.key` for a string of letters,
// digits, "_" and "-", `["any string"]`, `{description}` for a key of another kind, and `[2]` for an element of an
// array. One step is cut after 64 bytes, and of a long way only the beginning and the end are shown, each cut with "…".
// Nothing in it breaks a line of a log: control characters and those that reorder text are escaped.
//
// Not thread-safe.
class ValuePath {
 public:
  void addKey(const NSObject& key) { steps_.push_back({key, 0}); }
  void addIndex(std::size_t index) { steps_.push_back({nil, index}); }

  // An object whose description is the path: put together only if somebody asks for that.
  NSObject object() const;

  // `key` is nil for an element of an array.
  struct Step {
    NSObject key;
    std::size_t index;
  };

 private:
  std::vector<Step> steps_;
};

}  // namespace velto
