#include "daemon/StandIns.h"

#include <gtest/gtest.h>

#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/Protocol.h"

namespace velto {
namespace {

class StandInsOfABroker : public ::testing::Test {
 protected:
  StandInsOfABroker() { make({}); }

  void make(const BrokerLimits& limits) {
    ledger = Ledger::make(limits);
    standIns = StandIns::make(limits, ledger);
  }
  void add(const NSString& name, const NSXPCListenerEndpoint& endpoint, StandIns::Link link) {
    standIns->add(name, endpoint, Holder::remembered(7), link);
  }
  std::string refusal(const NSString& name, const NSXPCListenerEndpoint& endpoint, StandIns::Link link) {
    try {
      add(name, endpoint, link);
      return "";
    } catch (const NSXPCRefusal& refused) {
      return refused.reason();
    }
  }

  std::shared_ptr<Ledger> ledger;
  std::shared_ptr<StandIns> standIns;
  const std::shared_ptr<NSXPCListener> real = NSXPCListener::anonymousListener();
  std::shared_ptr<NSXPCListener> tool = NSXPCListener::anonymousListener();
  const int one = 0, other = 0;
};

}  // namespace

TEST_F(StandInsOfABroker, ALookUpGetsTheOneThatStandsIn) {
  add("a", tool->endpoint(), &one);
  EXPECT_EQ(standIns->inFrontOf("a", real->endpoint()), tool->endpoint());
  EXPECT_EQ(standIns->inFrontOf("b", real->endpoint()), real->endpoint());
  EXPECT_EQ(standIns->processAt("a"), 7);
}

TEST_F(StandInsOfABroker, WhatIsNotThereStaysNotThere) {
  add("a", tool->endpoint(), &one);
  EXPECT_FALSE(standIns->inFrontOf("a", nil));
}

TEST_F(StandInsOfABroker, OneEndsWithItsLink) {
  add("a", tool->endpoint(), &one);
  EXPECT_TRUE(standIns->isOf("a", &one));
  EXPECT_FALSE(standIns->isOf("a", &other));
  standIns->leave(&other);
  EXPECT_EQ(standIns->count(), 1u);
  standIns->leave(&one);
  EXPECT_EQ(standIns->count(), 0u);
  EXPECT_EQ(standIns->inFrontOf("a", real->endpoint()), real->endpoint());
}

TEST_F(StandInsOfABroker, OneWhoseListenerIsGoneCountsForNothing) {
  add("a", tool->endpoint(), &one);
  tool->invalidate();
  EXPECT_EQ(standIns->inFrontOf("a", real->endpoint()), real->endpoint());
  EXPECT_EQ(standIns->processAt("a"), 0);
  const auto next = NSXPCListener::anonymousListener();
  EXPECT_EQ(refusal("a", next->endpoint(), &other), "");
}

TEST_F(StandInsOfABroker, ASecondOneIsRefusedAndTheSameLinkMayExchangeItsOwn) {
  add("a", tool->endpoint(), &one);
  const auto next = NSXPCListener::anonymousListener();
  EXPECT_EQ(refusal("a", next->endpoint(), &other), "process 7 stands in for a already");
  EXPECT_EQ(refusal("a", next->endpoint(), &one), "");
  EXPECT_EQ(standIns->inFrontOf("a", real->endpoint()), next->endpoint());
  EXPECT_EQ(ledger->held(Holder::remembered(7).number)[Holdings::kNames], 1u);
}

TEST_F(StandInsOfABroker, AreBoundedByLinkAndAltogetherAndRecover) {
  BrokerLimits limits;
  limits.standInsOfOneLink = 1;
  limits.standIns = 2;
  make(limits);
  add("a", tool->endpoint(), &one);
  EXPECT_EQ(refusal("b", tool->endpoint(), &one), "stand-ins of one link would be 2; the maximum is 1");
  add("b", tool->endpoint(), &other);
  const int third = 0;
  EXPECT_EQ(refusal("c", tool->endpoint(), &third), "stand-ins would be 3; the maximum is 2");
  standIns->leave(&one);
  EXPECT_EQ(refusal("c", tool->endpoint(), &third), "");
}

TEST_F(StandInsOfABroker, AreChargedAsNamesAndGoWhenOthersNeedTheRoom) {
  BrokerLimits limits;
  limits.names = 2;
  make(limits);
  add("a", tool->endpoint(), &one);
  add("b", tool->endpoint(), &one);
  EXPECT_EQ(ledger->held(Holder::remembered(7).number)[Holdings::kNames], 2u);
  {
    Ledger::Admission admission;
    ledger->enter(admission, Ledger::Kind::name, Holder::remembered(8), [](Ledger::Item, const std::string&) {});
    EXPECT_NE(admission.item, 0u);
  }
  // The newest.
  EXPECT_EQ(standIns->processAt("a"), 7);
  EXPECT_EQ(standIns->processAt("b"), 0);
}

TEST_F(StandInsOfABroker, WhatCannotBeAskedForIsRefused) {
  EXPECT_EQ(refusal("a", nil, &one), "the endpoint is nil");
  EXPECT_EQ(refusal(nil, tool->endpoint(), &one), "nobody can serve the name");
  EXPECT_EQ(refusal(std::string(limits::kMaximumNameBytes + 1, 'a'), tool->endpoint(), &one),
            "nobody can serve the name");
  EXPECT_EQ(standIns->count(), 0u);
}

}  // namespace velto
