// The walks over nested objects, and the programmer's errors that they find. An overrun while comparing raises: neither
// "equal" nor "different" would be true. A description only ends early.
#include "platform/foundation/Walk.h"

#include <utility>

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/Foundation.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/NumberValue.h"
#include "platform/foundation/PlainBodies.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/ValueText.h"

namespace velto {
namespace {

template <class T>
const T& bodyIn(const NSObject& object) {
  return static_cast<const T&>(object.value().body());
}

bool areEqualArrays(WalkBound& bound, const NSObject& left, const NSObject& right) {
  const std::span<const NSObject> ones = elementsOf(left.value());
  const std::span<const NSObject> others = elementsOf(right.value());
  if (ones.size() != others.size()) return false;
  const ComparedLevel level(bound);
  for (std::size_t index = 0; index < ones.size(); ++index) {
    if (!isEqualWithin(bound, ones[index], others[index])) return false;
  }
  return true;
}

bool areEqualEntries(WalkBound& bound, const NSObject& left, const NSObject& right) {
  if (entryCountOf(left.value()) != entryCountOf(right.value())) return false;
  const ComparedLevel level(bound);
  const KeyTable ones = tableOf(left.value());
  const KeyTable others = tableOf(right.value());
  for (std::size_t slot = 0; slot < ones.slots(); ++slot) {
    if (ones.key(slot).isNil()) continue;
    const NSObject* found = others.find(ones.key(slot), bound);
    if (found == nullptr) return false;
    if (ones.stride() == 2 && !isEqualWithin(bound, ones.value(slot), found[1])) return false;
  }
  return true;
}

bool areEqualErrors(WalkBound& bound, const ErrorBody& left, const ErrorBody& right) {
  return left.code() == right.code() && textOf(left.domain().value()) == textOf(right.domain().value()) &&
         isEqualWithin(bound, left.userInfo(), right.userInfo());
}

// Neither is nil, and they are not identical.
bool areEqual(WalkBound& bound, const NSObject& left, const NSObject& right) {
  const Tag one = left.value().tag();
  const Tag other = right.value().tag();
  if (isNumber(one)) return isNumber(other) && areEqualNumbers(left.value(), right.value());
  if (isString(one)) return isString(other) && textOf(left.value()) == textOf(right.value());
  if (isArray(one)) return isArray(other) && areEqualArrays(bound, left, right);
  if (isDictionary(one)) return isDictionary(other) && areEqualEntries(bound, left, right);
  if (isSet(one)) return isSet(other) && areEqualEntries(bound, left, right);
  if (isData(one)) return isData(other) && viewOf(bytesOf(left.value())) == viewOf(bytesOf(right.value()));
  if (one != other) return false;
  switch (one) {
    case Tag::object:
      return left.body()->isEqual(*right.body(), bound);
    case Tag::date:
      return bodyIn<DateBody>(left).seconds() == bodyIn<DateBody>(right).seconds();
    case Tag::uuid:
      return bodyIn<UUIDBody>(left).bytes() == bodyIn<UUIDBody>(right).bytes();
    case Tag::url:
      return textOf(bodyIn<URLBody>(left).text().value()) == textOf(bodyIn<URLBody>(right).text().value());
    case Tag::error:
      return areEqualErrors(bound, bodyIn<ErrorBody>(left), bodyIn<ErrorBody>(right));
    default:
      return false;
  }
}

std::size_t hashWithin(const NSObject& object, std::size_t levels);

std::size_t hashOfElements(std::span<const NSObject> elements, std::size_t levels) {
  std::size_t hash = elements.size();
  if (levels == 0) return hash;
  for (const NSObject& each : elements.first(std::min(elements.size(), kHashedElements))) {
    hash = hashOfWords(hash, hashWithin(each, levels - 1));
  }
  return hash;
}

// In whatever order the entries come.
std::size_t hashOfEntries(const NSObject& object, std::size_t levels) {
  std::size_t hash = entryCountOf(object.value());
  if (levels == 0 || hash > kHashedElements) return hash;
  const KeyTable entries = tableOf(object.value());
  for (std::size_t slot = 0; slot < entries.slots(); ++slot) {
    if (entries.key(slot).isNil()) continue;
    const std::size_t key = hashWithin(entries.key(slot), levels - 1);
    hash += entries.stride() == 1 ? key : hashOfWords(key, hashWithin(entries.value(slot), levels - 1));
  }
  // Mixed at the end: a sum of sums would not tell which element lies in which of two sets.
  return hashOfWords(hash, entries.stride());
}

std::size_t hashWithin(const NSObject& object, std::size_t levels) {
  const Value& value = object.value();
  switch (value.tag()) {
    case Tag::nothing:
      return 0;
    case Tag::null:
      return hashOfWords(0, value.high());
    case Tag::boolean:
    case Tag::signedInteger:
    case Tag::unsignedInteger:
    case Tag::floatingPoint:
      return hashOfNumber(value);
    case Tag::text:
      return hashOfWords(value.bits(), value.high());
    case Tag::string:
    case Tag::mutableString:
      return hashOfText(textOf(value));
    case Tag::array:
    case Tag::mutableArray:
      return hashOfElements(elementsOf(value), levels);
    case Tag::dictionary:
    case Tag::mutableDictionary:
    case Tag::set:
    case Tag::mutableSet:
      return hashOfEntries(object, levels);
    case Tag::data:
    case Tag::mutableData:
      return hashOfBytes(bytesOf(value).data(), bytesOf(value).size());
    case Tag::date: {
      const double seconds = bodyIn<DateBody>(object).seconds();
      return hashOfWords(std::bit_cast<std::uint64_t>(seconds == 0 ? 0 : seconds), 0);  // one zero, whatever its sign
    }
    case Tag::uuid:
      return hashOfBytes(bodyIn<UUIDBody>(object).bytes().data(), sizeof(NSUUID::Bytes));
    case Tag::url:
      return hashOfText(textOf(bodyIn<URLBody>(object).text().value()));
    case Tag::error: {
      const auto& error = bodyIn<ErrorBody>(object);
      return hashOfWords(hashOfText(textOf(error.domain().value())), static_cast<std::uint64_t>(error.code()));
    }
    case Tag::object:
      return object.body()->hash();
  }
  return 0;
}

void describeElements(std::span<const NSObject> elements, std::string& out, WalkBound& bound) {
  const WalkBound::Level level(bound);
  if (!level) {
    out += "…";
    return;
  }
  out += "(";
  const char* separator = "";
  for (const NSObject& element : elements) {
    if (isDescribedEnough(out)) return;
    out += std::exchange(separator, ", ");
    describeWithin(bound, element, out);
  }
  out += ")";
}

void describeEntries(const KeyTable& entries, std::string& out, WalkBound& bound) {
  const WalkBound::Level level(bound);
  if (!level) {
    out += "…";
    return;
  }
  const bool hasValues = entries.stride() == 2;
  out += hasValues ? "{" : "{(";
  const char* separator = "";
  for (std::size_t slot = 0; slot < entries.slots(); ++slot) {
    if (entries.key(slot).isNil()) continue;
    if (isDescribedEnough(out)) return;
    out += std::exchange(separator, hasValues ? "; " : ", ");
    describeWithin(bound, entries.key(slot), out);
    if (!hasValues) continue;
    if (isDescribedEnough(out)) return;
    out += " = ";
    describeWithin(bound, entries.value(slot), out);
  }
  out += hasValues ? "}" : ")}";
}

void describeError(const ErrorBody& error, std::string& out) {
  out += textOf(error.domain().value());
  out += " code " + std::to_string(error.code());
  const NSString text = error.userInfo()[NSLocalizedDescriptionKey].as<NSString>();
  if (!text.isNil()) out += ": " + text.string();
}

void describe(WalkBound& bound, const NSObject& object, std::string& out) {
  const Value& value = object.value();
  switch (value.tag()) {
    case Tag::nothing:
      out += "(null)";
      return;
    case Tag::null:
      out += "<null>";
      return;
    case Tag::boolean:
    case Tag::signedInteger:
    case Tag::unsignedInteger:
    case Tag::floatingPoint:
      out += textOfNumber(value);
      return;
    case Tag::text:
    case Tag::string:
    case Tag::mutableString:
      out += textOf(value);
      return;
    case Tag::array:
    case Tag::mutableArray:
      return describeElements(elementsOf(value), out, bound);
    case Tag::dictionary:
    case Tag::mutableDictionary:
    case Tag::set:
    case Tag::mutableSet:
      return describeEntries(tableOf(value), out, bound);
    case Tag::data:
    case Tag::mutableData:
      out += textOfData(bytesOf(value));
      return;
    case Tag::date:
      out += textOfDate(bodyIn<DateBody>(object).seconds());
      return;
    case Tag::uuid:
      out += textOfUUID(bodyIn<UUIDBody>(object).bytes());
      return;
    case Tag::url:
      out += textOf(bodyIn<URLBody>(object).text().value());
      return;
    case Tag::error:
      return describeError(bodyIn<ErrorBody>(object), out);
    case Tag::object:
      return object.body()->describe(out, bound);
  }
}

}  // namespace

const ClassBody& classBodyOf(const Value& value) {
  switch (value.tag()) {
    case Tag::null:
      return classBodyOf<NSNull>();
    case Tag::boolean:
    case Tag::signedInteger:
    case Tag::unsignedInteger:
    case Tag::floatingPoint:
      return classBodyOf<NSNumber>();
    case Tag::text:
    case Tag::string:
      return classBodyOf<NSString>();
    case Tag::mutableString:
      return classBodyOf<NSMutableString>();
    case Tag::array:
      return classBodyOf<NSArray>();
    case Tag::mutableArray:
      return classBodyOf<NSMutableArray>();
    case Tag::dictionary:
      return classBodyOf<NSDictionary>();
    case Tag::mutableDictionary:
      return classBodyOf<NSMutableDictionary>();
    case Tag::set:
      return classBodyOf<NSSet>();
    case Tag::mutableSet:
      return classBodyOf<NSMutableSet>();
    case Tag::data:
      return classBodyOf<NSData>();
    case Tag::mutableData:
      return classBodyOf<NSMutableData>();
    case Tag::date:
      return classBodyOf<NSDate>();
    case Tag::uuid:
      return classBodyOf<NSUUID>();
    case Tag::url:
      return classBodyOf<NSURL>();
    case Tag::error:
      return classBodyOf<NSError>();
    case Tag::object:
    case Tag::nothing:
      break;
  }
  return static_cast<const ObjectBody&>(value.body()).classBody();
}

std::size_t hashOf(const NSObject& object) {
  return hashWithin(object, kHashedLevels);
}

bool isEqualWithin(WalkBound& bound, const NSObject& left, const NSObject& right) {
  if (!bound.visit()) {
    throw NSException("WalkBoundException", "compared objects hold more than " +
                                                std::to_string(bound.maximumObjects()) +
                                                " objects, the most that one comparison visits");
  }
  if (left.isIdenticalTo(right)) return true;
  if (left.isNil() || right.isNil()) return false;
  return areEqual(bound, left, right);
}

ComparedLevel::ComparedLevel(WalkBound& bound) : level_(bound) {
  if (level_) return;
  throw NSException("WalkBoundException", "compared objects nest deeper than " + std::to_string(bound.maximumDepth()) +
                                              " levels, the deepest that a comparison goes");
}

void describeWithin(WalkBound& bound, const NSObject& object, std::string& out) {
  if (object.isNil()) {
    out += "(null)";
  } else if (!bound.visit()) {
    out += "…";
  } else {
    describe(bound, object, out);
  }
}

void raiseNilIn(const char* container) {
  throw NSException("NilInContainerException", std::string(container) + " cannot hold nil");
}

void raiseInvalidArgument(const char* reason) {
  throw NSException("InvalidArgumentException", reason);
}

}  // namespace velto
