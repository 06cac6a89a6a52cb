// The life of a client as its owner sees it, wherever the ends and the broker run.

#include <chrono>

#include "tests/conformance/Statements.h"
#include "tests/support/Arrangement.h"

namespace velto::testing {
namespace {

using ClientLife = ArrangedTest;

std::string identifierOf(Actor& client) {
  return client.ask("id");
}

TEST_P(ClientLife, BecomesReadyUnderTheIdentifierThatTheListenerGave) {
  PROVES("client.life.1", "a client becomes ready under one identifier, which both delegates hear once");
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string identifier = identifierOf(*client);
  EXPECT_EQ(client->ask("await 1 ready"), "seen");
  EXPECT_EQ(client->ask("list ready"), "ready " + identifier);
  EXPECT_EQ(listener->ask("list ready"), "ready " + identifier);
  EXPECT_EQ(client->ask("list error"), "");
}

TEST_P(ClientLife, EveryClientGetsAnIdentifierOfItsOwn) {
  PROVES("client.life.2", "clients of one listener get different identifiers");
  const auto listener = makeListener();
  const auto first = makeClient();
  const auto second = makeClient();
  EXPECT_NE(identifierOf(*first), identifierOf(*second));
  EXPECT_EQ(listener->ask("count ready"), "2");
}

TEST_P(ClientLife, WithoutAListenerFailsBeforeTheDeadline) {
  PROVES("client.life.3",
         "where no listener is registered, waiting fails before its deadline and the delegate hears code 2 \"Listener "
         "not available\" with a nil identifier");
  const auto client = makeEnd();
  client->ask("connect nobody");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client->ask("ready 3600"), "error 2 Listener not available");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::minutes(30)) << "not the deadline ended it";
  EXPECT_EQ(client->ask("await 1 error"), "seen");
  EXPECT_EQ(client->ask("list error"), "error (null) 2 Listener not available");
  EXPECT_EQ(client->ask("id"), "(null)");
}

TEST_P(ClientLife, AListenerThatComesLaterDoesNotHelp) {
  PROVES("client.life.4",
         "a client that found no listener stays without one when the listener comes; a new client finds it");
  const auto early = makeEnd();
  early->ask("connect flow");
  EXPECT_EQ(early->ask("ready 20"), "error 2 Listener not available");
  const auto listener = makeListener();
  const auto late = makeClient();
  EXPECT_EQ(early->ask("ready 0"), "error 2 Listener not available");
  EXPECT_EQ(early->ask("id"), "(null)");
  EXPECT_EQ(listener->ask("count ready"), "1");
}

TEST_P(ClientLife, CloseIsToldTwiceAndLeavesTheIdentifier) {
  PROVES(
      "client.life.5",
      "after a deliberate close the delegate hears of the connection's end with the identifier and of the link's end "
      "with a nil one, each once");
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string identifier = identifierOf(*client);
  EXPECT_EQ(client->ask("close"), "closed");
  const std::string ofConnection = "error " + identifier + " 2 Listener connection invalidated";
  const std::string ofLink = "error (null) 2 Daemon connection invalidated";
  EXPECT_EQ(client->ask("await 1 " + ofConnection), "seen");
  EXPECT_EQ(client->ask("await 1 " + ofLink), "seen");
  EXPECT_EQ(client->ask("close"), "closed");
  EXPECT_EQ(client->ask("count error"), "2");
  EXPECT_EQ(client->ask("id"), identifier);
  EXPECT_EQ(client->ask("ready 0"), "yes");
}

TEST_P(ClientLife, TheListenerLearnsOfACloseByTheEndOfTheConnection) {
  PROVES("client.life.6", "the listener hears of a client's close as \"Connection invalidated\", code 2");
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string identifier = identifierOf(*client);
  client->ask("close");
  EXPECT_EQ(listener->ask("await 1 error " + identifier + " 2 Connection invalidated"), "seen");
  // It forgets the connection once its delegate has heard.
  EXPECT_TRUE(eventually([&] { return listener->ask("active " + identifier) == "no"; }));
}

TEST_P(ClientLife, ClosedByTheListenerClosesItself) {
  PROVES(
      "client.life.7",
      "a client whose connection the listener ends closes itself: its delegate hears of both ends, sends are refused");
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string identifier = identifierOf(*client);
  EXPECT_EQ(listener->ask("await 1 ready"), "seen");
  listener->ask("close " + identifier);
  EXPECT_EQ(client->ask("await 1 error " + identifier + " 2 Listener connection invalidated"), "seen");
  EXPECT_EQ(client->ask("await 1 error (null) 2 Daemon connection invalidated"), "seen");
  EXPECT_EQ(client->ask("sync 1 echo:late"), "error 2 Connection is not available");
  EXPECT_EQ(client->ask("async echo:late"), "error 2 Connection is not available");
  EXPECT_EQ(client->ask("count error"), "2");
}

TEST_P(ClientLife, ClosedBeforeItIsReadyNeverBecomesReady) {
  PROVES("client.life.8", "a client that is closed at once hears of its link's end; its owner may go on asking");
  const auto listener = makeListener();
  const auto client = makeEnd();
  client->ask("connect flow");
  client->ask("close");
  EXPECT_EQ(client->ask("await 1 error (null) 2 Daemon connection invalidated"), "seen");
  EXPECT_EQ(client->ask("sync 1 echo:never"), "error 2 Connection is not available");
}

TEST_P(ClientLife, WaitingTakesItsTimeLiterally) {
  PROVES("client.life.9", "on a ready client every wait succeeds, whatever its time");
  const auto listener = makeListener();
  const auto client = makeClient();
  for (const char* timeout : {"0", "-1", "-0.5", "nan", "3600"}) {
    EXPECT_EQ(client->ask(std::string("ready ") + timeout), "yes") << timeout;
  }
}

INSTANTIATE_TEST_SUITE_P(Arranged, ClientLife, kAllArrangements, printArrangement);

}  // namespace
}  // namespace velto::testing
