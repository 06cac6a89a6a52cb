#include "daemon/Registry.h"

#include <thread>

#include <gtest/gtest.h>

#include "message/CapturedLog.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/Protocol.h"

namespace {

class RegistryTest : public ::testing::Test {
 protected:
  std::string refusalOf(const NSString& name, const NSXPCListenerEndpoint& endpoint) {
    return refusalOf(name, endpoint, registrant);
  }
  std::string refusalOf(const NSString& name, const NSXPCListenerEndpoint& endpoint,
                        const std::shared_ptr<velto::Registrant>& registering) {
    try {
      registry->add(name, endpoint, registering);
    } catch (const NSXPCRefusal& refusal) {
      return refusal.reason();
    }
    return "";
  }

  velto::CapturedLog log;
  // Over a link of its own.
  static std::shared_ptr<velto::Registrant> registrantOf(std::uint64_t process) {
    return velto::Registry::makeRegistrant({process, nil});
  }

  static constexpr velto::BrokerLimits kLimits{.names = 3, .namesOfOneProcess = 3, .namesOfOneLink = 2, .links = 1};
  const std::shared_ptr<velto::Registry> registry = velto::Registry::make(kLimits, velto::Ledger::make(kLimits));
  const std::shared_ptr<velto::Registrant> registrant = registrantOf(1);
  const std::shared_ptr<velto::Registrant> another = registrantOf(2);
  std::shared_ptr<NSXPCListener> first = NSXPCListener::anonymousListener();
  std::shared_ptr<NSXPCListener> second = NSXPCListener::anonymousListener();
};

}  // namespace

TEST_F(RegistryTest, FindsWhatWasAddedAndNothingElse) {
  registry->add("a", first->endpoint(), registrant);
  EXPECT_EQ(registry->find("a"), first->endpoint());
  EXPECT_FALSE(registry->find("b"));
  EXPECT_FALSE(registry->find(nil));
  EXPECT_FALSE(registry->find(""));
}

TEST_F(RegistryTest, TheLastRegistrationOfANameWins) {
  registry->add("a", first->endpoint(), registrant);
  registry->add("a", second->endpoint(), another);
  EXPECT_EQ(registry->find("a"), second->endpoint());
  EXPECT_EQ(registry->count(), 1U);
}

TEST_F(RegistryTest, DropForgetsANameOnce) {
  registry->add("a", first->endpoint(), registrant);
  EXPECT_TRUE(registry->drop("a"));
  EXPECT_FALSE(registry->drop("a"));
  EXPECT_FALSE(registry->find("a"));
}

TEST_F(RegistryTest, ANameEndsWithItsListener) {
  registry->add("a", first->endpoint(), registrant);
  registry->add("b", second->endpoint(), registrant);
  first.reset();
  EXPECT_TRUE(log.waitFor({2, "The listener of a is gone"}));
  EXPECT_FALSE(registry->find("a"));
  EXPECT_EQ(registry->find("b"), second->endpoint());
}

TEST_F(RegistryTest, AReplacedListenerThatGoesLeavesItsSuccessorAlone) {
  registry->add("a", first->endpoint(), registrant);
  registry->add("b", first->endpoint(), registrant);
  registry->add("a", second->endpoint(), registrant);
  first.reset();
  // Both would end with the same hang-up.
  EXPECT_TRUE(log.waitFor({2, "The listener of b is gone"}));
  EXPECT_EQ(registry->find("a"), second->endpoint());
  EXPECT_EQ(registry->count(), 1U);
}

TEST_F(RegistryTest, AListenerThatIsGoneAlreadyIsNotKept) {
  const NSXPCListenerEndpoint endpoint = first->endpoint();
  first.reset();
  registry->add("a", endpoint, registrant);
  registry->add("b", second->endpoint(), registrant);
  second.reset();
  EXPECT_TRUE(log.waitFor({2, "The listener of b is gone"}));
  registry->add("c", NSXPCListener::anonymousListener()->endpoint(), registrant);
  while (registry->count() > 0) std::this_thread::yield();
  EXPECT_FALSE(registry->find("a"));
}

TEST_F(RegistryTest, ANameThatNobodyCanServeIsRefusedAndSaysWhy) {
  EXPECT_EQ(refusalOf(nil, first->endpoint()), "the name is nil");
  EXPECT_EQ(refusalOf("", first->endpoint()), "the name is empty");
  EXPECT_EQ(refusalOf(std::string(256, 'x'), first->endpoint()), "the name has 256 bytes; the maximum is 255");
  EXPECT_EQ(refusalOf("a", nil), "the endpoint is nil");
  EXPECT_EQ(registry->count(), 0U);
}

TEST_F(RegistryTest, EveryOtherTextIsAName) {
  for (const std::string& name : {std::string(255, 'x'), std::string("/../.."), std::string("a\0b", 3)}) {
    registry->add(name, first->endpoint(), registrant);
    EXPECT_EQ(registry->find(name), first->endpoint());
    registry->drop(name);
  }
  registry->add(std::string("a\0b", 3), first->endpoint(), registrant);
  EXPECT_FALSE(registry->find("a"));
}

TEST_F(RegistryTest, OneLinkRegistersUpToItsLimitAndRecovers) {
  registry->add("a", first->endpoint(), registrant);
  registry->add("b", first->endpoint(), registrant);
  EXPECT_EQ(refusalOf("c", first->endpoint()), "names of one link would be 3; the maximum is 2");
  EXPECT_FALSE(registry->find("c"));
  // Its own names may be registered again, and one that is dropped makes room.
  EXPECT_EQ(refusalOf("a", second->endpoint()), "");
  registry->drop("b");
  EXPECT_EQ(refusalOf("c", first->endpoint()), "");
}

TEST_F(RegistryTest, ANameTakenOverCountsForTheOneThatTookIt) {
  registry->add("a", first->endpoint(), another);
  registry->add("b", first->endpoint(), registrant);
  registry->add("c", first->endpoint(), registrant);
  EXPECT_EQ(refusalOf("a", first->endpoint()), "names of one link would be 3; the maximum is 2");
  registry->add("c", second->endpoint(), another);
  EXPECT_EQ(refusalOf("a", first->endpoint()), "");
}

TEST_F(RegistryTest, AllTogetherRegisterUpToTheLimitAndRecover) {
  registry->add("a", first->endpoint(), another);
  registry->add("b", first->endpoint(), another);
  registry->add("c", first->endpoint(), registrant);
  EXPECT_EQ(refusalOf("d", first->endpoint()), "names would be 4; the maximum is 3");
  EXPECT_EQ(refusalOf("c", second->endpoint()), "");
  registry->drop("a");
  EXPECT_EQ(refusalOf("d", first->endpoint()), "");
}

TEST_F(RegistryTest, ANameStaysChargedToItsProcessWhenTheLinkIsGone) {
  const velto::BrokerLimits limits{.names = 9, .namesOfOneProcess = 3, .namesOfOneLink = 2};
  const auto counting = velto::Registry::make(limits, velto::Ledger::make(limits));
  for (const char* name : {"a", "b", "c"}) counting->add(name, first->endpoint(), registrantOf(1));
  EXPECT_THROW(counting->add("d", first->endpoint(), registrantOf(1)), NSXPCRefusal);
  counting->add("d", first->endpoint(), registrantOf(2));
  EXPECT_TRUE(counting->drop("a"));
  counting->add("e", first->endpoint(), registrantOf(1));
  first.reset();
  EXPECT_TRUE(log.waitFor({2, "The listener of e is gone"}));
  while (counting->count() > 0) std::this_thread::yield();
  for (const char* name : {"f", "g", "h"}) counting->add(name, second->endpoint(), registrantOf(1));
  EXPECT_EQ(counting->count(), 3U);
}

TEST_F(RegistryTest, AtTheLimitTheNewestNameOfWhoHasTheMostMakesRoomForAnother) {
  registry->add("a", first->endpoint(), registrant);
  registry->add("b", first->endpoint(), registrant);
  registry->add("c", first->endpoint(), registrantOf(1));
  EXPECT_EQ(refusalOf("d", first->endpoint(), registrantOf(1)), "names of one process would be 4; the maximum is 3");
  EXPECT_EQ(refusalOf("d", second->endpoint(), another), "");
  EXPECT_TRUE(
      log.waitFor({0, "The name c makes room: its process holds the most, and names would be 4; the maximum is 3"}));
  EXPECT_FALSE(registry->find("c"));
  EXPECT_EQ(registry->find("d"), second->endpoint());
  EXPECT_EQ(registry->count(), 3U);
  // Two against one: no more.
  EXPECT_EQ(refusalOf("e", second->endpoint(), another), "names would be 4; the maximum is 3");
  // What made room is no longer counted over its link.
  registry->drop("a");
  EXPECT_EQ(refusalOf("e", second->endpoint()), "");
}
