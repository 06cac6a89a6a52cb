// Values out of CBOR, in one pass and straight into their final bodies: items are read one by one and put into the
// innermost of a stack of open containers. A value that turns out to be unwanted is abandoned on the spot, and then
// stepped over from its start, by well-formedness alone: so "refused" always means that the bytes were sound, and the
// items behind it can be read.
//
// The objects of a small frame lie in one region, and refer to each other without counting; what others made for it is
// kept by the region.

#include "platform/xpc/wire/ValueDecoder.h"

#include <exception>
#include <utility>

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/Foundation.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/Ownership.h"
#include "platform/foundation/PlainBodies.h"
#include "platform/foundation/Region.h"
#include "platform/foundation/SaturatingArithmetic.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/UTF8.h"
#include "platform/foundation/Walk.h"
#include "platform/xpc/wire/Text.h"

namespace velto::wire {
namespace {

// Frames up to this size become one region, of so many times their bytes and a little more.
constexpr std::size_t kRegionFrameBytes = 4096;
constexpr std::size_t kRegionFactor = 2;
constexpr std::size_t kRegionRoom = 256;
// Data of this size stays where it has come, if it is so great a part of that: who keeps it keeps little else.
constexpr std::size_t kStayingBodyBytes = std::size_t{16} << 10;
constexpr std::size_t kMostMemoryOfData = 4;

}  // namespace

using Type = Item::Type;

ValueDecoder::ValueDecoder(const Frame& frame) : frame_(frame), reader_(frame.body) {}

ValueDecoder::~ValueDecoder() {
  clear();
  if (region_ != nullptr) region_->release();
}

ValueDecoder::Outcome ValueDecoder::next(const ClassSet& admitted, NSObject& value) {
  value = nil;
  if (broken_) return Outcome::broken;
  admitted_ = &admitted;
  const std::size_t start = reader_.position();
  // Codings of users may raise, whatever they promise, and memory may end; neither is the connection's end.
  try {
    const Outcome outcome = build(value);
    if (outcome != Outcome::refused) return outcome;
  } catch (const std::exception& exception) {
    // First what was built so far is let go of: the words below need memory too.
    clear();
    refuse(std::string("could not be decoded: ") + exception.what());
  }
  return stepOver(start);
}

inline ValueDecoder::Step ValueDecoder::integer(const Item& item) {
  const bool fits = item.number <= INT64_MAX;
  if (item.type == Type::negativeInteger && !fits) return breakOff("an integer below the least of 64 bits");
  if (!mayHold(PlainClass::number)) return Step::refused;
  if (item.type == Type::unsignedInteger) {
    made_ = Value(fits ? Tag::signedInteger : Tag::unsignedInteger, item.number);
  } else {
    made_ = Value(Tag::signedInteger, ~item.number);
  }
  return Step::complete;
}

inline ValueDecoder::Step ValueDecoder::text(const Item& item) {
  const std::string_view view = item.view();
  if (view.size() <= Value::kMaximumText) {
    made_ = Value::ofShortText(view);
    if (!made_.isASCII() && !isValidUTF8(view)) {
      made_ = Value();
      return breakOff("a text that is not UTF-8");
    }
    return mayHold(PlainClass::string) ? Step::complete : Step::refused;
  }
  if (!isValidUTF8(view)) return breakOff("a text that is not UTF-8");
  if (!mayHold(PlainClass::string)) return Step::refused;
  made_ = StringBody::make(view, region());
  return Step::complete;
}

Value ValueDecoder::data(std::span<const std::uint8_t> bytes) {
  ByteBlock* const block = frame_.body.block();
  if (bytes.size() < kStayingBodyBytes || bytes.size() < block->capacity() / kMostMemoryOfData) {
    return DataBody::copy(bytes, region());
  }
  Value made = DataBody::borrow(bytes.data(), bytes.size(), [block] { block->release(); });
  block->retain();
  return made;
}

inline ValueDecoder::Step ValueDecoder::putKeyed(Level& level) {
  const bool isSet = level.kind == Kind::set;
  const bool isKey = isSet || level.itemsLeft % 2 != 0;
  if (isKey) {
    level.cost.addKey(cost_);
    if ((cost_.hasPoorHash || cost_.hashedLevels > 0) && !mayCompareKeys(level)) return Step::refused;
    if (!isSet) {
      level.key = std::exchange(made_, Value());
      return Step::opened;
    }
  } else {
    level.cost.addValue(cost_);
  }
  const Value made = made_.inWords();
  if (!(isSet ? level.keyed->addMember(made, level.keys) : level.keyed->addPair(level.key, made, level.keys))) {
    dropTwice(level, made);
  }
  level.key = Value();
  made_ = Value();
  return Step::opened;
}

inline ValueDecoder::Step ValueDecoder::put() {
  Level& level = top();
  --level.itemsLeft;
  if (level.kind == Kind::array) {
    level.array->add(made_.inWords());
    made_ = Value();
    level.cost.addValue(cost_);
  } else if (level.kind == Kind::coded) {
    level.cost.addValue(cost_);
  } else if (const Step step = putKeyed(level); step != Step::opened) {
    return step;
  }
  return level.itemsLeft == 0 ? close() : Step::opened;
}

template <ValueDecoder::Kind kKind>
ValueDecoder::Step ValueDecoder::open(std::uint64_t items) {
  // Memory is reserved for what can still come: each item that is due takes a byte at least, and is an object.
  due_ += items;
  if (due_ > reader_.remaining()) {
    return breakOff("truncated: " + std::to_string(due_) + " items are due at byte " +
                    std::to_string(reader_.position()) + ", " + std::to_string(reader_.remaining()) +
                    " at most can follow");
  }
  if (objects_ + due_ > limits::kMaximumObjects) {
    return refuseOverLimit("objects", limits::kMaximumObjects + 1, limits::kMaximumObjects);
  }
  constexpr bool kIsList = kKind == Kind::array || kKind == Kind::set;
  // The hash of an error does not regard its user info, and that of a coded object is its class's affair.
  constexpr bool kHashesLess = kKind == Kind::error || kKind == Kind::coded;
  const std::uint64_t elements = kIsList ? items : items / 2;
  const std::uint64_t work = kKind == Kind::coded ? 1 : cost_.work;
  const bool hasPoorHash = kHashesLess || elements > kHashedElements;
  Level& made = *new (&level(depth_)) Level(kKind, elements, items, work, hasPoorHash);
  if constexpr (kKind == Kind::array) {
    made.array = &ArrayBody::make(elements, region());
  } else if constexpr (kKind != Kind::coded) {
    made.keyed = &KeyedBody::make(kKind == Kind::set ? Tag::set : Tag::dictionary, elements, region());
  }
  ++depth_;
  return Step::opened;
}

ValueDecoder::Step ValueDecoder::close() {
  const Level& level = top();
  if (level.kind == Kind::coded) return closeCoded();
  if (level.hasTwice) return breakOff("a key of a dictionary, or an element of a set, that comes twice");
  if (depth_ > 1) cost_ = level.cost.toCompare();
  if (level.kind == Kind::array) {
    made_ = Value(*level.array);
  } else if (level.kind == Kind::error) {
    made_ = ErrorBody::make(level.domain, level.code, Value(*level.keyed), region());
  } else {
    made_ = Value(*level.keyed);
  }
  --depth_;
  return Step::complete;
}

template <ValueDecoder::Kind kKind>
ValueDecoder::Step ValueDecoder::container(PlainClass plain, std::uint64_t items) {
  if (!mayHold(plain) || isTooDeep()) return Step::refused;
  const Step step = open<kKind>(items);
  return step == Step::opened && items == 0 ? close() : step;
}

// What the other half opens.
template ValueDecoder::Step ValueDecoder::open<ValueDecoder::Kind::error>(std::uint64_t items);
template ValueDecoder::Step ValueDecoder::open<ValueDecoder::Kind::coded>(std::uint64_t items);
template ValueDecoder::Step ValueDecoder::container<ValueDecoder::Kind::set>(PlainClass plain, std::uint64_t items);

inline ValueDecoder::Step ValueDecoder::readObject() {
  if (++objects_ > limits::kMaximumObjects) {
    return refuseOverLimit("objects", objects_, limits::kMaximumObjects);
  }
  if (depth_ > 0) --due_;
  cost_ = {};
  Item item;
  if (!read(item)) return Step::broken;
  switch (item.type) {
    case Type::unsignedInteger:
    case Type::negativeInteger:
      return integer(item);
    case Type::boolean:
      if (!mayHold(PlainClass::number)) return Step::refused;
      made_ = Value(Tag::boolean, item.number);
      return Step::complete;
    case Type::floatingPoint:
      if (!mayHold(PlainClass::number)) return Step::refused;
      made_ = Value(Tag::floatingPoint, std::bit_cast<std::uint64_t>(item.real));
      return Step::complete;
    case Type::text:
      return text(item);
    case Type::bytes:
      if (!mayHold(PlainClass::data)) return Step::refused;
      made_ = data(item.span());
      return Step::complete;
    case Type::null:
      if (!mayHold(PlainClass::null)) return Step::refused;
      made_ = Value(Tag::null, 0);
      return Step::complete;
    case Type::array:
      return container<Kind::array>(PlainClass::array, item.number);
    case Type::map:
      return container<Kind::dictionary>(PlainClass::dictionary, 2 * item.number);
    case Type::tag:
      return tagged(item.number);
    case Type::undefined:
      if (depth_ > 0) return breakOff("nil inside a container");
      made_ = Value();
      return Step::complete;
    default:
      return breakOff("an item of indefinite length");
  }
}

ValueDecoder::Outcome ValueDecoder::build(NSObject& value) {
  for (;;) {
    Step step = depth_ > 0 && readPlainOnes() ? close() : readObject();
    while (step == Step::complete) {
      if (depth_ == 0) {
        value = giveMade(reader_.remaining() == 0);
        return Outcome::value;
      }
      step = put();
    }
    if (step == Step::refused) return Outcome::refused;
    if (step == Step::broken) return Outcome::broken;
  }
}

ValueDecoder::Outcome ValueDecoder::stepOver(std::size_t start) {
  clear();
  reader_.rewind(start);
  if (reader_.skip()) return Outcome::refused;
  breakOff(reader_.reason());
  return Outcome::broken;
}

Region* ValueDecoder::makeRegion() {
  // Whoever keeps a small value would keep the data that came with it.
  if (frame_.body.size() <= kRegionFrameBytes && frame_.regions == 0) {
    region_ = Region::make(kRegionFactor * frame_.body.size() + kRegionRoom);
  }
  return region_;
}

void ValueDecoder::take(NSObject object) {
  // Not counted by what holds it in the region, but for all of it.
  if (Region* const region = this->region()) region->keep(object.value());
  made_ = object.giveUp();
}

NSObject ValueDecoder::giveMade(bool isLast) {
  if (region_ != nullptr && made_.isCounted()) {
    if (isLast && made_.body().isInRegion()) {
      region_ = nullptr;
    } else {
      made_.retain();
    }
  }
  const Value given = made_.inWords();
  made_ = Value();
  return NSObject::adopt(given);
}

void ValueDecoder::clear() noexcept {
  if (region_ == nullptr) {
    made_.release();
    for (; depth_ > 0; --depth_) {
      const Level& each = top();
      each.key.release();
      each.domain.release();
      if (each.kind == Kind::array) {
        each.array->fillUp(each.elements);
        each.array->release();
      }
      if (each.kind != Kind::array && each.kind != Kind::coded) each.keyed->release();
    }
  }
  made_ = Value();
  depth_ = 0;
  due_ = 0;
  coded_.clear();
}

bool ValueDecoder::refusePlain(PlainClass plain) {
  refuseClass(classBodyOf(plain).name());
  return false;
}

bool ValueDecoder::isTooDeep() {
  if (depth_ < limits::kMaximumDepth) return false;
  refuseOverLimit("levels of nesting", depth_ + 1, limits::kMaximumDepth);
  return true;
}

// Asked before a key that is dear to find is held against those that are there.
bool ValueDecoder::mayCompareKeys(Level& level) {
  const std::uint64_t cost = level.cost.toMake();
  comparisons_ = saturatingSum(comparisons_, cost - level.counted);
  level.counted = cost;
  if (comparisons_ <= limits::kMaximumKeyComparisons) return true;
  refuseOverLimit("comparisons of keys", comparisons_, limits::kMaximumKeyComparisons);
  return false;
}

std::optional<std::uint64_t> ValueDecoder::nextUnsigned() {
  Item item;
  if (broken_ || !expect(Type::unsignedInteger, item, "a number")) return std::nullopt;
  return item.number;
}

std::optional<bool> ValueDecoder::nextBool() {
  Item item;
  if (broken_ || !expect(Type::boolean, item, "a bool")) return std::nullopt;
  return item.number != 0;
}

std::optional<std::string_view> ValueDecoder::nextText(std::size_t maximumBytes) {
  Item item;
  if (broken_ || !expect(Type::text, item, "a text")) return std::nullopt;
  if (item.number > maximumBytes) {
    breakOff(overLimit("bytes of a text", item.number, maximumBytes));
  } else if (!isValidUTF8(item.view())) {
    breakOff("a text that is not UTF-8");
  }
  if (broken_) return std::nullopt;
  return item.view();
}

bool ValueDecoder::failRead() {
  breakOff(reader_.reason());
  return false;
}

bool ValueDecoder::expect(Type type, Item& item, const char* what) {
  if (!read(item)) return false;
  if (item.type == type) return true;
  breakOff(std::string("another item where ") + what + " is due");
  return false;
}

ValueDecoder::Step ValueDecoder::refuse(std::string reason) {
  reason_ = std::move(reason);
  return Step::refused;
}

ValueDecoder::Step ValueDecoder::refuseOverLimit(std::string_view limit, std::uint64_t value, std::uint64_t maximum) {
  return refuse("exceeds a limit: " + overLimit(limit, value, maximum, true));
}

ValueDecoder::Step ValueDecoder::refuseClass(std::string_view name) {
  const std::string admitted = admitted_->names();
  return refuse("holds an object of class " + std::string(name) +
                ", which is not allowed here (allowed: " + (admitted.empty() ? "none" : admitted) + ")");
}

ValueDecoder::Step ValueDecoder::breakOff(std::string reason) {
  broken_ = true;
  reason_ = std::move(reason);
  clear();
  return Step::broken;
}

}  // namespace velto::wire
