// One switch over all kinds; what a kind takes is read where it stands.

#include "fuzz/support/ValueBuilder.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/support/Values.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/contract/Limits.h"

namespace velto::fuzzing {
namespace {

using Objects = std::vector<NSObject>;

int lent = 0;

class Builder {
 public:
  explicit Builder(Bytes bytes) : input_(bytes) {}

  NSObject object(std::size_t level = 0) {
    // Just over the limit is enough.
    if (level > limits::kMaximumDepth + 2) return NSNull::null();
    switch (input_.byte() % 29) {
      case 0:
        return NSNull::null();
      case 1:
        return NSNumber::numberWithBool(input_.byte() % 2 != 0);
      case 2:
        return NSNumber::numberWithSigned(static_cast<std::int64_t>(number()));
      case 3:
        return NSNumber::numberWithUnsigned(number());
      case 4:
        return NSNumber::numberWithDouble(std::bit_cast<double>(number()));
      case 5:
        return NSString(text());
      case 6:
        return NSString(longText());
      case 7:
        return NSMutableString::stringWithString(text());
      case 8:
        return NSMutableString::stringWithString(longText());
      case 9:
        return data(text());
      case 10:
        return data(longText());
      case 11:
        return lend(longText());
      case 12:
        return NSMutableData::dataWithData(data(text()));
      case 13:
        return NSMutableData::dataWithData(data(longText()));
      case 14:
        return NSDate::dateWithTimeIntervalSince1970(std::bit_cast<double>(number()));
      case 15: {
        NSUUID::Bytes bytes{};
        std::ranges::copy(input_.take(bytes.size()), bytes.begin());
        return NSUUID::UUIDWithBytes(bytes);
      }
      case 16:
        return NSURL::URLWithString(text());
      case 17:
        return NSArray::arrayWithObjects(objects(level));
      case 18:
        return NSMutableArray::arrayWithArray(NSArray::arrayWithObjects(objects(level)));
      case 19:
        return NSSet::setWithObjects(objects(level));
      case 20:
        return NSMutableSet::initWithSet(NSSet::setWithObjects(objects(level)));
      case 21:
        return dictionary(level);
      case 22:
        return NSMutableDictionary::dictionaryWithDictionary(dictionary(level));
      case 23: {
        const NSString domain = text();
        const auto code = static_cast<std::int64_t>(number());
        return NSError::errorWithDomain(domain, code, input_.byte() % 8 == 0 ? nil : dictionary(level));
      }
      case 24:
        return Box::holding(object(level + 1));
      case 25:
        return input_.byte() % 4 == 3 ? NSObject(newFileDescriptor()) : NSObject(newEndpoint());
      case 26:
        return tower(level);
      case 27:
        return NSObject::classObject();  // does not travel
      default:
        return nil;
    }
  }

 private:
  // Of every length.
  std::uint64_t number() {
    std::uint64_t number = 0;
    for (const std::uint8_t each : input_.take(8)) number = number << 8 | each;
    return number >> (input_.byte() % 64);
  }
  // Around where heads become longer, and where bytes begin to be sent from where they lie: the longer the fewer.
  std::size_t length() {
    static constexpr std::size_t kLengths[] = {14, 15, 23, 24, 255, 256, 1023, 1024};
    static constexpr std::size_t kLongLengths[] = {16383, 16384, 16384, 16385, 65535, 65536};
    const std::uint8_t choice = input_.byte();
    const std::size_t length = choice < 250 ? kLengths[choice % std::size(kLengths)] : kLongLengths[choice - 250];
    if (length > longBytesLeft_) return 14;
    longBytesLeft_ -= length;
    return length;
  }
  // So many objects for which next to nothing of the input is used: not too many of them.
  std::size_t cheap(std::size_t wanted) {
    const std::size_t granted = std::min(wanted, cheapOnesLeft_);
    cheapOnesLeft_ -= granted;
    return granted;
  }
  std::string text() { return std::string(textOf(input_.take(input_.byte() % 32))); }
  std::string longText() {
    std::string text(length(), static_cast<char>('a' + input_.byte() % 16));
    text.replace(0, 4, "\xF0\x9F\x98\x80");
    return text;
  }
  static NSData data(const std::string& bytes) { return NSData::dataWithBytes(bytes.data(), bytes.size()); }
  static NSData lend(std::string bytes) {
    const auto kept = std::make_shared<const std::string>(std::move(bytes));
    ++lent;
    return NSData::dataWithBytesNoCopy(kept->data(), kept->size(), [kept] { --lent; });
  }
  // A few of any kind, nil left out, or many numbers.
  Objects objects(std::size_t level) {
    Objects objects;
    std::size_t count = input_.byte() % 16;
    if (count == 15) {
      for (auto left = cheap(std::min<std::size_t>(length(), 300)); left > 0; --left) objects.emplace_back(left);
      return objects;
    }
    for (; count > 0 && !input_.isEmpty(); --count) {
      if (NSObject made = object(level + 1); !made.isNil()) objects.push_back(std::move(made));
    }
    return objects;
  }
  NSDictionary dictionary(std::size_t level) {
    NSMutableDictionary made = NSMutableDictionary::dictionary();
    const Objects all = objects(level);
    for (std::size_t index = 0; index + 1 < all.size(); index += 2) made.setObject(all[index + 1], all[index]);
    return made.copy();
  }
  // One container in the other, up to the limit and over it.
  NSObject tower(std::size_t level) {
    const std::size_t height = cheap(std::min<std::size_t>(input_.byte() % 140, limits::kMaximumDepth + 2 - level));
    const unsigned kinds = input_.byte();
    NSObject made = object(level + height);
    if (made.isNil()) made = NSNull::null();
    for (std::size_t floor = 0; floor < height; ++floor) {
      switch ((kinds + floor * (kinds >> 4)) % 5) {
        case 0:
          made = NSArray::arrayWithObjects({made});
          break;
        case 1:
          made = NSDictionary{{"floor", made}};
          break;
        case 2:
          made = NSSet::setWithObjects({made});
          break;
        case 3:
          made = NSError::errorWithDomain("tower", 1, {{"floor", made}});
          break;
        default:
          made = Box::holding(made);
          break;
      }
    }
    return made;
  }

  Input input_;
  std::size_t longBytesLeft_ = std::size_t{80} << 10;
  std::size_t cheapOnesLeft_ = 300;
};

}  // namespace

NSObject builtValue(Bytes bytes) {
  return Builder(bytes).object();
}

int lentData() noexcept {
  return lent;
}

}  // namespace velto::fuzzing
