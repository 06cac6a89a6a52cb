#include "platform/xpc/wire/PlainClass.h"

#include <gtest/gtest.h>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/wire/WireTesting.h"

namespace velto::wire {
namespace {

template <class T>
void expectPlain(PlainClass expected) {
  PlainClass found{};
  ASSERT_TRUE(findPlainClass(*T::classObject().classBody(), found));
  EXPECT_EQ(found, expected);
}

template <class T>
void expectPlainAndItsClass(PlainClass expected) {
  expectPlain<T>(expected);
  EXPECT_EQ(&classBodyOf(expected), T::classObject().classBody());
}

TEST(PlainClass, EveryValueClassIsFoundAndNamed) {
  expectPlainAndItsClass<NSString>(PlainClass::string);
  expectPlainAndItsClass<NSNumber>(PlainClass::number);
  expectPlainAndItsClass<NSDictionary>(PlainClass::dictionary);
  expectPlainAndItsClass<NSArray>(PlainClass::array);
  expectPlainAndItsClass<NSData>(PlainClass::data);
  expectPlainAndItsClass<NSDate>(PlainClass::date);
  expectPlainAndItsClass<NSNull>(PlainClass::null);
  expectPlainAndItsClass<NSSet>(PlainClass::set);
  expectPlainAndItsClass<NSUUID>(PlainClass::uuid);
  expectPlainAndItsClass<NSURL>(PlainClass::url);
  expectPlainAndItsClass<NSError>(PlainClass::error);
}

TEST(PlainClass, MutableClassesCountAsTheirImmutableOnes) {
  expectPlain<NSMutableString>(PlainClass::string);
  expectPlain<NSMutableDictionary>(PlainClass::dictionary);
  expectPlain<NSMutableArray>(PlainClass::array);
  expectPlain<NSMutableData>(PlainClass::data);
  expectPlain<NSMutableSet>(PlainClass::set);
}

TEST(PlainClass, NothingElseIsOne) {
  PlainClass found{};
  EXPECT_FALSE(findPlainClass(*NSObject::classObject().classBody(), found));
  const Class derived = defineBuiltIn("DerivedFromString", NSString::classObject());
  EXPECT_FALSE(findPlainClass(*derived.classBody(), found));
}

}  // namespace
}  // namespace velto::wire
