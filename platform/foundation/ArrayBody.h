#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/Class.h"
#include "platform/foundation/ContainerBody.h"
#include "platform/foundation/NSArray.h"
#include "platform/foundation/Walk.h"

namespace velto {

// The elements of an NSArray or NSMutableArray.
class ArrayBody final : public ContainerBody {
 public:
  ArrayBody(std::vector<NSObject> elements, Mutability mutability)
      : ContainerBody(mutability), elements_(std::move(elements)) {}

  const std::vector<NSObject>& elements() const noexcept { return elements_; }
  NSObject elementAt(std::size_t index) const { return index < elements_.size() ? elements_[index] : NSObject(); }

  void add(const NSObject& object);
  // Returns the former elements, so that they are let go of once the array is whole again.
  std::vector<NSObject> replaceElements(std::vector<NSObject> elements) noexcept;
  // Past the end, does nothing.
  void removeAt(std::size_t index);

  std::size_t count() const noexcept override { return elements_.size(); }
  std::size_t slotCount() const noexcept override { return elements_.size(); }
  const NSObject& objectInSlot(std::size_t slot) const noexcept override { return elements_[slot]; }

  const ClassBody& classBody() const override {
    return isMutable() ? classBodyOf<NSMutableArray>() : classBodyOf<NSArray>();
  }
  bool isEqual(const ObjectBody& other, WalkBound& bound) const override;
  std::size_t hash() const override { return elements_.size(); }
  void describe(std::string& out, WalkBound& bound) const override;

 private:
  std::vector<NSObject> elements_;
};

}  // namespace velto
