// What is written as JSON and read back is equal and of the same kinds: the bytes that would travel are the same.

#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/JSON.h"
#include "platform/foundation/testing/Sanitizers.h"
#include "platform/xpc/wire/ValueEncoder.h"
#include "tools/ValueFromJSON.h"

namespace velto::tools {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes encoded(const NSObject& value) {
  wire::ValueEncoder encoder(wire::FrameType::call);
  encoder.add(value);
  EXPECT_FALSE(encoder.failed()) << encoder.reason();
  const wire::Frame frame = encoder.take();
  return {frame.body.begin(), frame.body.end()};
}

void expectSame(const NSObject& value) {
  const Bytes bytes = encoded(value);
  for (const JSONLayout layout : {JSONLayout::compact, JSONLayout::pretty}) {
    const std::string text = toJSON(value, layout);
    NSError error;
    const NSObject arrived = valueFromJSON(text, &error);
    ASSERT_TRUE(error.isNil()) << text << "\n" << error.description().view();
    ASSERT_EQ(arrived, value) << text;
    ASSERT_EQ(encoded(arrived), bytes) << text;
    ASSERT_EQ(toJSON(arrived, layout), text);
  }
}

// Values of random shape, the same in every run.
class RandomValues {
 public:
  explicit RandomValues(std::uint64_t seed) : random_(seed) {}

  NSObject value(int depth) {
    if (depth == 0 || random_() % 3 == 0) return leaf();
    switch (random_() % 5) {
      case 0:
        return NSArray::arrayWithObjects(values(depth - 1));
      case 1:
        return NSSet::setWithObjects(values(depth - 1));
      case 2:
        return NSError::errorWithDomain(text(), integer(), dictionary(depth - 1));
      default:
        return dictionary(depth - 1);
    }
  }

 private:
  std::vector<NSObject> values(int depth) {
    std::vector<NSObject> made(random_() % 5);
    for (NSObject& each : made) each = value(depth);
    return made;
  }

  NSDictionary dictionary(int depth) {
    const bool hasTextKeys = random_() % 3 != 0;
    std::vector<NSDictionary::Entry> entries;
    for (const NSObject& each : values(depth)) entries.push_back({hasTextKeys ? NSObject(text()) : value(depth), each});
    return NSDictionary::dictionaryWithEntries(entries);
  }

  NSObject leaf() {
    switch (random_() % 11) {
      case 0:
        return NSNull::null();
      case 1:
        return random_() % 2 == 0;
      case 2:
        return integer();
      case 3:
        return static_cast<std::uint64_t>(integer());
      case 4:
        return std::bit_cast<double>(random_());
      case 5:
        return static_cast<double>(integer());
      case 6:
        return NSData(bytes());
      case 7:
        return NSDate::dateWithTimeIntervalSince1970(static_cast<double>(integer()) / 1e6);
      case 8:
        return NSUUID::UUIDWithBytes(std::bit_cast<NSUUID::Bytes>(std::array{random_(), random_()}));
      case 9:
        return NSURL::URLWithString("a:" + std::to_string(random_()) + "\"\\ü");
      default:
        return text();
    }
  }

  // Of every size, and often next to a power of two.
  std::int64_t integer() {
    const std::uint64_t power = std::uint64_t{1} << (random_() % 64);
    const std::uint64_t number = random_() % 2 == 0 ? random_() % power : power + random_() % 3 - 1;
    return static_cast<std::int64_t>(random_() % 2 == 0 ? number : 0 - number);
  }

  Bytes bytes() {
    Bytes made(random_() % 20);
    for (std::uint8_t& each : made) each = static_cast<std::uint8_t>(random_());
    return made;
  }

  std::string text() {
    static constexpr const char* kParts[] = {"$", "$$",   "data", "$set", "a",  "\"",     "\\",     "\n",
                                             "/", "\x7f", "\x1f", "ü",    "世", "\u2028", "\ufeff", "🌍"};
    std::string made;
    for (std::uint64_t left = random_() % 6; left > 0; --left) made += kParts[random_() % std::size(kParts)];
    if (random_() % 10 == 0) made += '\0';
    return made;
  }

  std::mt19937_64 random_;
};

TEST(JSONRoundTrip, ValuesOfRandomShape) {
  RandomValues random(11);
  for (int count = 0; count < testing::rounds(20'000) && !::testing::Test::HasFatalFailure(); ++count)
    expectSame(random.value(4));
}

TEST(JSONRoundTrip, RandomLeaves) {
  RandomValues random(12);
  for (int count = 0; count < testing::rounds(20'000) && !::testing::Test::HasFatalFailure(); ++count)
    expectSame(random.value(0));
}

TEST(JSONRoundTrip, ADamagedTextIsRefusedOrSaysSomethingElse) {
  RandomValues values(13);
  std::mt19937_64 random(14);
  int refused = 0, read = 0;
  for (int count = 0; count < testing::rounds(20'000) && !::testing::Test::HasFatalFailure(); ++count) {
    std::string text = toJSON(values.value(3));
    const std::size_t at = random() % text.size();
    static constexpr char kBytes[] = "\"\\{}[]:,$ 0-.en\x01\xC3";
    if (random() % 4 == 0) text.erase(at, 1 + random() % 3);
    if (random() % 4 == 0) text.insert(at, 1, kBytes[random() % std::size(kBytes)]);
    if (!text.empty() && random() % 2 == 0) text[std::min(at, text.size() - 1)] = kBytes[random() % std::size(kBytes)];
    NSError error;
    const NSObject value = valueFromJSON(text, &error);
    ASSERT_NE(value.isNil(), error.isNil()) << text;
    value.isNil() ? ++refused : ++read;
    if (!value.isNil()) expectSame(value);
  }
  EXPECT_GT(refused, testing::rounds(1000));
  EXPECT_GT(read, testing::rounds(1000));
}

TEST(JSONRoundTrip, NumbersAtEveryEdge) {
  using Doubles = std::numeric_limits<double>;
  for (const double value : {0.0,
                             -0.0,
                             1.0,
                             -1.0,
                             0.1,
                             1e15,
                             1e16,
                             1e17,
                             1e21,
                             1e22,
                             123456789012345680.0,
                             9007199254740992.0,
                             Doubles::min(),
                             Doubles::denorm_min(),
                             Doubles::max(),
                             Doubles::lowest(),
                             Doubles::epsilon(),
                             Doubles::infinity(),
                             -Doubles::infinity(),
                             Doubles::quiet_NaN(),
                             -Doubles::quiet_NaN(),
                             Doubles::signaling_NaN()}) {
    expectSame(value);
    expectSame(NSArray{value});
  }
  for (const std::int64_t value : {std::int64_t{0}, std::int64_t{-1}, INT64_MAX, INT64_MIN, std::int64_t{1} << 53,
                                   -(std::int64_t{1} << 53), (std::int64_t{1} << 53) + 1}) {
    expectSame(value);
    expectSame(static_cast<std::uint64_t>(value));
  }
}

TEST(JSONRoundTrip, KindsOfOneValueStayApart) {
  expectSame(NSArray{1, 1u, 1.0, true, "1"});
  expectSame(NSArray{0, 0u, 0.0, -0.0, false, NSNull::null()});
}

TEST(JSONRoundTrip, DictionariesThatLookMarked) {
  for (const char* key : {"$data", "$date", "$dictionary", "$double", "$error", "$set", "$signed", "$unsigned", "$url",
                          "$uuid", "$", "$$", "$$data", "$unknown", ""}) {
    expectSame(NSDictionary{{key, "AA=="}});
    expectSame(NSDictionary{{key, NSArray{NSArray{1, 2}}}});
    expectSame(NSDictionary{{key, 1}, {"other", 2}});
    expectSame(NSDictionary{{key, 1}, {2, 3}});
  }
}

TEST(JSONRoundTrip, AnythingCanBeAKeyOrAnElement) {
  const NSObject each[] = {1,
                           2u,
                           3.5,
                           "text",
                           NSNull::null(),
                           NSData(Bytes{1}),
                           NSDate::dateWithTimeIntervalSince1970(-0.0),
                           NSURL::URLWithString("a:b"),
                           NSUUID::UUID(),
                           NSArray{1},
                           NSDictionary{{1, 2}},
                           NSSet{1, 2},
                           NSError::errorWithDomain("d", 1, nil)};
  for (const NSObject& object : each) {
    expectSame(object);
    expectSame(NSArray::arrayWithObjects({object, object}));
    expectSame(NSDictionary{{object, object}});
    expectSame(NSSet{object});
    expectSame(NSError::errorWithDomain("d", 1, {{object, object}}));
  }
}

TEST(JSONRoundTrip, MutableKindsComeBackAsPlainOnes) {
  auto array = NSMutableArray::arrayWithArray(NSArray{NSMutableString::stringWithString("a"), NSMutableData::data(),
                                                      NSMutableSet::initWithSet(NSSet{1}),
                                                      NSMutableDictionary::dictionaryWithDictionary({{"k", 1}})});
  expectSame(array);
  EXPECT_FALSE(valueFromJSON(toJSON(array)).is<NSMutableArray>());
}

}  // namespace
}  // namespace velto::tools
