#include "daemon/Observer.h"

#include <gtest/gtest.h>

#include "platform/foundation/Foundation.h"
#include "platform/xpc/NSXPCListener.h"

namespace velto {
namespace {

class ObserverOfABroker : public ::testing::Test {
 protected:
  ObserverOfABroker() { limits.namesOfOneAnswer = 2; }

  void add(const NSString& name) { registry->add(name, listener->endpoint(), registrant); }
  NSArray listed(const NSString& after, bool& hasMore) const {
    const NSDictionary answer = observer.namesAfter(after);
    hasMore = answer["more"].boolValue();
    NSMutableArray names = NSMutableArray::array();
    for (const NSObject& each : answer["names"].as<NSArray>()) names.addObject(each.as<NSDictionary>()["name"]);
    return names;
  }

  BrokerLimits limits;
  const std::shared_ptr<Ledger> ledger = Ledger::make(limits);
  const std::shared_ptr<Registry> registry = Registry::make(limits, ledger);
  const std::shared_ptr<StandIns> standIns = StandIns::make(limits, ledger);
  const std::shared_ptr<Registrant> registrant = Registry::makeRegistrant(Holder::remembered(4711));
  const std::shared_ptr<NSXPCListener> listener = NSXPCListener::anonymousListener();
  Observer observer{[] {
                      BrokerLimits small;
                      small.namesOfOneAnswer = 2;
                      return small;
                    }(),
                    registry, ledger, standIns};
};

}  // namespace

TEST_F(ObserverOfABroker, ListsNamesInPortionsAndInOrder) {
  for (const char* name : {"c", "a", "b"}) add(name);
  bool hasMore = false;
  EXPECT_EQ(listed(nil, hasMore), (NSArray{"a", "b"}));
  EXPECT_TRUE(hasMore);
  EXPECT_EQ(listed("b", hasMore), NSArray{"c"});
  EXPECT_FALSE(hasMore);
  EXPECT_EQ(listed("c", hasMore).count(), 0u);
  // What lies between two names need not be there.
  EXPECT_EQ(listed("aa", hasMore), (NSArray{"b", "c"}));
}

TEST_F(ObserverOfABroker, DescribesANameAndWhoStandsIn) {
  add("a");
  standIns->add("a", listener->endpoint(), Holder::remembered(8), this);
  const auto found = nameDescriptionIn(observer.name("a"));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->name, "a");
  EXPECT_EQ(found->state.process, 4711);
  EXPECT_EQ(found->user, -1);
  EXPECT_GT(found->since, 0u);
  EXPECT_EQ(found->standIn, 8);
  EXPECT_FALSE(observer.name("b"));
  EXPECT_FALSE(observer.name(nil));
}

TEST_F(ObserverOfABroker, TellsWhatTheBrokerHoldsAndWhatItWasAsked) {
  add("a");
  Tallies::count(observer.tallies().lookUps);
  const NSDictionary broker = observer.broker(3);
  EXPECT_EQ(broker["names"], NSObject(1u));
  EXPECT_EQ(broker["links"], NSObject(3u));
  EXPECT_EQ(broker["lookUps"], NSObject(1u));
  EXPECT_EQ(broker["limits"].as<NSDictionary>()["names"], NSObject(limits.names));
}

TEST(NameDescription, SurvivesItsDictionary) {
  const NameDescription description{"a", {3, 4711}, 1000, 12345, 8};
  const auto read = nameDescriptionIn(dictionaryOf(description));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->name, "a");
  EXPECT_EQ(read->state, description.state);
  EXPECT_EQ(read->user, 1000);
  EXPECT_EQ(read->since, 12345u);
  EXPECT_EQ(read->standIn, 8);
  // What no broker sends.
  EXPECT_FALSE(nameDescriptionIn(nil));
  EXPECT_FALSE(nameDescriptionIn({{"name", 3}}));
  EXPECT_EQ(nameDescriptionIn({{"name", "a"}, {"since", "x"}})->since, 0u);
}

}  // namespace velto
