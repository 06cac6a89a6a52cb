#pragma once

#include <atomic>

#include "platform/xpc/system/Descriptor.h"

namespace velto::system {

// One T for the process, made at first use and never destroyed: threads may still use it when static objects are torn
// down at exit. The child of a fork gets a new one, and finds it without a lock, since it may have inherited a locked
// one. T gives this a way to its constructor.
template <class T>
T& perProcess() {
  struct Made {
    unsigned generation;
    T* object;
  };
  static std::atomic<const Made*> current{nullptr};
  const Made* found = current.load(std::memory_order_acquire);
  while (found == nullptr || found->generation != forkGeneration()) {
    const auto* made = new Made{forkGeneration(), new T};
    if (current.compare_exchange_strong(found, made, std::memory_order_acq_rel)) return *made->object;
    delete made->object;
    delete made;
  }
  return *found->object;
}

}  // namespace velto::system
