// Walks any container. It holds no reference, like any iterator of C++, but notices every change.
#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/NSArray.h"
#include "platform/foundation/Walk.h"

namespace velto {
namespace {

const std::size_t* changesOf(const Value& value) noexcept {
  switch (value.tag()) {
    case Tag::mutableArray:
      return &static_cast<const MutableArrayBody&>(value.body()).changes();
    case Tag::mutableDictionary:
    case Tag::mutableSet:
      return &static_cast<const MutableKeyedBody&>(value.body()).changes();
    default:
      return nullptr;
  }
}

}  // namespace

ObjectIterator::ObjectIterator(const NSObject& container, Place place) noexcept
    : changes_(changesOf(container.value())) {
  if (isArray(container.value().tag())) {
    const std::span<const NSObject> elements = elementsOf(container.value());
    at_ = elements.data();
    end_ = at_ + elements.size();
  } else {
    const KeyTable table = tableOf(container.value());
    stride_ = table.stride();
    at_ = table.keys();
    end_ = at_ + table.slots() * stride_;
  }
  if (changes_ != nullptr) changesAtStart_ = *changes_;
  if (place == Place::end) {
    at_ = end_;
  } else {
    skipEmpty();
  }
}

bool ObjectIterator::mayAdvance() const {
  if (changes_ != nullptr && *changes_ != changesAtStart_) {
    throw NSException("ContainerChangedException", "a container was changed while it was walked");
  }
  if (at_ == nullptr) raiseInvalidArgument("an iterator that belongs to no container was used");
  return at_ != end_;
}

void ObjectIterator::check() const {
  if (!mayAdvance()) raiseInvalidArgument("an iterator was used past the end");
}

}  // namespace velto
