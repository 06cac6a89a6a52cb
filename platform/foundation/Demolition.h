#pragma once

#include <span>

#include "platform/foundation/NSObject.h"

namespace velto {

// Destroys a body and whatever nobody else refers to behind it, without recursion, however deep it nests: bodies that
// still have to be destroyed wait in a list that is threaded through the bodies themselves, and so needs no memory.
class Demolition {
 public:
  void run(const Body& body) noexcept;

  // For a body that is being dismantled: lets go of what it holds.
  void letGo(const Value& value) noexcept;
  void letGo(std::span<const NSObject> objects) noexcept {
    for (const NSObject& each : objects) letGo(const_cast<NSObject&>(each).giveUp());
  }

  // The same of handles that are not destroyed themselves.
  void letGoOfDying(std::span<const NSObject> objects) noexcept {
    for (const NSObject& each : objects) {
      if (each.value().isCounted()) letGo(each.value());
    }
  }

 private:
  void dismantle(const Body& body) noexcept;

  const Body* pending_ = nullptr;
};

}  // namespace velto
