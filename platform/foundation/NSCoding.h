#pragma once

#include <functional>
#include <string_view>

#include "platform/foundation/Class.h"
#include "platform/foundation/NSObject.h"

namespace velto {

// How the objects of a user's own class travel: as a value made of the plain classes (strings, numbers, dictionaries,
// arrays, data, dates, …), and back. `decode` returns nil for a value that it cannot be made from; it is called with
// whatever a peer sent, on the platform's threads, and raises nothing.
struct ClassCoding {
  std::function<NSObject(const NSObject& object)> encode;
  std::function<NSObject(const NSObject& value)> decode;
};

// Registers a class for travel, under its name; the last registration of a name wins. Thread-safe.
VELTO_EXPORT void registerClassCoding(const Class& aClass, ClassCoding coding);

struct CodedClass {
  Class classObject;
  ClassCoding coding;
};
// What is registered under a name: classObject is nil when nothing is. Thread-safe.
VELTO_EXPORT CodedClass codedClassNamed(std::string_view name);

}  // namespace velto
