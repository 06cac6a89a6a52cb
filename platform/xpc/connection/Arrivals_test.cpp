// What is kept until its turn, what is given back for it, and what is too much.
#include "platform/xpc/connection/Arrivals.h"

#include <gtest/gtest.h>

#include "platform/xpc/testing/Greeter.h"
#include "platform/xpc/testing/WireTesting.h"
#include "platform/xpc/wire/Messages.h"
#include "platform/xpc/wire/SharedMemory.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::xpc {
namespace {

struct Hasty {
  void walk() {}
  void hurry() {}
};

}  // namespace

template <>
const Protocol& protocolOf<Hasty>() {
  static const Protocol& table =
      *new Protocol("Hasty", {method<&Hasty::walk>("walk", Requirement::required, Way::oneWay),
                              method<&Hasty::hurry>("hurry", Requirement::required, Way::prompt)});
  return table;
}

namespace {

using testing::Greeter;
using testing::TestGreeter;

wire::Frame frameOf(std::size_t bytes, std::size_t descriptors = 0) {
  wire::Frame frame;
  frame.type = wire::FrameType::call;
  frame.body.resize(bytes);
  frame.descriptors.resize(descriptors);
  return frame;
}

OutgoingCall numbered(std::uint64_t identifier) {
  OutgoingCall call;
  call.identifier = identifier;
  return call;
}

// What arrives is kept, and nothing is wrong with it.
void expectKept(Arrivals& arrivals, wire::Frame frame) {
  const auto arrival = arrivals.callArrived(std::move(frame));
  EXPECT_TRUE(arrival.isKept);
  EXPECT_EQ(arrival.offence, "");
}

// Takes the next call and has done with it.
std::size_t deliverOne(Arrivals& arrivals) {
  const auto turn = arrivals.takeCall();
  if (!turn) return 0;
  arrivals.dealtWith(Arrivals::sizeOf(turn->frame), false);
  return turn->frame.size();
}

TEST(Arrivals, CallsHaveTheirTurnsInTheOrderInWhichTheyCame) {
  Arrivals arrivals;
  for (const std::size_t bytes : {1U, 2U, 3U}) expectKept(arrivals, frameOf(bytes));
  EXPECT_EQ(arrivals.waitingCalls(), 3U);
  for (const std::size_t bytes : {1U, 2U, 3U}) EXPECT_EQ(deliverOne(arrivals), bytes);
  EXPECT_FALSE(arrivals.takeCall());
}

wire::Frame callOf(const char* selector) {
  wire::ValueEncoder encoder(wire::FrameType::call);
  wire::encodeCallHeader(encoder, {1, selector, false});
  return encoder.take();
}

TEST(Arrivals, APromptCallDoesNotWaitUnlessOneBeforeItHasNotBeenDealtWith) {
  Arrivals arrivals;
  auto interface = NSXPCInterface::interfaceWithProtocol<Hasty>();
  arrivals.swapInterface(interface);
  const auto hurries = [&] {
    expectKept(arrivals, callOf("hurry"));
    const auto turn = arrivals.takeAhead();
    if (turn) arrivals.dealtWith(Arrivals::sizeOf(*turn), false);
    return turn.has_value();
  };
  EXPECT_TRUE(hurries());
  EXPECT_TRUE(hurries());
  expectKept(arrivals, callOf("walk"));
  EXPECT_FALSE(arrivals.takeAhead());
  const auto running = arrivals.takeCall();
  EXPECT_FALSE(hurries()) << "one still runs";
  arrivals.dealtWith(Arrivals::sizeOf(*running), false);
  EXPECT_FALSE(hurries()) << "another waits";
  while (deliverOne(arrivals) > 0) continue;
  EXPECT_TRUE(hurries());
}

TEST(Arrivals, OfThoseThatCameBeforeAnybodyAskedTheFirstPromptOnesAreToBeHadAtOnce) {
  Arrivals arrivals;
  for (const char* selector : {"hurry", "hurry", "walk", "hurry"}) expectKept(arrivals, callOf(selector));
  EXPECT_FALSE(arrivals.takePrompt()) << "nobody knows yet what is prompt";
  auto interface = NSXPCInterface::interfaceWithProtocol<Hasty>();
  arrivals.swapInterface(interface);
  EXPECT_TRUE(arrivals.takePrompt());
  EXPECT_TRUE(arrivals.takePrompt());
  EXPECT_FALSE(arrivals.takePrompt());
  EXPECT_EQ(arrivals.waitingCalls(), 2U);
}

TEST(Arrivals, ACallIsDeliveredToAnObjectOfTheInterfacesProtocolOrToNone) {
  Arrivals arrivals;
  for (int count = 0; count < 3; ++count) expectKept(arrivals, frameOf(1));
  const auto interface = NSXPCInterface::interfaceWithProtocol<Greeter>();
  const auto greeter = std::make_shared<TestGreeter>();
  auto swappedInterface = interface;
  arrivals.swapInterface(swappedInterface);
  EXPECT_FALSE(arrivals.takeCall()->interface);

  const Protocol other("Other", {});
  std::shared_ptr<void> swapped = greeter;
  arrivals.swapObject(other, swapped);
  EXPECT_FALSE(arrivals.takeCall()->object);

  swapped = greeter;
  arrivals.swapObject(protocolOf<Greeter>(), swapped);
  EXPECT_EQ(swapped, greeter);
  const auto turn = arrivals.takeCall();
  EXPECT_EQ(turn->interface, interface);
  EXPECT_EQ(turn->object, greeter);
  EXPECT_EQ(arrivals.takeObject(), greeter);
  EXPECT_FALSE(arrivals.takeObject());
}

TEST(Arrivals, AsManyCallsAsTheCreditAllowsAreKeptAndWithOneMoreNone) {
  Arrivals arrivals;
  for (std::size_t count = 0; count < limits::kUndeliveredCalls; ++count) expectKept(arrivals, frameOf(1));
  const auto arrival = arrivals.callArrived(frameOf(1));
  EXPECT_FALSE(arrival.isKept);
  EXPECT_EQ(arrival.offence, "undelivered calls: 4097, the maximum is 4096");
  EXPECT_TRUE(arrivals.isEmpty());
  EXPECT_EQ(arrivals.heldByCalls(), 0U);
}

TEST(Arrivals, AsManyBytesAsTheCreditAllowsAreKeptAndWithOneMoreNone) {
  Arrivals arrivals;
  expectKept(arrivals, frameOf(limits::kUndeliveredBytes / 2));
  expectKept(arrivals, frameOf(limits::kUndeliveredBytes / 2));
  const auto arrival = arrivals.callArrived(frameOf(1));
  EXPECT_EQ(arrival.offence, "bytes of undelivered calls: 33554433, the maximum is 33554432");
  EXPECT_TRUE(arrivals.isEmpty());
}

// The credit is the sender's until the call has been dealt with, not until its turn comes.
TEST(Arrivals, ACallCountsUntilItHasBeenDealtWith) {
  Arrivals arrivals;
  expectKept(arrivals, frameOf(100));
  const std::size_t held = arrivals.heldByCalls();
  EXPECT_GT(held, 100U);
  const auto turn = arrivals.takeCall();
  EXPECT_EQ(arrivals.heldByCalls(), held);
  arrivals.dealtWith(Arrivals::sizeOf(turn->frame), false);
  EXPECT_EQ(arrivals.heldByCalls(), 0U);
}

TEST(Arrivals, CreditIsGivenBackOnceItIsAQuarterOfTheWhole) {
  Arrivals arrivals;
  for (std::size_t count = 0; count < limits::kUndeliveredCalls / 4; ++count) {
    EXPECT_FALSE(arrivals.takeCredit(0));
    expectKept(arrivals, frameOf(2));
    deliverOne(arrivals);
  }
  // Not to an end that does not read.
  EXPECT_FALSE(arrivals.takeCredit(limits::kWaitingBytes / 4 + 1));
  const auto credit = arrivals.takeCredit(limits::kWaitingBytes / 4);
  ASSERT_TRUE(credit);
  EXPECT_EQ(credit->calls, limits::kUndeliveredCalls / 4);
  EXPECT_EQ(credit->bytes, limits::kUndeliveredCalls / 2);
  EXPECT_FALSE(arrivals.takeCredit(0));

  expectKept(arrivals, frameOf(limits::kUndeliveredBytes / 4));
  deliverOne(arrivals);
  EXPECT_EQ(arrivals.takeCredit(0)->calls, 1U);
}

TEST(Arrivals, ACallIsOwedAReplyUntilItIsDealtWithWithoutOneOrItsReplyIsSettled) {
  Arrivals arrivals;
  for (int count = 0; count < 4; ++count) expectKept(arrivals, frameOf(1));
  EXPECT_EQ(arrivals.takeCall()->owedReplies, 1U);
  arrivals.dealtWith({1, 0}, false);
  EXPECT_EQ(arrivals.takeCall()->owedReplies, 1U);
  arrivals.dealtWith({1, 0}, true);
  EXPECT_EQ(arrivals.takeCall()->owedReplies, 2U);
  arrivals.dealtWith({1, 0}, true);
  arrivals.replySettled();
  arrivals.replySettled();
  EXPECT_EQ(arrivals.takeCall()->owedReplies, 1U);
}

TEST(Arrivals, DescriptorsThatNobodyClaimsAreLetGoOfOnceThatIsKnown) {
  Arrivals arrivals;
  expectKept(arrivals, frameOf(1, 3));
  EXPECT_EQ(arrivals.heldDescriptors(), 3U);
  EXPECT_EQ(arrivals.learnClaimable(0), 0U);
  EXPECT_EQ(arrivals.heldDescriptors(), 0U);
  expectKept(arrivals, frameOf(1, 3));
  EXPECT_EQ(arrivals.heldDescriptors(), 0U);
  wire::Frame reply = frameOf(1, 3);
  EXPECT_EQ(arrivals.keepClaimable(reply), "");
  EXPECT_TRUE(reply.descriptors.empty());
}

TEST(Arrivals, AsManyDescriptorsAsOneMethodTakesMayComeAndOneMoreIsAnOffence) {
  Arrivals arrivals;
  auto interface = NSXPCInterface::interfaceWithProtocol<Greeter>();
  arrivals.swapInterface(interface);
  EXPECT_EQ(arrivals.learnClaimable(4), 4U);
  expectKept(arrivals, frameOf(1, 2));
  EXPECT_EQ(arrivals.callArrived(frameOf(1, 3)).offence, "a call with more descriptors than any method takes");
  wire::Frame reply = frameOf(1, 4);
  EXPECT_EQ(arrivals.keepClaimable(reply), "");
  reply.descriptors.resize(5);
  EXPECT_EQ(arrivals.keepClaimable(reply), "more descriptors than any method takes");
}

wire::Frame frameWithRegion(std::size_t bytes, std::size_t declared) {
  std::string reason;
  wire::Frame frame = frameOf(10);
  frame.descriptors.push_back(wire::makeRegion(std::vector<std::uint8_t>(bytes), reason));
  frame.regions = wire::sizeOfRegions(declared);
  return frame;
}

TEST(Arrivals, RegionsCountForAnEighthUntilTheirCallHasBeenDealtWith) {
  Arrivals arrivals;
  expectKept(arrivals, frameWithRegion(1 << 20, 1 << 20));
  EXPECT_GE(arrivals.heldByCalls(), 10U + (1U << 17));
  EXPECT_EQ(arrivals.heldDescriptors(), 1U);
  // What is over the credit counts as well.
  wire::Frame greatest = frameWithRegion(1 << 20, limits::kMaximumRegionBytes);
  expectKept(arrivals, std::move(greatest));
  EXPECT_GE(arrivals.heldByCalls(), limits::kMaximumRegionBytes / limits::kRegionBytesPerByte);
  deliverOne(arrivals);
  deliverOne(arrivals);
  EXPECT_EQ(arrivals.heldByCalls(), 0U);
  EXPECT_EQ(arrivals.heldDescriptors(), 0U);
  const auto credit = arrivals.takeCredit(0);
  ASSERT_TRUE(credit);
  EXPECT_EQ(credit->bytes, 10 + (1U << 17) + limits::kMaximumFrameBytes);
}

TEST(Arrivals, AsManyBytesInRegionsAsTheCreditAllowsAreKeptAndMoreIsAnOffence) {
  Arrivals arrivals;
  const auto next = [] { return frameWithRegion(limits::kLeastRegionBytes, limits::kMaximumRegionBytes); };
  expectKept(arrivals, next());
  expectKept(arrivals, next());
  EXPECT_EQ(arrivals.callArrived(next()).offence,
            "bytes of undelivered calls: 50331648, the maximum is " + std::to_string(limits::kUndeliveredBytes));
  EXPECT_EQ(arrivals.heldDescriptors(), 0U);
}

TEST(Arrivals, RegionsOfRepliesAreBoundedLikeTheirBytes) {
  Arrivals arrivals;
  const auto next = [] { return frameWithRegion(limits::kLeastRegionBytes, limits::kMaximumRegionBytes); };
  EXPECT_EQ(arrivals.replyArrived(numbered(1), next()), "");
  EXPECT_NE(arrivals.replyArrived(numbered(2), next()), "");
  EXPECT_GE(arrivals.heldByReplies(), 2 * limits::kMaximumRegionBytes / limits::kRegionBytesPerByte);
  arrivals.takeReply();
  arrivals.takeReply();
  EXPECT_EQ(arrivals.heldByReplies(), 0U);
}

TEST(Arrivals, RegionsThatAreNotWhatTheirFrameSaysAreAnOffenceAndLetGoOf) {
  Arrivals arrivals;
  EXPECT_TRUE(arrivals.callArrived(frameWithRegion(1 << 20, 1 << 19)).offence.starts_with("a call with bytes of a"));
  wire::Frame withOther = frameWithRegion(1 << 20, 1 << 20);
  withOther.descriptors.resize(2);
  auto interface = NSXPCInterface::interfaceWithProtocol<Greeter>();
  arrivals.swapInterface(interface);
  arrivals.learnClaimable(0);
  EXPECT_EQ(arrivals.heldDescriptors(), 0U);
  withOther.descriptors.resize(4);
  EXPECT_EQ(arrivals.callArrived(std::move(withOther)).offence, "a call with more descriptors than any method takes");
  EXPECT_EQ(arrivals.heldDescriptors(), 0U);
}

TEST(Arrivals, RegionsThatNoInterfaceAsksForAreLetGoOf) {
  Arrivals arrivals;
  arrivals.learnClaimable(0, false);
  expectKept(arrivals, frameWithRegion(1 << 20, 1 << 20));
  EXPECT_EQ(arrivals.heldDescriptors(), 0U);
  wire::Frame reply = frameWithRegion(1 << 20, 1 << 20);
  EXPECT_EQ(arrivals.keepClaimable(reply), "");
  EXPECT_TRUE(reply.descriptors.empty());
  EXPECT_EQ(arrivals.takeDropped().size(), 2U);
  arrivals.learnClaimable(0, true);
  reply = frameWithRegion(1 << 20, 1 << 20);
  EXPECT_EQ(arrivals.keepClaimable(reply), "");
  EXPECT_EQ(reply.descriptors.size(), 1U);
}

TEST(Arrivals, OfRegionsThatNoInterfaceAsksForOnlyTheOtherDescriptorsCount) {
  Arrivals arrivals;
  arrivals.learnClaimable(1, false);
  wire::Frame reply = frameWithRegion(1 << 20, 1 << 20);
  reply.descriptors.push_back(wire::testing::newPipe());
  EXPECT_EQ(arrivals.keepClaimable(reply), "");
  ASSERT_EQ(reply.descriptors.size(), 2U);
  EXPECT_FALSE(reply.descriptors[0]);
  EXPECT_TRUE(reply.descriptors[1]);
  reply.descriptors.push_back(wire::testing::newPipe());
  EXPECT_EQ(arrivals.keepClaimable(reply), "more descriptors than any method takes");
}

TEST(Arrivals, RepliesHaveTheirTurnsInTheOrderInWhichTheyCame) {
  Arrivals arrivals;
  EXPECT_EQ(arrivals.replyArrived(numbered(1), frameOf(10, 2)), "");
  EXPECT_EQ(arrivals.replyArrived(numbered(2), frameOf(20)), "");
  EXPECT_EQ(arrivals.heldDescriptors(), 2U);
  const Arrivals::Reply first = arrivals.takeReply();
  EXPECT_EQ(first.call.identifier, 1U);
  EXPECT_EQ(first.frame->size(), 10U);
  EXPECT_EQ(arrivals.takeReply().call.identifier, 2U);
  EXPECT_TRUE(arrivals.isEmpty());
  EXPECT_EQ(arrivals.heldByReplies(), 0U);
  EXPECT_EQ(arrivals.heldDescriptors(), 0U);
}

TEST(Arrivals, MoreBytesOfRepliesThanMayBeKeptAreAnOffence) {
  Arrivals arrivals;
  for (std::size_t bytes = 0; bytes < limits::kUndeliveredReplyBytes; bytes += limits::kUndeliveredReplyBytes / 16) {
    EXPECT_EQ(arrivals.replyArrived(numbered(1), frameOf(limits::kUndeliveredReplyBytes / 16)), "");
  }
  EXPECT_EQ(arrivals.replyArrived(numbered(2), frameOf(1)),
            "bytes of undelivered replies: 268435457, the maximum is 268435456");
}

TEST(Arrivals, AfterSilenceNothingIsLookedAt) {
  Arrivals arrivals;
  arrivals.silence();
  const auto arrival = arrivals.callArrived(frameOf(limits::kUndeliveredBytes + 1));
  EXPECT_FALSE(arrival.isKept);
  EXPECT_EQ(arrival.offence, "");
  EXPECT_TRUE(arrivals.isEmpty());
}

// The calls of this end are told that their replies are lost, so they stay.
TEST(Arrivals, WhatIsDroppedIsCalledAndTheBytesOfReplies) {
  Arrivals arrivals;
  expectKept(arrivals, frameOf(10, 1));
  arrivals.replyArrived(numbered(1), frameOf(20, 2));
  EXPECT_EQ(arrivals.dropAll(), 2U);
  EXPECT_EQ(arrivals.heldByCalls(), 0U);
  EXPECT_EQ(arrivals.heldDescriptors(), 0U);
  EXPECT_FALSE(arrivals.takeCall());
  const Arrivals::Reply reply = arrivals.takeReply();
  EXPECT_EQ(reply.call.identifier, 1U);
  EXPECT_FALSE(reply.frame);
}

TEST(Arrivals, AreStuckWhenMuchOfThemHasHadNoTurnSinceTheLastLook) {
  Arrivals arrivals;
  expectKept(arrivals, frameOf(limits::kLeftoverBytes));
  arrivals.look();
  EXPECT_FALSE(arrivals.isStuck());
  expectKept(arrivals, frameOf(1));
  EXPECT_TRUE(arrivals.isStuck());
  const auto turn = arrivals.takeCall();
  EXPECT_FALSE(arrivals.isStuck());
  arrivals.look();
  EXPECT_TRUE(arrivals.isStuck());
  arrivals.dealtWith(Arrivals::sizeOf(turn->frame), false);
  EXPECT_FALSE(arrivals.isStuck());
  expectKept(arrivals, frameOf(1, 1));
  EXPECT_TRUE(arrivals.isStuck());
}

}  // namespace
}  // namespace velto::xpc
