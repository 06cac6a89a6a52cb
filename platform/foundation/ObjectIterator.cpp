// Walks any container, by slots. It holds no reference, like any iterator of C++, but notices every change.
#include "platform/foundation/ContainerBody.h"
#include "platform/foundation/NSArray.h"
#include "platform/foundation/Walk.h"

namespace velto {
namespace {

const ContainerBody& asContainer(const ObjectBody* body) {
  return static_cast<const ContainerBody&>(*body);
}

const ContainerBody& unchanged(const ObjectBody* body, std::size_t changes) {
  if (body == nullptr) raiseInvalidArgument("an iterator that belongs to no container was used");
  const ContainerBody& container = asContainer(body);
  if (container.changes() == changes) return container;
  throw NSException("ContainerChangedException", container.classBody().name() + " was changed while it was walked");
}

std::size_t firstFilledSlot(const ContainerBody& container, std::size_t slot) {
  while (slot < container.slotCount() && container.objectInSlot(slot).isNil()) ++slot;
  return slot;
}

}  // namespace

ObjectIterator::ObjectIterator(const ObjectBody* container, std::size_t position)
    : container_(dynamic_cast<const ContainerBody*>(container)) {
  if (container_ == nullptr) return;
  position_ = firstFilledSlot(asContainer(container_), position);
  changes_ = asContainer(container_).changes();
}

const NSObject& ObjectIterator::operator*() const {
  const ContainerBody& container = unchanged(container_, changes_);
  if (position_ >= container.slotCount()) raiseInvalidArgument("an iterator was used past the end");
  return container.objectInSlot(position_);
}

ObjectIterator& ObjectIterator::operator++() {
  const ContainerBody& container = unchanged(container_, changes_);
  if (position_ < container.slotCount()) position_ = firstFilledSlot(container, position_ + 1);
  return *this;
}

bool ObjectIterator::equals(const ObjectIterator& other) const {
  return container_ == other.container_ && position_ == other.position_;
}

}  // namespace velto
