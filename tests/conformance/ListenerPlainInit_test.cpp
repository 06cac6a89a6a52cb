// A listener that was made without a name: everything is there, and nobody knows of it.

#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

using ListenerPlainInit = QuietTest;

// Serves a plain listener by hand: a platform listener of the test's own hands it the connections.
class ServedByHand {
 public:
  ServedByHand() {
    listener->setDelegate(delegate);
    platform_->setDelegate(listener);
    platform_->resume();
  }
  ~ServedByHand() {
    platform_->invalidate();
    listener->close();
    waitUntilAlone(listener);
    delegate->quiesce();
  }

  NSXPCListenerEndpoint endpoint() const { return platform_->endpoint(); }

  const std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  const std::shared_ptr<VeltoListener> listener = VeltoListener::init();

 private:
  const std::shared_ptr<NSXPCListener> platform_ = NSXPCListener::anonymousListener();
};

TEST_F(ListenerPlainInit, HasEmptyTablesNoLinkAndNoDelegate) {
  PROVES("listener.init.1", "init makes the three tables, empty");
  PROVES("listener.init.5", "init sets no delegate");
  const auto listener = VeltoListener::init();
  ASSERT_TRUE(listener);
  for (const NSMutableDictionary& table :
       {listener->connectionConditions(), listener->receivedConnections(), listener->receivedProxyObjects()}) {
    EXPECT_TRUE(table.isKindOfClass(NSMutableDictionary::classObject()));
    EXPECT_EQ(table.count(), 0u);
  }
  EXPECT_FALSE(listener->receivedConnections().isIdenticalTo(listener->receivedProxyObjects()));
  EXPECT_FALSE(listener->receivedConnections().isIdenticalTo(listener->connectionConditions()));
  EXPECT_EQ(listener->daemonConnection(), nullptr);
  EXPECT_EQ(listener->delegate(), nullptr);
  EXPECT_EQ(log.lines(), Lines{});
}

static_assert(std::is_base_of_v<NSObject, VeltoListener>);
static_assert(std::is_base_of_v<NSXPCListenerDelegate, VeltoListener>);
static_assert(std::is_base_of_v<VeltoCommunicationMessageProtocol, VeltoListener>);

TEST_F(ListenerPlainInit, IsAnObjectOfItsClass) {
  PROVES("listener.init.9",
         "a listener is an object of the class VeltoListener, a delegate for platform listeners and an end of the peer "
         "protocol");
  const auto listener = VeltoListener::init();
  EXPECT_EQ(listener->getClass(), VeltoListener::classObject());
  EXPECT_EQ(NSStringFromClass(listener->getClass()), NSString("VeltoListener"));
  EXPECT_TRUE(listener->isKindOfClass(NSObject::classObject()));
  EXPECT_FALSE(listener->isEqual(*VeltoListener::init()));
  EXPECT_TRUE(listener->isEqual(*listener));
}

TEST_F(ListenerPlainInit, ReturnsWhatItsAccessorsWereGiven) {
  PROVES("listener.init.10", "every accessor returns what was set last, nothing included");
  const auto listener = VeltoListener::init();
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto link = NSXPCConnection::initWithListenerEndpoint(nil);
  const NSMutableDictionary table = NSMutableDictionary::dictionary();
  listener->setDelegate(delegate);
  listener->setDaemonConnection(link);
  listener->setReceivedConnections(table);
  listener->setConnectionConditions(table);
  listener->setReceivedProxyObjects(table);
  EXPECT_EQ(listener->delegate(), delegate);
  EXPECT_EQ(listener->daemonConnection(), link);
  EXPECT_TRUE(listener->receivedConnections().isIdenticalTo(table));
  EXPECT_TRUE(listener->connectionConditions().isIdenticalTo(table));
  EXPECT_TRUE(listener->receivedProxyObjects().isIdenticalTo(table));
  listener->setDelegate(nullptr);
  listener->setDaemonConnection(nullptr);
  listener->setReceivedConnections(nil);
  listener->setConnectionConditions(nil);
  listener->setReceivedProxyObjects(nil);
  EXPECT_EQ(listener->delegate(), nullptr);
  EXPECT_EQ(listener->daemonConnection(), nullptr);
  EXPECT_TRUE(listener->receivedConnections().isNil());
  EXPECT_TRUE(listener->connectionConditions().isNil());
  EXPECT_TRUE(listener->receivedProxyObjects().isNil());
  // And nothing comes of nil tables.
  listener->close("anything");
  listener->close();
  EXPECT_FALSE(listener->sendMessage(plainMessage(), "anything"));
  EXPECT_TRUE(listener->sendMessageSync(plainMessage(), "anything", 0.0).isNil());
  EXPECT_FALSE(listener->isConnectionActive_internal("anything"));
}

TEST_F(ListenerPlainInit, LetsSeveralThreadsUseItsAccessors) {
  PROVES("listener.init.11", "the accessors may be used by several threads at once");
  const auto listener = VeltoListener::init();
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto link = NSXPCConnection::initWithListenerEndpoint(nil);
  std::vector<std::future<bool>> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.push_back(inBackground([&] {
      bool whole = true;
      for (int round = 0; round < 500; ++round) {
        listener->setDelegate(round % 2 == 0 ? delegate : nullptr);
        listener->setDaemonConnection(round % 2 == 0 ? link : nullptr);
        listener->setReceivedConnections(NSMutableDictionary::dictionary());
        listener->setConnectionConditions(NSMutableDictionary::dictionary());
        listener->setReceivedProxyObjects(NSMutableDictionary::dictionary());
        const auto heard = listener->delegate();
        const auto linked = listener->daemonConnection();
        whole = whole && (!heard || heard == delegate) && (!linked || linked == link) &&
                !listener->receivedConnections().isNil() && !listener->connectionConditions().isNil() &&
                !listener->receivedProxyObjects().isNil();
      }
      return whole;
    }));
  }
  for (auto& thread : threads) EXPECT_TRUE(finish(thread));
}

TEST_F(ListenerPlainInit, AsksTheBrokerNothing) {
  PROVES("listener.init.4", "init opens no link to the broker and sends it nothing");
  const auto broker = ScriptedBroker::start();
  broker->answerWith(nil);
  const auto listener = VeltoListener::init();
  listener->setStrictMessageTypes(false);
  listener->close();
  EXPECT_EQ(listener->daemonConnection(), nullptr);
  {
    // Asked afterwards, and the first that the broker hears.
    ClientEnd client(kName);
    client.delegate->waitForError("Listener not available");
  }
  EXPECT_EQ(broker->calls().front(), std::string("find ") + kName);
  broker->stop();
}

TEST_F(ListenerPlainInit, RefusesEverySend) {
  PROVES("listener.init.6", "a listener from init refuses every send with code 2 and its log line");
  const auto listener = VeltoListener::init();
  NSError error;
  EXPECT_FALSE(listener->sendMessage(plainMessage(), "anybody", &error));
  expectError(error, 2, "Connection is not available");
  error = nil;
  EXPECT_TRUE(listener->sendMessageSync(plainMessage(), "anybody", VKT_IPC_TIME_FOREVER, &error).isNil());
  expectError(error, 2, "Connection is not available");
  const LogCapture::Line line{0, "VeltoIPCListener Connection is not available"};
  EXPECT_EQ(log.lines(), (Lines{line, line}));
}

TEST_F(ListenerPlainInit, IsClosedUnseen) {
  PROVES("listener.init.7", "a listener from init can be closed, and nothing is seen of it");
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto listener = VeltoListener::init();
  listener->setDelegate(delegate);
  listener->close();
  listener->close();
  EXPECT_EQ(log.lines(), Lines{});
  EXPECT_TRUE(delegate->events().empty());
  // Nothing can come later either: nobody else holds the listener, its link or its delegate.
  EXPECT_EQ(listener.use_count(), 1);
  EXPECT_EQ(delegate.use_count(), 1);
}

TEST_F(ListenerPlainInit, ServesAConnectionThatIsHandedToIt) {
  PROVES("listener.init.8", "a listener from init serves a connection that is handed to it like any other listener");
  PROVES("listener.init.2", "init turns strict types on");
  const ServedByHand served;
  served.delegate->echo();
  BareClient client(served.endpoint());
  const NSString id = client.handshake();
  EXPECT_TRUE(client.exported->waitFor("setStrictMessageTypesRemote:").flag);
  ASSERT_TRUE(served.delegate->waitForReadies(1));
  EXPECT_EQ(served.delegate->readies().front().connectionID, id);
  const ReplyProbe reply;
  client.proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(id, plainMessage(), reply.handler());
  EXPECT_EQ(reply.wait(), plainMessage());
  NSError error;
  EXPECT_FALSE(served.listener->sendMessage(messageWithDate(), id, &error));
  expectError(error, 3, "SendMessage failed message type check");
}

}  // namespace
}  // namespace velto::testing
