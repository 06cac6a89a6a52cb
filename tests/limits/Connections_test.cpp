// How many connections may say nothing, how long, how long a farewell may take, and how many callbacks run at once.

#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/contract/Limits.h"
#include "tests/limits/Ends.h"
#include "tests/limits/RawEnd.h"
#include "tests/support/Census.h"

namespace velto::testing {
namespace {

using Connections = LimitTest;

TEST_F(Connections, AsManyMaySayNothingAsTheLimitAllowsAndWithOneMoreTheOldestGoes) {
  const auto service = Service::start();
  std::vector<RawEnd> silent;
  for (std::size_t count = 0; count < limits::kSilentConnections; ++count) {
    silent.push_back(RawEnd::connectedTo(service->endpoint()));
    silent.back().greet();
    // It has been accepted.
    ASSERT_TRUE(silent.back().next(wire::FrameType::hello)) << count;
  }
  EXPECT_TRUE(log.containing(0, "is cut off").empty()) << log.text();
  silent.push_back(RawEnd::connectedTo(service->endpoint()));
  EXPECT_TRUE(silent.front().isCutOff());
  EXPECT_TRUE(log.waitForContaining(0, "such connections: 257, the maximum is 256"));
  // One that calls counts no more; those behind the oldest can still do so.
  silent[1].send(callFrame(1, NSDictionary{{"first", "word"}}, true));
  EXPECT_TRUE(silent[1].next(wire::FrameType::reply));
  EXPECT_TRUE(Client(service->endpoint()).works());
  EXPECT_EQ(log.containing(0, "is cut off").size(), 1u) << log.text();
}

// Their first calls lie in their sockets before anybody accepts them.
TEST_F(Connections, ManyMoreThanTheLimitThatCallAtOnceAreAllServed) {
  const auto service = Service::start();
  const auto listener = NSXPCListener::anonymousListener();
  listener->setDelegate(service);
  std::vector<RawEnd> honest;
  for (std::size_t count = 0; count < limits::kSilentConnections + 100; ++count) {
    honest.push_back(RawEnd::connectedTo(listener->endpoint()));
    honest.back().greet();
    honest.back().send(callFrame(1, NSDictionary{{"first", "word"}}, true));
  }
  listener->resume();
  for (RawEnd& end : honest) EXPECT_TRUE(end.next(wire::FrameType::reply));
  EXPECT_TRUE(log.containing(0, "is cut off").empty()) << log.text();
  listener->invalidate();
}

// Takes as long as the limit is: the time is the kernel's.
TEST_F(Connections, OneThatSaysNothingForTooLongIsCutOffAndOthersAreNot) {
  const auto service = Service::start();
  RawEnd silent = RawEnd::connectedTo(service->endpoint());
  silent.greet();
  RawEnd speaking = RawEnd::connectedTo(service->endpoint());
  speaking.greet();
  speaking.send(callFrame(1, NSDictionary{{"first", "word"}}, true));
  ASSERT_TRUE(speaking.next(wire::FrameType::reply));
  EXPECT_TRUE(silent.isCutOff());
  EXPECT_TRUE(log.waitForContaining(0, "is cut off: milliseconds of silence: "));
  EXPECT_NE(log.containing(0, "milliseconds of silence").front().find("the maximum is 10000"), std::string::npos);
  speaking.send(callFrame(2, NSDictionary{{"second", "word"}}, true));
  EXPECT_TRUE(speaking.next(wire::FrameType::reply));
  EXPECT_TRUE(Client(service->endpoint()).works());
}

// The same for one that has called and never ends its next frame.
TEST_F(Connections, OneThatNeverFinishesAFrameIsCutOffAndOthersAreNot) {
  const auto service = Service::start();
  RawEnd halting = RawEnd::connectedTo(service->endpoint());
  halting.greet();
  halting.send(callFrame(1, NSDictionary{{"first", "word"}}, true));
  ASSERT_TRUE(halting.next(wire::FrameType::reply));
  halting.send(std::vector<std::uint8_t>{100, 0, 0, 0});
  RawEnd idle = RawEnd::connectedTo(service->endpoint());
  idle.greet();
  idle.send(callFrame(1, NSDictionary{{"first", "word"}}, true));
  ASSERT_TRUE(idle.next(wire::FrameType::reply));
  EXPECT_TRUE(halting.isCutOff());
  EXPECT_TRUE(log.waitForContaining(0, "a frame was begun more than 10000 ms ago"));
  idle.send(callFrame(2, NSDictionary{{"second", "word"}}, true));
  EXPECT_TRUE(idle.next(wire::FrameType::reply));
}

// What lies behind a callback that blocks is given back once its connection is over, but for what is little.
TEST_F(Connections, WhatOneHasLeftBehindABlockedCallbackIsDroppedUnlessItIsLittle) {
  constexpr std::size_t kCalls = 5;
  for (const std::size_t bytes : {limits::kLeftoverBytes / 10, limits::kLeftoverBytes}) {
    const auto service = Service::start();
    Gate gate;
    std::atomic<std::size_t> calls{0};
    service->exported->onMessage([gate, &calls](const NSDictionary&, const VeltoReplyHandler&) {
      if (++calls == 1) gate.wait();
    });
    const bool isMuch = bytes == limits::kLeftoverBytes;
    {
      RawEnd peer = RawEnd::connectedTo(service->endpoint());
      peer.greet();
      peer.send(callFrame(1, NSDictionary{{"first", "word"}}, false));
      ASSERT_TRUE(eventually([&] { return calls == 1; }));
      for (std::size_t call = 0; call < kCalls; ++call) peer.send(callFrame(2 + call, dataOf(bytes), false));
    }
    ASSERT_TRUE(!isMuch || log.waitForContaining(0, "5 calls and replies behind it are not delivered any more"));
    gate.open();
    EXPECT_TRUE(eventually([&] { return calls == (isMuch ? 1 : 1 + kCalls); })) << calls;
    service->waitForOne()->invalidate();
  }
  EXPECT_EQ(log.containing(0, "not delivered any more").size(), 1u);
}

// As long as the limit is, likewise.
TEST_F(Connections, AFarewellToOneThatDoesNotReadEndsAfterItsTimeAndToOneThatReadsArrives) {
  constexpr std::size_t kCalls = 20;
  for (const bool reads : {true, false}) {
    RawListener listener;
    Client client(listener.endpoint());
    RawEnd peer = listener.accept();
    peer.greet();
    for (std::size_t call = 0; call < kCalls; ++call) client.tell(dataOf(std::size_t{1} << 20));
    client.connection->invalidate();
    ASSERT_TRUE(reads || log.waitForContaining(0, "5000 ms ago, which is the maximum"));
    std::size_t calls = 0;
    bool goodbye = false;
    while (const auto frame = peer.next()) {
      calls += frame->type == wire::FrameType::call ? 1u : 0u;
      goodbye = goodbye || frame->type == wire::FrameType::goodbye;
    }
    EXPECT_EQ(goodbye, reads);
    EXPECT_EQ(calls == kCalls, reads) << calls;
  }
  EXPECT_EQ(log.containing(0, "which is the maximum").size(), 1u);
}

// Connections whose callbacks all wait at the same gate: as many run as there may be threads, but for the one that must
// go on reading; the rest wait for those.
TEST_F(Connections, CallbacksRunUpToTheMostThreadsAndTheOthersWaitTheirTurn) {
  constexpr std::size_t kMore = limits::kMaximumWorkers + 40;
  const auto service = Service::start();
  Gate gate;
  std::atomic<std::size_t> running{0};
  service->exported->onMessage([&](const NSDictionary& message, const VeltoReplyHandler& reply) {
    ++running;
    gate.wait();
    reply(message);
  });
  const std::size_t threads = runningThreads();
  std::vector<std::unique_ptr<Client>> clients;
  std::vector<std::future<NSDictionary>> answers;
  for (std::size_t count = 0; count < kMore; ++count) {
    clients.push_back(std::make_unique<Client>(service->endpoint()));
    answers.push_back(clients.back()->ask({{"number", count}}));
    // No more at once than may be silent.
    if (count % 100 == 99 && count < limits::kMaximumWorkers - 1) {
      ASSERT_TRUE(eventually([&] { return running == count + 1; })) << running;
    }
  }
  EXPECT_TRUE(eventually([&] { return running >= limits::kMaximumWorkers - 1; })) << running;
  EXPECT_LE(runningThreads(), threads + limits::kMaximumWorkers + limits::kReservedWorkers);
  EXPECT_LE(running, limits::kMaximumWorkers);
  gate.open();
  for (auto& answer : answers) EXPECT_TRUE(finish(answer));
  EXPECT_EQ(running, kMore);
  EXPECT_TRUE(clients.front()->works());
  clients.clear();
  EXPECT_TRUE(eventually([&] { return runningThreads() <= threads + limits::kSpareWorkers; })) << runningThreads();
}

TEST_F(Connections, ANameOfTheGreatestLengthIsServedAndALongerOneIsRefusedAtBothEnds) {
  const auto service = Service::start();
  const NSString longest(std::string(limits::kMaximumNameBytes, 'n'));
  const NSString tooLong(std::string(limits::kMaximumNameBytes + 1, 'n'));
  constexpr char kWhy[] = "the name has 256 bytes, the maximum is 255";
  NSError error;
  EXPECT_EQ(NSXPCListener::listenerWithServiceName(tooLong, &error), nullptr);
  expectRefusal(error, NSXPCConnectionInvalid, kWhy);
  const auto lost = NSXPCConnection::initWithServiceName(tooLong);
  lost->setRemoteObjectInterface(makePeerInterface());
  lost->resume();
  ProxyErrors errors;
  lost->remoteObjectProxyWithErrorHandler<VeltoCommunicationMessageProtocol>(errors.handler())
      ->call<&VeltoCommunicationMessageProtocol::ping>();
  expectRefusal(errors.waitForOne(), NSXPCConnectionInvalid, kWhy);

  const auto listener = NSXPCListener::listenerWithServiceName(longest, &error);
  ASSERT_TRUE(listener);
  listener->setDelegate(service);
  listener->resume();
  const auto connection = NSXPCConnection::initWithServiceName(longest);
  connection->setRemoteObjectInterface(makePeerInterface());
  connection->resume();
  const auto answer = std::make_shared<std::promise<NSDictionary>>();
  connection->remoteObjectProxyWithErrorHandler<VeltoCommunicationMessageProtocol>([](const NSError&) {})
      ->call<&VeltoCommunicationMessageProtocol::connectionID>(
          NSString("any"), NSDictionary{{"a", "b"}},
          VeltoReplyHandler([answer](const NSDictionary& reply) { answer->set_value(reply); }));
  auto reply = answer->get_future();
  EXPECT_EQ(finish(reply), NSDictionary({{"a", "b"}}));
  connection->invalidate();
}

}  // namespace
}  // namespace velto::testing
