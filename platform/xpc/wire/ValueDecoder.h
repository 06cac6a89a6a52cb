#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/NSCoding.h"
#include "platform/foundation/NSObject.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/wire/ClassSet.h"
#include "platform/xpc/wire/ComparisonCost.h"
#include "platform/xpc/wire/DescriptorCoding.h"
#include "platform/xpc/wire/Frame.h"
#include "platform/xpc/wire/ItemReader.h"

namespace velto {
class ArrayBody;
class Region;
}  // namespace velto

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

  // The frame must outlive the decoder, and its bytes are not changed any more: large data stays in them. Descriptors
  // that no value takes stay with the frame.
  explicit ValueDecoder(const Frame& frame);
  ~ValueDecoder();
  ValueDecoder(const ValueDecoder&) = delete;
  ValueDecoder& operator=(const ValueDecoder&) = delete;

  // One value, or nil, which must consist of the admitted classes alone. `value` is nil unless the outcome is value.
  Outcome next(const ClassSet& admitted, NSObject& value);
  // Items of the protocol itself: nothing when the item is another.
  std::optional<std::uint64_t> nextUnsigned();
  std::optional<bool> nextBool();
  // Lies in the frame.
  std::optional<std::string_view> nextText(std::size_t maximumBytes);
  bool atEnd() const noexcept { return !broken_ && reader_.remaining() == 0; }

  // Why the last call failed.
  const std::string& reason() const noexcept { return reason_; }

 private:
  // Bytes that are compared in about the time that it takes to visit an object.
  static constexpr std::uint64_t kBytesPerObject = 64;

  // What one item did to the value that is being read.
  enum class Step { complete, opened, refused, broken };
  enum class Kind : std::uint8_t { array, dictionary, set, error, coded };

  // A container that is not full yet. What it holds is in its body already; what it has no reference to counted is the
  // level's own.
  struct Level {
    Level(Kind ofKind, std::uint64_t ofElements, std::uint64_t items, std::uint64_t work, bool hasPoorHash) noexcept
        : kind(ofKind), elements(ofElements), itemsLeft(items), array(nullptr), cost(work, items, hasPoorHash) {}

    Kind kind;
    // A key or an element came twice: breaks the protocol, once all of the container has been read.
    bool hasTwice = false;
    std::uint64_t elements;
    std::uint64_t itemsLeft;
    // What its keys have cost so far, which is in the comparisons of the frame.
    std::uint64_t counted = 0;
    union {
      ArrayBody* array;
      KeyedBody* keyed;
    };
    // The key whose value is due; the domain of an error is below it.
    Value key;
    Value domain;
    std::int64_t code = 0;
    ContainerCost cost;
    TextFilter keys;
  };

  Outcome build(NSObject& value);
  Outcome stepOver(std::size_t start);
  // Puts plain objects into the innermost container, as many as follow each other. What is anything else, or not as it
  // should be, is left to readObject(). Whether the container is full then.
  bool readPlainOnes();
  class PlainReader;
  void readElements(Level& level);
  void readMembers(Level& level);
  void readPairs(Level& level);
  void dropTwice(Level& level, Value made) noexcept;
  Step readObject();
  Step integer(const Item& item);
  Step text(const Item& item);
  Value data(std::span<const std::uint8_t> bytes);
  bool mayHold(PlainClass plain) { return admitted_->admits(plain) || refusePlain(plain); }
  // False.
  bool refusePlain(PlainClass plain);
  template <Kind kKind>
  Step container(PlainClass plain, std::uint64_t items);
  template <Kind kKind>
  Step open(std::uint64_t items);
  Step put();
  Step putKeyed(Level& level);
  Step close();
  Step closeCoded();
  Step tagged(std::uint64_t tag);
  Step date();
  Step url();
  Step uuid();
  Step object();
  Step dataInRegion();
  // Whether what is read next is a part of what will be hashed and compared.
  bool isInKey() noexcept;
  Step error(std::uint64_t items);
  Step coded(CodedClass aClass, std::uint64_t items);
  Step withDescriptors(const DescriptorClass& aClass, std::uint64_t items);
  // Descriptors that the next item, a list of their indices, names.
  bool takeDescriptors(std::vector<system::SharedDescriptor>& taken);
  // The descriptor of this index.
  bool takeDescriptor(std::uint64_t index, std::vector<system::SharedDescriptor>& taken);

  // The memory of small messages; null for large ones, whose bodies are on the heap.
  Region* region() { return region_ != nullptr ? region_ : makeRegion(); }
  Region* makeRegion();
  // An object that others have made becomes the one that was read last.
  void take(NSObject object);
  // A handle of its own on the object that was read last. After the last one of all it takes over the reference to the
  // region that this has had.
  NSObject giveMade(bool isLast);
  // Lets go of everything that has been read of the value.
  void clear() noexcept;

  Level& level(std::size_t index) noexcept { return reinterpret_cast<Level*>(levels_)[index]; }
  Level& top() noexcept { return level(depth_ - 1); }
  bool read(Item& item) {
    if (!reader_.read(item)) return failRead();
    if (item.type == Item::Type::text || item.type == Item::Type::bytes) {
      cost_.work = saturatingSum(cost_.work, item.number / kBytesPerObject);
    }
    return true;
  }
  // False.
  bool failRead();
  bool expect(Item::Type type, Item& item, const char* what);
  bool isTooDeep();
  bool mayCompareKeys(Level& level);
  Step refuse(std::string reason);
  Step refuseOverLimit(std::string_view limit, std::uint64_t value, std::uint64_t maximum);
  Step refuseClass(std::string_view name);
  Step breakOff(std::string reason);

  const Frame& frame_;
  ItemReader reader_;
  const ClassSet* admitted_ = nullptr;
  std::size_t objects_ = 0;
  std::uint64_t comparisons_ = 0;
  // The object that was read last, which no container holds yet, and what it costs to compare.
  Value made_;
  ComparisonCost cost_;
  std::size_t depth_ = 0;
  // Items of the open containers that have not begun.
  std::uint64_t due_ = 0;
  Region* region_ = nullptr;
  std::vector<CodedClass> coded_;
  std::bitset<limits::kMaximumDescriptors> taken_;
  bool broken_ = false;
  std::string reason_;
  // Levels, as far as they are open: not initialised.
  alignas(Level) std::byte levels_[limits::kMaximumDepth * sizeof(Level)];
};

}  // namespace velto::wire
