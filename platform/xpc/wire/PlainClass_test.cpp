#include "platform/xpc/wire/PlainClass.h"

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

template <class T>
void expectClass(PlainClass expected) {
  EXPECT_EQ(&classBodyOf(expected), T::classObject().classBody());
}

TEST(PlainClass, EveryOneHasItsClass) {
  expectClass<NSString>(PlainClass::string);
  expectClass<NSNumber>(PlainClass::number);
  expectClass<NSDictionary>(PlainClass::dictionary);
  expectClass<NSArray>(PlainClass::array);
  expectClass<NSData>(PlainClass::data);
  expectClass<NSDate>(PlainClass::date);
  expectClass<NSNull>(PlainClass::null);
  expectClass<NSSet>(PlainClass::set);
  expectClass<NSUUID>(PlainClass::uuid);
  expectClass<NSURL>(PlainClass::url);
  expectClass<NSError>(PlainClass::error);
}

}  // namespace
}  // namespace velto::wire
