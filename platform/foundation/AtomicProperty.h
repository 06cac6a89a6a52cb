#pragma once

#include <utility>

#include "platform/foundation/ThreadAnnotations.h"

namespace velto {

// A field that any thread may get and set: each get and each set is whole by itself, and nothing more is promised. What
// a set replaces is let go of after the lock, so that its destruction can do as it likes.
template <class T>
class AtomicProperty {
 public:
  AtomicProperty() = default;
  explicit AtomicProperty(T value) : value_(std::move(value)) {}

  T get() const {
    MutexLock lock(mutex_);
    return value_;
  }
  void set(T value) {
    MutexLock lock(mutex_);
    std::swap(value_, value);
  }
  // Sets, and returns what was there.
  T exchange(T value) {
    MutexLock lock(mutex_);
    std::swap(value_, value);
    return value;
  }

 private:
  mutable Mutex mutex_;
  T value_ VELTO_GUARDED_BY(mutex_){};
};

}  // namespace velto
