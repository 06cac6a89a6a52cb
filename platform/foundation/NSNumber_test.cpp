#include "platform/foundation/NSNumber.h"

#include <cmath>
#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"

namespace {

using Kind = NSNumber::Kind;

constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kHighestUnsigned = std::numeric_limits<std::uint64_t>::max();
constexpr double kTwoToThe63 = 9223372036854775808.0;
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();

void expectEqual(const NSObject& left, const NSObject& right) {
  EXPECT_EQ(left, right) << left.description().view() << " and " << right.description().view();
  EXPECT_EQ(right, left);
  EXPECT_EQ(left.hash(), right.hash());
}

void expectDifferent(const NSObject& left, const NSObject& right) {
  EXPECT_NE(left, right) << left.description().view() << " and " << right.description().view();
  EXPECT_NE(right, left);
}

TEST(NSNumber, KeepsItsKind) {
  EXPECT_EQ(NSNumber(true).kind(), Kind::boolean);
  EXPECT_EQ(NSNumber(1).kind(), Kind::signedInteger);
  EXPECT_EQ(NSNumber(1U).kind(), Kind::unsignedInteger);
  EXPECT_EQ(NSNumber(1.0).kind(), Kind::floatingPoint);
  EXPECT_EQ(NSNumber::numberWithBool(true).kind(), Kind::boolean);
  EXPECT_EQ(NSNumber::numberWithSigned(1).kind(), Kind::signedInteger);
  EXPECT_EQ(NSNumber::numberWithUnsigned(1).kind(), Kind::unsignedInteger);
  EXPECT_EQ(NSNumber::numberWithDouble(1).kind(), Kind::floatingPoint);
  EXPECT_EQ(NSNumber().kind(), Kind::signedInteger);
}

TEST(NSNumber, EqualsByValueWhateverTheKind) {
  expectEqual(true, 1);
  expectEqual(1, 1.0);
  expectEqual(1U, 1.0);
  expectEqual(false, -0.0);
  expectEqual(-3, -3.0);
  expectDifferent(true, 2);
  expectDifferent(1, 1.5);
  expectDifferent(-1, kHighestUnsigned);
}

TEST(NSNumber, ComparesLargeValuesExactly) {
  expectEqual(std::uint64_t{1} << 63, kTwoToThe63);
  expectDifferent((std::uint64_t{1} << 63) + 1, kTwoToThe63);
  expectDifferent(kHighest, kTwoToThe63);
  expectEqual(kLowest, -kTwoToThe63);
  expectDifferent(kHighestUnsigned, 2 * kTwoToThe63);
  expectEqual(std::int64_t{1} << 53, 9007199254740992.0);
  expectDifferent((std::int64_t{1} << 53) + 1, 9007199254740992.0);
}

TEST(NSNumber, NotANumberEqualsItselfAlone) {
  expectEqual(kNotANumber, -kNotANumber);
  expectDifferent(kNotANumber, 0);
  expectDifferent(kNotANumber, kInfinity);
  expectEqual(kInfinity, kInfinity);
  expectDifferent(kInfinity, -kInfinity);
}

TEST(NSNumber, ConvertsAndSaturates) {
  EXPECT_EQ(NSNumber(kHighestUnsigned).integerValue(), kHighest);
  EXPECT_EQ(NSNumber(-5).unsignedIntegerValue(), 0u);
  EXPECT_EQ(NSNumber(-5).integerValue(), -5);
  EXPECT_EQ(NSNumber(3.99).integerValue(), 3);
  EXPECT_EQ(NSNumber(-3.99).integerValue(), -3);
  EXPECT_EQ(NSNumber(-3.99).unsignedIntegerValue(), 0u);
  EXPECT_EQ(NSNumber(1e300).integerValue(), kHighest);
  EXPECT_EQ(NSNumber(-1e300).integerValue(), kLowest);
  EXPECT_EQ(NSNumber(kInfinity).unsignedIntegerValue(), kHighestUnsigned);
  EXPECT_EQ(NSNumber(kTwoToThe63).integerValue(), kHighest);
  EXPECT_EQ(NSNumber(kTwoToThe63).unsignedIntegerValue(), std::uint64_t{1} << 63);
  EXPECT_EQ(NSNumber(kLowest).doubleValue(), -kTwoToThe63);
  EXPECT_EQ(NSNumber(true).doubleValue(), 1);
  EXPECT_EQ(NSNumber(true).unsignedIntegerValue(), 1u);
}

TEST(NSNumber, NotANumberConvertsToZero) {
  EXPECT_EQ(NSNumber(kNotANumber).integerValue(), 0);
  EXPECT_EQ(NSNumber(kNotANumber).unsignedIntegerValue(), 0u);
  EXPECT_FALSE(NSNumber(kNotANumber).boolValue());
  EXPECT_TRUE(std::isnan(NSNumber(kNotANumber).doubleValue()));
}

TEST(NSNumber, IsTrueUnlessZero) {
  EXPECT_TRUE(NSNumber(true).boolValue());
  EXPECT_TRUE(NSNumber(-1).boolValue());
  EXPECT_TRUE(NSNumber(0.1).boolValue());
  EXPECT_FALSE(NSNumber(0).boolValue());
  EXPECT_FALSE(NSNumber(-0.0).boolValue());
  EXPECT_FALSE(NSNumber(false).boolValue());
}

TEST(NSNumber, DescribesItselfInTheShortestWay) {
  EXPECT_EQ(NSNumber(true).description().string(), "1");
  EXPECT_EQ(NSNumber(false).description().string(), "0");
  EXPECT_EQ(NSNumber(kLowest).description().string(), "-9223372036854775808");
  EXPECT_EQ(NSNumber(kHighestUnsigned).description().string(), "18446744073709551615");
  EXPECT_EQ(NSNumber(3.5).description().string(), "3.5");
  EXPECT_EQ(NSNumber(3.0).description().string(), "3");
  EXPECT_EQ(NSNumber(0.1).description().string(), "0.1");
  EXPECT_EQ(NSNumber(kInfinity).description().string(), "inf");
  EXPECT_EQ(NSNumber(-kNotANumber).description().string(), "nan");
}

TEST(NSNumber, NilIsZero) {
  EXPECT_EQ(NSNumber().integerValue(), 0);
  EXPECT_NE(NSNumber(), NSNumber(0));
}

}  // namespace
