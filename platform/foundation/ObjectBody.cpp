// The life of a body. Destruction never recurses: while a thread destroys one body, whatever the destructor lets go of
// joins a list of that thread and is destroyed after it, so that the depth of the nesting costs no stack. The list is
// threaded through the bodies themselves, in the word that held the monitor, and so needs no memory.
#include "platform/foundation/ObjectBody.h"

#include <functional>

#include "platform/foundation/Class.h"
#include "platform/foundation/WalkBound.h"

namespace velto {
namespace {

// Both are trivially destroyed: they still serve when a thread ends and other thread-local objects let go of theirs.
thread_local bool destroying = false;
thread_local const ObjectBody* pending = nullptr;

}  // namespace

ObjectBody::~ObjectBody() {
  discardMonitor();
}

bool ObjectBody::isEqual(const ObjectBody&, WalkBound&) const {
  return false;
}

std::size_t ObjectBody::hash() const {
  return std::hash<const void*>()(this);
}

void ObjectBody::describe(std::string& out, WalkBound&) const {
  static constexpr char digits[] = "0123456789abcdef";
  const auto address = reinterpret_cast<std::uintptr_t>(this);
  out += "<" + classBody().name() + ": 0x";
  for (int shift = 44; shift >= 0; shift -= 4) out += digits[(address >> shift) & 0xf];
  out += ">";
}

std::recursive_mutex& ObjectBody::monitor() const {
  void* existing = monitorOrNext_.load(std::memory_order_acquire);
  if (existing == nullptr) {
    auto* made = new std::recursive_mutex;
    if (monitorOrNext_.compare_exchange_strong(existing, made, std::memory_order_acq_rel)) {
      existing = made;
    } else {
      delete made;
    }
  }
  return *static_cast<std::recursive_mutex*>(existing);
}

void ObjectBody::discardMonitor() const noexcept {
  delete static_cast<std::recursive_mutex*>(monitorOrNext_.exchange(nullptr, std::memory_order_acquire));
}

void ObjectBody::destroy() const noexcept {
  if (destroying) {
    discardMonitor();
    monitorOrNext_.store(const_cast<ObjectBody*>(pending), std::memory_order_relaxed);
    pending = this;
    return;
  }
  destroying = true;
  delete this;
  while (pending != nullptr) {
    const ObjectBody* next = pending;
    pending = static_cast<const ObjectBody*>(next->monitorOrNext_.exchange(nullptr, std::memory_order_relaxed));
    delete next;
  }
  destroying = false;
}

}  // namespace velto
