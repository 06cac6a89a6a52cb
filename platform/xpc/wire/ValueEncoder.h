#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/wire/Frame.h"
#include "platform/xpc/wire/ItemWriter.h"

namespace velto {
class ClassBody;
}

namespace velto::wire {

// Writes values as the items of a frame's CBOR sequence. The frame grows as it goes, but encloses what is long and
// never changes; once anything has failed, everything after it is skipped and reason() says what was wrong, naming the
// limit, the value and the maximum where it was one.
//
// A container that changes while it is written fails like everything else: nothing is raised.
class ValueEncoder {
 public:
  // Data that the frame has no room for goes in regions. If they are known to be welcome, so does what lies in memory
  // that can be passed on.
  // `roomForRegions`: bytes that may go beside the frame at most.
  explicit ValueEncoder(FrameType type, bool passesRegionsOn = false,
                        std::size_t roomForRegions = limits::kMaximumRegionBytes);
  ValueEncoder(const ValueEncoder&) = delete;
  ValueEncoder& operator=(const ValueEncoder&) = delete;

  // A value of any coded class, or nil.
  void add(const NSObject& value);
  void addUnsigned(std::uint64_t value);
  void addBool(bool value);
  // Broken UTF-8 is replaced by U+FFFD.
  void addText(std::string_view text);

  // Makes it fail. The first reason stays.
  void fail(std::string reason);
  void failOverLimit(std::string_view limit, std::uint64_t value, std::uint64_t maximum, bool orMore = false);
  bool failed() const noexcept { return !reason_.empty(); }
  const std::string& reason() const noexcept { return reason_; }
  // Whether the reason is a limit.
  bool exceededLimit() const noexcept { return exceededLimit_; }
  // Nothing more is added. Fails if there is no memory for the frame.
  void finish();
  // The frame; call once, and only if nothing failed. Raises std::bad_alloc, but not after finish().
  Frame take();

 private:
  // All of these answer whether to go on.
  bool count(std::size_t objects);
  bool encode(const NSObject& object);
  bool encodeOther(const NSObject& object);
  bool encodeString(const NSObject& object);
  bool encodeData(const NSObject& object);
  bool encodeRegion(const Value& value, std::span<const std::uint8_t> bytes);
  bool encodeObject(const NSObject& object);
  bool encodeContainer(const NSObject& object);
  bool encodeDate(const NSObject& object);
  bool encodeElements(const NSObject& container);
  bool encodePairs(const NSObject& dictionary);
  bool encodeError(const NSObject& object);
  bool encodeCoded(const NSObject& object, const ClassBody& aClass, bool& found);
  bool encodeDescriptors(const NSObject& object, const ClassBody& aClass, bool& found);
  bool startObject(const std::string& className);
  std::size_t lengthWith(std::size_t bytes) const { return writer_.written() + enclosedBytes_ + bytes; }
  bool hasRoomFor(std::size_t bytes) {
    const std::size_t length = lengthWith(bytes);
    return length <= limits::kMaximumFrameBytes || refuseLength(length);
  }
  bool refuseLength(std::size_t length);
  // Bytes that lie in `owner`: from where they are, if they are many and stay what they are.
  void enclose(const NSObject& owner, std::span<const std::uint8_t> bytes);
  bool isTooDeep();
  bool refuse(std::string reason);

  Frame frame_;
  ItemWriter writer_;
  std::size_t enclosedBytes_ = 0;
  const bool passesRegionsOn_;
  const std::size_t roomForRegions_;
  std::size_t regionCount_ = 0;
  std::size_t regionBytes_ = 0;
  std::size_t depth_ = 0;
  std::size_t objects_ = 0;
  std::string reason_;
  bool exceededLimit_ = false;
};

}  // namespace velto::wire
