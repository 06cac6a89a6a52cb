// A broker that dies or halts at any step of its work; a listener and its client survive.

#include "broker/VeltoIPCDaemonProtocol.h"
#include "platform/xpc/NSXPCConnection.h"
#include "tests/death/DeathTest.h"
#include "tests/peer/Payload.h"

namespace velto::testing {
namespace {

// The links of a broker, in the order in which it accepts them.
constexpr std::size_t kOfListener = 1;
constexpr std::size_t kOfClient = 2;

// Whether the broker has dealt with all that was sent over the link before; no, when the link ends first.
bool isDealtWith(const std::shared_ptr<NSXPCConnection>& link) {
  const auto answer = std::make_shared<std::promise<bool>>();
  const auto proxy = link->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>(
      [answer](const NSError&) { answer->set_value(false); });
  proxy->call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
      "org.velto.nobody", [answer](const NSXPCListenerEndpoint&) { answer->set_value(true); });
  auto answered = answer->get_future();
  return finish(answered);
}

// What a link hears of its broker's death.
std::string_view endOfLink(const Words& words, std::size_t link, bool wasDeadBefore, const Heard& heard) {
  const bool hasClosedItself = words.heard(link, "goodbye") || !wasDeadBefore;
  const bool wasAccepted = words.hasStream(link);
  // One that closes its link while the broker dies hears of the one or the other.
  if ((hasClosedItself && !words.heard(link, "goodbye")) || !wasAccepted) {
    return heard.link == "invalidated" ? "invalidated" : "interrupted invalidated";
  }
  return hasClosedItself ? "invalidated" : "interrupted invalidated";
}

class BrokerDeath : public DeathTest {
 protected:
  struct End {
    const std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    Heard heard(const NSString& id) const { return heardBy(*delegate, id); }
  };

  Life live(const DeathPlan& plan) {
    DyingProcess broker("broker", plan);
    HaltWatch watch(broker, [&] { probe(); });
    End server;
    End client;
    server.delegate->echo();
    client.delegate->echo();
    const auto listener = VeltoListener::initWithServiceName("doomed", server.delegate);
    isDealtWith(listener->daemonConnection());
    const auto connection = VeltoConnection::initWithServiceName("doomed", client.delegate);
    probed_.set(connection);
    const bool ready = waitUntilReady(connection);
    Sent sent;
    if (ready) sent = talk(*listener, *connection);
    const bool isDead = !broker.ask("words");
    if (isDead) waitForLinks(server, client);
    waitForLoggedErrors(log, {server.delegate.get(), client.delegate.get()});
    const LoggedFailures failures(log);
    const Heard clientHeard = client.heard(connection->getID());
    const bool closed = !connection->daemonConnection();
    probed_.set(nullptr);
    closeBoth(server, client, *listener, *connection);
    const Words words = broker.words();
    SCOPED_TRACE(words.line());
    if (isDead) judge(words, {clientHeard, withoutTheListeners(failures, server), sent, ready, closed});
    EXPECT_TRUE(isDead || clientHeard.connection == "ready message") << clientHeard.connection;
    expectLink(words, kOfListener, isDead, server.heard(nil));
    expectLink(words, kOfClient, isDead, client.heard(connection->getID()));
    const Life life = endOf(broker, watch);
    waitUntilAlone(listener);
    waitUntilAlone(connection);
    return life;
  }

  static bool waitUntilReady(const std::shared_ptr<VeltoConnection>& connection) {
    auto call = inBackground([&] {
      NSError error;
      const bool ready = connection->waitUntilReady(4.0 * static_cast<double>(kBound.count()), &error);
      EXPECT_TRUE(ready || error);
      return ready;
    });
    return finish(call);
  }

  // A message each way: whatever becomes of the broker, they get through.
  static Sent talk(VeltoListener& listener, VeltoConnection& connection) {
    auto call = inBackground([&] {
      Sent sent;
      sent.tried = true;
      EXPECT_EQ(listener.sendMessageSync(messageOf("echo:2"), connection.getID(), VKT_IPC_TIME_FOREVER),
                messageOf("echo:2"));
      sent.reply = connection.sendMessageSync(messageOf("echo:1"), VKT_IPC_TIME_FOREVER, &sent.error);
      return sent;
    });
    return finish(call);
  }

  static void waitForLinks(const End& server, const End& client) {
    server.delegate->waitForError("Daemon connection invalidated");
    client.delegate->waitForError("Daemon connection invalidated");
  }

  // Closing is a step too; the links end, whether the broker lives or not.
  static void closeBoth(const End& server, const End& client, VeltoListener& listener, VeltoConnection& connection) {
    connection.close();
    client.delegate->waitForError("Daemon connection invalidated");
    listener.close();
    waitForLinks(server, client);
    for (const NSObject& id : listener.receivedConnections().allKeys()) listener.close(id.as<NSString>());
  }

  // The client's failures alone: what the listener logged of its own link is known from what it heard.
  static LoggedFailures withoutTheListeners(LoggedFailures failures, const End& server) {
    const Heard heard = server.heard(nil);
    failures.proxyErrors -= heard.unsettled;
    for (const std::string line : {"Daemon connection interrupted", "Daemon connection invalidated"}) {
      if (heard.link.find(line.substr(18)) == std::string::npos) continue;
      const std::size_t place = failures.lines.find(line + "|");
      EXPECT_NE(place, std::string::npos) << failures.lines;
      if (place != std::string::npos) failures.lines.erase(place, line.size() + 1);
    }
    return failures;
  }

  void judge(const Words& words, const Survivor& client) {
    const bool isAnswered = words.said(kOfClient, "reply");
    const bool wasReached = words.hasStream(kOfClient) || client.heard.link != "invalidated";
    const std::string_view phase = isAnswered   ? "answered the look-up"
                                   : wasReached ? "before it answered the look-up"
                                                : "could not be reached";
    seen.add(phase);
    expectRow(rowOf(kBrokerDies, phase), client);
  }

  static void expectLink(const Words& words, std::size_t link, bool wasDeadBefore, const Heard& heard) {
    EXPECT_EQ(heard.link, endOfLink(words, link, wasDeadBefore, heard));
  }

  // While the broker is stopped nobody finds anybody, and who waits for that is released; who has been found talks on.
  void probe() {
    const auto connection = probed_.get();
    NSError error;
    if (connection && !connection->waitUntilReady(0.01, &error)) expectError(error, 6, "Timed out waiting");
    if (connection && connection->listenerProxyObject() && connection->getID()) {
      EXPECT_FALSE(connection->sendMessageSync(messageOf("echo:5"), 20.0, &error).isNil())
          << error.description().view();
    }
  }

  AtomicProperty<std::shared_ptr<VeltoConnection>> probed_;
};

TEST_P(BrokerDeath, AtEveryStepIsHeardAsTheTableSays) {
  // Whether a broker that dies unasked is still there for the client's link is the kernel's affair.
  goThrough(kBrokerDies, {"could not be reached"}, [&](const DeathPlan& plan) { return live(plan); });
}

INSTANTIATE_TEST_SUITE_P(Death, BrokerDeath, kWays, printWay);

}  // namespace
}  // namespace velto::testing
