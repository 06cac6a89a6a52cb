// Values into CBOR, by recursion that the depth limit bounds. Containers that hold themselves meet that limit; shared
// ones, which can stand for exponentially many objects, meet the bound on objects or the one on bytes.

#include "platform/xpc/wire/ValueEncoder.h"

#include <array>
#include <cmath>
#include <exception>
#include <new>
#include <utility>

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/Foundation.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/NSCoding.h"
#include "platform/foundation/PlainBodies.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/UTF8.h"
#include "platform/foundation/Walk.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/wire/DescriptorCoding.h"
#include "platform/xpc/wire/SharedMemory.h"
#include "platform/xpc/wire/Tags.h"
#include "platform/xpc/wire/Text.h"

namespace velto::wire {
namespace {

// From this size on a copy costs more than what the kernel takes for one more piece to gather.
constexpr std::size_t kEnclosedBytes = std::size_t{16} << 10;

// Ahead of data that is worth a region.
constexpr std::size_t kHeadBytes = 5;
// What data leaves in a frame for what comes after it, if it may as well go beside it.
constexpr std::size_t kRoomForOthers = std::size_t{64} << 10;

int descriptorOf(const Value& data) {
  return data.tag() == Tag::data ? static_cast<const DataBody&>(data.body()).descriptor() : -1;
}

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

}  // namespace

ValueEncoder::ValueEncoder(FrameType type, bool passesRegionsOn, std::size_t roomForRegions)
    : passesRegionsOn_(passesRegionsOn), roomForRegions_(roomForRegions) {
  frame_.type = type;
}

void ValueEncoder::add(const NSObject& value) {
  if (failed()) return;
  // Users' codings and iterators of containers may raise; what they left behind is dropped with the frame.
  try {
    if (value.isNil()) {
      if (hasRoomFor(1)) writer_.addUndefined();
    } else {
      if (count(1) && encode(value)) hasRoomFor(0);
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

void ValueEncoder::finish() {
  if (failed()) return;
  try {
    frame_.body = writer_.finish();
  } catch (const std::bad_alloc&) {
    fail("could not be encoded: there is no memory for it");
  }
}

Frame ValueEncoder::take() {
  if (frame_.body.empty()) frame_.body = writer_.finish();
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

bool ValueEncoder::refuseLength(std::size_t length) {
  failOverLimit("bytes of a frame", length, limits::kMaximumFrameBytes, true);
  return false;
}

bool ValueEncoder::isTooDeep() {
  if (depth_ <= limits::kMaximumDepth) return false;
  failOverLimit("levels of nesting", depth_, limits::kMaximumDepth, true);
  return true;
}

// Ahead of the objects themselves.
bool ValueEncoder::count(std::size_t objects) {
  objects_ += objects;
  if (objects_ <= limits::kMaximumObjects) return true;
  failOverLimit("objects", limits::kMaximumObjects + 1, limits::kMaximumObjects, true);
  return false;
}

// What most objects are is inlined wherever objects are written. Whether there was room for it, the caller asks.
[[gnu::always_inline]] inline bool ValueEncoder::encode(const NSObject& object) {
  const Value value = object.value();
  switch (value.tag()) {
    case Tag::text:
      writer_.addText(value);
      return true;
    case Tag::signedInteger:
      writer_.addSigned(static_cast<std::int64_t>(value.bits()));
      return true;
    case Tag::floatingPoint:
      writer_.addDouble(std::bit_cast<double>(value.bits()));
      return true;
    case Tag::boolean:
      writer_.addBool(value.bits() != 0);
      return true;
    default:
      return encodeOther(object);
  }
}

bool ValueEncoder::encodeOther(const NSObject& object) {
  const Value& value = object.value();
  switch (value.tag()) {
    case Tag::unsignedInteger:
      if (value.bits() <= INT64_MAX) writer_.addTag(kUnsignedTag);
      writer_.addUnsigned(value.bits());
      return true;
    case Tag::null:
      writer_.addNull();
      return true;
    case Tag::string:
    case Tag::mutableString:
      return encodeString(object);
    case Tag::array:
    case Tag::mutableArray:
    case Tag::dictionary:
    case Tag::mutableDictionary:
    case Tag::set:
    case Tag::mutableSet:
    case Tag::error: {
      const Level level(depth_);
      return !isTooDeep() && encodeContainer(object);
    }
    case Tag::data:
    case Tag::mutableData:
      return encodeData(object);
    case Tag::date:
      return encodeDate(object);
    case Tag::uuid:
      writer_.addTag(kUUIDTag);
      writer_.addBytes(static_cast<const UUIDBody&>(value.body()).bytes());
      return true;
    case Tag::url: {
      const std::string_view text = textOf(static_cast<const URLBody&>(value.body()).text().value());
      if (!hasRoomFor(text.size())) return false;
      writer_.addTag(kURLTag);
      writer_.addText(text);
      return true;
    }
    default:
      return encodeObject(object);
  }
}

bool ValueEncoder::encodeString(const NSObject& object) {
  const std::string_view text = textOf(object.value());
  if (!hasRoomFor(text.size())) return false;
  if (text.size() < kEnclosedBytes || object.value().tag() == Tag::mutableString) {
    writer_.addText(text);
  } else {
    writer_.addTextHead(text.size());
    enclose(object, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  }
  return true;
}

bool ValueEncoder::encodeData(const NSObject& object) {
  const Value& value = object.value();
  const std::span<const std::uint8_t> bytes = bytesOf(value);
  if (bytes.size() >= limits::kLeastRegionBytes) {
    const bool isPassedOn = passesRegionsOn_ && regionCount_ < limits::kMaximumRegions && descriptorOf(value) >= 0;
    const std::size_t most = limits::kMaximumFrameBytes - (passesRegionsOn_ ? kRoomForOthers : kHeadBytes);
    if (isPassedOn || lengthWith(bytes.size()) > most) return encodeRegion(value, bytes);
  }
  if (!hasRoomFor(bytes.size())) return false;
  // What others lend is given back by whoever sends it, and not by a thread that writes in the background.
  const bool stays = value.tag() == Tag::data && !static_cast<const DataBody&>(value.body()).isLent();
  if (bytes.size() < kEnclosedBytes || !stays) {
    writer_.addBytes(bytes);
  } else {
    writer_.addBytesHead(bytes.size());
    enclose(object, bytes);
  }
  return true;
}

// Whoever lets go of the value need not be waited for: the frame has a descriptor of its own.
bool ValueEncoder::encodeRegion(const Value& value, std::span<const std::uint8_t> bytes) {
  const std::size_t together = regionBytes_ + bytes.size();
  if (together > limits::kMaximumRegionBytes) {
    failOverLimit("bytes of data beside a frame", together, limits::kMaximumRegionBytes, true);
    return false;
  }
  if (together > roomForRegions_) {
    failOverLimit("bytes of data beside frames that are not read", together, roomForRegions_, true);
    return false;
  }
  if (regionCount_ == limits::kMaximumRegions || frame_.descriptors.size() == limits::kMaximumDescriptors) {
    failOverLimit("data beside a frame", regionCount_ + 1, limits::kMaximumRegions, true);
    return false;
  }
  std::string problem;
  system::SharedDescriptor region = shareMemory(descriptorOf(value));
  if (!region) region = makeRegion(bytes, problem);
  if (!region) return refuse("could not be encoded: " + problem);
  ++regionCount_;
  regionBytes_ = together;
  frame_.regions = sizeOfRegions(together);
  writer_.addTag(kRegionTag);
  writer_.addArray(2);
  writer_.addUnsigned(frame_.descriptors.size());
  writer_.addUnsigned(bytes.size());
  frame_.descriptors.push_back(std::move(region));
  return true;
}

void ValueEncoder::enclose(const NSObject& owner, std::span<const std::uint8_t> bytes) {
  frame_.enclosures.push_back({writer_.written(), bytes, owner});
  enclosedBytes_ += bytes.size();
}

bool ValueEncoder::encodeObject(const NSObject& object) {
  const ClassBody& own = velto::classBodyOf(object.value());
  for (const ClassBody* aClass = &own; aClass != nullptr; aClass = aClass->superclass()) {
    bool found = false;
    const bool encoded = encodeCoded(object, *aClass, found) || (!found && encodeDescriptors(object, *aClass, found));
    if (found) return encoded;
  }
  return refuse("holds an object of class " + own.name() + ", which cannot travel");
}

bool ValueEncoder::encodeContainer(const NSObject& object) {
  const Tag tag = object.value().tag();
  if (tag == Tag::error) return encodeError(object);
  if (isSet(tag)) writer_.addTag(kSetTag);
  return isDictionary(tag) ? encodePairs(object) : encodeElements(object);
}

bool ValueEncoder::encodeDate(const NSObject& object) {
  const double seconds = static_cast<const DateBody&>(object.value().body()).seconds();
  if (!std::isfinite(seconds)) return refuse("holds a date that is infinitely far away, which cannot travel");
  writer_.addTag(kDateTag);
  writer_.addDouble(seconds);
  return true;
}

bool ValueEncoder::encodeElements(const NSObject& container) {
  const std::size_t count = container.count();
  if (!hasRoomFor(count) || !this->count(count)) return false;
  writer_.addArray(count);
  if (container.value().tag() == Tag::array) {
    for (const NSObject& each : elementsOf(container.value())) {
      if (!encode(each) || !hasRoomFor(0)) return false;
    }
    return true;
  }
  std::size_t written = 0;
  const ObjectIterator end(container, ObjectIterator::Place::end);
  for (ObjectIterator each(container, ObjectIterator::Place::begin); each != end; ++each) {
    // A handle of its own: what its coding does may change the container.
    if (!encode(NSObject(*each)) || !hasRoomFor(0)) return false;
    ++written;
  }
  return written == count || refuse(kChanged);
}

bool ValueEncoder::encodePairs(const NSObject& dictionary) {
  const std::size_t count = dictionary.count();
  if (!hasRoomFor(2 * count) || !this->count(2 * count)) return false;
  writer_.addMap(count);
  if (dictionary.value().tag() == Tag::dictionary) {
    const KeyTable entries = tableOf(dictionary.value());
    for (std::size_t slot = 0; slot < count; ++slot) {
      if (!encode(entries.key(slot)) || !encode(entries.value(slot)) || !hasRoomFor(0)) return false;
    }
    return true;
  }
  std::size_t written = 0;
  const ObjectIterator end(dictionary, ObjectIterator::Place::end);
  for (ObjectIterator each(dictionary, ObjectIterator::Place::begin); each != end; ++each) {
    const NSObject value = (&*each)[1];
    if (!encode(NSObject(*each)) || !encode(value) || !hasRoomFor(0)) return false;
    ++written;
  }
  return written == count || refuse(kChanged);
}

bool ValueEncoder::encodeError(const NSObject& object) {
  const auto& error = static_cast<const ErrorBody&>(object.value().body());
  const std::string_view domain = textOf(error.domain().value());
  if (!hasRoomFor(domain.size())) return false;
  writer_.addTag(kObjectTag);
  writer_.addArray(4);
  writer_.addText(kErrorName);
  writer_.addText(domain);
  writer_.addSigned(error.code());
  return encodePairs(error.userInfo());
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
  return startObject(aClass.name()) && count(1) && encode(contents);
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
