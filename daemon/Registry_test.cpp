#include "daemon/Registry.h"

#include <map>
#include <mutex>
#include <string>
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

  // What a waiter was told: the process, or that nothing stands, or nothing more will be told.
  using Told = std::vector<std::string>;
  void wait(const NSString& name, std::uint64_t known, Told& told, const std::shared_ptr<velto::Registrant>& waiting,
            std::optional<std::chrono::nanoseconds> time = {}) {
    registry->wait(name, known, time, waiting, [this, &told](const std::optional<velto::Standing>& standing) {
      EXPECT_GE(registry->count(), 0U) << "no lock is held";
      const std::lock_guard lock(tells);
      told.push_back(!standing ? "no more" : standing->endpoint ? "stands" : "free");
    });
  }
  Told saidBy(const Told& told) {
    const std::lock_guard lock(tells);
    return told;
  }

  static constexpr velto::BrokerLimits kLimits{
      .names = 3, .namesOfOneProcess = 3, .namesOfOneLink = 2, .links = 1, .waiters = 3, .waitersOfOneProcess = 2};
  std::mutex tells;
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

TEST_F(RegistryTest, ANameIsLeftToALivingListenerIfItIsNotToBeTakenOver) {
  const velto::NameAnswer own = registry->add("a", first->endpoint(), registrant, false);
  EXPECT_TRUE(own.stands());
  const velto::NameAnswer other = registry->add("a", second->endpoint(), another, false);
  EXPECT_TRUE(other.isTaken);
  EXPECT_EQ(other.state, own.state);
  EXPECT_EQ(registry->find("a"), first->endpoint());
  // Its own listener's may be registered anew, over whatever link.
  const velto::NameAnswer again = registry->add("a", first->endpoint(), another, false);
  EXPECT_TRUE(again.stands());
  EXPECT_NE(again.state.registration, own.state.registration);
  first.reset();
  EXPECT_TRUE(registry->add("a", second->endpoint(), registrant, false).stands()) << "heard of its end or not";
  EXPECT_EQ(registry->find("a"), second->endpoint());
}

TEST_F(RegistryTest, ANameIsGivenBackByItsProcessAndForAsLongAsItIsItsOwn) {
  const auto own = registry->add("a", first->endpoint(), registrant).state.registration;
  EXPECT_FALSE(registry->giveBack("a", own, another));
  EXPECT_FALSE(registry->giveBack("b", own, registrant));
  EXPECT_TRUE(registry->giveBack("a", own, registrantOf(1))) << "over another link of the process";
  EXPECT_FALSE(registry->find("a"));
  const auto former = registry->add("a", first->endpoint(), registrant).state.registration;
  registry->add("a", second->endpoint(), another);
  EXPECT_FALSE(registry->giveBack("a", former, registrant));
  EXPECT_EQ(registry->find("a"), second->endpoint());
}

TEST_F(RegistryTest, WhoWaitsIsToldOnceOfWhatIsNotKnown) {
  Told free, same, other, elsewhere;
  wait("a", 0, free, registrant);
  const auto standing = registry->add("a", first->endpoint(), another).state.registration;
  EXPECT_EQ(free, Told{"stands"});
  wait("a", standing, same, registrant);
  wait("a", 0, other, registrant);
  wait("ab", 0, elsewhere, another);
  EXPECT_EQ(other, Told{"stands"}) << "at once";
  EXPECT_EQ(same, Told{});
  registry->add("a", second->endpoint(), registrant);
  EXPECT_EQ(same, Told{"stands"});
  EXPECT_EQ(free.size() + other.size(), 2U);
  EXPECT_EQ(elsewhere, Told{});
  EXPECT_EQ(registry->waiterCount(), 1U);
}

TEST_F(RegistryTest, WhoWaitsIsToldThatANameIsFreeHoweverItBecameSo) {
  Told dropped, gone, givenBack, madeRoom;
  wait("a", registry->add("a", first->endpoint(), registrant).state.registration, dropped, registrant);
  registry->drop("a");
  EXPECT_EQ(dropped, Told{"free"});
  const auto own = registry->add("a", first->endpoint(), registrant).state.registration;
  wait("a", own, givenBack, another);
  registry->giveBack("a", own, registrant);
  EXPECT_EQ(givenBack, Told{"free"});
  for (const char* name : {"a", "b"}) registry->add(name, first->endpoint(), registrant);
  wait("c", registry->add("c", first->endpoint(), registrantOf(1)).state.registration, madeRoom, registrant);
  registry->add("d", second->endpoint(), another);
  EXPECT_EQ(madeRoom, Told{"free"});
  registry->drop("a");
  registry->drop("b");
  wait("a", registry->add("a", first->endpoint(), registrant).state.registration, gone, another);
  first.reset();
  while (saidBy(gone).empty()) std::this_thread::yield();
  EXPECT_EQ(saidBy(gone), Told{"free"});
  EXPECT_EQ(registry->waiterCount(), 0U);
}

TEST_F(RegistryTest, WaitersOfOneProcessAreBoundedAndRecover) {
  Told told;
  wait("a", 0, told, registrant);
  wait("a", 0, told, registrantOf(1));
  const auto waits = [&] { wait("b", 0, told, registrant); };
  try {
    waits();
    ADD_FAILURE();
  } catch (const NSXPCRefusal& refusal) {
    EXPECT_EQ(refusal.reason(), "waiters of one process would be 3; the maximum is 2");
  }
  EXPECT_THROW(wait("", 0, told, another), NSXPCRefusal);
  EXPECT_EQ(registry->waiterCount(), 2U);
  registry->add("a", first->endpoint(), another);
  EXPECT_EQ(told, (Told{"stands", "stands"}));
  waits();
  EXPECT_EQ(registry->waiterCount(), 1U);
}

TEST_F(RegistryTest, AtTheLimitTheNewestWaiterOfWhoHasTheMostIsToldToWaitNoMore) {
  const velto::BrokerLimits limits{.waiters = 3, .waitersOfOneProcess = 3};
  const auto counting = velto::Registry::make(limits, velto::Ledger::make(limits));
  std::vector<std::string> told;
  const auto waitsFor = [&](const NSString& name, const std::shared_ptr<velto::Registrant>& waiting) {
    counting->wait(name, 0, {}, waiting, [&told, name](const std::optional<velto::Standing>& standing) {
      EXPECT_FALSE(standing);
      told.push_back(name.string());
    });
  };
  for (const char* name : {"a", "b", "c"}) waitsFor(name, registrant);
  waitsFor("d", another);
  EXPECT_EQ(told, Told{"c"});
  EXPECT_THROW(waitsFor("e", another), NSXPCRefusal);
  EXPECT_EQ(counting->waiterCount(), 3U);
  EXPECT_TRUE(log.waitFor(
      {0, "One that waits for c makes room: its process holds the most, and waiters would be 4; the maximum is 3"}));
}

TEST_F(RegistryTest, WhoHasLeftWaitsNoMoreAndIsToldNothing) {
  Told told, others;
  wait("a", 0, told, registrant);
  wait("b", 0, told, registrant);
  wait("a", 0, others, another);
  registry->leave(registrant);
  wait("c", 0, told, registrant);
  EXPECT_EQ(registry->waiterCount(), 1U);
  for (const char* name : {"a", "b", "c"}) registry->add(name, first->endpoint(), registrantOf(3));
  EXPECT_EQ(told, Told{});
  EXPECT_EQ(others, Told{"stands"});
  wait("a", 0, told, registrantOf(1));
}

TEST_F(RegistryTest, AWaitThatTakesTooLongEnds) {
  Told told, late;
  wait("a", 0, told, registrant, std::chrono::milliseconds(1));
  wait("a", 0, late, another, std::chrono::hours(1));
  while (saidBy(told).empty()) std::this_thread::yield();
  EXPECT_EQ(saidBy(told), Told{"no more"});
  EXPECT_EQ(registry->waiterCount(), 1U);
  EXPECT_EQ(saidBy(late), Told{});
}

TEST_F(RegistryTest, OneThatCannotBeToldKeepsNobodyElseFromIt) {
  Told told;
  registry->wait("a", 0, {}, registrant,
                 [](const std::optional<velto::Standing>&) { throw NSException("Some", "it would not"); });
  wait("a", 0, told, another);
  EXPECT_TRUE(registry->add("a", first->endpoint(), registrant).stands());
  EXPECT_EQ(told, Told{"stands"});
}

TEST_F(RegistryTest, OfTwoListenersThatComeAgainTheLaterOneHasTheNameInEitherOrder) {
  EXPECT_FALSE(registry->addAgain("a", first->endpoint(), registrant, 1).isTaken);
  EXPECT_FALSE(registry->addAgain("a", second->endpoint(), another, 2).isTaken);
  EXPECT_EQ(registry->find("a"), second->endpoint());
  EXPECT_FALSE(registry->addAgain("b", second->endpoint(), another, 2).isTaken);
  EXPECT_TRUE(registry->addAgain("b", first->endpoint(), registrant, 1).isTaken);
  EXPECT_EQ(registry->find("b"), second->endpoint());
}

TEST_F(RegistryTest, OneThatComesAgainAndStandsAlreadyStaysAsItIs) {
  const auto standing = registry->add("a", first->endpoint(), registrant);
  Told told;
  wait("a", standing.state.registration, told, another);
  EXPECT_EQ(registry->addAgain("a", first->endpoint(), registrant, 1).state, standing.state);
  EXPECT_TRUE(saidBy(told).empty()) << "nobody hears of a change";
  registry->leave(another);
}

TEST_F(RegistryTest, NobodyWhoComesAgainHasRegisteredInTheFuture) {
  registry->addAgain("a", first->endpoint(), registrant, ~std::uint64_t{0});
  registry->addAgain("a", second->endpoint(), another, ~std::uint64_t{0});
  EXPECT_EQ(registry->find("a"), second->endpoint());
}

namespace {

// What would be there after an end.
struct Remembered final : velto::NameStore {
  void keep(const velto::StoredName& name) noexcept override { names.insert_or_assign(name.token, name); }
  void forget(const std::string& token) noexcept override { names.erase(token); }
  std::map<std::string, velto::StoredName> names;
};

}  // namespace

TEST_F(RegistryTest, WhatStandsAndNothingElseIsInTheStore) {
  Remembered store;
  const auto kept = velto::Registry::make(kLimits, velto::Ledger::make(kLimits), &store);
  kept->add("a", first->endpoint(), registrant);
  kept->add("a", second->endpoint(), another);
  kept->add("b", first->endpoint(), registrant);
  ASSERT_EQ(store.names.size(), 2U);
  kept->drop("b");
  ASSERT_EQ(store.names.size(), 1U);
  EXPECT_EQ(store.names.begin()->second.name, "a");
  EXPECT_EQ(store.names.begin()->second.endpoint, second->endpoint());
}

TEST_F(RegistryTest, WhatComesOutOfTheStoreIsChargedToItsProcessUntilThatOneIsKnown) {
  Remembered store;
  const auto ledger = velto::Ledger::make(kLimits);
  const auto kept = velto::Registry::make(kLimits, ledger, &store);
  const velto::StoredName stored{"token", "a", first->endpoint(), 4711, 1};
  store.keep(stored);
  kept->restore(stored);
  EXPECT_EQ(kept->find("a"), first->endpoint());
  EXPECT_EQ(ledger->held(velto::Holder::remembered(4711).number)[velto::Holdings::kNames], 1U);
  EXPECT_EQ(store.names.count("token"), 1U);
  const auto known = kept->addAgain("a", first->endpoint(), registrant, 1);
  EXPECT_FALSE(known.isTaken);
  EXPECT_EQ(ledger->held(velto::Holder::remembered(4711).number)[velto::Holdings::kNames], 0U);
  EXPECT_EQ(ledger->held(1)[velto::Holdings::kNames], 1U);
  EXPECT_EQ(store.names.size(), 1U);
}
