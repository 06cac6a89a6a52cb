// The switch of the strict types, and what may travel without it.

#include "platform/foundation/NSSynchronized.h"
#include "platform/xpc/NSXPCError.h"
#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

using ListenerStrictTypes = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerStrictTypes, kArrangementsHere, printArrangement);

TEST_P(ListenerStrictTypes, CountAtOnceForTheListenersOwnSends) {
  PROVES("listener.strict.1", "a changed flag counts at once for the listener's own sends, both ways");
  const TwoEnds ends;
  ends.client.delegate->echo();
  const auto& listener = ends.server.listener;
  NSError error;
  EXPECT_FALSE(listener->sendMessage(messageWithDate(), ends.id, &error));
  expectError(error, 3, "SendMessage failed message type check");
  listener->setStrictMessageTypes(false);
  EXPECT_EQ(listener->sendMessageSync(messageWithDate(), ends.id, kLong), messageWithDate());
  listener->setStrictMessageTypes(true);
  error = nil;
  EXPECT_TRUE(listener->sendMessageSync(messageWithDate(), ends.id, kLong, &error).isNil());
  expectError(error, 3, "SendMessage failed message type check");
}

TEST_P(ListenerStrictTypes, ReachTheClientsThatConnectLaterOnly) {
  PROVES("listener.strict.2", "a client that is connected keeps the flag it was sent");
  PROVES("listener.strict.3", "a client that connects later gets the new flag");
  const TwoEnds ends;
  ends.server.delegate->echo();
  ends.server.listener->setStrictMessageTypes(false);
  ClientEnd later(kName);
  later.ready();
  EXPECT_EQ(later.connection->sendMessageSync(messageWithDate(), kLong), messageWithDate());
  NSError error;
  EXPECT_TRUE(ends.client.connection->sendMessageSync(messageWithDate(), kLong, &error).isNil());
  expectError(error, 3, "SendMessage failed message type check");
  ends.server.listener->setStrictMessageTypes(true);
  ClientEnd last(kName);
  last.ready();
  EXPECT_FALSE(last.connection->sendMessage(messageWithDate(), &error));
  EXPECT_EQ(later.connection->sendMessageSync(messageWithDate(), kLong), messageWithDate());
}

TEST_P(ListenerStrictTypes, ChangeWithoutALogLineOrALock) {
  PROVES("listener.strict.4", "changing the flag logs nothing and takes no lock");
  const ListenerEnd server(kName);
  log.clear();
  NSSynchronized lock(server.listener->connectionConditions());
  auto call = inBackground([&] {
    server.listener->setStrictMessageTypes(false);
    return true;
  });
  EXPECT_TRUE(finish(call));
  EXPECT_EQ(linesOfEnds(), Lines{});
}

using ListenerWire = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerWire, kArrangementsHere, printArrangement);

TEST_P(ListenerWire, AdmitsAnAnchorInAClientsMessage) {
  PROVES("listener.wire.1", "a message from a client that is not strict may hold a VKTLogAnchor");
  const TwoEnds ends(ListenerEnd::Types::any);
  ends.server.delegate->onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    const VKTLogAnchor anchor = message["anchor"].as<VKTLogAnchor>();
    reply({{"file", anchor.file()}, {"line", anchor.line()}});
  });
  NSError error;
  const NSDictionary reply = ends.client.connection->sendMessageSync(messageWithAnchor(), kLong, &error);
  EXPECT_EQ(reply, (NSDictionary{{"file", "somewhere.cpp"}, {"line", 7}})) << error.description().view();
  EXPECT_TRUE(ends.server.delegate->errors().empty());
  EXPECT_TRUE(ends.client.delegate->errors().empty());
}

TEST_P(ListenerWire, RefusesAnAnchorInAClientsReply) {
  PROVES("listener.wire.3",
         "a client's reply that holds a VKTLogAnchor is refused: the delegate hears the platform's error with the "
         "identifier, and the handler is not called");
  const TwoEnds ends(ListenerEnd::Types::any);
  ends.client.delegate->onMessage(
      [](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) { reply(messageWithAnchor()); });
  const HandlerProbe probe;
  EXPECT_TRUE(ends.server.listener->sendMessage(plainMessage(), ends.id, nullptr, probe.handler()));
  ASSERT_TRUE(ends.server.delegate->waitForErrors(1));
  const Event event = ends.server.delegate->errors().front();
  EXPECT_EQ(event.connectionID, ends.id);
  expectPlatformError(event.error, NSXPCReplyRefused);
  EXPECT_TRUE(eventually([&] { return probe.isReleased(); }));
  EXPECT_EQ(probe.calls(), 0u);
  ends.client.delegate->echo();
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
}

TEST_P(ListenerWire, HasItsRepliesWithAnAnchorRefused) {
  PROVES("listener.wire.4", "a listener's reply that holds a VKTLogAnchor is refused at the client");
  const TwoEnds ends(ListenerEnd::Types::any);
  ends.server.delegate->onMessage(
      [](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) { reply(messageWithAnchor()); });
  const HandlerProbe probe;
  EXPECT_TRUE(ends.client.connection->sendMessage(plainMessage(), nullptr, probe.handler()));
  ASSERT_TRUE(ends.client.delegate->waitForErrors(1));
  expectPlatformError(ends.client.delegate->errors().front().error, NSXPCReplyRefused);
  EXPECT_TRUE(eventually([&] { return probe.isReleased(); }));
  EXPECT_EQ(probe.calls(), 0u);
  ends.server.delegate->echo();
  EXPECT_EQ(ends.client.connection->sendMessageSync(plainMessage(), kLong), plainMessage());
  EXPECT_TRUE(ends.server.delegate->errors().empty());
}

TEST_P(ListenerWire, RefusesAnAnchorBeforeSendingWithStrictTypes) {
  PROVES("listener.wire.5", "with strict types the check refuses a VKTLogAnchor before sending");
  const TwoEnds ends;
  NSError error;
  EXPECT_FALSE(ends.server.listener->sendMessage(messageWithAnchor(), ends.id, &error));
  expectError(error, 3, "SendMessage failed message type check");
  error = nil;
  EXPECT_FALSE(ends.client.connection->sendMessage(messageWithAnchor(), &error));
  expectError(error, 3, "SendMessage failed message type check");
  EXPECT_TRUE(ends.server.delegate->messages().empty());
  EXPECT_TRUE(ends.client.delegate->messages().empty());
}

}  // namespace
}  // namespace velto::testing
