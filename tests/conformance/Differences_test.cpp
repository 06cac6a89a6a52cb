// Where the client's sends and the listener's differ, each difference seen at both ends.

#include "platform/foundation/NSSynchronized.h"
#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

using Differences = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, Differences, kArrangementsHere, printArrangement);

constexpr const char* kCheckFailed = "SendMessage failed message type check";
constexpr const char* kUnavailable = "Connection is not available";

// Enters the connection's proxy under a further name.
void enterAlias(const TwoEnds& ends, const char* alias) {
  NSSynchronized lock(ends.server.listener->connectionConditions());
  NSMutableDictionary proxies = ends.server.listener->receivedProxyObjects();
  proxies.setObject(proxies[ends.id], alias);
}

TEST_P(Differences, AClientNeedsProxyAndIdentifierAListenerTheProxyAlone) {
  PROVES("differences.send.1",
         "a client's send needs proxy and identifier both; a listener's needs the entry among the proxies");
  const TwoEnds ends;
  ends.client.delegate->echo();
  // The listener: a proxy and nothing else is enough, and without it nothing else helps.
  enterAlias(ends, "alias");
  EXPECT_TRUE(ends.server.listener->sendMessage(plainMessage(), "alias"));
  {
    NSSynchronized lock(ends.server.listener->connectionConditions());
    ends.server.listener->receivedProxyObjects().removeObjectForKey(ends.id);
  }
  NSError error;
  EXPECT_TRUE(ends.server.listener->isConnectionActive_internal(ends.id));
  EXPECT_FALSE(ends.server.listener->sendMessage(plainMessage(), ends.id, &error));
  expectError(error, 2, kUnavailable);
  // The client: an identifier without a proxy does not do.
  const auto proxy = ends.client.connection->listenerProxyObject();
  ASSERT_TRUE(proxy);
  ends.client.connection->setListenerProxyObject(nullptr);
  error = nil;
  EXPECT_FALSE(ends.client.connection->sendMessage(plainMessage(), &error));
  expectError(error, 2, kUnavailable);
  ends.client.connection->setListenerProxyObject(proxy);
  EXPECT_TRUE(ends.client.connection->sendMessage(plainMessage(), &error));
  ASSERT_TRUE(ends.server.delegate->waitForMessages(1));
}

using DifferencesAtABroker = QuietTest;

TEST_F(DifferencesAtABroker, AProxyWithoutAnIdentifierDoesNotDoForAClient) {
  PROVES("differences.send.1",
         "a client's send needs proxy and identifier both; a listener's needs the entry among the proxies");
  const auto broker = ScriptedBroker::start();
  const auto bare = BareListener::start();
  broker->answerWith(bare->endpoint());
  {
    ClientEnd client(kName);
    bare->exported->waitFor("ping");
    EXPECT_TRUE(eventually([&] { return client.connection->listenerProxyObject() != nullptr; }));
    EXPECT_TRUE(client.connection->getID().isNil());
    NSError error;
    EXPECT_FALSE(client.connection->sendMessage(plainMessage(), &error));
    expectError(error, 2, kUnavailable);
    EXPECT_EQ(bare->exported->count("connectionID:withMessage:handler:"), 0u);
  }
  broker->stop();
}

TEST_P(Differences, ASendWithoutAConnectionIsLoggedByEachEndInItsOwnWords) {
  PROVES("differences.send.2",
         "the log of a send without a connection: the client's names connection or connectionUUID, the listener's the "
         "connection alone");
  PROVES("differences.texts.1", "the error descriptions of both ends are the same, their log lines name the end");
  const ListenerEnd server(kName);
  const auto client = VeltoConnection::init();
  log.clear();
  NSError ofClient;
  NSError ofListener;
  EXPECT_FALSE(client->sendMessage(plainMessage(), &ofClient));
  EXPECT_FALSE(server.listener->sendMessage(plainMessage(), "unknown", &ofListener));
  EXPECT_EQ(linesOfEnds(), (Lines{{0, "VeltoConnection Connection is not available or connectionUUID is nil"},
                                  {0, "VeltoIPCListener Connection is not available"}}));
  expectError(ofClient, 2, kUnavailable);
  EXPECT_EQ(ofClient, ofListener);
}

TEST_P(Differences, AMessageThatFailsTheCheckIsLoggedUnderTheNameOfTheEnd) {
  PROVES("differences.texts.1", "the error descriptions of both ends are the same, their log lines name the end");
  const TwoEnds ends;
  clearLogOfHandshakes();
  NSError ofClient;
  NSError ofListener;
  EXPECT_FALSE(ends.client.connection->sendMessage(messageWithDate(), &ofClient));
  EXPECT_FALSE(ends.server.listener->sendMessage(messageWithDate(), ends.id, &ofListener));
  EXPECT_TRUE(log.inOrder(
      {{0, std::string("VeltoConnection ") + kCheckFailed}, {0, std::string("VeltoIPCListener ") + kCheckFailed}}));
  expectError(ofClient, 3, kCheckFailed);
  EXPECT_EQ(ofClient, ofListener);
}

TEST_P(Differences, ASuccessfulSendIsLoggedByTheClientAlone) {
  PROVES("differences.send.3",
         "a successful send: the client logs it at level 2 with the message, the listener does not log it");
  const TwoEnds ends;
  ends.server.delegate->echo();
  clearLogOfHandshakes();
  const NSDictionary message = plainMessage();
  EXPECT_EQ(ends.client.connection->sendMessageSync(message, kLong), message);
  const Lines ofClient = linesOfEnds();
  ASSERT_EQ(ofClient.size(), 3u) << log.text();
  EXPECT_EQ(ofClient[0], (LogCapture::Line{2, "Sending the VeltoConnection Message " + message.description().string() +
                                                  " with the handle"}));
  log.clear();
  EXPECT_TRUE(ends.server.listener->sendMessage(message, ends.id));
  ends.client.delegate->waitForMessages(1);
  EXPECT_EQ(linesOfEnds().size(), 1u) << "the client's line of the message" << log.text();
  EXPECT_EQ(log.containing(2, " handler sent to delegate").size(), 1u);
}

TEST_P(Differences, ASynchronousSendIsRegisteredBeforeOrAfterItIsSent) {
  PROVES("differences.sync.1",
         "a synchronous send is registered at the listener before the message is sent; at the client a close between "
         "sending and registering ends it too");
  const TwoEnds ends;
  std::size_t waiting = 0;
  ends.client.delegate->onMessage([&](const NSDictionary& message, const NSString& id, const VeltoReplyHandler& reply) {
    waiting = ends.server.waiting(id);
    reply(message);
  });
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  EXPECT_EQ(waiting, 1u);
  // The client's send is ended by a close that comes as early as the listener has the message.
  ends.server.delegate->onMessage([watched = std::weak_ptr(ends.client.connection)](
                                      const NSDictionary&, const NSString&, const VeltoReplyHandler&) {
    if (const auto client = watched.lock()) client->close();
  });
  NSError error;
  EXPECT_TRUE(ends.client.connection->sendMessageSync(plainMessage(), VKT_IPC_TIME_FOREVER, &error).isNil());
  expectError(error, 6, "Timed out waiting");
}

TEST_P(Differences, ASynchronousSendWhoseSendFailsLeavesItsConditionAtTheListenerOnly) {
  PROVES("differences.sync.2",
         "a synchronous send whose send fails: at the listener its wait condition stays, at the client later sends and "
         "close are as ever");
  const TwoEnds ends;
  ends.server.delegate->echo();
  NSError error;
  EXPECT_TRUE(ends.server.listener->sendMessageSync(messageWithDate(), ends.id, kLong, &error).isNil());
  expectError(error, 3, kCheckFailed);
  EXPECT_EQ(ends.server.waiting(ends.id), 1u);
  error = nil;
  EXPECT_TRUE(ends.client.connection->sendMessageSync(messageWithDate(), kLong, &error).isNil());
  expectError(error, 3, kCheckFailed);
  EXPECT_EQ(ends.client.connection->sendMessageSync(plainMessage(), kLong), plainMessage());
  ends.client.connection->close();
  ends.client.delegate->waitForError("Listener connection invalidated");
}

TEST_P(Differences, AWaitIsEndedByTheCloseOfTheClientOrOfThatConnectionAtTheListener) {
  PROVES("differences.sync.4",
         "a wait is ended early at the client by close of the whole, at the listener by close of that connection");
  const TwoEnds ends;
  ClientEnd other(kName);
  const NSString otherID = other.ready();
  const auto listenerSend = [&](const NSString& id) {
    return inBackground([&ends, id] {
      NSError error;
      ends.server.listener->sendMessageSync(plainMessage(), id, VKT_IPC_TIME_FOREVER, &error);
      return error;
    });
  };
  const auto clientSend = [&] {
    return inBackground([&] {
      NSError error;
      ends.client.connection->sendMessageSync(plainMessage(), VKT_IPC_TIME_FOREVER, &error);
      return error;
    });
  };
  auto toClient = listenerSend(ends.id);
  auto toOther = listenerSend(otherID);
  auto fromClient = clientSend();
  auto alsoFromClient = clientSend();
  ASSERT_TRUE(ends.client.delegate->waitForMessages(1));
  ASSERT_TRUE(other.delegate->waitForMessages(1));
  ASSERT_TRUE(ends.server.delegate->waitForMessages(2));
  ends.server.listener->close(otherID);
  expectError(finish(toOther), 6, "Timed out waiting");
  EXPECT_TRUE(isHeldUp(toClient)) << "on another connection";
  ends.client.connection->close();
  expectError(finish(fromClient), 6, "Timed out waiting");
  expectError(finish(alsoFromClient), 6, "Timed out waiting");
  expectError(finish(toClient), 6, "Timed out waiting");
}

TEST_P(Differences, ASynchronousSendLeavesNothingBehindAtEitherEnd) {
  PROVES("differences.sync.5",
         "after a synchronous send the listener's array holds nothing of it, and at the client close finds nothing to "
         "wake");
  const TwoEnds ends;
  ends.server.delegate->echo();
  ends.client.delegate->echo();
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  EXPECT_EQ(ends.server.waiting(ends.id), 0u);
  NSError error;
  EXPECT_EQ(ends.client.connection->sendMessageSync(plainMessage(), kLong, &error), plainMessage());
  EXPECT_FALSE(ends.client.connection->messageValid(NSUUID::UUID()));
  EXPECT_FALSE(ends.client.connection->messageValid(nil));
  ends.client.connection->close();
  EXPECT_TRUE(error.isNil());
}

TEST_P(Differences, AForeignIdentifierIsReportedByTheClientAndHandedOverByTheListener) {
  PROVES("differences.receive.1",
         "a message under a foreign identifier: the client reports code 5 and drops it, the listener hands it over");
  const TwoEnds ends;
  enterAlias(ends, "foreign");
  const HandlerProbe dropped;
  EXPECT_TRUE(ends.server.listener->sendMessage(plainMessage(), "foreign", nullptr, dropped.handler()));
  constexpr const char* kForeign = "connectionID is not correct with message sent";
  const Event atClient = ends.client.delegate->waitForError(kForeign);
  EXPECT_EQ(atClient.connectionID, ends.id) << "the client's own";
  expectError(atClient.error, 5, kForeign);
  expectError(ends.server.delegate->waitForError(kForeign).error, 5, kForeign);
  EXPECT_TRUE(eventually([&] { return dropped.isReleased(); }));
  EXPECT_EQ(dropped.calls(), 0u);
  EXPECT_TRUE(ends.client.delegate->messages().empty());
  const auto stranger = bareClient();
  stranger->handshake();
  ends.server.delegate->echo();
  const ReplyProbe reply;
  stranger->proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(NSString("foreign"), plainMessage(),
                                                                          reply.handler());
  EXPECT_EQ(reply.wait(), plainMessage());
  EXPECT_EQ(ends.server.delegate->messages().front().connectionID, NSString("foreign"));
}

TEST_P(Differences, ANilErrorBecomesCode7AtTheClientAndStaysNilAtTheListener) {
  PROVES("differences.error.1",
         "a nil error reported by the other end: the client tells its delegate code 7, the listener nil");
  const TwoEnds ends;
  ends.server.listener->connectionError(nil);
  ends.client.connection->connectionError(nil);
  ASSERT_TRUE(ends.server.delegate->waitForErrors(1));
  EXPECT_TRUE(ends.server.delegate->errors().front().error.isNil());
  EXPECT_TRUE(ends.server.delegate->errors().front().connectionID.isNil());
  const Event atClient = ends.client.delegate->waitForError("Unknown error sent from listener");
  expectError(atClient.error, 7, "Unknown error sent from listener");
  EXPECT_EQ(atClient.connectionID, ends.id);
}

}  // namespace
}  // namespace velto::testing
