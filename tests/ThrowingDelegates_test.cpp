// Delegates that throw, in each callback of each end: what follows the callback follows all the same.

#include <atomic>
#include <stdexcept>

#include "message/PeerProtocol.h"
#include "platform/foundation/Box.h"
#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/Protocol.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

constexpr const char* kThrowingName = "org.velto.test.throwing";

// Something to throw, and how the log names it.
struct Thrown {
  const char* name;
  const char* text;
  void (*raise)();
};

const Thrown kThrown[]{
    {"ARuntimeError", "no room", [] { throw std::runtime_error("no room"); }},
    {"AnExceptionOfThePlatform", "a dictionary cannot hold nil",
     [] { NSMutableDictionary::dictionary().setObject(NSString(), "id"); }},
    {"ARefusal", "not today", [] { throw NSXPCRefusal("not today"); }},
    {"ANumber", "it is of an unknown kind", [] { throw 7; }},
};

// Writes down what it hears, and throws in the callbacks that it was told to.
class ThrowingDelegate final : public VeltoIPCDelegate {
 public:
  RecordingDelegate heard;
  // Null: nothing is thrown there.
  std::atomic<void (*)()> inReady{nullptr};
  std::atomic<void (*)()> inMessage{nullptr};
  std::atomic<void (*)()> inError{nullptr};

  void connectionReady(NSString connectionID) override {
    heard.connectionReady(connectionID);
    if (const auto raise = inReady.load()) raise();
  }
  void receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) override {
    const auto raise = inMessage.load();
    // One that throws keeps no handler.
    heard.receivedMessage(message, fromConnection, raise != nullptr ? VeltoReplyHandler() : std::move(usingHandler));
    if (raise != nullptr) raise();
  }
  void connectionError(NSString connectionID, NSError error) override {
    heard.connectionError(connectionID, error);
    if (const auto raise = inError.load()) raise();
  }
};

// Two ends with such delegates.
class ThrowingEnds : public LibraryTest {
 protected:
  void start() {
    atServer->heard.echo();
    server = VeltoListener::initWithServiceName(kThrowingName, atServer);
    settle(server->daemonConnection());
    client = VeltoConnection::initWithServiceName(kThrowingName, atClient);
    ASSERT_TRUE(client->waitUntilReady(20.0));
  }
  void TearDown() override {
    server->close();
    client->close();
    waitUntilAlone(server);
    waitUntilAlone(client);
    atServer->heard.quiesce();
    atClient->heard.quiesce();
    LibraryTest::TearDown();
  }

  const std::shared_ptr<ThrowingDelegate> atServer = std::make_shared<ThrowingDelegate>();
  const std::shared_ptr<ThrowingDelegate> atClient = std::make_shared<ThrowingDelegate>();
  std::shared_ptr<VeltoListener> server;
  std::shared_ptr<VeltoConnection> client;
};

class ThrowingDelegates : public ThrowingEnds, public ::testing::WithParamInterface<Thrown> {
 protected:
  static std::string line(const std::string& callback) {
    return "The delegate raised an exception in " + callback + ", which is ignored: " + GetParam().text;
  }
};
INSTANTIATE_TEST_SUITE_P(, ThrowingDelegates, ::testing::ValuesIn(kThrown),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(ThrowingDelegates, ReadinessAtTheListenerLeavesAClientThatIsReadyAndServed) {
  atServer->inReady = GetParam().raise;
  start();
  EXPECT_TRUE(log.waitFor(0, line("connectionReady")));
  EXPECT_EQ(client->sendMessageSync(kHello, 20.0), kHello);
  EXPECT_TRUE(server->sendMessage(kHello, client->getID()));
  EXPECT_TRUE(atServer->heard.errors().empty());
  EXPECT_EQ(log.count(0, line("connectionReady")), 1u) << log.text();
}

TEST_P(ThrowingDelegates, ReadinessAtTheClientIsNoConcernOfTheListeners) {
  atClient->inReady = GetParam().raise;
  start();
  EXPECT_TRUE(log.waitFor(0, line("connectionReady")));
  EXPECT_EQ(client->sendMessageSync(kHello, 20.0), kHello);
  EXPECT_TRUE(server->sendMessage(kHello, client->getID()));
  EXPECT_TRUE(atClient->heard.waitForMessages(1));
  EXPECT_TRUE(atServer->heard.errors().empty());
}

TEST_P(ThrowingDelegates, TheEndOfAConnectionAtTheListenerFreesItsWaitersAndItsEntries) {
  start();
  atServer->inError = GetParam().raise;
  auto waiting = inBackground([listener = server, id = client->getID()] {
    NSError error;
    listener->sendMessageSync(kHello, id, VKT_IPC_TIME_FOREVER, &error);
    return error;
  });
  atClient->heard.waitForMessages(1);
  client->close();
  expectError(finish(waiting), 6, "Timed out waiting");
  atServer->heard.waitForError("Connection invalidated");
  EXPECT_TRUE(eventually([&] {
    const NSSynchronized monitor(server->connectionConditions());
    return server->receivedConnections().count() == 0 && server->receivedProxyObjects().count() == 0 &&
           server->connectionConditions().count() == 0;
  }));
  EXPECT_TRUE(log.waitFor(0, line("connectionError"), atServer->heard.errors().size()));
}

TEST_P(ThrowingDelegates, TheEndOfAConnectionAtTheClientIsRecordedAllTheSame) {
  start();
  atClient->inError = GetParam().raise;
  server->close(client->getID());
  atClient->heard.waitForError("Listener connection invalidated");
  // And the link to the broker, whose handlers call the delegate directly.
  atClient->heard.waitForError("Daemon connection invalidated");
  EXPECT_TRUE(log.waitFor(0, line("connectionError"), 2));
  NSError error;
  EXPECT_TRUE(client->waitUntilReady(20.0, &error));
  expectError(error, 2, "Listener connection invalidated");
}

TEST_P(ThrowingDelegates, AMessageWithAWrongIdentifierIsReportedToTheListenerAllTheSame) {
  start();
  atClient->inError = GetParam().raise;
  const NSString id = client->getID();
  const auto proxy = [&] {
    const NSSynchronized monitor(server->connectionConditions());
    return unbox<PeerProxy>(server->receivedProxyObjects()[id]);
  }();
  proxy->call<&VeltoCommunicationMessageProtocol::connectionID>("foreign", kHello, [](const NSDictionary&) {});
  expectError(atServer->heard.waitForError("connectionID is not correct with message sent").error, 5,
              "connectionID is not correct with message sent");
  EXPECT_TRUE(log.waitFor(0, line("connectionError")));
}

// What it throws passes through the layers below, which know what to do.
TEST_F(ThrowingEnds, AMessageWhoseCallbackThrowsIsLetGoOfByItsSender) {
  start();
  atServer->heard.onMessage({});
  atServer->inMessage = [] { throw std::runtime_error("no room"); };
  const auto held = std::make_shared<int>(0);
  ASSERT_TRUE(client->sendMessage(kHello, nullptr, [held](const NSDictionary&) { FAIL(); }));
  EXPECT_TRUE(eventually([&] { return held.use_count() == 1; })) << log.text();
  atServer->inMessage = nullptr;
  atServer->heard.echo();
  EXPECT_EQ(client->sendMessageSync(kHello, 20.0), kHello);
  EXPECT_TRUE(atClient->heard.errors().empty());
}

TEST_F(ThrowingEnds, ARefusalThatIsThrownForAMessageComesToTheSendersDelegate) {
  start();
  atServer->heard.onMessage({});
  atServer->inMessage = [] { throw NSXPCRefusal("not today"); };
  ASSERT_TRUE(client->sendMessage(kHello));
  ASSERT_TRUE(atClient->heard.waitForErrors(1));
  const Event refused = atClient->heard.errors().front();
  EXPECT_EQ(refused.connectionID, client->getID());
  EXPECT_EQ(refused.error.domain(), NSXPCErrorDomain);
  EXPECT_EQ(refused.error.code(), NSXPCCallRefused);
  EXPECT_NE(refused.error.localizedDescription().string().find("not today"), std::string::npos);
}

}  // namespace
}  // namespace velto::testing
