// What waits for credit when the other end states its limits, and what is not kept at all.
#include "platform/xpc/connection/OutgoingCalls.h"

#include <gtest/gtest.h>

#include "platform/xpc/testing/Greeter.h"

namespace velto::xpc {
namespace {

const Method kMethod{};

wire::Frame callOf(std::size_t bytes) {
  wire::Frame frame;
  frame.type = wire::FrameType::call;
  frame.body.resize(bytes);
  return frame;
}

void add(OutgoingCalls& calls, std::uint64_t identifier, std::size_t bytes) {
  OutgoingCall call;
  call.identifier = identifier;
  call.method = &kMethod;
  call.reply.block = [](const NSObject&) {};
  calls.add(std::move(call), callOf(bytes));
}

std::string textOf(const NSError& error) {
  return error.localizedDescription().string();
}

TEST(OutgoingCalls, ThoseThatAreOverWhatTheOtherEndStatesAreTakenOutInOrderAndTheOthersStay) {
  OutgoingCalls calls;
  add(calls, 1, 10);
  add(calls, 2, 31);
  add(calls, 3, 30);
  add(calls, 4, 40);
  wire::Hello hello = wire::Hello::ours();
  hello.maximumFrameBytes = 30;
  const auto refused = calls.helloArrived(hello);
  ASSERT_EQ(refused.size(), 2U);
  EXPECT_EQ(refused[0].call.identifier, 2U);
  EXPECT_EQ(refused[1].call.identifier, 4U);
  EXPECT_EQ(refused[1].objection, "bytes of a frame to this peer: 40, the maximum is 30");
  EXPECT_EQ(calls.waitingBytes(), 40U);
  EXPECT_GT(calls.heldByWaiting(), 40U + 2 * sizeof(OutgoingCall));
  EXPECT_EQ(calls.pendingReplies(), 2U);
  EXPECT_EQ(calls.takeSendable()->identifier, 1U);
  EXPECT_EQ(calls.takeSendable()->identifier, 3U);
  EXPECT_FALSE(calls.takeSendable());
}

void addWithRegions(OutgoingCalls& calls, std::uint64_t identifier, std::uint8_t regions) {
  OutgoingCall call;
  call.identifier = identifier;
  call.method = &kMethod;
  wire::Frame frame = callOf(10);
  frame.regions = regions;
  calls.add(std::move(call), std::move(frame));
}

TEST(OutgoingCalls, WithRegionsWaitUntilTheOtherEndHasSaidThatItTakesThem) {
  OutgoingCalls calls;
  addWithRegions(calls, 1, 20);
  add(calls, 2, 10);
  EXPECT_FALSE(calls.peerTakesRegions());
  EXPECT_FALSE(calls.takeSendable());
  EXPECT_EQ(calls.waitingBytes(), 20U + (1U << 17));
  EXPECT_TRUE(calls.helloArrived(wire::Hello::ours()).empty());
  EXPECT_TRUE(calls.peerTakesRegions());
  EXPECT_EQ(calls.takeSendable()->identifier, 1U);
  EXPECT_EQ(calls.takeSendable()->identifier, 2U);
  EXPECT_EQ(calls.waitingBytes(), 0U);
  EXPECT_TRUE(calls.creditArrived({.bytes = 20 + (1U << 17), .calls = 2}));
}

TEST(OutgoingCalls, WithRegionsAreRefusedToAnEndThatTakesNoneOrFewer) {
  OutgoingCalls calls;
  addWithRegions(calls, 1, 24);
  wire::Hello hello = wire::Hello::ours();
  hello.maximumFrameBytes = limits::kMaximumFrameBytes;
  const auto refused = calls.helloArrived(hello);
  ASSERT_EQ(refused.size(), 1U);
  EXPECT_EQ(refused[0].objection, "bytes of a frame with its data to this peer: 16777226, the maximum is 16777216");
  EXPECT_EQ(calls.waitingBytes(), 0U);
  hello.maximumFrameBytes += limits::kMaximumFrameBytes;
  calls.helloArrived(hello);
  wire::Frame frame = callOf(1);
  frame.regions = 24;
  EXPECT_EQ(calls.overPeerLimits(frame), "");
  frame.regions = 25;
  EXPECT_NE(calls.overPeerLimits(frame), "");
}

TEST(OutgoingCalls, RegionsTakeCreditButNoMoreThanAGreatestFrame) {
  OutgoingCalls calls;
  calls.helloArrived(wire::Hello::ours());
  for (const std::uint64_t identifier : {1U, 2U, 3U}) addWithRegions(calls, identifier, 30);
  EXPECT_TRUE(calls.takeSendable());
  EXPECT_TRUE(calls.takeSendable());
  EXPECT_FALSE(calls.takeSendable());
  EXPECT_TRUE(calls.creditArrived({.bytes = limits::kMaximumFrameBytes, .calls = 1}));
  EXPECT_TRUE(calls.takeSendable());
}

TEST(OutgoingCalls, OneCallWithRegionsCanAlwaysWaitAndAnotherIsRefused) {
  OutgoingCalls calls;
  wire::Frame frame = callOf(10);
  frame.regions = 30;
  EXPECT_TRUE(calls.refusalToKeep(frame, false, 0).isNil());
  addWithRegions(calls, 1, 30);
  EXPECT_TRUE(textOf(calls.refusalToKeep(frame, false, 0)).find("bytes that wait to be sent: 268435476") !=
              std::string::npos);
  calls.helloArrived(wire::Hello::ours());
  EXPECT_TRUE(calls.takeSendable());
  EXPECT_TRUE(calls.refusalToKeep(frame, false, 0).isNil());
  EXPECT_FALSE(calls.refusalToKeep(frame, false, limits::kWaitingBytes).isNil());
}

TEST(OutgoingCalls, RegionsOfRepliesThatTheOtherEndHasNotReadAreBounded) {
  OutgoingCalls calls;
  wire::Frame reply = callOf(10);
  reply.type = wire::FrameType::reply;
  reply.regions = 30;
  EXPECT_EQ(calls.overUnread(reply), "");
  calls.replySent(reply.regionWeight());
  EXPECT_NE(calls.overUnread(reply), "");
  EXPECT_EQ(calls.roomForRegions(), 0U);
  EXPECT_GE(calls.heldByWaiting(), reply.regionWeight());
  EXPECT_EQ(calls.overUnread(callOf(10)), "");
  EXPECT_FALSE(calls.creditArrived({.bytes = reply.regionWeight() + 1, .calls = 0}));
  EXPECT_TRUE(calls.creditArrived({.bytes = reply.regionWeight(), .calls = 0}));
  EXPECT_EQ(calls.overUnread(reply), "");
  EXPECT_FALSE(calls.creditArrived({.bytes = 1, .calls = 0}));
  EXPECT_EQ(calls.roomForRegions(), limits::kMaximumRegionBytes);
  // What is left after a few is what goes, rounded as a header rounds it.
  calls.replySent(limits::kWaitingBytes / 4);
  reply.regions = 28;
  EXPECT_EQ(calls.roomForRegions(), std::size_t{1} << reply.regions);
  EXPECT_EQ(calls.overUnread(reply), "");
}

TEST(OutgoingCalls, GoOutUpToTheCreditThatTheOtherEndHasStated) {
  OutgoingCalls calls;
  wire::Hello hello = wire::Hello::ours();
  hello.undeliveredBytes = 30;
  hello.undeliveredCalls = 2;
  calls.helloArrived(hello);
  for (const std::uint64_t identifier : {1U, 2U, 3U}) add(calls, identifier, 10);
  EXPECT_EQ(calls.takeSendable()->identifier, 1U);
  EXPECT_EQ(calls.takeSendable()->identifier, 2U);
  EXPECT_FALSE(calls.takeSendable());
  EXPECT_TRUE(calls.creditArrived({.bytes = 10, .calls = 1}));
  EXPECT_EQ(calls.takeSendable()->identifier, 3U);
}

// As much as this end would allow is believed, and no more.
TEST(OutgoingCalls, ACreditWithoutEndIsWhatThisEndWouldAllow) {
  OutgoingCalls calls;
  wire::Hello hello = wire::Hello::ours();
  hello.undeliveredBytes = UINT64_MAX;
  hello.undeliveredCalls = UINT64_MAX;
  calls.helloArrived(hello);
  constexpr std::size_t kLargest = limits::kMaximumFrameBytes;
  for (std::uint64_t number = 0; number <= limits::kUndeliveredBytes / kLargest; ++number) add(calls, number, kLargest);
  for (std::size_t left = limits::kUndeliveredBytes / kLargest; left > 0; --left) EXPECT_TRUE(calls.takeSendable());
  EXPECT_FALSE(calls.takeSendable());
  OutgoingCalls small;
  small.helloArrived(hello);
  for (std::uint64_t number = 0; number <= limits::kUndeliveredCalls; ++number) add(small, number, 1);
  for (std::size_t left = limits::kUndeliveredCalls; left > 0; --left) EXPECT_TRUE(small.takeSendable());
  EXPECT_FALSE(small.takeSendable());
}

// Nobody keeps them.
TEST(OutgoingCalls, ThatRunAheadPassThoseThatWaitForCreditAndAreSettledByThemselves) {
  Method ahead;
  ahead.way = Way::ahead;
  OutgoingCalls calls;
  wire::Hello hello = wire::Hello::ours();
  hello.undeliveredCalls = 1;
  calls.helloArrived(hello);
  add(calls, 1, 10);
  add(calls, 2, 20);
  EXPECT_EQ(calls.takeSendable()->identifier, 1U);
  EXPECT_FALSE(calls.takeSendable());
  for (const std::uint64_t identifier : {3U, 4U}) calls.add({identifier, &ahead, {}, nullptr, 0}, callOf(30));
  EXPECT_EQ(calls.takeSendable()->identifier, 3U);
  EXPECT_EQ(calls.takeSendable()->identifier, 4U);
  EXPECT_FALSE(calls.takeSendable());
  EXPECT_FALSE(calls.creditArrived({0, 0, 60, 3})) << "there were two";
  EXPECT_TRUE(calls.creditArrived({0, 0, 30, 1}));
  const auto forgotten = calls.takeForgotten();
  ASSERT_EQ(forgotten.size(), 1U);
  EXPECT_EQ(forgotten[0].identifier, 3U);
  EXPECT_FALSE(calls.takeSendable()) << "the other call waits for its own credit";
  EXPECT_TRUE(calls.creditArrived({10, 1, 30, 1}));
  EXPECT_EQ(calls.takeSendable()->identifier, 2U);
}

TEST(OutgoingCalls, ThatRunAheadAreSentNoFurtherThanTheLimitToWhoNeverSaysThatTheyAreDealtWith) {
  Method ahead;
  ahead.way = Way::ahead;
  OutgoingCalls calls;
  calls.helloArrived(wire::Hello::ours());
  for (std::uint64_t number = 0; number <= limits::kPendingReplies; ++number) {
    calls.add({number, &ahead, {}, nullptr, 0}, callOf(0));
  }
  for (std::size_t left = limits::kPendingReplies; left > 0; --left) ASSERT_TRUE(calls.takeSendable());
  EXPECT_FALSE(calls.takeSendable());
  EXPECT_TRUE(calls.creditArrived({0, 0, 0, 1}));
  EXPECT_EQ(calls.takeSendable()->identifier, limits::kPendingReplies);
}

TEST(OutgoingCalls, CreditThatWasNeverTakenIsNotGivenBack) {
  OutgoingCalls calls;
  add(calls, 1, 10);
  calls.takeSendable();
  EXPECT_FALSE(calls.creditArrived({.bytes = 10, .calls = 2}));
  EXPECT_FALSE(calls.creditArrived({.bytes = 9, .calls = 1}));
}

TEST(OutgoingCalls, AFrameIsOverWhatTheOtherEndHasStatedByOneByteOneDescriptorOrItsWindow) {
  OutgoingCalls calls;
  wire::Hello hello = wire::Hello::ours();
  hello.maximumFrameBytes = 20;
  hello.maximumDescriptors = 1;
  hello.undeliveredBytes = 15;
  calls.helloArrived(hello);
  wire::Frame reply = callOf(20);
  reply.type = wire::FrameType::reply;
  reply.descriptors.resize(1);
  EXPECT_EQ(calls.overPeerLimits(reply), "");
  reply.descriptors.resize(2);
  EXPECT_EQ(calls.overPeerLimits(reply), "descriptors of a frame to this peer: 2, the maximum is 1");
  EXPECT_EQ(calls.overPeerLimits(callOf(15)), "");
  EXPECT_EQ(calls.overPeerLimits(callOf(16)), "bytes of a call that this peer keeps: 16, the maximum is 15");
  EXPECT_EQ(calls.overPeerLimits(callOf(21)), "bytes of a frame to this peer: 21, the maximum is 20");
  hello.undeliveredCalls = 0;
  calls.helloArrived(hello);
  EXPECT_EQ(calls.overPeerLimits(callOf(1)), "calls that this peer keeps: 1, the maximum is 0");
}

TEST(OutgoingCalls, NoMoreBytesAreKeptThanMayWaitHereAndInTheChannelTogether) {
  OutgoingCalls calls;
  add(calls, 1, 10);
  const std::size_t room = limits::kWaitingBytes - 10;
  EXPECT_FALSE(calls.refusalToKeep(callOf(20), true, room - 20));
  const NSError refusal = calls.refusalToKeep(callOf(21), true, room - 20);
  EXPECT_EQ(refusal.code(), NSXPCLimitExceeded);
  EXPECT_EQ(textOf(refusal), "bytes that wait to be sent: 67108865, the maximum is 67108864");
}

TEST(OutgoingCalls, NoMoreThatWaitForRepliesAreKeptThanMayAndOneThatWantsNoneIs) {
  OutgoingCalls calls;
  for (std::uint64_t identifier = 1; identifier <= limits::kPendingReplies; ++identifier) add(calls, identifier, 1);
  const NSError refusal = calls.refusalToKeep(callOf(1), true, 0);
  EXPECT_EQ(textOf(refusal), "calls that wait for their replies: 65537, the maximum is 65536");
  EXPECT_FALSE(calls.refusalToKeep(callOf(1), false, 0));
  EXPECT_TRUE(calls.takeAwaitingReply(7));
  EXPECT_FALSE(calls.refusalToKeep(callOf(1), true, 0));
}

TEST(OutgoingCalls, AreFoundByTheirNumbersOnce) {
  OutgoingCalls calls;
  add(calls, 5, 10);
  EXPECT_FALSE(calls.takeAwaitingReply(4));
  EXPECT_EQ(calls.takeAwaitingReply(5)->identifier, 5U);
  EXPECT_FALSE(calls.takeAwaitingReply(5));
  EXPECT_EQ(calls.pendingReplies(), 0U);
}

// The other end may have the written ones; of the others it has heard nothing.
TEST(OutgoingCalls, AtTheEndThoseThatWaitForRepliesOrWereNeverWrittenAreUnsettled) {
  OutgoingCalls calls;
  for (const std::uint64_t identifier : {1U, 2U, 3U, 4U}) {
    OutgoingCall call;
    call.identifier = identifier;
    call.method = &kMethod;
    if (identifier == 1) call.reply.block = [](const NSObject&) {};
    calls.add(std::move(call), callOf(10));
    if (identifier == 4) break;
    calls.takeSendable();
    calls.sent(identifier, identifier);
  }
  const auto unsettled = calls.takeAllUnsettled(2);
  ASSERT_EQ(unsettled.size(), 3U);
  EXPECT_EQ(unsettled[0].identifier, 1U);
  EXPECT_EQ(unsettled[1].identifier, 3U);
  EXPECT_EQ(unsettled[2].identifier, 4U);
  EXPECT_EQ(calls.takeForgotten().size(), 1U);
  EXPECT_FALSE(calls.hasWaiting());
  EXPECT_EQ(calls.waitingBytes(), 0U);
}

// What a call holds is the user's: it must not be destroyed where the connection's lock is held.
TEST(OutgoingCalls, ThoseThatAreSettledByTheWayAreHandedOverToBeLetGoOf) {
  const auto held = std::make_shared<int>(0);
  OutgoingCalls calls;
  for (const std::uint64_t identifier : {1U, 2U}) {
    OutgoingCall call;
    call.identifier = identifier;
    call.method = &kMethod;
    call.errorHandler = std::make_shared<const std::function<void(NSError)>>([held](NSError) {});
    calls.add(std::move(call), callOf(10));
    calls.takeSendable();
    calls.sent(identifier, identifier);
  }
  EXPECT_TRUE(calls.creditArrived({.bytes = 10, .calls = 1}));
  EXPECT_TRUE(calls.takeAllUnsettled(2).empty());
  EXPECT_EQ(held.use_count(), 3);
  EXPECT_EQ(calls.takeForgotten().size(), 2U);
  EXPECT_EQ(held.use_count(), 1);
}

TEST(OutgoingCalls, TheInterfaceBeforeComesBackToBeLetGoOf) {
  OutgoingCalls calls;
  const auto first = NSXPCInterface::interfaceWithProtocol<testing::Greeter>();
  auto swapped = first;
  calls.swapInterface(swapped);
  EXPECT_FALSE(swapped);
  EXPECT_EQ(calls.interface(), first);
  calls.swapInterface(swapped);
  EXPECT_EQ(swapped, first);
  EXPECT_FALSE(calls.interface());
}

}  // namespace
}  // namespace velto::xpc
