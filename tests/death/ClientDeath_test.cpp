// A client that dies or halts at any step of its life; its listener survives.

#include "tests/death/DeathTest.h"
#include "tests/peer/Payload.h"

namespace velto::testing {
namespace {

// The streams of a client, in the order in which it makes them.
constexpr std::size_t kToListener = 2;

std::string_view phaseOf(const Words& words) {
  if (words.said(kToListener, "goodbye")) return "closed";
  if (words.said(kToListener, "reply")) return "answered";
  if (words.heard(kToListener, "message")) return "was asked";
  if (words.said(kToListener, "message")) return "sent its message";
  if (words.said(kToListener, "ping")) return "called";
  return "before its first call arrived";
}

Sent sendFrom(const ListenerEnd& server, const NSString& id) {
  auto call = inBackground([&] {
    Sent sent;
    sent.tried = true;
    sent.reply = server.listener->sendMessageSync(messageOf("echo:2"), id, VKT_IPC_TIME_FOREVER, &sent.error);
    return sent;
  });
  return finish(call);
}

class ClientDeath : public DeathTest {
 protected:
  // One life of a client; what its listener makes of it.
  Life live(const DeathPlan& plan) {
    ListenerEnd server("doomed");
    server.delegate->echo();
    DyingProcess client("client", plan);
    HaltWatch watch(client, [&] { probe(server); });
    client.ask("connect doomed");
    client.ask("ready 20");
    client.ask("sync 20 echo:1");
    NSString id;
    Sent sent;
    if (!client.isDead() || client.words().said(kToListener, "ping")) {
      server.delegate->waitForReadies(1);
      id = server.delegate->readies().at(0).connectionID;
      sent = sendFrom(server, id);
    }
    client.ask("close");
    const Words words = client.words();
    SCOPED_TRACE(words.line());
    if (id) {
      server.delegate->waitForError("Connection invalidated");
      EXPECT_TRUE(eventually([&] { return server.entries(id) == kNoEntries; }));
    }
    log.waitForContaining(0, "is cut off", words.partialFrames());
    judge(server, id, sent, words);
    return endOf(client, watch);
  }

  // The listener serves others, whatever becomes of this one; and what that one said before has been heard by then.
  void judge(const ListenerEnd& server, const NSString& id, const Sent& sent, const Words& words) {
    ClientEnd other("doomed");
    const NSString otherID = other.ready();
    EXPECT_EQ(other.connection->sendMessageSync(messageOf("echo:3"), 20.0), messageOf("echo:3"));
    const auto isActive = [&] { return id && server.listener->isConnectionActive_internal(id); };
    const bool ready = server.delegate->readies().size() == (id ? 2u : 1u) && id;
    const std::string_view phase = phaseOf(words);
    seen.add(phase);
    waitForLoggedErrors(log, {server.delegate.get()});
    const LoggedFailures failures(log);
    EXPECT_EQ(failures.cutOff, words.partialFrames());
    expectRow(rowOf(kClientDies, phase),
              {heardBy(*server.delegate, id), failures, sent, ready, !isActive() && server.entries(id) == kNoEntries},
              stops() ? 1 : 0);
  }

  // Who waits, with a time-out, for a client that is stopped is released. (It may have said goodbye before.)
  static void probe(const ListenerEnd& server) {
    const auto readies = server.delegate->readies();
    if (readies.empty()) return;
    const NSString id = readies.at(0).connectionID;
    NSError error;
    EXPECT_TRUE(server.listener->sendMessageSync(messageOf("silence:"), id, 0.01, &error).isNil());
    const bool isOver = server.entries(id) != kAllEntries;
    if (!isOver || error.code() != 2) expectError(error, 6, "Timed out waiting");
  }

  BrokerHere broker;
};

TEST_P(ClientDeath, AtEveryStepIsHeardAsTheTableSays) {
  goThrough(kClientDies, {}, [&](const DeathPlan& plan) { return live(plan); });
}

INSTANTIATE_TEST_SUITE_P(Death, ClientDeath, kWays, printWay);

}  // namespace
}  // namespace velto::testing
