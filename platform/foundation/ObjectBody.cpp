// What every body of a class of its own answers unless it says otherwise, and its monitor.
#include "platform/foundation/ObjectBody.h"

#include <functional>

#include "platform/foundation/Class.h"
#include "platform/foundation/WalkBound.h"

namespace velto {

ObjectBody::~ObjectBody() {
  delete monitor_.load(std::memory_order_acquire);
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
  std::recursive_mutex* existing = monitor_.load(std::memory_order_acquire);
  if (existing != nullptr) return *existing;
  auto* made = new std::recursive_mutex;
  if (monitor_.compare_exchange_strong(existing, made, std::memory_order_acq_rel)) return *made;
  delete made;
  return *existing;
}

}  // namespace velto
