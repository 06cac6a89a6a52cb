// What may be in a message when types are strict, and how a refusal reads in the log.

#include "message/TypeChecking.h"
#include "platform/xpc/NSFileDescriptor.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

class MessageTypeChecking : public QuietTest {
 protected:
  static LogCapture::Line refusalOf(const NSObject& value) {
    const std::string name = NSStringFromClass(value.getClass()).string();
    return {0, "Failed Type Checking with the following object " + name + " with ClassName " + name};
  }
};

TEST_F(MessageTypeChecking, EmptyAndNilContainersPass) {
  EXPECT_TRUE(checkDictionary(NSDictionary::dictionary()));
  EXPECT_TRUE(checkDictionary({{"nested", NSArray::array()}}));
  EXPECT_TRUE(checkDictionary(NSDictionary(nil)));
  EXPECT_TRUE(checkArray(NSArray::array()));
  EXPECT_TRUE(checkArray(NSArray(nil)));
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(MessageTypeChecking, EveryPlainTypePassesAtEveryDepth) {
  const NSArray everything{"text",
                           true,
                           -1,
                           18446744073709551615u,
                           2.5,
                           NSData::dataWithBytes("ab", 2),
                           NSArray{1, 2},
                           NSDictionary{{"inner", NSArray{"deep"}}}};
  EXPECT_TRUE(checkArray(everything));
  EXPECT_TRUE(checkDictionary({{"list", everything}, {"again", NSDictionary{{"list", everything}}}}));
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(MessageTypeChecking, KeysAreNotChecked) {
  EXPECT_TRUE(checkDictionary({{1, "number"}, {NSDate::date(), "date"}, {NSNull::null(), "null"}}));
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(MessageTypeChecking, MutableValuesPass) {
  const NSMutableString text = NSMutableString::stringWithString("text");
  const NSMutableArray array = NSMutableArray::arrayWithArray(NSArray{text});
  const NSMutableDictionary dictionary = NSMutableDictionary::dictionaryWithDictionary({{"array", array}});
  EXPECT_TRUE(checkDictionary({{"a", text}, {"b", array}, {"c", dictionary}, {"d", NSMutableData::data()}}));
  EXPECT_TRUE(checkDictionary(dictionary));
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(MessageTypeChecking, NullFailsWithOneLineThatNamesItsClassTwice) {
  EXPECT_FALSE(checkDictionary({{"nothing", NSNull::null()}}));
  EXPECT_EQ(log.lines(), std::vector{refusalOf(NSNull::null())});
}

TEST_F(MessageTypeChecking, AnOpenDescriptorFailsAsAnyOtherClass) {
  const NSFileDescriptor input = NSFileDescriptor::fileDescriptorDuplicating(0);
  EXPECT_FALSE(checkDictionary({{"input", input}}));
  EXPECT_EQ(log.lines(), std::vector{refusalOf(input)});
}

TEST_F(MessageTypeChecking, DateInArrayFailsWithItsOwnLineThenTheArraysLine) {
  const NSArray dates{NSDate::date()};
  EXPECT_FALSE(checkDictionary({{"dates", dates}}));
  EXPECT_EQ(log.lines(), (std::vector{refusalOf(NSDate::date()), refusalOf(dates)}));
}

TEST_F(MessageTypeChecking, EveryContainerOnTheWayOutIsNamedInnermostFirst) {
  const NSMutableArray array = NSMutableArray::arrayWithArray(NSArray{NSDictionary{{"id", NSUUID::UUID()}}});
  EXPECT_FALSE(checkDictionary({{"fine", 1}, {"list", NSArray{"fine", array}}}));
  EXPECT_EQ(log.lines(), (std::vector{refusalOf(NSUUID::UUID()), refusalOf(NSDictionary::dictionary()),
                                      refusalOf(array), refusalOf(NSArray::array())}));
}

TEST_F(MessageTypeChecking, TheWalkStopsAtTheFirstBadValue) {
  EXPECT_FALSE(checkDictionary({{"first", NSNull::null()}, {"second", NSDate::date()}}));
  EXPECT_FALSE(checkArray(NSArray{1, NSDate::date(), NSNull::null()}));
  EXPECT_EQ(log.lines(), (std::vector{refusalOf(NSNull::null()), refusalOf(NSDate::date())}));
}

TEST_F(MessageTypeChecking, EveryOtherKindFails) {
  const NSError error = NSError::errorWithDomain("domain", 1, NSDictionary::dictionary());
  const std::vector<NSObject> others{NSDate::date(), NSSet{1}, NSMutableSet::set(), NSURL::URLWithString("file:///"),
                                     NSUUID::UUID(), error,    VKTLogGetAnchor(),   NSCondition::condition()};
  for (const NSObject& other : others) {
    log.clear();
    EXPECT_FALSE(checkDictionary({{"value", other}})) << other.description().view();
    EXPECT_FALSE(checkArray(NSArray{other})) << other.description().view();
    EXPECT_EQ(log.lines(), (std::vector{refusalOf(other), refusalOf(other)}));
  }
}

TEST_F(MessageTypeChecking, AClassIsNoInstanceOfItself) {
  EXPECT_FALSE(checkDictionary({{"class", NSString::classObject()}}));
  EXPECT_FALSE(checkArray(NSArray{NSData::classObject()}));
}

class MessageTypeCheckingOfEnds : public LibraryTest {
 protected:
  static LogCapture::Line refusal(const std::string& name) {
    return {0, "Failed Type Checking with the following object " + name + " with ClassName " + name};
  }

  const NSDictionary anything{{"when", NSDate::dateWithTimeIntervalSince1970(1.5)},
                              {"which", NSArray{NSNull::null(), NSSet{1}}}};
};

TEST_F(MessageTypeCheckingOfEnds, WithStrictTypesOffAnyPayloadIsHandedOnUnchecked) {
  Pair pair(ListenerEnd::Types::any);
  pair.server.delegate->echo();
  pair.client.delegate->echo();
  EXPECT_EQ(pair.client.connection->sendMessageSync(anything, 20.0), anything);
  EXPECT_EQ(pair.server.listener->sendMessageSync(anything, pair.id, 20.0), anything);
  EXPECT_TRUE(log.containing(0, "Failed Type Checking").empty()) << log.text();
}

TEST_F(MessageTypeCheckingOfEnds, ARefusalTellsThePlaceBeforeTheEndsOwnLine) {
  Pair pair;
  clearLogOfHandshake();
  VKTLogSetLevel(VKTLogLevelProgress);
  NSError error;
  EXPECT_FALSE(pair.client.connection->sendMessage(anything, &error));
  EXPECT_EQ(error.userInfo().count(), 1u);
  EXPECT_TRUE(pair.server.listener->sendMessageSync({{"list", NSArray{1, NSNull::null()}}}, pair.id, 20.0).isNil());
  EXPECT_EQ(log.lines(),
            (std::vector<LogCapture::Line>{refusal("NSDate"),
                                           {2, "What is refused lies at when"},
                                           {0, "VeltoConnection SendMessage failed message type check"},
                                           refusal("NSNull"),
                                           refusal("NSArray"),
                                           {2, "What is refused lies at list[1]"},
                                           {0, "VeltoIPCListener SendMessage failed message type check"}}));
}

TEST_F(MessageTypeCheckingOfEnds, IncomingMessagesAndRepliesAreNotChecked) {
  Pair pair(ListenerEnd::Types::any);
  pair.server.listener->setStrictMessageTypes(true);
  pair.server.delegate->echo();
  // The client was told that types are not strict, and keeps to that; the listener now holds its own sends to them.
  EXPECT_EQ(pair.client.connection->sendMessageSync(anything, 20.0), anything);
  NSError error;
  EXPECT_TRUE(pair.server.listener->sendMessageSync(anything, pair.id, 20.0, &error).isNil());
  expectError(error, 3, "SendMessage failed message type check");
}

}  // namespace
}  // namespace velto::testing
