// The table of the tests' protocol, and the tests that tables as such have to pass.

#include "platform/xpc/testing/Greeter.h"

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::testing::Greeter>() {
  using velto::testing::Greeter;
  static const Protocol& table =
      *new Protocol("Greeter", {
                                   method<&Greeter::greet>("greet:reply:", Requirement::required),
                                   method<&Greeter::tell>("tell:", Requirement::required, Way::oneWay),
                                   method<&Greeter::flag>("flag:", Requirement::required),
                                   method<&Greeter::introduce>("introduce:reply:", Requirement::required),
                                   method<&Greeter::wave>("wave", Requirement::optional),
                               });
  return table;
}

namespace velto::xpc {
namespace {

using velto::testing::Greeter;

TEST(ProtocolTable, DescribesEachMethodFromItsFunction) {
  const Protocol& table = protocolOf<Greeter>();
  const Method* greet = table.methodForSelector("greet:reply:");
  ASSERT_NE(greet, nullptr);
  ASSERT_EQ(greet->parameters.size(), 1U);
  EXPECT_EQ(greet->parameters[0].classObject, NSString::classObject());
  ASSERT_EQ(greet->replyParameters.size(), 1U);
  EXPECT_EQ(greet->replyParameters[0].classObject, NSString::classObject());
  EXPECT_EQ(table.methodForSelector("flag:")->parameters[0].classObject, NSNumber::classObject());
  EXPECT_FALSE(table.methodForSelector("wave")->hasReply());
  EXPECT_EQ(table.methodForSelector("wave")->requirement, Requirement::optional);
}

TEST(ProtocolTable, KnowsNothingOfOtherSelectors) {
  EXPECT_EQ(protocolOf<Greeter>().methodForSelector("dance:"), nullptr);
  EXPECT_EQ(protocolOf<Greeter>().methodForSelector(""), nullptr);
}

TEST(Interface, GivesADictionaryEveryValueClassAndAStringItsOwn) {
  const auto interface = NSXPCInterface::interfaceWithProtocol<Greeter>();
  EXPECT_EQ(interface->classesForSelector("greet:reply:", 0, false), (NSSet{NSString::classObject()}));
  EXPECT_EQ(interface->classesForSelector("greet:reply:", 0, true), (NSSet{NSString::classObject()}));
  const NSSet ofDictionary = interface->classesForSelector("tell:", 0, false);
  for (const Class& value :
       {NSString::classObject(), NSNumber::classObject(), NSDictionary::classObject(), NSArray::classObject(),
        NSData::classObject(), NSSet::classObject(), NSDate::classObject(), NSUUID::classObject(), NSURL::classObject(),
        NSNull::classObject(), NSError::classObject()}) {
    EXPECT_TRUE(ofDictionary.containsObject(value)) << value.name().string();
  }
  EXPECT_EQ(ofDictionary.count(), 11U);
}

TEST(Interface, GivesBackTheClassesThatWereSet) {
  const auto interface = NSXPCInterface::interfaceWithProtocol<Greeter>();
  const NSSet classes{NSDictionary::classObject(), NSNull::classObject()};
  interface->setClasses(classes, "tell:", 0, false);
  EXPECT_EQ(interface->classesForSelector("tell:", 0, false), classes);
}

TEST(Interface, ShowsNobodyElsesChanges) {
  const auto make = [] { return NSXPCInterface::interfaceWithProtocol<Greeter>(); };
  const auto ofNews = [](const auto& interface) { return interface->classesForSelector("tell:", 0, false); };
  const NSSet classes{NSDictionary::classObject(), NSNull::classObject()};
  const auto untouched = make();
  const NSSet byDefault = ofNews(untouched);
  const auto first = make();
  first->setClasses(classes, "tell:", 0, false);
  // The same change again, and then more; the same classes elsewhere; another change in its place.
  const auto second = make();
  second->setClasses(classes, "tell:", 0, false);
  second->setClasses(classes, "greet:reply:", 0, true);
  const auto third = make();
  third->setClasses(classes, "greet:reply:", 0, true);
  const auto fourth = make();
  fourth->setClasses(NSSet{NSNull::classObject()}, "tell:", 0, false);
  for (const auto& interface : {first, second}) EXPECT_EQ(ofNews(interface), classes);
  for (const auto& interface : {untouched, third, make()}) EXPECT_EQ(ofNews(interface), byDefault);
  EXPECT_EQ(ofNews(fourth), NSSet{NSNull::classObject()});
  EXPECT_EQ(first->classesForSelector("greet:reply:", 0, true), NSSet{NSString::classObject()});
  EXPECT_EQ(second->classesForSelector("greet:reply:", 0, true), classes);
}

TEST(Interface, HasNoClassesForWhatTheProtocolLacks) {
  const auto interface = NSXPCInterface::interfaceWithProtocol<Greeter>();
  EXPECT_TRUE(interface->classesForSelector("dance:", 0, false).isNil());
  EXPECT_TRUE(interface->classesForSelector("tell:", 1, false).isNil());
  EXPECT_TRUE(interface->classesForSelector("tell:", 0, true).isNil());
  EXPECT_THROW(interface->setClasses(NSSet::set(), "dance:", 0, false), NSException);
  EXPECT_THROW(interface->setClasses(NSSet{"no class"}, "tell:", 0, false), NSException);
}

}  // namespace
}  // namespace velto::xpc
