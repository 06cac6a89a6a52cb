// Values out of CBOR: items are pulled one by one and put into an explicit stack of open containers. A value that turns
// out to be unwanted is abandoned on the spot, and then stepped over from its start, by well-formedness alone: so
// "refused" always means that the bytes were sound, and the items behind it can be read.

#include "platform/xpc/wire/ValueDecoder.h"

#include <exception>
#include <utility>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/SaturatingArithmetic.h"
#include "platform/foundation/UTF8.h"
#include "platform/xpc/wire/Text.h"

namespace velto::wire {
namespace {

// Bytes that are compared in about the time that it takes to visit an object.
constexpr std::uint64_t kBytesPerObject = 64;

}  // namespace

using Kind = ContainerStack::Kind;
using Type = Item::Type;

ValueDecoder::ValueDecoder(const Frame& frame) : frame_(frame), reader_(frame.body) {}

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
    stack_.clear();
    refuse(std::string("could not be decoded: ") + exception.what());
  }
  return stepOver(start);
}

ValueDecoder::Outcome ValueDecoder::build(NSObject& value) {
  NSObject made;
  for (;;) {
    Step step = readObject(made);
    while (step == Step::complete) {
      if (stack_.depth() == 0) {
        value = std::move(made);
        return Outcome::value;
      }
      stack_.push(std::exchange(made, nil), cost_);
      step = stack_.isFull() ? close(made) : Step::opened;
    }
    if (step == Step::refused) return Outcome::refused;
    if (step == Step::broken) return Outcome::broken;
  }
}

ValueDecoder::Outcome ValueDecoder::stepOver(std::size_t start) {
  stack_.clear();
  reader_.rewind(start);
  if (reader_.skip()) return Outcome::refused;
  breakOff(reader_.reason());
  return Outcome::broken;
}

ValueDecoder::Step ValueDecoder::readObject(NSObject& made) {
  if (++objects_ > limits::kMaximumObjects) {
    return refuseOverLimit("objects", objects_, limits::kMaximumObjects);
  }
  cost_ = {};
  Item item;
  if (!read(item)) return Step::broken;
  switch (item.type) {
    case Type::unsignedInteger:
    case Type::negativeInteger:
      return integer(item, made);
    case Type::boolean:
      return plain(PlainClass::number, NSNumber::numberWithBool(item.number != 0), made);
    case Type::floatingPoint:
      return plain(PlainClass::number, NSNumber::numberWithDouble(item.real), made);
    case Type::text:
      return text(item, made);
    case Type::bytes:
      return plain(PlainClass::data, NSData::dataWithBytes(item.start, static_cast<std::size_t>(item.number)), made);
    case Type::null:
      return plain(PlainClass::null, NSNull::null(), made);
    case Type::array:
      return container(PlainClass::array, Kind::array, item.number, made);
    case Type::map:
      return container(PlainClass::dictionary, Kind::dictionary, 2 * item.number, made);
    case Type::tag:
      return tagged(item.number, made);
    case Type::undefined:
      if (stack_.depth() > 0) return breakOff("nil inside a container");
      made = nil;
      return Step::complete;
    default:
      return breakOff("an item of indefinite length");
  }
}

ValueDecoder::Step ValueDecoder::integer(const Item& item, NSObject& made) {
  const bool fits = item.number <= INT64_MAX;
  if (item.type == Type::unsignedInteger) {
    NSNumber number = fits ? NSNumber::numberWithSigned(static_cast<std::int64_t>(item.number))
                           : NSNumber::numberWithUnsigned(item.number);
    return plain(PlainClass::number, std::move(number), made);
  }
  if (!fits) return breakOff("an integer below the least of 64 bits");
  return plain(PlainClass::number, NSNumber::numberWithSigned(-1 - static_cast<std::int64_t>(item.number)), made);
}

ValueDecoder::Step ValueDecoder::text(const Item& item, NSObject& made) {
  NSString string = NSString::stringWithUTF8(item.view());
  if (string.isNil()) return breakOff("a text that is not UTF-8");
  return plain(PlainClass::string, std::move(string), made);
}

ValueDecoder::Step ValueDecoder::plain(PlainClass plain, NSObject object, NSObject& made) {
  if (!admitted_->admits(plain)) return refuseClass(classBodyOf(plain).name());
  made = std::move(object);
  return Step::complete;
}

ValueDecoder::Step ValueDecoder::container(PlainClass plain, Kind kind, std::uint64_t items, NSObject& made) {
  if (!admitted_->admits(plain)) return refuseClass(classBodyOf(plain).name());
  return open(kind, items, made);
}

ValueDecoder::Step ValueDecoder::open(Kind kind, std::uint64_t items, NSObject& made) {
  if (isTooDeep()) return Step::refused;
  stack_.open(kind, items, cost_.work);
  return items == 0 ? close(made) : Step::opened;
}

ValueDecoder::Step ValueDecoder::close(NSObject& made) {
  if (stack_.kind() == Kind::coded) return closeCoded(made);
  if (!mayCompareKeys()) return Step::refused;
  made = stack_.close(cost_);
  return made ? Step::complete : breakOff("a key of a dictionary, or an element of a set, that comes twice");
}

bool ValueDecoder::isTooDeep() {
  if (stack_.depth() < limits::kMaximumDepth) return false;
  refuseOverLimit("levels of nesting", stack_.depth() + 1, limits::kMaximumDepth);
  return true;
}

bool ValueDecoder::mayCompareKeys() {
  comparisons_ = saturatingSum(comparisons_, stack_.comparisonsToClose());
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

std::optional<std::string> ValueDecoder::nextText(std::size_t maximumBytes) {
  Item item;
  if (broken_ || !expect(Type::text, item, "a text")) return std::nullopt;
  if (item.number > maximumBytes) {
    breakOff(overLimit("bytes of a text", item.number, maximumBytes));
  } else if (!isValidUTF8(item.view())) {
    breakOff("a text that is not UTF-8");
  }
  if (broken_) return std::nullopt;
  return std::string(item.view());
}

bool ValueDecoder::read(Item& item) {
  if (!reader_.read(item)) {
    breakOff(reader_.reason());
    return false;
  }
  if (item.type == Type::text || item.type == Type::bytes) {
    cost_.work = saturatingSum(cost_.work, item.number / kBytesPerObject);
  }
  return true;
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
  stack_.clear();
  return Step::broken;
}

}  // namespace velto::wire
