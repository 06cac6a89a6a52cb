#pragma once

#include "platform/foundation/NSObject.h"

// Holds the monitor of an object, a recursive lock that belongs to the object itself, from construction to destruction.
// The object is kept alive meanwhile. The monitor of nil does nothing.
class VELTO_EXPORT NSSynchronized {
 public:
  explicit NSSynchronized(NSObject object) : object_(std::move(object)) {
    if (object_) object_.body()->monitor().lock();
  }
  ~NSSynchronized() {
    if (object_) object_.body()->monitor().unlock();
  }
  NSSynchronized(const NSSynchronized&) = delete;
  NSSynchronized& operator=(const NSSynchronized&) = delete;

 private:
  const NSObject object_;
};
