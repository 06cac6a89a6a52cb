// How far a connection comes, and who is told of its end.
#include "platform/xpc/connection/ConnectionLife.h"

#include <string>

#include <gtest/gtest.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/interface/Errors.h"

namespace velto::xpc {
namespace {

using Telling = ConnectionLife::Telling;

Ending endingOf(const std::string& text, Ending::Cause cause = Ending::Cause::interruption) {
  return {makeError(NSXPCConnectionInterrupted, text), cause};
}

std::string sentenceOf(const NSError& error) {
  return error.localizedDescription().string();
}

TEST(ConnectionLife, GoesFromResumeOverAChannelToCalls) {
  ConnectionLife life({});
  EXPECT_FALSE(life.mayConnect());
  EXPECT_TRUE(life.resume({}));
  EXPECT_TRUE(life.mayConnect());
  EXPECT_FALSE(life.maySendCalls());
  life.channelOpened();
  EXPECT_TRUE(life.isOpen());
  EXPECT_TRUE(life.maySendCalls());
  EXPECT_FALSE(life.mayConnect());
  EXPECT_FALSE(life.resume({}));
}

TEST(ConnectionLife, SendsNoCallsOverAChannelBeforeItIsResumed) {
  ConnectionLife life({});
  life.channelOpened();
  EXPECT_TRUE(life.isOpen());
  EXPECT_FALSE(life.maySendCalls());
  life.resume({});
  EXPECT_TRUE(life.maySendCalls());
}

TEST(ConnectionLife, IsPatientForAsLongAsTheLimitSays) {
  ConnectionLife life({});
  const auto now = ConnectionLife::Clock::now();
  EXPECT_FALSE(life.isPatient(now));
  life.resume(now);
  EXPECT_TRUE(life.isPatient(now + limits::kConnectPatience - std::chrono::milliseconds(1)));
  EXPECT_FALSE(life.isPatient(now + limits::kConnectPatience));
}

TEST(ConnectionLife, HearsOneHelloAndItFirst) {
  ConnectionLife life({});
  EXPECT_EQ(life.disorder(true), "");
  EXPECT_EQ(life.disorder(false), "");
  EXPECT_EQ(life.disorder(true), "a second hello");
  ConnectionLife rude({});
  EXPECT_EQ(rude.disorder(false), "the first frame is not a hello");
}

TEST(ConnectionLife, ClosesWhenThereIsOrWillBeSomebodyToSayGoodbyeTo) {
  ConnectionLife idle({});
  idle.invalidate(false, makeError(NSXPCConnectionInvalid, "invalidated"));
  EXPECT_TRUE(idle.hasEnded());
  EXPECT_EQ(sentenceOf(idle.endError()), "invalidated");

  ConnectionLife connecting({});
  connecting.resume({});
  connecting.invalidate(false, nil);
  EXPECT_TRUE(connecting.isClosing());
  EXPECT_TRUE(connecting.mayConnect());
  connecting.channelOpened();
  EXPECT_TRUE(connecting.isClosing());
  connecting.finish();
  EXPECT_TRUE(connecting.hasEnded());

  ConnectionLife accepted({});
  accepted.channelOpened();
  accepted.invalidate(true, nil);
  EXPECT_TRUE(accepted.isClosing());
}

TEST(ConnectionLife, AnEndIsToldOnceAndLaterCallsAreToldTheSame) {
  ConnectionLife life({});
  life.resume({});
  life.channelOpened();
  EXPECT_EQ(life.end(endingOf("vanished")), Telling::now);
  EXPECT_TRUE(life.hasEnded());
  EXPECT_EQ(life.end(endingOf("again")), Telling::never);
  EXPECT_EQ(sentenceOf(life.endError()), "vanished");
}

TEST(ConnectionLife, AnEndBeforeResumeIsKeptForItAndTheFirstOfThemCounts) {
  ConnectionLife life({});
  life.channelOpened();
  EXPECT_EQ(life.end(endingOf("first")), Telling::later);
  EXPECT_EQ(life.end(endingOf("second")), Telling::never);
  EXPECT_FALSE(life.hasEnded());
  life.resume({});
  const auto kept = life.takeKeptEnding();
  ASSERT_TRUE(kept);
  EXPECT_EQ(sentenceOf(kept->error), "first");
  EXPECT_FALSE(life.takeKeptEnding());
  EXPECT_EQ(life.end(*kept), Telling::now);
}

// Who has invalidated it has been told.
TEST(ConnectionLife, AnEndDuringTheFarewellIsNotToldAndEndsIt) {
  ConnectionLife life({});
  life.resume({});
  life.channelOpened();
  life.invalidate(true, makeError(NSXPCConnectionInvalid, "invalidated"));
  EXPECT_EQ(life.end(endingOf("vanished")), Telling::never);
  EXPECT_TRUE(life.hasEnded());
  EXPECT_EQ(sentenceOf(life.endError()), "invalidated");
}

TEST(ConnectionLife, IsOverInGoodOrderWhenOneOfItsEndsWantedItSo) {
  using Cause = Ending::Cause;
  for (const Cause cause : {Cause::goodbye, Cause::unreachable, Cause::interruption}) {
    ConnectionLife life({});
    life.resume({});
    EXPECT_FALSE(life.isOverInGoodOrder());
    life.end(endingOf("left", cause));
    EXPECT_EQ(life.isOverInGoodOrder(), cause == Cause::goodbye);
  }
  ConnectionLife invalidated({});
  invalidated.invalidate(true, nil);
  EXPECT_TRUE(invalidated.isOverInGoodOrder());
  invalidated.end(endingOf("vanished"));
  EXPECT_TRUE(invalidated.isOverInGoodOrder());
}

TEST(ConnectionLife, HandlersAreTakenOnceAndTheOneBeforeComesBack) {
  ConnectionLife life({});
  std::string told;
  std::function<void()> handler = [&told] { told += "first "; };
  life.swapInterruptionHandler(handler);
  EXPECT_FALSE(handler);
  handler = [&told] { told += "second "; };
  life.swapInterruptionHandler(handler);
  handler();
  life.takeInterruptionHandler()();
  EXPECT_EQ(told, "first second ");
  EXPECT_FALSE(life.takeInterruptionHandler());
}

TEST(ConnectionLife, WhatIsLeftAtTheEndIsTakenOnce) {
  ConnectionLife life({[] {}, [](const std::shared_ptr<ConnectionCore>&) {}});
  std::function<void()> handler = [] {};
  life.swapInvalidationHandler(handler);
  handler = [] {};
  life.swapInterruptionHandler(handler);
  const auto left = life.takeLastWill();
  EXPECT_TRUE(left.invalidationHandler && left.interruptionHandler && left.hooks.called && left.hooks.accept);
  const auto nothing = life.takeLastWill();
  EXPECT_FALSE(nothing.invalidationHandler || nothing.interruptionHandler || nothing.hooks.called ||
               nothing.hooks.accept);
}

TEST(ConnectionLife, IsSilentFromItsAcceptanceToItsFirstCall) {
  ConnectionLife life({[] {}, [](const std::shared_ptr<ConnectionCore>&) {}});
  EXPECT_TRUE(life.isSilent());
  EXPECT_TRUE(life.takeAccept());
  EXPECT_FALSE(life.isSilent());
  EXPECT_TRUE(life.takeCalled());
  EXPECT_FALSE(life.takeCalled());
  EXPECT_FALSE(ConnectionLife({}).isSilent());
}

}  // namespace
}  // namespace velto::xpc
