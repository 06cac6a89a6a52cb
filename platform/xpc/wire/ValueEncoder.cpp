// Values into CBOR, by recursion that the depth limit bounds. Containers that hold themselves meet that limit; shared
// ones, which can stand for exponentially many objects, meet the bound on objects or the one on bytes.

#include "platform/xpc/wire/ValueEncoder.h"

#include <array>
#include <cmath>
#include <exception>
#include <utility>

#include "VeltoIPC/Limits.h"
#include "platform/foundation/Foundation.h"
#include "platform/foundation/NSCoding.h"
#include "platform/foundation/UTF8.h"
#include "platform/xpc/wire/DescriptorCoding.h"
#include "platform/xpc/wire/Tags.h"
#include "platform/xpc/wire/Text.h"

namespace velto::wire {
namespace {

constexpr const char* kChanged = "holds a container that was changed while it was encoded";

// Counts a level of nesting for as long as it lives.
class Level {
 public:
  explicit Level(std::size_t& depth) : depth_(depth) { ++depth_; }
  ~Level() { --depth_; }
  Level(const Level&) = delete;
  Level& operator=(const Level&) = delete;

 private:
  std::size_t& depth_;
};

bool isContainer(PlainClass plain) {
  return plain == PlainClass::array || plain == PlainClass::dictionary || plain == PlainClass::set ||
         plain == PlainClass::error;
}

}  // namespace

ValueEncoder::ValueEncoder(FrameType type) : writer_(frame_.body) {
  frame_.type = type;
}

void ValueEncoder::add(const NSObject& value) {
  if (failed()) return;
  // Users' codings and iterators of containers may raise; what they left behind is dropped with the frame.
  try {
    if (value.isNil()) {
      if (hasRoomFor(1)) writer_.addUndefined();
    } else {
      encode(value);
    }
  } catch (const std::exception& exception) {
    fail(std::string("could not be encoded: ") + exception.what());
  }
}

void ValueEncoder::addUnsigned(std::uint64_t value) {
  if (failed()) return;
  writer_.addUnsigned(value);
  hasRoomFor(0);
}

void ValueEncoder::addBool(bool value) {
  if (failed()) return;
  writer_.addBool(value);
  hasRoomFor(0);
}

void ValueEncoder::addText(std::string_view text) {
  if (failed() || !hasRoomFor(text.size())) return;
  if (isValidUTF8(text)) {
    writer_.addText(text);
  } else {
    writer_.addText(NSString(text).view());
  }
  hasRoomFor(0);
}

Frame ValueEncoder::take() {
  writer_.finish();
  return std::move(frame_);
}

void ValueEncoder::fail(std::string reason) {
  if (!failed()) reason_ = std::move(reason);
}

void ValueEncoder::failOverLimit(std::string_view limit, std::uint64_t value, std::uint64_t maximum, bool orMore) {
  if (failed()) return;
  exceededLimit_ = true;
  fail("exceeds a limit: " + overLimit(limit, value, maximum, orMore));
}

bool ValueEncoder::refuse(std::string reason) {
  fail(std::move(reason));
  return false;
}

bool ValueEncoder::hasRoomFor(std::size_t bytes) {
  const std::size_t length = writer_.written() + bytes;
  if (length <= limits::kMaximumFrameBytes) return true;
  failOverLimit("bytes of a frame", length, limits::kMaximumFrameBytes, true);
  return false;
}

bool ValueEncoder::isTooDeep() {
  if (depth_ <= limits::kMaximumDepth) return false;
  failOverLimit("levels of nesting", depth_, limits::kMaximumDepth, true);
  return true;
}

bool ValueEncoder::encode(const NSObject& object) {
  if (++objects_ > limits::kMaximumObjects) {
    failOverLimit("objects", objects_, limits::kMaximumObjects, true);
    return false;
  }
  const ClassBody& own = object.body()->classBody();
  for (const ClassBody* aClass = &own; aClass != nullptr; aClass = aClass->superclass()) {
    PlainClass plain{};
    if (findPlainClass(*aClass, plain)) return encodePlain(object, plain) && hasRoomFor(0);
    bool found = false;
    const bool encoded = encodeCoded(object, *aClass, found) || (!found && encodeDescriptors(object, *aClass, found));
    if (found) return encoded && hasRoomFor(0);
  }
  return refuse("holds an object of class " + own.name() + ", which cannot travel");
}

bool ValueEncoder::encodePlain(const NSObject& object, PlainClass plain) {
  const Level level(depth_);
  if (isContainer(plain) && isTooDeep()) return false;
  switch (plain) {
    case PlainClass::string: {
      const NSString text = object.as<NSString>();
      if (!hasRoomFor(text.length())) return false;
      writer_.addText(text.view());
      return true;
    }
    case PlainClass::number:
      return encodeNumber(object);
    case PlainClass::dictionary:
      return encodePairs(object);
    case PlainClass::array:
      return encodeElements(object.as<NSArray>());
    case PlainClass::set:
      writer_.addTag(kSetTag);
      return encodeElements(object.as<NSSet>());
    case PlainClass::data: {
      const NSData data = object.as<NSData>();
      if (!hasRoomFor(data.length())) return false;
      writer_.addBytes(data.span());
      return true;
    }
    case PlainClass::date:
      return encodeDate(object);
    case PlainClass::null:
      writer_.addNull();
      return true;
    case PlainClass::uuid: {
      const NSUUID::Bytes bytes = object.as<NSUUID>().bytes();
      writer_.addTag(kUUIDTag);
      writer_.addBytes(bytes);
      return true;
    }
    case PlainClass::url: {
      const NSString text = object.as<NSURL>().absoluteString();
      if (!hasRoomFor(text.length())) return false;
      writer_.addTag(kURLTag);
      writer_.addText(text.view());
      return true;
    }
    case PlainClass::error:
      return encodeError(object);
  }
  return false;
}

bool ValueEncoder::encodeNumber(const NSObject& object) {
  switch (object.as<NSNumber>().kind()) {
    case NSNumber::Kind::boolean:
      writer_.addBool(object.boolValue());
      break;
    case NSNumber::Kind::signedInteger:
      writer_.addSigned(object.integerValue());
      break;
    case NSNumber::Kind::unsignedInteger: {
      const std::uint64_t value = object.unsignedIntegerValue();
      if (value <= INT64_MAX) writer_.addTag(kUnsignedTag);
      writer_.addUnsigned(value);
      break;
    }
    case NSNumber::Kind::floatingPoint:
      writer_.addDouble(object.doubleValue());
      break;
  }
  return true;
}

bool ValueEncoder::encodeDate(const NSObject& object) {
  const double seconds = object.as<NSDate>().timeIntervalSince1970();
  if (!std::isfinite(seconds)) return refuse("holds a date that is infinitely far away, which cannot travel");
  writer_.addTag(kDateTag);
  writer_.addDouble(seconds);
  return true;
}

template <class Container>
bool ValueEncoder::encodeElements(const Container& container) {
  const std::size_t count = container.count();
  if (!hasRoomFor(count)) return false;
  writer_.addArray(count);
  std::size_t written = 0;
  for (const NSObject& element : container) {
    if (!encode(element)) return false;
    ++written;
  }
  return written == count || refuse(kChanged);
}

bool ValueEncoder::encodePairs(const NSObject& object) {
  const NSDictionary dictionary = object.as<NSDictionary>();
  const std::size_t count = dictionary.count();
  if (!hasRoomFor(2 * count)) return false;
  writer_.addMap(count);
  // Not looked up one by one: keys with poor hashes would make that quadratic.
  const NSArray values = dictionary.allValues();
  auto value = values.begin();
  const auto end = values.end();
  std::size_t written = 0;
  for (const NSObject& key : dictionary) {
    if (value == end || !encode(key) || !encode(*value)) return refuse(kChanged);
    ++value;
    ++written;
  }
  return written == count || refuse(kChanged);
}

bool ValueEncoder::encodeError(const NSObject& object) {
  const NSError error = object.as<NSError>();
  const NSString domain = error.domain();
  if (!hasRoomFor(domain.length())) return false;
  writer_.addTag(kObjectTag);
  writer_.addArray(4);
  writer_.addText(kErrorName);
  writer_.addText(domain.view());
  writer_.addSigned(error.code());
  const NSDictionary userInfo = error.userInfo();
  if (userInfo) return encodePairs(userInfo);
  writer_.addMap(0);
  return true;
}

bool ValueEncoder::startObject(const std::string& className) {
  if (!hasRoomFor(className.size())) return false;
  writer_.addTag(kObjectTag);
  writer_.addArray(2);
  writer_.addText(className);
  return true;
}

bool ValueEncoder::encodeCoded(const NSObject& object, const ClassBody& aClass, bool& found) {
  const CodedClass coded = codedClassNamed(aClass.name());
  // Another class may have registered itself under the same name.
  found = coded.classObject.classBody() == &aClass;
  if (!found) return false;
  const Level level(depth_);
  if (isTooDeep()) return false;
  const NSObject contents = coded.coding.encode ? coded.coding.encode(object) : nil;
  if (contents.isNil()) return refuse("holds an object of class " + aClass.name() + ", which its coding refused");
  return startObject(aClass.name()) && encode(contents);
}

bool ValueEncoder::encodeDescriptors(const NSObject& object, const ClassBody& aClass, bool& found) {
  const DescriptorClass coded = descriptorClassNamed(aClass.name());
  found = coded.classObject.classBody() == &aClass;
  if (!found) return false;
  std::vector<system::SharedDescriptor> carried = coded.coding.descriptors(object);
  if (carried.empty()) return refuse("holds an object of class " + aClass.name() + ", which has no descriptor");
  const std::size_t first = frame_.descriptors.size();
  if (first + carried.size() > limits::kMaximumDescriptors) {
    failOverLimit("descriptors", first + carried.size(), limits::kMaximumDescriptors, true);
    return false;
  }
  if (!startObject(aClass.name())) return false;
  writer_.addArray(carried.size());
  for (system::SharedDescriptor& descriptor : carried) {
    writer_.addUnsigned(frame_.descriptors.size());
    frame_.descriptors.push_back(std::move(descriptor));
  }
  return true;
}

}  // namespace velto::wire
