// The main flows, wherever the ends and the broker run.

#include <vector>

#include "tests/support/Arrangement.h"

namespace velto::testing {
namespace {

class Flow : public ArrangedTest {};
INSTANTIATE_TEST_SUITE_P(Everywhere, Flow, kAllArrangements, printArrangement);

TEST_P(Flow, BothEndsBecomeReadyUnderOneIdentifier) {
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string id = client->ask("id");
  EXPECT_EQ(client->ask("await 1 ready " + id), "seen");
  EXPECT_EQ(listener->ask("await 1 ready " + id), "seen");
  EXPECT_EQ(listener->ask("count ready"), "1");
  EXPECT_EQ(listener->ask("count error"), "0");
  EXPECT_EQ(client->ask("count error"), "0");
}

TEST_P(Flow, ARequestGetsItsReply) {
  const auto listener = makeListener();
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 20 echo:hello"), "reply echo:hello");
  EXPECT_EQ(listener->ask("await 1 message echo:hello from " + client->ask("id")), "seen");
}

TEST_P(Flow, ListenerSendsToTheClientItNames) {
  const auto listener = makeListener();
  const auto one = makeClient();
  const auto other = makeClient();
  EXPECT_EQ(listener->ask("sync 20 echo:one " + one->ask("id")), "reply echo:one");
  EXPECT_EQ(listener->ask("async echo:other " + other->ask("id")), "sent");
  EXPECT_EQ(listener->ask("await 1 reply echo:other"), "seen");
  EXPECT_EQ(one->ask("list message"), "message echo:one from " + one->ask("id"));
  EXPECT_EQ(other->ask("list message"), "message echo:other from " + other->ask("id"));
}

TEST_P(Flow, RepliesToAsynchronousMessagesComeInOrder) {
  const auto listener = makeListener();
  const auto client = makeClient();
  std::string expected;
  for (int number = 0; number < 100; ++number) {
    const std::string payload = "echo:" + std::to_string(number);
    ASSERT_EQ(client->ask("async " + payload), "sent");
    expected += (number > 0 ? "|reply " : "reply ") + payload;
  }
  EXPECT_EQ(client->ask("await 100 reply"), "seen");
  EXPECT_EQ(client->ask("list reply"), expected);
}

TEST_P(Flow, RepliesMayComeMuchLaterThanTheMessages) {
  const auto listener = makeListener();
  const auto client = makeClient();
  ASSERT_EQ(client->ask("async hold:a"), "sent");
  ASSERT_EQ(client->ask("async hold:b"), "sent");
  EXPECT_EQ(client->ask("sync 20 echo:between"), "reply echo:between");
  EXPECT_EQ(client->ask("count reply"), "0");
  EXPECT_EQ(listener->ask("answer"), "answered 2");
  EXPECT_EQ(client->ask("await 2 reply"), "seen");
  EXPECT_EQ(client->ask("list reply"), "reply hold:a|reply hold:b");
}

TEST_P(Flow, StrictTypesAreRefusedAndOthersTravel) {
  const auto strict = makeListener("flow");
  const auto held = makeClient();
  EXPECT_EQ(held->ask("sync 20 date:x"), "error 3 SendMessage failed message type check");
  EXPECT_EQ(held->ask("async date:x"), "error 3 SendMessage failed message type check");
  EXPECT_EQ(strict->ask("sync 20 date:x " + held->ask("id")), "error 3 SendMessage failed message type check");
  EXPECT_EQ(held->ask("sync 20 echo:fine"), "reply echo:fine");
  EXPECT_EQ(strict->ask("count message date"), "0");
  // The last registration of a name wins.
  const auto lax = makeListener("flow any");
  const auto free = makeClient();
  EXPECT_EQ(free->ask("sync 20 date:x"), "reply date:x");
  EXPECT_EQ(lax->ask("sync 20 date:x " + free->ask("id")), "reply date:x");
}

TEST_P(Flow, WithoutReplyASendTimesOutAtBothEnds) {
  const auto listener = makeListener();
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 0.1 silence:x"), "error 6 Timed out waiting");
  EXPECT_EQ(listener->ask("sync 0.1 silence:x " + client->ask("id")), "error 6 Timed out waiting");
  EXPECT_EQ(client->ask("sync -0.5 echo:x"), "error 6 Timed out value is not valid");
  EXPECT_EQ(client->ask("sync -1 echo:x"), "reply echo:x");
  EXPECT_EQ(client->ask("count error"), "0");
}

TEST_P(Flow, AnUnknownNameIsNotAvailable) {
  const auto client = makeEnd();
  EXPECT_EQ(client->ask("connect nowhere"), "connecting");
  EXPECT_EQ(client->ask("ready 20"), "error 2 Listener not available");
  EXPECT_EQ(client->ask("await 1 error (null) 2 Listener not available"), "seen");
  EXPECT_EQ(client->ask("sync 20 echo:x"), "error 2 Connection is not available");
}

TEST_P(Flow, AClientsCloseIsHeardByTheListener) {
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string id = client->ask("id");
  EXPECT_EQ(client->ask("close"), "closed");
  EXPECT_EQ(listener->ask("await 1 error " + id + " 2 Connection invalidated"), "seen");
  EXPECT_EQ(client->ask("await 1 error " + id + " 2 Listener connection invalidated"), "seen");
  EXPECT_EQ(client->ask("await 1 error (null) 2 Daemon connection invalidated"), "seen");
  EXPECT_EQ(listener->ask("count error"), "1");
  // The delegate is told first.
  EXPECT_TRUE(eventually([&] { return listener->ask("active " + id) == "no"; }));
  EXPECT_EQ(listener->ask("sync 20 echo:x " + id), "error 2 Connection is not available");
  EXPECT_EQ(client->ask("sync 20 echo:x"), "error 2 Connection is not available");
}

TEST_P(Flow, AListenersCloseIsHeardByItsClients) {
  const auto listener = makeListener();
  const auto one = makeClient();
  const auto other = makeClient();
  EXPECT_EQ(listener->ask("close " + one->ask("id")), "closed");
  EXPECT_EQ(one->ask("await 1 error " + one->ask("id") + " 2 Listener connection invalidated"), "seen");
  EXPECT_EQ(other->ask("sync 20 echo:x"), "reply echo:x");
  EXPECT_EQ(listener->ask("close"), "closed");
  EXPECT_EQ(other->ask("await 1 error " + other->ask("id") + " 2 Listener connection invalidated"), "seen");
  EXPECT_EQ(other->ask("count error " + other->ask("id") + " 2 Listener connection interrupted"), "0");
}

TEST_P(Flow, WhatWasSentBeforeACloseStillArrives) {
  const auto listener = makeListener();
  const auto client = makeClient();
  for (int number = 0; number < 20; ++number) ASSERT_EQ(client->ask("async silence:" + std::to_string(number)), "sent");
  EXPECT_EQ(client->ask("close"), "closed");
  EXPECT_EQ(listener->ask("await 20 message silence"), "seen");
}

TEST_P(Flow, ManyClientsAtOnceAreServed) {
  const auto listener = makeListener();
  std::vector<std::unique_ptr<Actor>> clients;
  for (int number = 0; number < 4; ++number) clients.push_back(makeClient());
  std::vector<std::future<std::string>> bursts;
  for (const auto& client : clients) bursts.push_back(inBackground([&] { return client->ask("burst 100"); }));
  for (auto& burst : bursts) EXPECT_EQ(finish(burst), "done");
  EXPECT_EQ(listener->ask("count message"), "400");
  EXPECT_EQ(listener->ask("count ready"), "4");
}

TEST_P(Flow, ASendMayWaitInsideACallbackAtBothEnds) {
  const auto listener = makeListener();
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 20 nest:1"), "reply nest:1");
  EXPECT_EQ(listener->ask("sync 20 nest:1 " + client->ask("id")), "reply nest:1");
}

TEST_P(Flow, CrossingSendsFromBothEndsAreAllAnswered) {
  const auto listener = makeListener();
  const auto client = makeClient();
  const std::string id = client->ask("id");
  auto there = inBackground([&] { return client->ask("burst 100"); });
  for (int number = 0; number < 100; ++number) {
    ASSERT_EQ(listener->ask("sync 20 echo:back " + id), "reply echo:back");
  }
  EXPECT_EQ(finish(there), "done");
}

TEST_P(Flow, AConnectionMayBeClosedFromInsideItsCallback) {
  const auto listener = makeListener();
  const auto one = makeClient();
  EXPECT_EQ(one->ask("sync -1 finish:you"), "error 6 Timed out waiting");
  EXPECT_EQ(one->ask("await 1 error " + one->ask("id") + " 2 Listener connection invalidated"), "seen");
  const auto other = makeClient();
  EXPECT_EQ(listener->ask("sync -1 finish:yourself " + other->ask("id")), "error 6 Timed out waiting");
  EXPECT_EQ(listener->ask("await 1 error " + other->ask("id") + " 2 Connection invalidated"), "seen");
}

TEST_P(Flow, ALargeMessageTravelsUnchanged) {
  const auto listener = makeListener();
  const auto client = makeClient();
  EXPECT_EQ(client->ask("sync 20 bytes:1048576"), "reply bytes:1048576");
  EXPECT_EQ(listener->ask("sync 20 bytes:1048577 " + client->ask("id")), "reply bytes:1048577");
  EXPECT_EQ(client->ask("sync 20 bytes:0"), "reply bytes:0");
}

}  // namespace
}  // namespace velto::testing
