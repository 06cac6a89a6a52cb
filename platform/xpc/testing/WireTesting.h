#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/NSCoding.h"
#include "platform/xpc/testing/Frames.h"
#include "platform/xpc/wire/DescriptorCoding.h"
#include "platform/xpc/wire/ValueDecoder.h"
#include "platform/xpc/wire/ValueEncoder.h"

// What the tests of the wire share.
namespace velto::wire::testing {

using Bytes = std::vector<std::uint8_t>;
using Outcome = ValueDecoder::Outcome;

// "82 01 ff" as bytes.
inline Bytes hex(std::string_view text) {
  Bytes bytes;
  int high = -1;
  for (const char character : text) {
    if (character == ' ') continue;
    const int digit = character <= '9' ? character - '0' : character - 'a' + 10;
    if (high < 0) {
      high = digit;
    } else {
      bytes.push_back(static_cast<std::uint8_t>(high << 4 | digit));
      high = -1;
    }
  }
  return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes repeated(const Bytes& part, std::size_t times) {
  Bytes bytes;
  bytes.reserve(part.size() * times);
  for (std::size_t count = 0; count < times; ++count) bytes.insert(bytes.end(), part.begin(), part.end());
  return bytes;
}

// Classes are for ever: one that only a test knows is kept here.
inline Class newClass(const char* name, const Class& superclass) {
  static std::vector<Class>& all = *new std::vector<Class>;
  return all.emplace_back(Class::define(name, superclass));
}

// A user's class that travels as an array of two numbers.
class PointBody : public ObjectBody {
 public:
  PointBody(std::int64_t atX, std::int64_t atY) : x(atX), y(atY) {}
  const ClassBody& classBody() const override;
  bool isEqual(const ObjectBody& other, WalkBound&) const override {
    const auto* point = dynamic_cast<const PointBody*>(&other);
    return point != nullptr && point->x == x && point->y == y;
  }
  std::size_t hash() const override { return static_cast<std::size_t>(x ^ y); }

  const std::int64_t x;
  const std::int64_t y;
};

class Point : public NSObject {
 public:
  Point() noexcept = default;
  static Class classObject() {
    static const Class& made = *new Class(defineAndRegister());
    return made;
  }
  static Point at(std::int64_t x, std::int64_t y) { return Point(new PointBody(x, y)); }

 protected:
  explicit Point(ObjectBody* body) noexcept : NSObject(body) {}

 private:
  static Class defineAndRegister() {
    const Class made = newClass("WirePoint", NSObject::classObject());
    registerClassCoding(made, {[](const NSObject& object) -> NSObject {
                                 const auto& point = dynamic_cast<const PointBody&>(*object.body());
                                 return NSArray{point.x, point.y};
                               },
                               [](const NSObject& value) -> NSObject {
                                 if (value.count() != 2) return nil;
                                 return at(value[0].integerValue(), value[1].integerValue());
                               }});
    return made;
  }
};
inline const ClassBody& PointBody::classBody() const {
  return *Point::classObject().classBody();
}

// A class that stands for one pipe.
class PortBody final : public ObjectBody {
 public:
  explicit PortBody(std::vector<system::SharedDescriptor> owned) : descriptors(std::move(owned)) {}
  const ClassBody& classBody() const override;

  const std::vector<system::SharedDescriptor> descriptors;
};

class Port : public NSObject {
 public:
  Port() noexcept = default;
  static Class classObject() {
    static const Class& made = *new Class(defineAndRegister());
    return made;
  }
  static Port with(std::vector<system::SharedDescriptor> descriptors) {
    return Port(new PortBody(std::move(descriptors)));
  }
  const std::vector<system::SharedDescriptor>& descriptors() const {
    return dynamic_cast<const PortBody&>(*body()).descriptors;
  }

 private:
  explicit Port(ObjectBody* body) noexcept : NSObject(body) {}
  static NSObject make(const std::vector<system::SharedDescriptor>& descriptors, std::string& reason) {
    struct stat status {};
    for (const auto& descriptor : descriptors) {
      if (::fstat(descriptor->get(), &status) == 0 && S_ISFIFO(status.st_mode)) continue;
      reason = "holds a port that is no pipe";
      return nil;
    }
    if (descriptors.empty()) return nil;
    return with(descriptors);
  }
  static Class defineAndRegister() {
    const Class made = newClass("WirePort", NSObject::classObject());
    registerDescriptorCoding(made, {[](const NSObject& object) { return object.as<Port>().descriptors(); }, make});
    return made;
  }
};
inline const ClassBody& PortBody::classBody() const {
  return *Port::classObject().classBody();
}

// The reading end of a new pipe.
inline system::SharedDescriptor newPipe() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[1]);
  return std::make_shared<const system::Descriptor>(system::Descriptor(ends[0]));
}

inline NSSet valueClasses() {
  return NSSet{NSString::classObject(), NSNumber::classObject(), NSDictionary::classObject(), NSArray::classObject(),
               NSData::classObject(),   NSDate::classObject(),   NSNull::classObject(),       NSSet::classObject(),
               NSUUID::classObject(),   NSURL::classObject(),    NSError::classObject()};
}

// Everything that travels, the classes above included.
inline const ClassSet& everything() {
  static const ClassSet& made = *new ClassSet([] {
    NSMutableSet classes = NSMutableSet::initWithSet(valueClasses());
    classes.addObject(Point::classObject());
    classes.addObject(Port::classObject());
    return ClassSet(classes);
  }());
  return made;
}

inline Frame frameOf(const NSObject& value) {
  ValueEncoder encoder(FrameType::call);
  encoder.add(value);
  EXPECT_FALSE(encoder.failed()) << encoder.reason();
  return velto::testing::inOnePiece(encoder.take());
}

inline Frame frameOfBytes(Bytes body) {
  Frame frame;
  frame.type = FrameType::call;
  frame.body = std::move(body);
  return frame;
}

struct Decoded {
  Outcome outcome = Outcome::broken;
  NSObject value;
  std::string reason;
  bool atEnd = false;
};

// The first item of a frame.
inline Decoded decode(const Frame& frame, const ClassSet& admitted = everything()) {
  ValueDecoder decoder(frame);
  Decoded decoded;
  decoded.outcome = decoder.next(admitted, decoded.value);
  decoded.reason = decoder.reason();
  decoded.atEnd = decoder.atEnd();
  return decoded;
}
inline Decoded decodeBytes(Bytes body, const ClassSet& admitted = everything()) {
  return decode(frameOfBytes(std::move(body)), admitted);
}

// Why a value does not travel; "" when it does.
inline std::string whyNot(const NSObject& value) {
  ValueEncoder encoder(FrameType::call);
  encoder.add(value);
  return encoder.reason();
}

inline bool contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

}  // namespace velto::wire::testing
