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

void ObjectIterator::skipEmpty() noexcept {
  while (at_ != end_ && at_->isNil()) at_ += stride_;
}

void ObjectIterator::requireUnchanged() const {
  if (changes_ == nullptr || *changes_ == changesAtStart_) return;
  throw NSException("ContainerChangedException", "a container was changed while it was walked");
}

const NSObject& ObjectIterator::operator*() const {
  requireUnchanged();
  if (at_ == nullptr) raiseInvalidArgument("an iterator that belongs to no container was used");
  if (at_ == end_) raiseInvalidArgument("an iterator was used past the end");
  return *at_;
}

ObjectIterator& ObjectIterator::operator++() {
  requireUnchanged();
  if (at_ == nullptr) raiseInvalidArgument("an iterator that belongs to no container was used");
  if (at_ == end_) return *this;
  at_ += stride_;
  skipEmpty();
  return *this;
}

}  // namespace velto
