#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Class.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/Descriptor.h"
#include "platform/xpc/wire/ClassSet.h"

namespace velto::wire {

// How objects that stand for descriptors (endpoints, file descriptors) travel: as the descriptors themselves, in order.
// `make` gets what a peer sent and checks each one; it returns nil and a reason when they are not what they should be.
struct DescriptorCoding {
  std::function<std::vector<system::SharedDescriptor>(const NSObject& object)> descriptors;
  std::function<NSObject(const std::vector<system::SharedDescriptor>& descriptors, std::string& reason)> make;
  // How many one object takes at most.
  std::size_t most = limits::kMaximumDescriptors;
  // Whether one that has come can be found again in a dictionary or a set.
  bool mayBeKey = true;
};

// Registers a class under its name. Thread-safe.
void registerDescriptorCoding(const Class& aClass, DescriptorCoding coding);

struct DescriptorClass {
  Class classObject;
  DescriptorCoding coding;
};
// classObject is nil when nothing is registered under the name. Thread-safe.
DescriptorClass descriptorClassNamed(std::string_view name);
// How many descriptors one object of the classes that are admitted can claim at most: 0 when none of them travels so.
// Thread-safe.
std::size_t descriptorsOfOneObject(const ClassSet& admitted);

}  // namespace velto::wire
