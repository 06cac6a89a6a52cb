#pragma once

#include <memory>
#include <utility>

#include "platform/foundation/Class.h"
#include "platform/foundation/NSObject.h"

namespace velto {

// Lets a resource (a connection, a proxy), which is held by std::shared_ptr, be kept in a container of values. The
// class named by `T::boxClass()` is what the box answers as its class; boxes of one resource are equal.
template <class T>
class BoxBody final : public ObjectBody {
 public:
  explicit BoxBody(std::shared_ptr<T> resource) : resource_(std::move(resource)) {}

  const std::shared_ptr<T>& resource() const noexcept { return resource_; }
  const ClassBody& classBody() const override { return *T::boxClass().classBody(); }
  bool isEqual(const ObjectBody& other, WalkBound&) const override {
    const auto* box = dynamic_cast<const BoxBody*>(&other);
    return box != nullptr && box->resource_ == resource_;
  }
  std::size_t hash() const override { return std::hash<std::shared_ptr<T>>()(resource_); }

 private:
  const std::shared_ptr<T> resource_;
};

template <class T>
class Box : public NSObject {
 public:
  explicit Box(std::shared_ptr<T> resource) : NSObject(resource ? new BoxBody<T>(std::move(resource)) : nullptr) {}
};

// nil for a null pointer.
template <class T>
NSObject box(std::shared_ptr<T> resource) {
  return Box<T>(std::move(resource));
}

// The resource in a box; null for anything else.
template <class T>
std::shared_ptr<T> unbox(const NSObject& object) {
  const auto* body = dynamic_cast<const BoxBody<T>*>(object.body());
  return body != nullptr ? body->resource() : nullptr;
}

}  // namespace velto
