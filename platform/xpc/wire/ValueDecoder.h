#pragma once

#include <bitset>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "VeltoIPC/Limits.h"
#include "platform/foundation/NSObject.h"
#include "platform/xpc/wire/ClassSet.h"
#include "platform/xpc/wire/ContainerStack.h"
#include "platform/xpc/wire/DescriptorCoding.h"
#include "platform/xpc/wire/Frame.h"
#include "platform/xpc/wire/ItemReader.h"

namespace velto::wire {

// Reads the items of a frame's CBOR sequence one after the other. Everything is checked before it is used; no memory is
// reserved for a count that no bytes back; the depth is bounded without recursion.
//
// Two ways to fail, never mixed: broken bytes (not well-formed, invalid UTF-8, an item where another is due, a
// duplicate key) break the protocol and end the connection; a well-formed value that is not wanted (class outside the
// set, unknown tag, too deep, a coded class that refuses its contents) is only refused. After a refusal the next item
// can be read; after broken bytes every call fails with the same reason.
class ValueDecoder {
 public:
  enum class Outcome { value, refused, broken };

  // The frame must outlive the decoder. Descriptors that no value takes stay with the frame.
  explicit ValueDecoder(const Frame& frame);
  ValueDecoder(const ValueDecoder&) = delete;
  ValueDecoder& operator=(const ValueDecoder&) = delete;

  // One value, or nil, which must consist of the admitted classes alone. `value` is nil unless the outcome is value.
  Outcome next(const ClassSet& admitted, NSObject& value);
  // Items of the protocol itself: nothing when the item is another.
  std::optional<std::uint64_t> nextUnsigned();
  std::optional<bool> nextBool();
  std::optional<std::string> nextText(std::size_t maximumBytes);
  bool atEnd() const noexcept { return !broken_ && reader_.remaining() == 0; }

  // Why the last call failed.
  const std::string& reason() const noexcept { return reason_; }

 private:
  // What one item did to the value that is being read.
  enum class Step { complete, opened, refused, broken };

  Outcome build(NSObject& value);
  Outcome stepOver(std::size_t start);
  Step readObject(NSObject& made);
  Step integer(const Item& item, NSObject& made);
  Step text(const Item& item, NSObject& made);
  Step plain(PlainClass plain, NSObject object, NSObject& made);
  Step container(PlainClass plain, ContainerStack::Kind kind, std::uint64_t items, NSObject& made);
  Step open(ContainerStack::Kind kind, std::uint64_t items, NSObject& made);
  Step close(NSObject& made);
  Step closeCoded(NSObject& made);
  Step tagged(std::uint64_t tag, NSObject& made);
  Step date(NSObject& made);
  Step url(NSObject& made);
  Step uuid(NSObject& made);
  Step object(NSObject& made);
  Step error(std::uint64_t items, NSObject& made);
  Step coded(CodedClass aClass, std::uint64_t items, NSObject& made);
  Step withDescriptors(const DescriptorClass& aClass, std::uint64_t items, NSObject& made);
  // Descriptors that the next item, a list of their indices, names.
  bool takeDescriptors(std::vector<system::SharedDescriptor>& taken);

  bool read(Item& item);
  bool expect(Item::Type type, Item& item, const char* what);
  bool isTooDeep();
  bool mayCompareKeys();
  Step refuse(std::string reason);
  Step refuseOverLimit(std::string_view limit, std::uint64_t value, std::uint64_t maximum);
  Step refuseClass(std::string_view name);
  Step breakOff(std::string reason);

  const Frame& frame_;
  ItemReader reader_;
  ContainerStack stack_;
  const ClassSet* admitted_ = nullptr;
  std::size_t objects_ = 0;
  std::uint64_t comparisons_ = 0;
  // Of the object that was read last.
  ComparisonCost cost_;
  std::bitset<limits::kMaximumDescriptors> taken_;
  bool broken_ = false;
  std::string reason_;
};

}  // namespace velto::wire
