// What waits for credit when the other end states its limits.
#include "platform/xpc/connection/OutgoingCalls.h"

#include <gtest/gtest.h>

namespace velto::xpc {
namespace {

const Method kMethod{};

void add(OutgoingCalls& calls, std::uint64_t identifier, std::size_t bytes) {
  OutgoingCall call;
  call.identifier = identifier;
  call.method = &kMethod;
  call.reply.block = [](const NSObject&) {};
  wire::Frame frame;
  frame.type = wire::FrameType::call;
  frame.body.resize(bytes);
  calls.add(std::move(call), std::move(frame));
}

TEST(OutgoingCalls, ThoseToWhichThereIsAnObjectionAreTakenOutInOrderAndTheOthersStay) {
  OutgoingCalls calls;
  for (const std::uint64_t identifier : {1U, 2U, 3U, 4U}) add(calls, identifier, 10 * identifier);
  const auto refused = calls.takeRefused(
      [](const wire::Frame& frame) { return frame.body.size() % 20 == 0 ? std::string("no") : std::string(); });
  ASSERT_EQ(refused.size(), 2U);
  EXPECT_EQ(refused[0].call.identifier, 2U);
  EXPECT_EQ(refused[1].call.identifier, 4U);
  EXPECT_EQ(refused[1].objection, "no");
  EXPECT_EQ(calls.waitingBytes(), 40U);
  EXPECT_EQ(calls.pendingReplies(), 2U);
  EXPECT_EQ(calls.takeSendable()->identifier, 1U);
  EXPECT_EQ(calls.takeSendable()->identifier, 3U);
  EXPECT_FALSE(calls.takeSendable());
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
  EXPECT_EQ(calls.windowBytes(), limits::kUndeliveredBytes);
  EXPECT_EQ(calls.windowCalls(), limits::kUndeliveredCalls);
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
    wire::Frame frame;
    frame.body.resize(10);
    calls.add(std::move(call), std::move(frame));
    calls.takeSendable();
    calls.sent(identifier, identifier);
  }
  EXPECT_TRUE(calls.creditArrived({.bytes = 10, .calls = 1}));
  EXPECT_TRUE(calls.takeAllUnsettled(2).empty());
  EXPECT_EQ(held.use_count(), 3);
  EXPECT_EQ(calls.takeForgotten().size(), 2U);
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace velto::xpc
