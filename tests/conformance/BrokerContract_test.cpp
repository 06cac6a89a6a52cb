// What the broker does for both ends: the one inside the test and the program alike.

#include <atomic>

#include "platform/xpc/NSXPCListener.h"
#include "tests/conformance/Statements.h"
#include "tests/support/Arrangement.h"
#include "tests/support/BrokerLink.h"

namespace velto::testing {
namespace {

using BrokerContract = ArrangedTest;

TEST_P(BrokerContract, AnswersALookupWithTheEndpointThatWasRegistered) {
  PROVES("broker.contract.1",
         "a registered endpoint is what every later lookup of its name is answered with, on any link");
  const auto listener = NSXPCListener::anonymousListener();
  TestLink registrar;
  registrar.registerEndpoint(listener->endpoint(), "name");
  TestLink other;
  const NSXPCListenerEndpoint found = other.find("name");
  EXPECT_FALSE(found.isNil());
  EXPECT_EQ(found, listener->endpoint());
  EXPECT_EQ(other.find("name"), found);
  EXPECT_EQ(registrar.find("name"), found);
}

TEST_P(BrokerContract, AnswersAnUnknownNameWithNil) {
  PROVES("broker.contract.2", "a lookup of a name that nobody registered is answered with nil");
  TestLink link;
  EXPECT_TRUE(link.find("name").isNil());
  const auto listener = NSXPCListener::anonymousListener();
  link.registerEndpoint(listener->endpoint(), "name");
  EXPECT_TRUE(link.find("Name").isNil());
  EXPECT_TRUE(link.find("name2").isNil());
  EXPECT_FALSE(link.find("name").isNil());
}

TEST_P(BrokerContract, AnswersALookupOnce) {
  PROVES("broker.contract.3", "every lookup is answered exactly once, found or not");
  const auto listener = NSXPCListener::anonymousListener();
  TestLink registrar;
  registrar.registerEndpoint(listener->endpoint(), "name");
  const auto connection = NSXPCConnection::initWithServiceName(VeltoIPCDaemonServiceName);
  connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>());
  connection->resume();
  const auto proxy = connection->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>(
      [](const NSError& error) { ADD_FAILURE() << error.description().view(); });
  auto found = std::make_shared<std::atomic<int>>(0);
  auto missed = std::make_shared<std::atomic<int>>(0);
  for (int time = 0; time < 5; ++time) {
    proxy->call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
        NSString("name"), [found](const NSXPCListenerEndpoint& endpoint) { *found += endpoint ? 1 : 100; });
    proxy->call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
        NSString("nobody"), [missed](const NSXPCListenerEndpoint& endpoint) { *missed += endpoint ? 100 : 1; });
  }
  settle(connection);
  EXPECT_EQ(*found, 5);
  EXPECT_EQ(*missed, 5);
  connection->invalidate();
}

TEST_P(BrokerContract, AcceptsAKill) {
  PROVES("broker.contract.4", "killListenerConnection: is accepted for any name, and the link goes on");
  const auto listener = NSXPCListener::anonymousListener();
  TestLink link;
  link.registerEndpoint(listener->endpoint(), "name");
  link.kill("name");
  link.kill("nobody");
  link.registerEndpoint(listener->endpoint(), "again");
  EXPECT_FALSE(link.find("again").isNil());
}

TEST_P(BrokerContract, ServesManyLinksAtOnce) {
  PROVES("broker.contract.5", "any number of links are served side by side");
  const auto listener = NSXPCListener::anonymousListener();
  std::vector<std::unique_ptr<TestLink>> links;
  for (int number = 0; number < 40; ++number) {
    links.push_back(std::make_unique<TestLink>());
    links.back()->registerEndpoint(listener->endpoint(), "name" + std::to_string(number));
  }
  for (int number = 0; number < 40; ++number) {
    const auto& asked = links[static_cast<std::size_t>(39 - number)];
    EXPECT_FALSE(asked->find("name" + std::to_string(number)).isNil()) << number;
  }
}

TEST_P(BrokerContract, KeepsTheNameOfAClosedListener) {
  PROVES("broker.contract.6", "a listener that closes does not take its name back while it lives");
  TestLink link;
  ListenerEnd end("name");
  ASSERT_FALSE(link.find("name").isNil());
  end.listener->close();
  end.delegate->waitForError("Daemon connection invalidated");
  EXPECT_FALSE(link.find("name").isNil());
}

TEST_P(BrokerContract, IntroducesEndsOfAnyProcess) {
  PROVES("broker.contract.7", "a client finds the listener of its name, and only that, whatever process either is in");
  const auto one = makeEnd();
  const auto two = makeEnd();
  ASSERT_EQ(one->ask("listen one any"), "listening");
  ASSERT_EQ(two->ask("listen two any"), "listening");
  const auto client = makeEnd();
  client->ask("connect two");
  ASSERT_EQ(client->ask("ready 20"), "yes");
  EXPECT_EQ(client->ask("sync 20 echo:hello"), "reply echo:hello");
  EXPECT_EQ(two->ask("count message"), "1");
  EXPECT_EQ(one->ask("count ready"), "0");
}

INSTANTIATE_TEST_SUITE_P(Arranged, BrokerContract, kAllArrangements, printArrangement);

}  // namespace
}  // namespace velto::testing
