// Everything that travels arrives as it was: each class, each kind of number, each nesting.

#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;

NSObject roundTrip(const NSObject& value) {
  const Frame frame = frameOf(value);
  const Decoded decoded = decode(frame);
  EXPECT_EQ(decoded.outcome, Outcome::value) << decoded.reason;
  EXPECT_TRUE(decoded.atEnd);
  return decoded.value;
}

void expectSame(const NSObject& value) {
  const NSObject arrived = roundTrip(value);
  EXPECT_EQ(arrived, value) << arrived.description().view();
  // Equality disregards kinds of numbers and the order of keys; the bytes do not.
  EXPECT_EQ(frameOf(arrived).body, frameOf(value).body);
}

void expectKind(const NSObject& value, NSNumber::Kind kind) {
  expectSame(value);
  EXPECT_EQ(roundTrip(value).as<NSNumber>().kind(), kind);
}

TEST(ValueRoundTrip, NilAndNullStayApart) {
  EXPECT_TRUE(roundTrip(nil).isNil());
  EXPECT_EQ(roundTrip(NSNull::null()), NSObject(NSNull::null()));
}

TEST(ValueRoundTrip, KindsOfNumbersSurvive) {
  for (const bool value : {false, true}) expectKind(value, NSNumber::Kind::boolean);
  for (const std::int64_t value : {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}, std::int64_t{23},
                                   std::int64_t{24}, std::int64_t{-24}, std::int64_t{-25}, INT64_MAX, INT64_MIN}) {
    expectKind(value, NSNumber::Kind::signedInteger);
  }
  const std::uint64_t half = INT64_MAX;
  for (const std::uint64_t value : {std::uint64_t{0}, std::uint64_t{255}, half, half + 1, UINT64_MAX}) {
    expectKind(value, NSNumber::Kind::unsignedInteger);
  }
  using Double = std::numeric_limits<double>;
  for (const double value : {0.0, 1.0, -1.5, 1e300, Double::denorm_min(), Double::max(), Double::lowest(),
                             Double::infinity(), -Double::infinity(), Double::quiet_NaN()}) {
    expectKind(value, NSNumber::Kind::floatingPoint);
  }
  EXPECT_TRUE(std::signbit(roundTrip(-0.0).doubleValue()));
}

TEST(ValueRoundTrip, Strings) {
  expectSame("");
  expectSame("plain");
  expectSame("Grüße, 世界 🌍");
  expectSame(std::string("with\0a NUL", 10));
  expectSame(std::string(100'000, 'x'));
}

TEST(ValueRoundTrip, Data) {
  expectSame(NSData(Bytes()));
  expectSame(NSData(Bytes{0, 255}));
  expectSame(NSData(Bytes(1'000'000, 9)));
}

TEST(ValueRoundTrip, DatesUrlsAndUuids) {
  for (const double seconds : {0.0, -1.0, 1e9 + 0.25, 1e300}) {
    expectSame(NSDate::dateWithTimeIntervalSince1970(seconds));
  }
  expectSame(NSDate::date());
  expectSame(NSURL::URLWithString("https://example.org/a?b=c#d"));
  expectSame(NSUUID::UUID());
}

TEST(ValueRoundTrip, Errors) {
  expectSame(NSError::errorWithDomain("org.velto.VeltoIPC", 2, {{NSLocalizedDescriptionKey, "gone"}}));
  expectSame(NSError::errorWithDomain("", INT64_MIN, nil));
  const NSError inner = NSError::errorWithDomain("inner", INT64_MAX, {{"list", NSArray{1, 2}}});
  expectSame(NSError::errorWithDomain("outer", -1, {{"why", inner}}));
}

TEST(ValueRoundTrip, EmptyContainers) {
  expectSame(NSArray::array());
  expectSame(NSDictionary::dictionary());
  expectSame(NSSet::set());
  expectSame(NSArray{NSArray::array(), NSDictionary::dictionary(), NSSet::set(), ""});
}

TEST(ValueRoundTrip, AnythingCanBeAKeyOrAnElement) {
  const NSObject each[] = {1,
                           2u,
                           3.5,
                           "text",
                           NSNull::null(),
                           NSData(Bytes{1}),
                           NSDate::dateWithTimeIntervalSince1970(5),
                           NSURL::URLWithString("a:b"),
                           NSUUID::UUID(),
                           NSArray{1},
                           NSDictionary{{1, 2}},
                           NSSet{1, 2},
                           NSError::errorWithDomain("d", 1, nil),
                           Point::at(1, 2)};
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  NSMutableSet set = NSMutableSet::set();
  for (const NSObject& object : each) {
    expectSame(object);
    expectSame(NSArray::arrayWithObjects({object, object}));
    expectSame(NSDictionary{{object, object}});
    expectSame(NSSet{object});
    expectSame(NSError::errorWithDomain("d", 1, {{object, object}}));
    dictionary.setObject(object, object);
    set.addObject(object);
  }
  expectSame(dictionary);
  expectSame(set);
}

TEST(ValueRoundTrip, KeysKeepTheirOrder) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  for (int key = 50; key > 0; --key) dictionary.setObject(key, "key" + std::to_string(key));
  EXPECT_EQ(roundTrip(dictionary).as<NSDictionary>().allKeys(), dictionary.allKeys());
}

TEST(ValueRoundTrip, TheDeepestNestingOfEveryKind) {
  for (int kind = 0; kind < 5; ++kind) {
    NSObject nested = 1;
    for (std::size_t level = 0; level < limits::kMaximumDepth; ++level) {
      if (kind == 0) nested = NSArray::arrayWithObjects({nested});
      if (kind == 1) nested = NSDictionary{{"k", nested}};
      if (kind == 2) nested = NSDictionary{{nested, "v"}};
      if (kind == 3) nested = NSSet{nested};
      if (kind == 4) nested = NSError::errorWithDomain("d", 1, {{"k", nested}});
    }
    expectSame(nested);
  }
}

TEST(ValueRoundTrip, UsersClasses) {
  expectSame(Point::at(INT64_MIN, INT64_MAX));
  expectSame(NSArray{Point::at(1, 2), NSDictionary{{Point::at(3, 4), Point::at(5, 6)}}});
}

TEST(ValueRoundTrip, Descriptors) {
  const auto first = newPipe(), second = newPipe(), third = newPipe();
  const NSObject arrived = roundTrip(NSArray{Port::with({first}), "between", Port::with({second, third})});
  EXPECT_EQ(arrived[0].as<Port>().descriptors(), (std::vector<system::SharedDescriptor>{first}));
  EXPECT_EQ(arrived[2].as<Port>().descriptors(), (std::vector<system::SharedDescriptor>{second, third}));
}

TEST(ValueRoundTrip, OneValueBehindTheOther) {
  ValueEncoder encoder(FrameType::call);
  const NSObject values[] = {1, nil, NSArray{true, "x"}, "last"};
  for (const NSObject& value : values) encoder.add(value);
  const Frame frame = encoder.take();
  ValueDecoder decoder(frame);
  for (const NSObject& value : values) {
    NSObject arrived;
    EXPECT_FALSE(decoder.atEnd());
    EXPECT_EQ(decoder.next(everything(), arrived), Outcome::value);
    EXPECT_EQ(arrived, value);
  }
  EXPECT_TRUE(decoder.atEnd());
}

NSObject randomLeaf(std::mt19937_64& random) {
  switch (random() % 9) {
    case 0:
      return static_cast<std::int64_t>(random());
    case 1:
      return random() >> (random() % 64);
    case 2:
      return static_cast<double>(random()) / 3;
    case 3:
      return random() % 2 == 0;
    case 4:
      return std::string(random() % 300, 'a');
    case 5:
      return NSData(Bytes(random() % 300, 1));
    case 6:
      return NSNull::null();
    case 7:
      return NSUUID::UUID();
    default:
      return NSDate::dateWithTimeIntervalSince1970(static_cast<double>(random() % 1000) / 4);
  }
}

NSObject randomValue(std::mt19937_64& random, int depth) {
  if (depth == 0 || random() % 2 == 0) return randomLeaf(random);
  std::vector<NSObject> elements(random() % 5);
  for (NSObject& element : elements) element = randomValue(random, depth - 1);
  std::vector<NSDictionary::Entry> entries;
  switch (random() % 4) {
    case 0:
      return NSArray::arrayWithObjects(elements);
    case 1:
      return NSSet::setWithObjects(elements);
    case 2:
      return NSError::errorWithDomain("domain", static_cast<std::int64_t>(random()), {{"k", NSArray(elements)}});
    default:
      for (const NSObject& key : elements) entries.push_back({key, randomValue(random, depth - 1)});
      return NSDictionary::dictionaryWithEntries(entries);
  }
}

TEST(ValueRoundTrip, ValuesOfRandomShape) {
  std::mt19937_64 random(7);
  for (int count = 0; count < 3000; ++count) expectSame(randomValue(random, 6));
}

}  // namespace
}  // namespace velto::wire
