// A listener that dies or halts at any step of its life; its client survives, and so does the broker.

#include "tests/death/DeathTest.h"
#include "tests/peer/Payload.h"
#include "tests/support/BrokerLink.h"

namespace velto::testing {
namespace {

// The streams of a listener, in the order in which it makes them.
constexpr std::size_t kToClient = 2;

std::string_view phaseOf(const Words& words) {
  if (words.said(kToClient, "goodbye")) return "closed";
  if (words.said(kToClient, "message")) return "sent its message";
  if (words.said(kToClient, "reply")) return "answered";
  if (words.heard(kToClient, "message")) return "was asked";
  if (words.said(kToClient, "identifier")) return "introduced itself";
  return "before it introduced itself";
}

Sent sendFrom(const ClientEnd& client) {
  auto call = inBackground([&] {
    Sent sent;
    sent.tried = true;
    sent.reply = client.connection->sendMessageSync(messageOf("echo:1"), VKT_IPC_TIME_FOREVER, &sent.error);
    return sent;
  });
  return finish(call);
}

bool waitUntilReady(const ClientEnd& client) {
  auto call = inBackground([&] {
    NSError error;
    const bool ready = client.connection->waitUntilReady(4.0 * static_cast<double>(kBound.count()), &error);
    EXPECT_TRUE(ready || error);
    return ready;
  });
  return finish(call);
}

class ListenerDeath : public DeathTest {
 protected:
  // One life of a listener; what its client makes of it.
  Life live(const DeathPlan& plan) {
    DyingProcess listener("listener", plan);
    HaltWatch watch(listener, [&] { probe(); });
    const bool isRegistered = listener.ask("listen doomed").has_value();
    // The broker drops a registration whose listener is gone, and says nothing of it.
    TestLink link;
    EXPECT_TRUE(isRegistered || eventually([&] { return link.find("doomed").isNil(); }));
    {
      ClientEnd client("doomed");
      client.delegate->echo();
      probed_.set(client.connection);
      const bool ready = waitUntilReady(client);
      Sent sent;
      if (ready) sent = sendFrom(client);
      if (ready) listener.ask("sync 20 echo:2 " + client.connection->getID().string());
      listener.ask("close");
      const Words words = listener.words();
      SCOPED_TRACE(words.line());
      judge(client, ready, sent, words, isRegistered);
      const Life life = endOf(listener, watch);
      probed_.set(nullptr);
      return life;
    }
  }

  void judge(const ClientEnd& client, bool ready, const Sent& sent, const Words& words, bool wasRegistered) {
    const std::string_view phase = wasRegistered ? phaseMet(client, words) : "before the look-up";
    seen.add(phase);
    const Row& row = rowOf(kListenerDies, phase);
    if (phase == "before the look-up") client.delegate->waitForError("Listener not available");
    if (row.closed) {
      client.delegate->waitForError("Listener connection invalidated");
      client.delegate->waitForError("Daemon connection invalidated");
    }
    log.waitForContaining(0, "is cut off", words.partialFrames());
    waitForLoggedErrors(log, {client.delegate.get()});
    const LoggedFailures failures(log);
    EXPECT_EQ(failures.cutOff, words.partialFrames());
    const auto& connection = client.connection;
    const bool closed = !connection->listenerConnection() && !connection->listenerEndpoint() &&
                        !connection->listenerProxyObject() && !connection->daemonConnection();
    const NSString id = connection->getID();
    expectRow(row, {heardBy(*client.delegate, id), failures, sent, ready, closed}, stops() ? 1 : 0);
  }

  // A listener that died on its own, between the registration and the client's connection, shows no stream to a client:
  // only then the client's view decides, between what the table knows for a listener that is gone.
  static std::string_view phaseMet(const ClientEnd& client, const Words& words) {
    if (words.hasStream(kToClient)) return phaseOf(words);
    client.delegate->waitForErrors(1);
    if (client.delegate->errorCount("Listener not available") > 0) return "before the look-up";
    client.delegate->waitForError("Listener connection invalidated");
    return client.delegate->errorCount("Listener connection interrupted") > 0 ? "before it introduced itself"
                                                                              : "could not be reached";
  }

  // Who waits, with a time-out, for a listener that is stopped is released.
  void probe() {
    const auto connection = probed_.get();
    if (!connection) return;
    NSError error;
    if (!connection->waitUntilReady(0.01, &error)) {
      expectError(error, 6, "Timed out waiting");
      return;
    }
    EXPECT_TRUE(connection->sendMessageSync(messageOf("silence:"), 0.01, &error).isNil());
    if (connection->listenerProxyObject() || error.code() != 2) expectError(error, 6, "Timed out waiting");
  }

  BrokerHere broker;
  AtomicProperty<std::shared_ptr<VeltoConnection>> probed_;
};

TEST_P(ListenerDeath, AtEveryStepIsHeardAsTheTableSays) {
  // Which of the two comes when the listener dies unasked is the kernel's affair.
  goThrough(kListenerDies, {"could not be reached"}, [&](const DeathPlan& plan) { return live(plan); });
}

INSTANTIATE_TEST_SUITE_P(Death, ListenerDeath, kWays, printWay);

}  // namespace
}  // namespace velto::testing
