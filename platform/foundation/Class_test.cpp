#include "platform/foundation/Class.h"

#include <cstddef>
#include <type_traits>

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/NSException.h"

namespace {

// What a user would write.
class PointBody final : public velto::ObjectBody {
 public:
  PointBody(int x, int y) : x_(x), y_(y) {}
  const velto::ClassBody& classBody() const override;
  void describe(std::string& out, velto::WalkBound&) const override {
    out += std::to_string(x_) + "/" + std::to_string(y_);
  }

 private:
  const int x_;
  const int y_;
};

class Point : public NSObject {
 public:
  Point() = default;
  Point(int x, int y) : NSObject(new PointBody(x, y)) {}
  static Class classObject() {
    static const Class& made = *new Class(Class::define("Point", NSObject::classObject()));
    return made;
  }
};

const velto::ClassBody& PointBody::classBody() const {
  return velto::classBodyOf<Point>();
}

static_assert(std::is_same_v<Class, velto::Class> && std::is_same_v<decltype(nil), const std::nullptr_t>);
static_assert(nil == velto::nil);

TEST(Class, KnowsItsNameAndItsSuperclass) {
  EXPECT_EQ(NSMutableArray::classObject().name().string(), "NSMutableArray");
  EXPECT_EQ(NSMutableArray::classObject().superclass(), NSArray::classObject());
  EXPECT_EQ(NSArray::classObject().superclass(), NSObject::classObject());
  EXPECT_TRUE(NSObject::classObject().superclass().isNil());
}

TEST(Class, NilAnswersNothing) {
  const Class none;
  EXPECT_TRUE(none.name().isNil());
  EXPECT_TRUE(none.superclass().isNil());
  EXPECT_FALSE(none.isSubclassOfClass(NSObject::classObject()));
  EXPECT_FALSE(NSObject::classObject().isSubclassOfClass(none));
  EXPECT_EQ(none.classBody(), nullptr);
  EXPECT_TRUE(NSStringFromClass(none).isNil());
}

TEST(Class, EveryClassIsBelowItselfAndItsSuperclasses) {
  const Class array = NSMutableArray::classObject();
  EXPECT_TRUE(array.isSubclassOfClass(array));
  EXPECT_TRUE(array.isSubclassOfClass(NSObject::classObject()));
  EXPECT_FALSE(NSArray::classObject().isSubclassOfClass(array));
  EXPECT_FALSE(array.isSubclassOfClass(NSDictionary::classObject()));
}

TEST(Class, IsOneObjectPerClass) {
  EXPECT_TRUE(NSDate::classObject().isIdenticalTo(NSDate::classObject()));
  EXPECT_EQ(NSDate::classObject().hash(), NSDate::classObject().hash());
  EXPECT_NE(NSDate::classObject(), NSData::classObject());
}

TEST(Class, AClassObjectIsOfTheClassOfClassesAndNoInstanceOfItself) {
  const NSObject object = NSDate::classObject();
  EXPECT_EQ(object.getClass(), Class::classObject());
  EXPECT_EQ(Class::classObject().getClass(), Class::classObject());
  EXPECT_FALSE(object.isKindOfClass(NSDate::classObject()));
  EXPECT_TRUE(object.isKindOfClass(NSObject::classObject()));
  EXPECT_TRUE(object.as<NSDate>().isNil());
  EXPECT_EQ(object.as<Class>(), NSDate::classObject());
}

TEST(Class, DescriptionIsTheName) {
  EXPECT_EQ(NSStringFromClass(NSURL::classObject()), NSURL::classObject().description());
}

TEST(Class, ComesBackOutOfASetOfClasses) {
  const NSSet classes{NSString::classObject(), NSNumber::classObject()};
  EXPECT_TRUE(classes.containsObject(NSString::classObject()));
  EXPECT_FALSE(classes.containsObject(NSDate::classObject()));
  EXPECT_EQ((*classes.begin()).as<Class>(), NSString::classObject());
  EXPECT_TRUE(NSObject("NSString").as<Class>().isNil());
  EXPECT_TRUE(NSObject().as<Class>().isNil());
}

TEST(Class, AUsersOwnClassTakesPartLikeAnyOther) {
  const NSObject point = Point(3, 4);
  EXPECT_EQ(point.getClass().name().string(), "Point");
  EXPECT_FALSE(point.as<Point>().isNil());
  EXPECT_TRUE(NSObject("3/4").as<Point>().isNil());
  EXPECT_EQ((NSArray{point}.description().string()), "(3/4)");
}

// What Class::define() says when nothing can be below the superclass; "" when it makes the class.
std::string whyNotBelow(const Class& superclass) {
  try {
    static_cast<void>(Class::define("Mine", superclass));
  } catch (const NSException& exception) {
    return exception.reason();
  }
  return "";
}

TEST(Class, NoneOfAUsersOwnCanBeBelowOneThatIsToldByItsKind) {
  for (const Class& builtIn :
       {NSString::classObject(), NSMutableString::classObject(), NSNumber::classObject(), NSDictionary::classObject(),
        NSMutableDictionary::classObject(), NSArray::classObject(), NSMutableArray::classObject(),
        NSData::classObject(), NSMutableData::classObject(), NSSet::classObject(), NSMutableSet::classObject(),
        NSDate::classObject(), NSUUID::classObject(), NSURL::classObject(), NSNull::classObject(),
        NSError::classObject(), NSCondition::classObject(), Class::classObject()}) {
    EXPECT_EQ(whyNotBelow(builtIn), "the class Mine cannot be below " + builtIn.name().string() +
                                        ", a class of the platform: whatever is of that kind is taken for the "
                                        "platform's own body");
    EXPECT_THROW(velto::ClassBody("Mine", builtIn.classBody()), NSException);
  }
}

TEST(Class, AUsersOwnMayBeBelowNSObjectAndBelowAnyOfTheUsers) {
  EXPECT_EQ(whyNotBelow(NSObject::classObject()), "");
  EXPECT_EQ(whyNotBelow(Point::classObject()), "");
  const Class below = Class::define("PointInSpace", Point::classObject());
  EXPECT_TRUE(below.isSubclassOfClass(Point::classObject()));
  EXPECT_EQ(whyNotBelow(below), "");
}

}  // namespace
