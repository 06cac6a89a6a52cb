#pragma once

#include <functional>
#include <string>
#include <vector>

#include "fuzz/support/Input.h"
#include "platform/foundation/Foundation.h"
#include "platform/foundation/NSCoding.h"
#include "platform/xpc/NSFileDescriptor.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/wire/ClassSet.h"
#include "platform/xpc/wire/Frame.h"

namespace velto::fuzzing {

// A user's class that travels as whatever it holds, so that what is inside of coded objects can be walked.
class Box : public NSObject {
 public:
  Box() noexcept = default;
  static Class classObject();
  static Box holding(const NSObject& contents);
  NSObject contents() const;

 private:
  explicit Box(ObjectBody* body) noexcept : NSObject(body) {}
};
// A class below that one, to travel under a name of its own.
class SmallBox {
 public:
  static Class classObject();
};

// Every class that travels in the fuzzers, the root of all of them included, in an order of their own.
const std::vector<Class>& travellingClasses();
// Admits all of them.
const wire::ClassSet& everything();

// A new one, with two descriptors of its own.
NSXPCListenerEndpoint newEndpoint();
NSFileDescriptor newFileDescriptor();

// Visits every object for which admission is due, at every depth: not the parts of an error.
void walk(const NSObject& value, const std::function<void(const NSObject&)>& visit);

// A frame of these bytes with some descriptors: of endpoints where `pattern` has zeros, of files where it has ones.
wire::Frame frameWith(Bytes body, std::size_t descriptors, unsigned pattern);

}  // namespace velto::fuzzing
