// Two ends in one process: how calls end.

#include "calls/Peer.h"

#include <future>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "calls/Terms.h"
#include "message/PeerProtocol.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Support.h"

namespace velto::calls {
namespace {

using velto::testing::eventually;
using velto::testing::Inbox;
using Request = std::shared_ptr<Incoming>;
using namespace std::chrono_literals;

class Peers : public ::testing::Test {
 protected:
  Peers() {
    const auto ends = NSXPCConnection::pair();
    std::promise<void> isReady;
    service = Peer::make(ends.second, Peer::Hooks{nullptr, [this](Request request) { onRequest(std::move(request)); },
                                                  [this](const CallError& error) { serviceEnded.put(error); }});
    service->serve("the client", true);
    client = Peer::make(ends.first, Peer::Hooks{[&] { isReady.set_value(); }, nullptr,
                                                [this](const CallError& error) { clientEnded.put(error); }});
    client->introduce();
    isReady.get_future().wait();
  }
  ~Peers() override {
    client->closeAndWait();
    service->closeAndWait();
  }

  Call call(const NSDictionary& message, const CallOptions& options = {}) {
    const auto state =
        std::make_shared<CallState>([peer = client](std::function<void()> task) { peer->perform(std::move(task)); });
    state->begin(options.timeout, options.stop);
    if (auto error = client->makeCall(state, message)) state->end(*std::move(error));
    return Call(state);
  }

  std::function<void(Request)> onRequest = [](const Request& request) {
    request->answer(
        NSDictionary{{"sum", request->message()["a"].integerValue() + request->message()["b"].integerValue()}});
  };
  Inbox<CallError> clientEnded;
  Inbox<CallError> serviceEnded;
  std::shared_ptr<Peer> service;
  std::shared_ptr<Peer> client;
};

TEST_F(Peers, ACallEndsWithItsReply) {
  EXPECT_EQ(call({{"a", 1}, {"b", 2}}).get().value(), (NSDictionary{{"sum", 3}}));
  EXPECT_EQ(call({{"a", 3}, {"b", 4}}).future().get().value(), (NSDictionary{{"sum", 7}}));
  Inbox<NSDictionary> replies;
  call({{"a", 5}, {"b", 6}}).then([&](const Call::Reply& reply) { replies.put(reply.value()); });
  EXPECT_EQ(replies.waitFor(1).front(), (NSDictionary{{"sum", 11}}));
}

TEST_F(Peers, AnErrorOfTheServiceArrivesWhole) {
  onRequest = [](const Request& request) { request->answer(CallError(Failure::failed, "no such file", false, 2)); };
  const auto reply = call({{"a", 1}}).get();
  ASSERT_FALSE(reply);
  EXPECT_EQ(reply.error(), CallError(Failure::failed, "no such file", true, 2));
}

TEST_F(Peers, ARequestThatIsLetGoOfEndsAsDropped) {
  onRequest = [](const Request&) {};
  const auto reply = call({{"a", 1}}).get();
  ASSERT_FALSE(reply);
  EXPECT_EQ(reply.error().failure(), Failure::dropped);
  EXPECT_TRUE(reply.error().isByPeer());
}

TEST_F(Peers, AnExceptionOfTheHandlersOwnTypeArrivesAsDropped) {
  onRequest = [](const Request&) { throw 7; };
  EXPECT_EQ(call({{"a", 1}}).get().error(),
            CallError(Failure::dropped, "the handler raised an exception of a type of its own", true));
}

TEST_F(Peers, AnExceptionOfTheHandlerArrivesWithItsText) {
  onRequest = [](const Request&) { throw std::runtime_error("out of ink"); };
  const auto reply = call({{"a", 1}}).get();
  ASSERT_FALSE(reply);
  EXPECT_EQ(reply.error().failure(), Failure::dropped);
  EXPECT_EQ(reply.error().text(), "the handler raised an exception: out of ink");
}

TEST_F(Peers, ACallThatIsNotAnsweredEndsByItsTimeAndTheOtherEndHearsOfIt) {
  Inbox<Request> requests;
  onRequest = [&](Request request) { requests.put(std::move(request)); };
  const auto reply = call({{"a", 1}}, {.timeout = 20ms}).get();
  ASSERT_FALSE(reply);
  EXPECT_EQ(reply.error().failure(), Failure::timedOut);
  const auto request = requests.waitFor(1).front();
  EXPECT_TRUE(request->deadline().has_value());
  EXPECT_TRUE(eventually([&] { return request->stopToken().stop_requested(); }));
  EXPECT_TRUE(request->answer(NSDictionary{{"late", true}}));
  EXPECT_FALSE(request->answer(NSDictionary{{"later", true}}));
}

TEST_F(Peers, ACallThatIsTakenBackEndsAsCancelledAndTheOtherEndHearsOfIt) {
  Inbox<Request> requests;
  onRequest = [&](Request request) { requests.put(std::move(request)); };
  std::stop_source stop;
  const auto stopped = call({{"a", 1}}, {.stop = stop.get_token()});
  const auto cancelled = call({{"a", 2}});
  const auto kept = requests.waitFor(2);
  stop.request_stop();
  cancelled.cancel();
  EXPECT_EQ(stopped.get().error().failure(), Failure::cancelled);
  EXPECT_EQ(cancelled.get().error().failure(), Failure::cancelled);
  EXPECT_TRUE(
      eventually([&] { return kept[0]->stopToken().stop_requested() && kept[1]->stopToken().stop_requested(); }));
}

TEST_F(Peers, WhatIsTakenBackBeforeItIsMadeEndsAsCancelled) {
  std::stop_source stop;
  stop.request_stop();
  EXPECT_EQ(call({{"a", 1}}, {.stop = stop.get_token()}).get().error().failure(), Failure::cancelled);
}

TEST_F(Peers, WhatIsOverALimitEndsAtOnceThoughItHasNoTime) {
  NSObject deep = 1;
  for (int level = 0; level < 130; ++level) deep = NSArray{deep};
  const auto tooDeep = call({{"deep", deep}}).get();
  ASSERT_FALSE(tooDeep);
  EXPECT_EQ(tooDeep.error().failure(), Failure::overLimit) << tooDeep.error();
}

TEST_F(Peers, WhatStrictTypesForbidIsRefusedHere) {
  const auto reply = call({{"when", NSDate::date()}}).get();
  ASSERT_FALSE(reply);
  EXPECT_EQ(reply.error(),
            CallError(Failure::refused, "when is of class NSDate, which the other end's strict types forbid"));
}

// What no Client says, over a connection that speaks the protocol.
class RawCaller : public Peers {
 protected:
  class Silent : public CallsPeer {
   public:
    void connectionID(NSString, NSDictionary, VeltoReplyHandler) override {}
    void connectionError(NSError) override {}
    void setStrictMessageTypesRemote(bool) override {}
    void connectionUUID(NSString) override {}
    void ping() override {}
    void meet(NSDictionary, Answer) override {}
    void call(NSNumber, NSDictionary, NSDictionary, Answer) override {}
    void cancel(NSNumber) override {}
    void item(NSDictionary, NSNumber) override {}
    void finish(NSNumber) override {}
    void allow(NSNumber items, NSNumber, NSNumber) override { allowed.put(items.unsignedIntegerValue()); }

    Inbox<std::uint64_t> allowed;
  };

  RawCaller() {
    const auto ends = NSXPCConnection::pair();
    const auto interface = NSXPCInterface::interfaceWithProtocol<CallsPeer>();
    ends.first->setRemoteObjectInterface(interface);
    ends.first->setExportedInterface(interface);
    ends.first->setExportedObject<CallsPeer>(raw);
    ends.first->resume();
    connection = ends.first;
    proxy = connection->remoteObjectProxyWithErrorHandler<CallsPeer>(
        [this](const NSError& error) { errors.put(error.localizedDescription().string()); });
    other = Peer::make(ends.second, Peer::Hooks{nullptr, [this](Request request) { taken.put(request); }, {}});
    other->serve("raw", false);
    proxy->call<&CallsPeer::meet>(NSDictionary{{"calls", 1}}, [](const NSDictionary&) {});
  }
  ~RawCaller() override {
    connection->invalidate();
    // What fails by that is told before.
    std::promise<void> isOver;
    connection->perform([&] { isOver.set_value(); });
    isOver.get_future().wait();
    other->closeAndWait();
  }

  void callWith(std::int64_t number) {
    proxy->call<&CallsPeer::call>(number, NSDictionary{{"stream", true}}, NSDictionary{{"a", 1}},
                                  [this](const NSDictionary& outcome) { outcomes.put(outcome); });
  }

  const std::shared_ptr<Silent> raw = std::make_shared<Silent>();
  Inbox<std::string> errors;
  Inbox<NSDictionary> outcomes;
  Inbox<Request> taken;
  std::shared_ptr<NSXPCConnection> connection;
  std::shared_ptr<NSXPCProxy<CallsPeer>> proxy;
  std::shared_ptr<Peer> other;
};

TEST_F(RawCaller, WhoSendsMoreOfAStreamThanHeWasAllowedEndsIt) {
  callWith(1);
  const Request request = taken.waitFor(1)[0];
  request->stream()->open();
  EXPECT_EQ(raw->allowed.waitFor(1)[0], limits::kStreamItems);
  for (std::size_t item = 0; item <= limits::kStreamItems; ++item) {
    proxy->call<&CallsPeer::item>(NSDictionary{{"item", item}}, 1);
  }
  const auto result = request->stream()->in().waitForEnd();
  EXPECT_EQ(result.error().failure(), Failure::overLimit);
  for (std::size_t item = 0; item < limits::kStreamItems; ++item) EXPECT_TRUE(request->stream()->in().waitForNext());
  EXPECT_FALSE(request->stream()->in().waitForNext());
}

TEST_F(RawCaller, NumbersOfNoCallDoNothing) {
  for (const std::int64_t number :
       {std::int64_t{0}, std::int64_t{7}, std::int64_t{-7}, std::numeric_limits<std::int64_t>::min(),
        std::numeric_limits<std::int64_t>::max()}) {
    proxy->call<&CallsPeer::item>(NSDictionary{{"a", 1}}, number);
    proxy->call<&CallsPeer::finish>(number);
    proxy->call<&CallsPeer::allow>(std::numeric_limits<std::uint64_t>::max(), -1, number);
    proxy->call<&CallsPeer::cancel>(number);
  }
  callWith(0);
  callWith(-3);
  EXPECT_EQ(errors.waitFor(2)[1],
            "call:terms:message:outcome: was refused by the other end: a call has a number greater "
            "than 0");
  callWith(8);
  taken.waitFor(1)[0]->answer(NSDictionary{{"ok", true}});
  EXPECT_EQ(outcomes.waitFor(1)[0], (NSDictionary{{"reply", NSDictionary{{"ok", true}}}, {"items", 0}}));
}

TEST_F(RawCaller, WhoAllowsMoreThanAnybodyKeepsIsSentNoMoreThanThat) {
  callWith(1);
  const Request request = taken.waitFor(1)[0];
  for (int each = 0; each < 5; ++each) {
    proxy->call<&CallsPeer::allow>(std::numeric_limits<std::uint64_t>::max(), std::numeric_limits<std::uint64_t>::max(),
                                   1);
  }
  callWith(2);
  taken.waitFor(2);
  std::size_t written = 0;
  while (!request->stream()->out().write({{"a", 1}}, std::nullopt, false)) ++written;
  EXPECT_EQ(written, 2 * limits::kStreamItems);
}

// Those that are taken back before their turn are remembered, but not without end.
TEST_F(RawCaller, TakesBackWhatWasNeverMadeWithoutEnd) {
  for (std::uint64_t number = 1; number <= 2 * limits::kUndeliveredCalls; ++number) {
    proxy->call<&CallsPeer::cancel>(number);
  }
  callWith(1);
  callWith(static_cast<std::int64_t>(2 * limits::kUndeliveredCalls));
  taken.waitFor(1)[0]->answer(NSDictionary{{"ok", true}});
  const auto both = outcomes.waitFor(2);
  EXPECT_EQ(both[0]["error"][0].integerValue(), static_cast<std::int64_t>(Failure::cancelled));
  EXPECT_EQ(both[1]["reply"], (NSDictionary{{"ok", true}}));
}

TEST_F(Peers, TheEndOfTheConnectionEndsEveryCallOnce) {
  Inbox<Request> requests;
  onRequest = [&](Request request) { requests.put(std::move(request)); };
  std::vector<std::future<Call::Reply>> futures;
  for (int number = 0; number < 100; ++number) {
    const auto made = call({{"number", number}});
    futures.push_back(made.future());
  }
  requests.waitFor(100);
  service->close();
  for (auto& future : futures) EXPECT_EQ(future.get().error().failure(), Failure::peerGone);
  EXPECT_EQ(clientEnded.waitFor(1).front().failure(), Failure::peerGone);
  EXPECT_EQ(serviceEnded.waitFor(1).front().failure(), Failure::closed);
  EXPECT_EQ(call({{"late", true}}).get().error().failure(), Failure::peerGone);
}

TEST_F(Peers, OnesOwnCloseIsToldApart) {
  onRequest = [](const Request& request) {
    static Inbox<Request>& kept = *new Inbox<Request>;
    kept.put(request);
  };
  const auto made = call({{"a", 1}});
  client->close();
  EXPECT_EQ(made.get().error().failure(), Failure::closed);
  EXPECT_EQ(clientEnded.waitFor(1).front().failure(), Failure::closed);
}

TEST_F(Peers, ACallCanBeWaitedForInsideOfACallback) {
  Inbox<Call::Reply> replies;
  call({{"a", 1}, {"b", 1}}).then([&](const Call::Reply&) {
    NSObject deep = 1;
    for (int level = 0; level < 130; ++level) deep = NSArray{deep};
    replies.put(call({{"deep", deep}}).get());
    replies.put(call({{"a", 2}, {"b", 2}}).get());
  });
  const auto got = replies.waitFor(2);
  EXPECT_EQ(got[0].error().failure(), Failure::overLimit);
  EXPECT_EQ(got[1].value(), (NSDictionary{{"sum", 4}}));
}

TEST_F(Peers, AMessageWithoutAnAnswerCountsForNothingThatWaits) {
  std::atomic<int> came{0};
  onRequest = [&](const Request& request) { came += request->answer(NSDictionary()) ? 1 : 0; };
  Inbox<CallError> failures;
  for (int number = 0; number < 70'000; ++number) {
    while (!client->isWritable()) std::this_thread::yield();
    client->send({{"number", number}}, [&](const CallError& error) { failures.put(error); });
  }
  EXPECT_TRUE(eventually([&] { return came == 70'000; }));
  EXPECT_TRUE(failures.soFar().empty());
}

}  // namespace
}  // namespace velto::calls
