#include "platform/xpc/wire/ClassSet.h"

#include <gtest/gtest.h>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

TEST(ClassSet, AnEmptySetAdmitsNothing) {
  for (const ClassSet& none : {ClassSet(), ClassSet(nil), ClassSet(NSSet::set())}) {
    EXPECT_FALSE(none.admits(NSString::classObject()));
    EXPECT_FALSE(none.admits(PlainClass::string));
    EXPECT_EQ(none.names(), "");
  }
}

TEST(ClassSet, AdmitsItsClassesAndNoOthers) {
  const ClassSet set(NSSet{NSString::classObject(), NSDate::classObject()});
  EXPECT_TRUE(set.admits(NSString::classObject()));
  EXPECT_TRUE(set.admits(PlainClass::string));
  EXPECT_TRUE(set.admits(PlainClass::date));
  EXPECT_FALSE(set.admits(NSNumber::classObject()));
  EXPECT_FALSE(set.admits(PlainClass::number));
  EXPECT_FALSE(set.admits(Class()));
}

TEST(ClassSet, AdmitsSubclassesOfItsClasses) {
  const Class derived = defineBuiltIn("DerivedFromDate", NSDate::classObject());
  const ClassSet dates(NSSet{NSDate::classObject()});
  EXPECT_TRUE(dates.admits(derived));
  EXPECT_FALSE(ClassSet(NSSet{derived}).admits(NSDate::classObject()));
  const ClassSet all(NSSet{NSObject::classObject()});
  EXPECT_TRUE(all.admits(derived));
  EXPECT_TRUE(all.admits(PlainClass::error));
}

TEST(ClassSet, AMutableClassAloneDoesNotAdmitTheImmutableOneThatTravels) {
  EXPECT_FALSE(ClassSet(NSSet{NSMutableArray::classObject()}).admits(PlainClass::array));
}

TEST(ClassSet, ElementsThatAreNoClassesCountForNothing) {
  const ClassSet set(NSSet{"NSString", 1, NSURL::classObject()});
  EXPECT_FALSE(set.admits(PlainClass::string));
  EXPECT_TRUE(set.admits(PlainClass::url));
  EXPECT_EQ(set.names(), "NSURL");
}

TEST(ClassSet, NamesAreSorted) {
  const ClassSet set(NSSet{NSString::classObject(), NSArray::classObject(), NSNumber::classObject()});
  EXPECT_EQ(set.names(), "NSArray, NSNumber, NSString");
}

}  // namespace
}  // namespace velto::wire
