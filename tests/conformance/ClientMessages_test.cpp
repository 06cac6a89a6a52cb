// Messages and replies between a client and its listener, wherever the ends and the broker run.

#include <future>

#include "tests/conformance/Statements.h"
#include "tests/support/Arrangement.h"

namespace velto::testing {
namespace {

using ClientMessages = ArrangedTest;

TEST_P(ClientMessages, TravelToTheListenerUnderTheClientsIdentifierAndBack) {
  PROVES("client.messages.1",
         "a message reaches the listener's delegate with the client's identifier, its reply the sender");
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string identifier = client->ask("id");
  EXPECT_EQ(client->ask("sync 20 echo:hello"), "reply echo:hello");
  EXPECT_EQ(client->ask("async echo:again"), "sent");
  EXPECT_EQ(client->ask("await 1 reply echo:again"), "seen");
  EXPECT_EQ(listener->ask("list message"),
            "message echo:hello from " + identifier + "|message echo:again from " + identifier);
}

TEST_P(ClientMessages, TravelToTheClientUnderItsOwnIdentifier) {
  PROVES("client.messages.2",
         "a message of the listener reaches the client's delegate under the client's own identifier");
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string identifier = client->ask("id");
  listener->ask("await 1 ready");
  EXPECT_EQ(listener->ask("sync 20 echo:hello " + identifier), "reply echo:hello");
  EXPECT_EQ(client->ask("list message"), "message echo:hello from " + identifier);
}

TEST_P(ClientMessages, AreHeldToPlainTypesByTheClientWhileTheListenerWantsIt) {
  PROVES("client.messages.3",
         "a client of a strict listener refuses a date with code 3, and nothing reaches the listener");
  const auto listener = makeListener("flow");
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 20 date:today"), "error 3 SendMessage failed message type check");
  EXPECT_EQ(client->ask("async date:today"), "error 3 SendMessage failed message type check");
  EXPECT_EQ(client->ask("sync 20 echo:plain"), "reply echo:plain");
  EXPECT_EQ(listener->ask("count message date"), "0");
}

TEST_P(ClientMessages, HoldAnyValueWhereTypesAreNotStrict) {
  PROVES("client.messages.4", "a client of a listener that is not strict sends a date, and gets one back");
  const auto listener = makeListener("flow any");
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 20 date:today"), "reply date:today");
}

TEST_P(ClientMessages, KeepTheRulesThatTheClientWasTold) {
  PROVES(
      "types.flag.3",
      "a listener's later change of mind reaches only clients that connect afterwards: those before keep their flag");
  const auto listener = makeListener("flow");
  const auto before = makeClient();
  EXPECT_EQ(listener->ask("types any"), "done");
  const auto between = makeClient();
  EXPECT_EQ(listener->ask("types strict"), "done");
  const auto after = makeClient();
  const std::string refused = "error 3 SendMessage failed message type check";
  EXPECT_EQ(before->ask("sync 20 date:today"), refused);
  EXPECT_EQ(between->ask("sync 20 date:today"), "reply date:today");
  EXPECT_EQ(after->ask("sync 20 date:today"), refused);
}

TEST_P(ClientMessages, WithoutAnAnswerTimeOut) {
  PROVES("client.messages.5",
         "a delegate that never answers leaves the sender with nothing but its time-out, and no error for anybody");
  const auto listener = makeListener();
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 0.05 silence:please"), "error 6 Timed out waiting");
  EXPECT_EQ(client->ask("async silence:please"), "sent");
  EXPECT_EQ(listener->ask("await 2 message silence"), "seen");
  EXPECT_EQ(client->ask("sync 20 echo:still"), "reply echo:still");
  EXPECT_EQ(client->ask("count reply"), "0");
  EXPECT_EQ(client->ask("count error"), "0");
  EXPECT_EQ(listener->ask("count error"), "0");
}

TEST_P(ClientMessages, TakeTimesFromZeroOn) {
  PROVES("client.messages.6", "time-out 0 sends and returns at once, -0.5 is refused and sends nothing");
  const auto listener = makeListener();
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 0 hold:sent"), "error 6 Timed out waiting");
  EXPECT_EQ(client->ask("sync -0.5 hold:never"), "error 6 Timed out value is not valid");
  EXPECT_EQ(client->ask("sync 20 echo:last"), "reply echo:last");
  EXPECT_EQ(listener->ask("count message hold:sent"), "1");
  EXPECT_EQ(listener->ask("count message hold:never"), "0");
}

TEST_P(ClientMessages, DropAReplyThatIsLate) {
  PROVES("client.messages.7", "a reply after the time-out is dropped: it reaches nobody, and the connection goes on");
  const auto listener = makeListener();
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 0 hold:back"), "error 6 Timed out waiting");
  EXPECT_EQ(listener->ask("await 1 message hold"), "seen");
  EXPECT_EQ(listener->ask("answer"), "answered 1");
  EXPECT_EQ(client->ask("sync 20 echo:next"), "reply echo:next");
  EXPECT_EQ(client->ask("count reply"), "0");
  EXPECT_EQ(client->ask("count error"), "0");
}

TEST_P(ClientMessages, WaitForeverUntilTheReplyComes) {
  PROVES("client.messages.8", "with VKT_IPC_TIME_FOREVER a send waits until its reply comes");
  const auto listener = makeListener();
  const auto client = makeClient();
  auto waiting = inBackground([&] { return client->ask("sync -1 hold:it"); });
  EXPECT_EQ(listener->ask("await 1 message hold"), "seen");
  EXPECT_EQ(listener->ask("answer"), "answered 1");
  EXPECT_EQ(finish(waiting), "reply hold:it");
}

TEST_P(ClientMessages, EndWithTheConnection) {
  PROVES("client.messages.9", "a send that waits when the connection ends fails with code 6 \"Timed out waiting\"");
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string identifier = client->ask("id");
  auto waiting = inBackground([&] { return client->ask("sync -1 hold:it"); });
  EXPECT_EQ(listener->ask("await 1 message hold"), "seen");
  EXPECT_EQ(listener->ask("close " + identifier), "closed");
  EXPECT_EQ(finish(waiting), "error 6 Timed out waiting");
}

TEST_P(ClientMessages, MayBeSentFromInsideACallback) {
  PROVES("client.messages.10",
         "a delegate may send synchronously from inside receivedMessage, over the same connection, at either end");
  const auto listener = makeListener();
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 20 nest:1"), "reply nest:1");
  listener->ask("await 1 ready");
  EXPECT_EQ(listener->ask("sync 20 nest:1 " + client->ask("id")), "reply nest:1");
}

TEST_P(ClientMessages, MayCloseTheirConnectionFromInsideACallback) {
  PROVES("client.messages.11", "a delegate may close the connection from inside receivedMessage");
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string identifier = client->ask("id");
  listener->ask("await 1 ready");
  EXPECT_EQ(listener->ask("sync 20 finish:now " + identifier), "error 6 Timed out waiting");
  EXPECT_EQ(client->ask("await 1 error " + identifier + " 2 Listener connection invalidated"), "seen");
  EXPECT_EQ(client->ask("await 1 error (null) 2 Daemon connection invalidated"), "seen");
}

TEST_P(ClientMessages, OfSeveralSendersAtOnceGetTheirOwnReplies) {
  PROVES("client.messages.12", "clients that send at the same time get their own replies");
  const auto listener = makeListener();
  const auto first = makeClient();
  const auto second = makeClient();
  auto one = inBackground([&] { return first->ask("burst 20"); });
  auto other = inBackground([&] { return second->ask("burst 20"); });
  EXPECT_EQ(finish(one), "done");
  EXPECT_EQ(finish(other), "done");
  EXPECT_EQ(listener->ask("count message echo"), "40");
}

INSTANTIATE_TEST_SUITE_P(Arranged, ClientMessages, kAllArrangements, printArrangement);

}  // namespace
}  // namespace velto::testing
