#pragma once

#include <cstddef>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/ObjectBody.h"

namespace velto {

// What a container must tell to be walked by an ObjectIterator: its slots, some of which may be empty since what was in
// them has been removed, and how often it has been changed.
class ContainerBody : public ObjectBody {
 public:
  enum class Mutability { immutable, changing };

  virtual std::size_t count() const noexcept = 0;
  virtual std::size_t slotCount() const noexcept = 0;
  // What is walked over in a slot; nil for an empty slot.
  virtual const NSObject& objectInSlot(std::size_t slot) const noexcept = 0;

  bool isMutable() const noexcept { return mutability_ == Mutability::changing; }
  std::size_t changes() const noexcept { return changes_; }
  void noteChange() noexcept { ++changes_; }

 protected:
  explicit ContainerBody(Mutability mutability) : mutability_(mutability) {}

 private:
  const Mutability mutability_;
  std::size_t changes_ = 0;
};

}  // namespace velto
