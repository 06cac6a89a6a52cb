// A reply is a function of its request alone, so that whoever asked can tell a reply to something else, a damaged one
// and one that was put together from two.

#include "tests/soak/Requests.h"

#include <algorithm>
#include <bit>
#include <string>
#include <vector>

#include "platform/foundation/Foundation.h"

namespace velto::soak {

namespace {

constexpr std::size_t kMaximumDepth = 4;
constexpr std::size_t kMaximumDataBytes = 400'000;

std::string randomText(Random& random, std::size_t maximum) {
  std::string text(below(random, maximum), ' ');
  for (char& character : text) character = static_cast<char>('!' + below(random, 90));
  return text;
}

NSData randomData(Random& random, std::size_t maximum) {
  std::vector<std::uint8_t> bytes(below(random, maximum));
  std::uint64_t state = random() | 1u;
  for (std::uint8_t& byte : bytes) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    byte = static_cast<std::uint8_t>(state >> 56);
  }
  return NSData::dataWithVector(std::move(bytes));
}

NSObject randomValue(Random& random, std::size_t depth);

NSArray randomArray(Random& random, std::size_t depth) {
  std::vector<NSObject> elements;
  for (std::size_t count = below(random, 6); count > 0; --count) elements.push_back(randomValue(random, depth + 1));
  return NSArray::arrayWithObjects(std::move(elements));
}

NSDictionary randomDictionary(Random& random, std::size_t depth) {
  NSMutableDictionary made = NSMutableDictionary::dictionary();
  for (std::size_t count = below(random, 6); count > 0; --count) {
    made.setObject(randomValue(random, depth + 1), randomText(random, 12));
  }
  return made;
}

NSObject randomValue(Random& random, std::size_t depth) {
  switch (below(random, depth < kMaximumDepth ? 8 : 6)) {
    case 0:
      return NSString(randomText(random, 200));
    case 1:
      return NSNumber::numberWithSigned(static_cast<std::int64_t>(random()));
    case 2:
      return NSNumber::numberWithUnsigned(random());
    case 3:
      return NSNumber::numberWithDouble(static_cast<double>(static_cast<std::int64_t>(random())) / 3.0);
    case 4:
      return NSNumber::numberWithBool(below(random, 2) == 0);
    case 5:
      return randomData(random, 300);
    case 6:
      return randomArray(random, depth);
    default:
      return randomDictionary(random, depth);
  }
}

NSNumber changedNumber(const NSNumber& number) {
  switch (number.kind()) {
    case NSNumber::Kind::boolean:
      return NSNumber::numberWithBool(!number.boolValue());
    case NSNumber::Kind::signedInteger:
      return NSNumber::numberWithSigned(~number.integerValue());
    case NSNumber::Kind::unsignedInteger:
      return NSNumber::numberWithUnsigned(~number.unsignedIntegerValue());
    case NSNumber::Kind::floatingPoint:
      break;
  }
  return NSNumber::numberWithDouble(-number.doubleValue());
}

NSData changedData(const NSData& data) {
  std::vector<std::uint8_t> bytes(data.span().begin(), data.span().end());
  for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(~byte);
  return NSData::dataWithVector(std::move(bytes));
}

NSObject changed(const NSObject& value) {
  if (const auto text = value.as<NSString>()) {
    const std::string reversed = text.string();
    return NSString(std::string(reversed.rbegin(), reversed.rend()));
  }
  if (const auto number = value.as<NSNumber>()) return changedNumber(number);
  if (const auto data = value.as<NSData>()) return changedData(data);
  if (const auto array = value.as<NSArray>()) {
    std::vector<NSObject> elements;
    for (const NSObject& element : array) elements.push_back(changed(element));
    std::reverse(elements.begin(), elements.end());
    return NSArray::arrayWithObjects(std::move(elements));
  }
  NSMutableDictionary entries = NSMutableDictionary::dictionary();
  const auto dictionary = value.as<NSDictionary>();
  for (const NSObject& key : dictionary) entries.setObject(changed(dictionary.objectForKey(key)), key);
  return entries;
}

class Digest {
 public:
  void add(const NSObject& value) {
    if (const auto text = value.as<NSString>()) return add('s', text.view());
    if (const auto data = value.as<NSData>()) return add('d', data.view());
    if (const auto number = value.as<NSNumber>()) return addNumber(number);
    if (const auto array = value.as<NSArray>()) {
      add('a', "");
      for (const NSObject& element : array) add(element);
      return;
    }
    const auto dictionary = value.as<NSDictionary>();
    add('m', "");
    for (const NSObject& key : dictionary) {
      add(key);
      add(dictionary.objectForKey(key));
    }
  }
  std::uint64_t value() const { return value_; }

 private:
  void addNumber(const NSNumber& number) {
    const bool isFloating = number.kind() == NSNumber::Kind::floatingPoint;
    const std::uint64_t bits =
        isFloating ? std::bit_cast<std::uint64_t>(number.doubleValue()) : number.unsignedIntegerValue();
    add('n', {reinterpret_cast<const char*>(&bits), sizeof bits});
  }
  void add(char kind, std::string_view bytes) {
    step(static_cast<std::uint8_t>(kind));
    for (const char byte : bytes) step(static_cast<std::uint8_t>(byte));
  }
  void step(std::uint8_t byte) { value_ = (value_ ^ byte) * 1099511628211u; }

  std::uint64_t value_ = 14695981039346656037u;
};

}  // namespace

std::size_t below(Random& random, std::size_t bound) {
  return static_cast<std::size_t>(random() % bound);
}

NSDictionary makeRequest(Random& random) {
  const bool isLarge = below(random, 40) == 0;
  return {{"number", NSNumber::numberWithUnsigned(random())},
          {"value", randomDictionary(random, 0)},
          {"data", randomData(random, isLarge ? kMaximumDataBytes : 2000)}};
}

NSDictionary replyTo(const NSDictionary& request) {
  Digest digest;
  digest.add(request);
  return {{"digest", NSNumber::numberWithUnsigned(digest.value())}, {"changed", changed(request)}};
}

}  // namespace velto::soak
