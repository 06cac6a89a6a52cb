// A client that was made without a service name.

#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ClientPlain : public ClientSteps {
 protected:
  ClientPlain() { client = VeltoConnection::init(); }
};

TEST_F(ClientPlain, AsksNothingOfThePlatform) {
  PROVES("client.plain.1", "init opens no link, makes no connection and logs nothing");
  EXPECT_THAT(journal().take(), IsEmpty());
  EXPECT_EQ(platform.connectionCount(), 0u);
  EXPECT_EQ(client->daemonConnection(), nullptr);
  EXPECT_TRUE(client->listenerEndpoint().isNil());
  EXPECT_EQ(client->listenerConnection(), nullptr);
  EXPECT_EQ(client->listenerProxyObject(), nullptr);
}

TEST_F(ClientPlain, HasNoIdentifierAndNoDelegate) {
  PROVES("client.plain.2", "after init there is no identifier, no delegate and no registered send");
  EXPECT_TRUE(client->getID().isNil());
  EXPECT_EQ(client->delegate(), nullptr);
  EXPECT_FALSE(client->messageValid(NSUUID::UUID()));
  EXPECT_FALSE(client->messageValid(nil));
}

TEST_F(ClientPlain, NeverBecomesReady) {
  PROVES("client.plain.3", "an object from init never becomes ready: waiting for it ends with the time");
  NSError error;
  EXPECT_FALSE(client->waitUntilReady(0.01, &error));
  expectError(error, 6, "Timed out waiting");
}

TEST_F(ClientPlain, HasRecordedNoError) {
  PROVES("client.plain.4", "after init neither readiness nor an error is recorded");
  NSError error;
  EXPECT_FALSE(client->waitUntilReady(0, &error));
  expectError(error, 6, "Timed out waiting");
}

TEST_F(ClientPlain, CloseDoesNothing) {
  PROVES("client.plain.5", "close on an object from init does nothing at all, however often");
  client->close();
  client->close();
  EXPECT_THAT(journal().take(), IsEmpty());
  EXPECT_FALSE(client->waitUntilReady(0));
}

TEST_F(ClientPlain, RefusesToSend) {
  PROVES("client.plain.6", "an object from init refuses every send with code 2");
  NSError error;
  EXPECT_FALSE(client->sendMessage(NSDictionary::dictionary(), &error));
  expectError(error, 2, "Connection is not available");
  error = nil;
  EXPECT_TRUE(client->sendMessageSync(NSDictionary::dictionary(), 1, &error).isNil());
  expectError(error, 2, "Connection is not available");
}

TEST_F(ClientPlain, TakesPartInThePeerProtocolWithoutADelegate) {
  PROVES("client.plain.7", "the peer methods work on an object from init too; without a delegate nobody is told");
  client->connectionUUID("id");
  EXPECT_EQ(client->getID(), NSString("id"));
  EXPECT_TRUE(client->waitUntilReady(0));
  client->connectionError(nil);
  NSError error;
  EXPECT_TRUE(client->waitUntilReady(0, &error));
  expectError(error, 7, "Unknown error sent from listener");
  EXPECT_THAT(journal().take(), ElementsAre("log 2 Connection ID received id"));
}

TEST_F(ClientPlain, HoldsTheTypesStrict) {
  PROVES("types.flag.1", "strict types are on from the start, at the client and at the listener");
  client->connectionUUID("id");
  auto donor = VeltoConnection::initWithServiceName("service", delegate);
  platform.connection(1).lastCall(kLookup)->answer(endpoint);
  client->setListenerProxyObject(donor->listenerProxyObject());
  NSError error;
  EXPECT_FALSE(client->sendMessage(NSDictionary{{"when", NSDate::date()}}, &error));
  expectError(error, 3, "SendMessage failed message type check");
  const auto listener = VeltoListener::initWithServiceName("service", delegate);
  const auto offer = platform.listener(1).offerConnection();
  ASSERT_TRUE(offer.isAccepted);
  const NSString identifier = delegate->recorded.readies().at(0).connectionID;
  EXPECT_EQ(offer.connection->lastCall("setStrictMessageTypesRemote:")->arguments().at(0), NSNumber(true));
  error = nil;
  EXPECT_FALSE(listener->sendMessage(NSDictionary{{"when", NSDate::date()}}, identifier, &error));
  expectError(error, 3, "SendMessage failed message type check");
}

TEST_F(ClientPlain, KeepsWhatItsAccessorsAreGiven) {
  PROVES("client.plain.8", "delegate and the four pieces of a connection can be set and read back");
  auto donor = VeltoConnection::initWithServiceName("service", delegate);
  platform.connection(1).lastCall(kLookup)->answer(endpoint);
  client->setDelegate(delegate);
  client->setDaemonConnection(donor->daemonConnection());
  client->setListenerEndpoint(endpoint);
  client->setListenerConnection(donor->listenerConnection());
  client->setListenerProxyObject(donor->listenerProxyObject());
  EXPECT_EQ(client->delegate(), delegate);
  EXPECT_EQ(client->daemonConnection(), donor->daemonConnection());
  EXPECT_EQ(client->listenerEndpoint(), endpoint);
  EXPECT_EQ(client->listenerConnection(), donor->listenerConnection());
  EXPECT_EQ(client->listenerProxyObject(), donor->listenerProxyObject());
  EXPECT_NE(client->listenerProxyObject(), nullptr);
}

}  // namespace
}  // namespace velto::testing
