// What can be seen of a listener from outside, in every arrangement: all in one process, with the broker as a program,
// and with each end in a process of its own.

#include <csignal>

#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

using ListenerFromOutside = ArrangedTest;
INSTANTIATE_TEST_SUITE_P(, ListenerFromOutside, kAllArrangements, printArrangement);

constexpr const char* kTimedOut = "error 6 Timed out waiting";
constexpr const char* kUnavailableAnswer = "error 2 Connection is not available";

TEST_P(ListenerFromOutside, GivesEveryConnectionANewIdentifier) {
  PROVES("listener.accept.1", "every connection gets a new identifier");
  PROVES("listener.accept.18", "two clients have two identifiers and two entries in each table");
  PROVES("listener.accept.19", "a client that connects anew gets a new identifier, and the old one leaves the tables");
  PROVES("listener.start.15", "once registered under a name, a client that looks the name up reaches this listener");
  const auto server = makeListener();
  const auto first = makeClient();
  const auto second = makeClient();
  const std::string firstID = first->ask("id");
  const std::string secondID = second->ask("id");
  EXPECT_NE(firstID, secondID);
  EXPECT_EQ(server->ask("await 1 ready " + firstID), "seen");
  EXPECT_EQ(server->ask("await 1 ready " + secondID), "seen");
  EXPECT_EQ(server->ask("active " + firstID), "yes");
  EXPECT_EQ(server->ask("active " + secondID), "yes");
  first->ask("close");
  EXPECT_EQ(server->ask("await 1 error " + firstID + " 2 Connection invalidated"), "seen");
  const auto third = makeClient();
  const std::string thirdID = third->ask("id");
  EXPECT_NE(thirdID, firstID);
  EXPECT_NE(thirdID, secondID);
  EXPECT_EQ(server->ask("count ready"), "3");
  EXPECT_EQ(server->ask("count error"), "1");
}

TEST_P(ListenerFromOutside, ExchangesMessagesAndRepliesBothWays) {
  PROVES("listener.send.16", "the handler gets the client's reply");
  PROVES("listener.sync.5", "a synchronous send returns the client's reply and does not write the error");
  PROVES("listener.receive.6", "the reply of the delegate's handler reaches the client");
  const auto server = makeListener();
  const auto client = makeClient();
  const std::string id = client->ask("id");
  EXPECT_EQ(client->ask("sync 20 echo:one"), "reply echo:one");
  EXPECT_EQ(server->ask("await 1 message echo:one from " + id), "seen");
  EXPECT_EQ(server->ask("sync 20 echo:two " + id), "reply echo:two");
  EXPECT_EQ(server->ask("sync 20 date:three " + id), "reply date:three");
  EXPECT_EQ(client->ask("await 1 message echo:two from " + id), "seen");
  EXPECT_EQ(server->ask("async echo:four " + id), "sent");
  EXPECT_EQ(server->ask("await 1 reply echo:four"), "seen");
  EXPECT_EQ(server->ask("count error"), "0");
  EXPECT_EQ(client->ask("count error"), "0");
}

TEST_P(ListenerFromOutside, ReachesTheClientThatIsNamedAndNoOther) {
  PROVES("listener.send.15", "a message reaches the client that is named and no other");
  PROVES("listener.send.1",
         "a send to an unknown identifier logs \"VeltoIPCListener Connection is not available\" at level 0 and fails "
         "with code 2 \"Connection is not available\"");
  PROVES("listener.sync.10",
         "a synchronous send to an unknown identifier fails with code 2, logs like a send, and registers nothing");
  const auto server = makeListener();
  const auto first = makeClient();
  const auto second = makeClient();
  EXPECT_EQ(server->ask("sync 20 echo:x " + first->ask("id")), "reply echo:x");
  EXPECT_EQ(first->ask("count message"), "1");
  EXPECT_EQ(second->ask("count message"), "0");
  EXPECT_EQ(server->ask("sync 20 echo:x nobody"), kUnavailableAnswer);
  EXPECT_EQ(server->ask("async echo:x nobody"), kUnavailableAnswer);
  EXPECT_EQ(server->ask("sync -0.5 echo:x nobody"), "error 6 Timed out value is not valid");
}

TEST_P(ListenerFromOutside, GivesUpOnAClientThatDoesNotAnswerInTime) {
  PROVES("listener.sync.7", "a deadline that passes fails with code 6 \"Timed out waiting\" and logs nothing");
  PROVES("listener.sync.16", "a reply that comes too late has no effect and logs nothing at the sender");
  const auto server = makeListener();
  const auto client = makeClient();
  const std::string id = client->ask("id");
  EXPECT_EQ(server->ask("sync 0.03 hold:late " + id), kTimedOut);
  EXPECT_EQ(server->ask("sync 0 silence:x " + id), kTimedOut);
  EXPECT_EQ(client->ask("await 1 message hold:late"), "seen");
  EXPECT_EQ(client->ask("answer"), "answered 1");
  EXPECT_EQ(server->ask("sync 20 echo:after " + id), "reply echo:after");
  EXPECT_EQ(server->ask("count error"), "0");
}

TEST_P(ListenerFromOutside, EndsTheWaitWhenTheConnectionIsClosedMeanwhile) {
  PROVES("listener.sync.15",
         "closing the connection ends a synchronous send with code 6 \"Timed out waiting\", not code 2, and logs "
         "nothing of its own");
  PROVES("listener.sync.27",
         "a client that goes away ends the synchronous sends to it with code 6 \"Timed out waiting\"");
  PROVES("listener.drop.11",
         "after an owner's close the delegate hears code 2 \"Connection invalidated\" with the identifier, and a "
         "second \"Cleared out\" line follows");
  const auto server = makeListener();
  const auto client = makeClient();
  const std::string id = client->ask("id");
  // The client closes its connection inside the callback, while the listener waits.
  EXPECT_EQ(server->ask("sync -1 finish:now " + id), kTimedOut);
  EXPECT_EQ(server->ask("await 1 error " + id + " 2 Connection invalidated"), "seen");
  EXPECT_EQ(server->ask("sync 20 echo:x " + id), kUnavailableAnswer);
  const auto other = makeClient();
  const std::string otherID = other->ask("id");
  EXPECT_EQ(server->ask("close " + otherID), "closed");
  EXPECT_EQ(server->ask("active " + otherID), "no");
  EXPECT_EQ(server->ask("await 1 error " + otherID + " 2 Connection invalidated"), "seen");
  EXPECT_EQ(other->ask("await 1 error " + otherID + " 2 Listener connection invalidated"), "seen");
}

TEST_P(ListenerFromOutside, OnClosingTellsOfEveryConnectionAndOfTheLink) {
  PROVES("listener.close.9",
         "close with three connections brings six \"Cleared out\" lines, three \"Connection invalidated\" with their "
         "identifiers and one \"Daemon connection invalidated\" with nil");
  PROVES("listener.close.14", "after close the name still leads to the listener while it lives");
  const auto server = makeListener();
  const auto first = makeClient();
  const auto second = makeClient();
  const auto third = makeClient();
  server->ask("close");
  for (const auto* client : {&first, &second, &third}) {
    EXPECT_EQ(server->ask("await 1 error " + (*client)->ask("id") + " 2 Connection invalidated"), "seen");
  }
  EXPECT_EQ(server->ask("await 1 error (null) 2 Daemon connection invalidated"), "seen");
  EXPECT_EQ(server->ask("count error"), "4");
  const auto late = makeClient();
  EXPECT_EQ(server->ask("active " + late->ask("id")), "yes");
  server->ask("close");
  EXPECT_EQ(server->ask("await 4 error"), "seen");
}

TEST_P(ListenerFromOutside, HoldsBothEndsToThePlainTypesUnlessToldOtherwise) {
  PROVES("listener.init.2", "init turns strict types on");
  PROVES("listener.strict.3", "a client that connects later gets the new flag");
  PROVES("listener.sync.11",
         "a synchronous send whose message fails the check fails with code 3 and leaves its wait condition registered");
  const auto server = makeListener("flow");
  const auto client = makeClient();
  const std::string id = client->ask("id");
  constexpr const char* kCheckFailedAnswer = "error 3 SendMessage failed message type check";
  EXPECT_EQ(client->ask("sync 20 date:x"), kCheckFailedAnswer);
  EXPECT_EQ(server->ask("sync 20 date:x " + id), kCheckFailedAnswer);
  EXPECT_EQ(server->ask("async date:x " + id), kCheckFailedAnswer);
  EXPECT_EQ(client->ask("sync 20 echo:x"), "reply echo:x");
  EXPECT_EQ(client->ask("count message"), "0");
  EXPECT_EQ(server->ask("count message"), "1");
}

TEST_P(ListenerFromOutside, SendsFromInsideItsCallbacksOverTheVeryConnection) {
  PROVES("reentrancy.listener.2",
         "inside the listener's receivedMessage every public function can be called, and by another thread that the "
         "callback waits for");
  PROVES("reentrancy.client.2",
         "inside the client's receivedMessage every public function can be called, and by another thread that the "
         "callback waits for");
  const auto server = makeListener();
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 20 nest:1"), "reply nest:1");
  EXPECT_EQ(server->ask("sync 20 nest:1 " + client->ask("id")), "reply nest:1");
  EXPECT_EQ(server->ask("count message"), "2");
  EXPECT_EQ(client->ask("count message"), "2");
}

using ListenerOfChildren = ArrangedTest;
INSTANTIATE_TEST_SUITE_P(, ListenerOfChildren, ::testing::Values(Arrangement::endsInChildrenWithDaemon),
                         printArrangement);

TEST_P(ListenerOfChildren, HearsOfAClientThatWasKilledWhileItWaitedForIt) {
  PROVES("listener.interrupted.2",
         "an interruption is told with the connection's identifier and code 2 \"Connection interrupted\"");
  PROVES("listener.interrupted.6", "a client that vanishes is told as an interruption and then as an invalidation");
  PROVES("listener.sync.27",
         "a client that goes away ends the synchronous sends to it with code 6 \"Timed out waiting\"");
  const auto server = makeListener();
  const auto client = makeClient();
  const std::string id = client->ask("id");
  auto call = inBackground([&] { return server->ask("sync -1 silence:x " + id); });
  EXPECT_EQ(client->ask("await 1 message silence:x"), "seen");
  static_cast<ChildActor&>(*client).process().signal(SIGKILL);
  EXPECT_EQ(finish(call), kTimedOut);
  EXPECT_EQ(server->ask("await 1 error " + id + " 2 Connection invalidated"), "seen");
  EXPECT_EQ(server->ask("list error " + id + " 2 Connection"),
            "error " + id + " 2 Connection interrupted|error " + id + " 2 Connection invalidated");
  EXPECT_EQ(server->ask("active " + id), "no");
}

}  // namespace
}  // namespace velto::testing
