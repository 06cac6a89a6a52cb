// Which values pass the type check, in what order they are looked at, and what a failure writes.

#include <deque>
#include <functional>

#include "message/TypeChecking.h"
#include "platform/foundation/BuiltInClass.h"
#include "platform/logging/VeltoLogging.h"
#include "tests/conformance/Statements.h"
#include "tests/conformance/double/StepsTest.h"
#include "tests/conformance/steps/TestObject.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// A class, below one of the platform's too. It is for ever: something must go on naming it.
const Class& newClass(const char* name, const Class& superclass) {
  static std::deque<Class>& all = *new std::deque<Class>;
  return all.emplace_back(defineBuiltIn(name, superclass));
}

using MessageTypeChecking = StepsTest;

Class unrelatedClass() {
  static const Class& made = *new Class(Class::define("Unrelated", NSObject::classObject()));
  return made;
}

std::string failure(const std::string& name) {
  return "log 0 Failed Type Checking with the following object " + name + " with ClassName " + name;
}

std::string nameOfClass(const NSObject& object) {
  return NSStringFromClass(object.getClass()).string();
}

NSDictionary holding(const NSObject& value) {
  return NSDictionary{{"key", value}};
}

// An array of one element, also of one that is an array.
NSArray listOf(const NSObject& element) {
  return NSArray::arrayWithObjects({element});
}

TEST_F(MessageTypeChecking, PassesAString) {
  PROVES("types.accept.1", "a string passes");
  EXPECT_TRUE(checkDictionary(holding("text")));
  EXPECT_TRUE(checkArray(NSArray{"text"}));
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(MessageTypeChecking, PassesNumbersOfEveryKind) {
  PROVES("types.accept.2", "a number passes, whatever it holds: a boolean, a signed or unsigned integer, a double");
  EXPECT_TRUE(checkArray(NSArray{true, -1, std::uint64_t{1} << 63, 0.5}));
  EXPECT_TRUE(checkDictionary(holding(false)));
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(MessageTypeChecking, PassesDictionariesAndArraysOfPassingValues) {
  PROVES("types.accept.3", "a dictionary and an array pass when every value in them, at every depth, does");
  EXPECT_TRUE(checkDictionary(holding(holding(NSArray{1, holding("deep"), listOf(listOf(2))}))));
  EXPECT_TRUE(checkArray(NSArray{NSArray{"a"}, holding("b")}));
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(MessageTypeChecking, PassesData) {
  PROVES("types.accept.4", "data passes");
  EXPECT_TRUE(checkDictionary(holding(NSData::dataWithVector({1, 2, 3}))));
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(MessageTypeChecking, PassesMutableKinds) {
  PROVES("types.accept.5", "the mutable kinds of string, dictionary, array and data pass: the test is by kind");
  const NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary(holding("text"));
  const NSMutableArray array = NSMutableArray::arrayWithArray(NSArray{1});
  EXPECT_TRUE(checkDictionary(NSDictionary{{"string", NSMutableString::stringWithString("text")},
                                           {"dictionary", dictionary},
                                           {"array", array},
                                           {"data", NSMutableData::data()}}));
  EXPECT_TRUE(checkDictionary(dictionary));
  EXPECT_TRUE(checkArray(array));
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(MessageTypeChecking, PassesSubclassesOfThePlainClasses) {
  PROVES("types.accept.6", "an instance of a subclass of string, number or data passes, whoever made the class");
  for (const Class& plain : {NSString::classObject(), NSNumber::classObject(), NSData::classObject()}) {
    const Class& derived = newClass("Derived", plain);
    EXPECT_TRUE(checkArray(NSArray{TestObject::ofClass(derived)})) << plain.name().view();
  }
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(MessageTypeChecking, PassesNilAndEmpty) {
  PROVES("types.accept.7", "nil, an empty message, an empty nested dictionary and an empty nested array pass");
  EXPECT_TRUE(checkDictionary(nil));
  EXPECT_TRUE(checkArray(nil));
  EXPECT_TRUE(checkDictionary(NSDictionary::dictionary()));
  EXPECT_TRUE(checkArray(NSArray::array()));
  EXPECT_TRUE(checkDictionary(holding(NSArray::array())));
  EXPECT_TRUE(checkDictionary(holding(NSDictionary::dictionary())));
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(MessageTypeChecking, RefusesEveryOtherClassWithOneLine) {
  PROVES("types.refuse.1", "a null, date, set, URL, UUID, error, class object, log anchor or any other object fails");
  PROVES("types.log.1", "a value that fails writes one line of level 0 that names its class twice");
  const NSObject values[] = {NSNull::null(),
                             NSDate::date(),
                             NSSet{1},
                             NSMutableSet::set(),
                             NSURL::URLWithString("https://example.org/"),
                             NSUUID::UUID(),
                             NSError::errorWithDomain("domain", 1, nil),
                             NSString::classObject(),
                             VKTLogGetAnchor(),
                             TestObject::ofClass(unrelatedClass())};
  for (const NSObject& value : values) {
    EXPECT_FALSE(checkDictionary(holding(value))) << nameOfClass(value);
    EXPECT_THAT(journal().take(), ElementsAre(failure(nameOfClass(value))));
    EXPECT_FALSE(checkArray(NSArray{value})) << nameOfClass(value);
    EXPECT_THAT(journal().take(), ElementsAre(failure(nameOfClass(value))));
  }
}

TEST_F(MessageTypeChecking, NamesAKnownClassInTheLine) {
  PROVES("types.log.2", "the line reads \"Failed Type Checking with the following object CLASS with ClassName CLASS\"");
  EXPECT_FALSE(checkDictionary(holding(NSNull::null())));
  EXPECT_THAT(journal().take(),
              ElementsAre("log 0 Failed Type Checking with the following object NSNull with ClassName NSNull"));
}

TEST_F(MessageTypeChecking, NeverPrintsTheContentsOfWhatFails) {
  PROVES("types.log.3", "the line never shows what the failing value holds");
  EXPECT_FALSE(checkDictionary(holding(TestObject::ofClass(unrelatedClass()))));
  const Lines lines = journal().take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], Not(HasSubstr("private contents")));
}

TEST_F(MessageTypeChecking, NeverLooksAtKeys) {
  PROVES("types.keys.1", "keys are not examined: of whatever class they are, only the values count");
  const NSDictionary message{{7, "a"},
                             {NSDate::date(), "b"},
                             {NSNull::null(), "c"},
                             {NSUUID::UUID(), NSArray{1}},
                             {TestObject::ofClass(unrelatedClass()), holding(2)},
                             {NSArray{NSNull::null()}, "d"}};
  EXPECT_TRUE(checkDictionary(message));
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(MessageTypeChecking, StopsAtTheFirstBadValueOfADictionary) {
  PROVES("types.order.1", "a dictionary's values are tested in the order of its keys, up to the first that fails");
  EXPECT_FALSE(
      checkDictionary(NSDictionary{{"1", "good"}, {"2", NSDate::date()}, {"3", NSNull::null()}, {"4", NSSet{1}}}));
  EXPECT_THAT(journal().take(), ElementsAre(failure("NSDate")));
}

TEST_F(MessageTypeChecking, StopsAtTheFirstBadElementOfAnArray) {
  PROVES("types.order.2", "an array's elements are tested from the first on, up to the first that fails");
  EXPECT_FALSE(checkArray(NSArray{1, NSNull::null(), NSDate::date()}));
  EXPECT_THAT(journal().take(), ElementsAre(failure("NSNull")));
}

TEST_F(MessageTypeChecking, GoesIntoAContainerBeforeTheNextValue) {
  PROVES("types.order.3", "the walk goes into a container before it looks at the value after it");
  EXPECT_FALSE(checkDictionary(NSDictionary{{"1", NSArray{holding(NSNull::null())}}, {"2", NSDate::date()}}));
  EXPECT_THAT(journal().take(), ElementsAre(failure("NSNull"), failure("NSDictionary"), failure("NSArray")));
}

TEST_F(MessageTypeChecking, LooksAtEveryElementOfALongContainer) {
  PROVES("types.order.4", "the last value of a large container counts like the first");
  std::vector<NSObject> elements(100, NSObject(1));
  EXPECT_TRUE(checkArray(NSArray::arrayWithObjects(elements)));
  elements.push_back(NSNull::null());
  EXPECT_FALSE(checkArray(NSArray::arrayWithObjects(elements)));
  std::map<std::int64_t, NSObject> values;
  for (std::int64_t key = 0; key < 100; ++key) values[key] = "good";
  values[100] = NSDate::date();
  EXPECT_FALSE(checkDictionary(NSDictionary(values)));
  EXPECT_THAT(journal().take(), ElementsAre(failure("NSNull"), failure("NSDate")));
}

TEST_F(MessageTypeChecking, ADateInAnArrayWritesTwoLines) {
  PROVES("types.log.4", "a date in an array of the message writes two lines, the date's class and then the array's");
  EXPECT_FALSE(checkDictionary(holding(NSArray{NSDate::date()})));
  EXPECT_THAT(journal().take(), ElementsAre(failure("NSDate"), failure("NSArray")));
}

TEST_F(MessageTypeChecking, EveryContainerAroundABadValueWritesALineFromTheInsideOut) {
  PROVES("types.log.5",
         "a bad value writes a line for itself and one for each container around it, innermost first, but none for "
         "the message itself");
  const NSObject deep = listOf(holding(listOf(listOf(NSUUID::UUID()))));
  EXPECT_FALSE(checkDictionary(holding(deep)));
  EXPECT_THAT(journal().take(), ElementsAre(failure("NSUUID"), failure("NSArray"), failure("NSArray"),
                                            failure("NSDictionary"), failure("NSArray")));
}

TEST_F(MessageTypeChecking, NamesTheConcreteClassOfAContainer) {
  PROVES("types.log.6", "the line of a container names the class that it really has");
  const NSObject array = NSMutableArray::arrayWithArray(NSArray{NSNull::null()});
  const NSObject dictionary = NSMutableDictionary::dictionaryWithDictionary(holding(array));
  EXPECT_FALSE(checkDictionary(holding(dictionary)));
  EXPECT_THAT(journal().take(),
              ElementsAre(failure("NSNull"), failure(nameOfClass(array)), failure(nameOfClass(dictionary))));
  EXPECT_EQ(nameOfClass(array), "NSMutableArray");
  EXPECT_EQ(nameOfClass(dictionary), "NSMutableDictionary");
}

TEST_F(MessageTypeChecking, LeavesTheMessageAsItWas) {
  PROVES("types.walk.1", "the check changes nothing in the message, whether it passes or not");
  const NSObject bad = NSDate::date();
  const NSMutableDictionary message = NSMutableDictionary::dictionaryWithDictionary(
      NSDictionary{{"good", NSMutableArray::arrayWithArray(NSArray{1})}, {"bad", bad}});
  const NSDictionary before = message.copy();
  EXPECT_FALSE(checkDictionary(message));
  EXPECT_EQ(message, before);
  EXPECT_TRUE(message["bad"].isIdenticalTo(bad));
  message.as<NSMutableDictionary>().removeObjectForKey("bad");
  EXPECT_TRUE(checkDictionary(message));
  EXPECT_EQ(message.count(), 1u);
}

TEST_F(MessageTypeChecking, AnArrayThatChangesUnderfootRaises) {
  PROVES("types.walk.2", "an array that is changed while it is walked raises the platform's exception for that");
  NSMutableArray array = NSMutableArray::array();
  const Class& derived = newClass("Changing", NSString::classObject());
  array.addObject(TestObject::ofClass(derived, [&array] { array.addObject("one more"); }));
  array.addObject("last");
  EXPECT_THROW(checkArray(array), NSException);
  EXPECT_THROW(checkDictionary(holding(array)), NSException);
  array.removeAllObjects();
}

TEST_F(MessageTypeChecking, ADictionaryIsWalkedByTheKeysThatItHadAtFirst) {
  PROVES(
      "types.walk.4",
      "a dictionary is walked by the keys that it had at first: a key that comes meanwhile is not looked at, and one "
      "that has gone has no value, which fails");
  NSMutableDictionary message = NSMutableDictionary::dictionary();
  std::function<void()> change;
  const Class& derived = newClass("Changing", NSString::classObject());
  message.setObject(TestObject::ofClass(derived, [&change] { change(); }), "first");
  message.setObject("text", "second");
  change = [&message] { message.setObject(NSNull::null(), "third"); };
  EXPECT_TRUE(checkDictionary(message));
  EXPECT_EQ(message.count(), 3u);
  message.removeObjectForKey("third");
  change = [&message] { message.removeObjectForKey("second"); };
  EXPECT_FALSE(checkDictionary(message));
  EXPECT_THAT(journal().take(), ElementsAre(failure("(null)")));
  change = [] {};
}

TEST_F(MessageTypeChecking, HoldsNoStateBetweenCallsAndThreads) {
  PROVES("types.walk.3", "checks may run on any threads at the same time and know nothing of each other");
  const NSDictionary good = holding(NSArray{1, "two", holding(3)});
  const NSDictionary bad = holding(NSArray{NSNull::null()});
  const auto checkOften = [](const NSDictionary& message, bool expected) {
    for (int round = 0; round < 200; ++round) {
      if (checkDictionary(message) != expected) return false;
    }
    return true;
  };
  auto first = inBackground([&] { return checkOften(good, true); });
  auto second = inBackground([&] { return checkOften(bad, false); });
  EXPECT_TRUE(checkOften(good, true));
  EXPECT_TRUE(finish(first));
  EXPECT_TRUE(finish(second));
}

}  // namespace
}  // namespace velto::testing
