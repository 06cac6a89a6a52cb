// Closing a client: what is let go of, in what order, and what stays.

#include <map>

#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using ClientClose = ClientSteps;

TEST_F(ClientClose, InvalidatesTheConnectionThenTheLink) {
  PROVES("client.close.1", "close invalidates the connection to the listener, then the link, and asks nothing else");
  becomeReady("id");
  client->close();
  EXPECT_THAT(journal().take(), ElementsAre("connection#2 invalidate", "connection#1 invalidate"));
}

TEST_F(ClientClose, LetsGoPieceByPiece) {
  PROVES("client.close.2",
         "close drops the proxy, invalidates and drops the connection, drops the endpoint, invalidates and drops the "
         "link, each before the next");
  becomeReady("id");
  struct Pieces {
    bool proxy;
    bool connection;
    bool endpoint;
    bool link;
  };
  std::map<std::string, Pieces> seen;
  journal().observe([&](const std::string& line) {
    seen[line] = {client->listenerProxyObject() != nullptr, client->listenerConnection() != nullptr,
                  !client->listenerEndpoint().isNil(), client->daemonConnection() != nullptr};
  });
  client->close();
  journal().observe({});
  ASSERT_THAT(seen, SizeIs(2));
  const Pieces& first = seen["connection#2 invalidate"];
  EXPECT_FALSE(first.proxy);
  EXPECT_TRUE(first.connection) << "it is told before it is dropped";
  EXPECT_TRUE(first.endpoint);
  EXPECT_TRUE(first.link);
  const Pieces& second = seen["connection#1 invalidate"];
  EXPECT_FALSE(second.proxy);
  EXPECT_FALSE(second.connection);
  EXPECT_FALSE(second.endpoint);
  EXPECT_TRUE(second.link) << "it is told before it is dropped";
  EXPECT_EQ(client->daemonConnection(), nullptr);
}

TEST_F(ClientClose, ReleasesWhatItHeld) {
  PROVES("client.close.3", "after close the client holds neither connection nor link");
  becomeReady("id");
  client->close();
  EXPECT_TRUE(peer().isLetGo());
  EXPECT_TRUE(link().isLetGo());
  EXPECT_EQ(client->listenerProxyObject(), nullptr);
  EXPECT_TRUE(client->listenerEndpoint().isNil());
}

TEST_F(ClientClose, TellsNobody) {
  PROVES("client.close.4", "close sends nothing to the broker or to the listener, logs nothing and calls no delegate");
  PROVES("peer.life.2", "no call announces the end of a connection");
  becomeReady("id");
  const std::size_t toListener = peer().calls().size();
  const std::size_t toBroker = link().calls().size();
  client->close();
  EXPECT_EQ(peer().calls().size(), toListener);
  EXPECT_EQ(link().calls().size(), toBroker);
  for (const std::string& line : journal().take()) {
    EXPECT_FALSE(line.starts_with("log") || line.starts_with("delegate")) << line;
  }
}

TEST_F(ClientClose, LeavesIdentifierErrorTypesAndDelegateAsTheyAre) {
  PROVES("client.close.5", "close leaves identifier, readiness, recorded error, strict types and delegate as they are");
  becomeReady("id");
  client->setStrictMessageTypesRemote(false);
  client->connectionError(platformError());
  const auto proxy = client->listenerProxyObject();
  client->close();
  EXPECT_EQ(client->getID(), NSString("id"));
  NSError error;
  EXPECT_TRUE(client->waitUntilReady(0, &error));
  EXPECT_EQ(error, platformError());
  EXPECT_EQ(client->delegate(), delegate);
  client->setListenerProxyObject(proxy);
  EXPECT_TRUE(client->sendMessage(NSDictionary{{"when", NSDate::date()}})) << "types are still not strict";
}

TEST_F(ClientClose, DoesNothingTheSecondTime) {
  PROVES("client.close.6", "a second close finds nothing and does nothing");
  becomeReady("id");
  client->close();
  journal().take();
  client->close();
  client->close();
  EXPECT_THAT(journal().take(), IsEmpty());
}

TEST_F(ClientClose, BeforeTheAnswerEndsTheLinkOnly) {
  PROVES("client.close.7", "close before the broker has answered, or after its nil, ends the link and nothing else");
  lookUp();
  client->close();
  EXPECT_THAT(journal().take(), ElementsAre("connection#1 invalidate"));
  client = VeltoConnection::initWithServiceName("other", delegate);
  platform.connection(2).lastCall(kLookup)->answer(nil);
  journal().take();
  client->close();
  EXPECT_THAT(journal().take(), ElementsAre("connection#2 invalidate"));
}

TEST_F(ClientClose, RefusesToSendAfterwards) {
  PROVES("client.close.8", "after close every send fails with code 2 \"Connection is not available\", and is logged");
  becomeReady("id");
  client->close();
  journal().take();
  NSError error;
  EXPECT_FALSE(client->sendMessage(NSDictionary::dictionary(), &error));
  expectError(error, 2, "Connection is not available");
  error = nil;
  EXPECT_TRUE(client->sendMessageSync(NSDictionary::dictionary(), 1, &error).isNil());
  expectError(error, 2, "Connection is not available");
  const std::string line = "log 0 VeltoConnection Connection is not available or connectionUUID is nil";
  EXPECT_THAT(journal().take(), ElementsAre(line, line));
}

TEST_F(ClientClose, IsToldTwiceByThePlatform) {
  PROVES("client.close.9",
         "a deliberate close is told to the delegate twice: by the connection with the identifier, by the link with a "
         "nil one");
  becomeReady("id");
  client->close();
  peer().playInvalidation();
  link().playInvalidation();
  EXPECT_THAT(journal().beginningWith("delegate"),
              ElementsAre("delegate connectionError id 2 Listener connection invalidated",
                          "delegate connectionError (null) 2 Daemon connection invalidated"));
}

TEST_F(ClientClose, IsSilentWhenTheClientIsGoneAfterIt) {
  PROVES("client.close.10", "a client that is gone by the time its connection ends is not told of; its link still is");
  becomeReady("id");
  client->close();
  journal().take();
  letGoOfClient();
  peer().playInvalidation();
  link().playInvalidation();
  EXPECT_THAT(journal().take(), ElementsAre("log 2 Listener connection invalided. Shutting down connections",
                                            "log 0 Daemon connection invalidated",
                                            "delegate connectionError (null) 2 Daemon connection invalidated"));
}

TEST_F(ClientClose, DoesNotWakeAWaitForReadiness) {
  PROVES("client.close.11", "close itself neither records an error nor makes ready: a wait for readiness goes on");
  configure();
  client->close();
  NSError error;
  EXPECT_FALSE(client->waitUntilReady(0.01, &error));
  expectError(error, 6, "Timed out waiting");
}

TEST_F(ClientClose, HoldsNoReadinessLock) {
  PROVES("client.close.12", "close holds no lock of the client while it invalidates: other threads come through");
  becomeReady("id");
  int invalidations = 0;
  journal().observe([&](const std::string&) {
    ++invalidations;
    journal().observe({});
    auto others = inBackground([&] {
      client->waitUntilReady(0);
      client->messageValid(NSUUID::UUID());
      client->sendMessage(NSDictionary::dictionary());
      client->connectionError(nil);
      client->close();
    });
    finish(others);
  });
  client->close();
  EXPECT_EQ(invalidations, 1);
  EXPECT_EQ(journal().beginningWith("connection#1 invalidate").size(), 1u);
}

}  // namespace
}  // namespace velto::testing
