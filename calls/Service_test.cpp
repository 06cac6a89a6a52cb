// A service and its clients in one process.

#include "VeltoIPC/Service.h"

#include <atomic>
#include <future>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "VeltoIPC/Client.h"
#include "VeltoIPC/Task.h"
#include "calls/CallsPeer.h"
#include "calls/Names.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/Delivery.h"
#include "platform/xpc/NSFileDescriptor.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Support.h"

namespace velto {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::Inbox;

class Services : public ::testing::Test {
 protected:
  Services() : service("sums", {.place = place}) {
    service.on("sum", [](const Request& request) {
      request.reply({{"sum", request.message()["a"].integerValue() + request.message()["b"].integerValue()}});
    });
    service.start();
  }
  Client connect(ClientOptions options = {}) {
    options.place = place;
    return Client::connect("sums", std::move(options)).value();
  }

  InProcess place;
  Service service;
};

TEST_F(Services, AnswerWhatTheyHaveAHandlerFor) {
  ASSERT_EQ(service.waitUntilRegistered(10s), std::nullopt);
  const Client client = connect();
  EXPECT_EQ(client.call({{"op", "sum"}, {"a", 1}, {"b", 2}}).get().value(), (NSDictionary{{"sum", 3}}));
}

TEST_F(Services, RefuseAnOperationThatTheyLackByItsName) {
  const auto reply = connect().call({{"op", "product"}}).get();
  ASSERT_FALSE(reply);
  EXPECT_EQ(reply.error().failure(), Failure::refused);
  EXPECT_EQ(reply.error().text(), "there is no operation \"product\"");
  service.onOther([](const Request& request) { request.fail("not yet", 7); });
  EXPECT_EQ(connect().call({{"op", "product"}}).get().error(), CallError(Failure::failed, "not yet", true, 7));
}

TEST_F(Services, FindNobodyUnderAnotherName) {
  const auto none = Client::connect("products", {.patience = 30ms, .place = place});
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error().failure(), Failure::unavailable);
  EXPECT_EQ(none.error().text(), "nobody serves \"products\"");
}

TEST_F(Services, AreWaitedFor) {
  Service late("late", {.place = place});
  late.on("", [](const Request& request) { request.reply({{"late", true}}); });
  std::thread starts([&] {
    std::this_thread::sleep_for(30ms);
    late.start();
  });
  auto client = Client::connect("late", {.place = place});
  starts.join();
  EXPECT_EQ(client.value().call(NSDictionary{{"a", 1}}).get().value(), (NSDictionary{{"late", true}}));
}

TEST_F(Services, AreReconnectedToAndEachLossIsOneError) {
  Inbox<CallError> lost;
  Inbox<int> again;
  const Client client = connect({.reconnects = true,
                                 .onLost = [&](const CallError& error) { lost.put(error); },
                                 .onReconnected = [&] { again.put(1); }});
  service.close();
  lost.waitFor(1);
  const auto waiting = client.call({{"op", "sum"}, {"a", 2}, {"b", 2}});
  Service next("sums", {.place = place});
  next.on("sum", [](const Request& request) { request.reply({{"next", true}}); });
  next.start();
  EXPECT_EQ(waiting.get().value(), (NSDictionary{{"next", true}}));
  again.waitFor(1);
  EXPECT_EQ(lost.soFar().size(), 1u);
}

TEST_F(Services, FinishWhatRunsWhenTheyStop) {
  Inbox<Request> requests;
  service.on("slow", [&](const Request& request) { requests.put(request); });
  const Client client = connect();
  const auto made = client.call({{"op", "slow"}});
  const auto request = requests.waitFor(1).front();
  std::thread answers([request] {
    std::this_thread::sleep_for(30ms);
    request.reply({{"done", true}});
  });
  EXPECT_TRUE(service.stop(10s));
  answers.join();
  EXPECT_EQ(made.get().value(), (NSDictionary{{"done", true}}));
}

TEST_F(Services, TellEveryClient) {
  Inbox<NSDictionary> heard;
  const ClientOptions options{.onMessage = [&](const Request& request) { heard.put(request.message()); }};
  const Client first = connect(options);
  const Client second = connect(options);
  ASSERT_TRUE(eventually([&] { return service.clientCount() == 2; }));
  EXPECT_EQ(service.broadcast({{"news", 1}}), 0u);
  EXPECT_EQ(heard.waitFor(2), std::vector<NSDictionary>(2, NSDictionary{{"news", 1}}));
}

// Tells all until one is too far behind; then that one reads on.
class Broadcasts : public Services {
 protected:
  int tellUntilSlowIsBehind(Service& teller) {
    for (int number = 0;; ++number) {
      if (teller.broadcast({{"number", number}}) > 0) return number;
    }
  }
  static void expectFromZeroTo(int end, const std::vector<int>& numbers) {
    ASSERT_EQ(numbers.size(), static_cast<std::size_t>(end));
    for (int number = 0; number < end; ++number) ASSERT_EQ(numbers[static_cast<std::size_t>(number)], number);
  }

  std::promise<void> release;
  Inbox<int> slowHeard;
  Inbox<int> quickHeard;
  Inbox<CallError> slowLost;
  const ClientOptions slowOptions{.onMessage =
                                      [this, released = release.get_future().share()](const Request& request) {
                                        released.wait();
                                        slowHeard.put(*request.message()["number"].to<int>());
                                      },
                                  .onLost = [this](const CallError& error) { slowLost.put(error); }};
  const ClientOptions quickOptions{
      .onMessage = [this](const Request& request) { quickHeard.put(*request.message()["number"].to<int>()); }};
};

TEST_F(Broadcasts, CloseTheConnectionOfWhoIsTooFarBehind) {
  const Client slow = connect(slowOptions);
  const Client quick = connect(quickOptions);
  ASSERT_TRUE(eventually([&] { return service.clientCount() == 2; }));
  const int told = tellUntilSlowIsBehind(service);
  // The last one, too: that it was too much for one is no matter of the other's.
  quickHeard.waitFor(static_cast<std::size_t>(told) + 1);
  expectFromZeroTo(told + 1, quickHeard.soFar());
  release.set_value();
  EXPECT_EQ(slowLost.waitFor(1)[0].failure(), Failure::peerGone);
}

TEST_F(Broadcasts, OrLeaveOutWhatItHasNoRoomFor) {
  Service patient("patient", {.whenBehind = WhenBehind::skip, .place = place});
  patient.start();
  ClientOptions options = slowOptions;
  options.place = place;
  const Client slow = Client::connect("patient", options).value();
  ASSERT_TRUE(eventually([&] { return patient.clientCount() == 1; }));
  const int told = tellUntilSlowIsBehind(patient);
  release.set_value();
  ASSERT_TRUE(eventually([&] { return slowHeard.soFar().size() == static_cast<std::size_t>(told); }));
  expectFromZeroTo(told, slowHeard.soFar());
  EXPECT_EQ(patient.broadcast({{"number", told}}), 0U);
  EXPECT_EQ(slowHeard.waitFor(static_cast<std::size_t>(told) + 1).back(), told);
}

TEST_F(Services, SendToAClientNoFasterThanItTakes) {
  const Client client = connect();
  std::promise<void> release;
  std::atomic<int> came{0};
  service.on("note", [&, released = release.get_future().share()](const Request&) {
    released.wait();
    ++came;
  });
  int sent = 0;
  while (!client.trySend({{"op", "note"}, {"number", sent}})) ++sent;
  EXPECT_EQ(client.trySend({{"op", "note"}})->failure(), Failure::full);
  EXPECT_EQ(client.send({{"op", "note"}}, 20ms)->failure(), Failure::timedOut);
  release.set_value();
  EXPECT_EQ(client.send({{"op", "note"}, {"number", sent++}}, 10s), std::nullopt);
  EXPECT_TRUE(eventually([&] { return came == sent; })) << came << " of " << sent;
}

TEST_F(Services, SayWhenTheyKeepUpAgain) {
  std::promise<void> release;
  service.on("note", [released = release.get_future().share()](const Request&) { released.wait(); });
  Inbox<int> writable;
  const Client client = connect({.onWritable = [&] { writable.put(1); }});
  while (!client.trySend({{"op", "note"}})) continue;
  EXPECT_TRUE(writable.soFar().empty());
  release.set_value();
  writable.waitFor(1);
  EXPECT_EQ(client.trySend({{"op", "note"}}), std::nullopt);
}

TEST_F(Services, AreWaitedForBySendersWhileTheyAreLost) {
  auto first = std::make_unique<Service>("lost", ServiceOptions{.place = place});
  first->start();
  Inbox<int> lost;
  const Client client =
      Client::connect("lost", {.reconnects = true, .onLost = [&](const CallError&) { lost.put(1); }, .place = place})
          .value();
  first.reset();
  lost.waitFor(1);
  EXPECT_EQ(client.trySend({{"a", 1}})->failure(), Failure::full);
  EXPECT_EQ(client.send({{"a", 1}}, 20ms)->failure(), Failure::timedOut);
  auto sent = std::async(std::launch::async, [&] { return client.send({{"a", 2}}); });
  Inbox<NSDictionary> heard;
  Service second("lost", {.place = place});
  second.onOther([&](const Request& request) { heard.put(request.message()); });
  second.start();
  EXPECT_EQ(sent.get(), std::nullopt);
  EXPECT_EQ(heard.waitFor(1)[0], (NSDictionary{{"a", 2}}));
}

TEST_F(Services, AreGivenUpAfterTheTimeForReconnecting) {
  auto first = std::make_unique<Service>("gone", ServiceOptions{.place = place});
  first->start();
  Inbox<int> lost;
  const Client client =
      Client::connect(
          "gone",
          {.reconnects = true, .reconnectsFor = 50ms, .onLost = [&](const CallError&) { lost.put(1); }, .place = place})
          .value();
  first.reset();
  lost.waitFor(1);
  EXPECT_EQ(client.call(NSDictionary{{"a", 1}}).get().error().failure(), Failure::unavailable);
  EXPECT_EQ(client.call(NSDictionary{{"a", 1}}).get().error().failure(), Failure::unavailable);
}

TEST_F(Services, MakeLaterWhatACoroutineSendsWhileTheyAreBehind) {
  std::promise<void> release;
  std::atomic<int> came{0};
  service.on("note", [&, released = release.get_future().share()](const Request&) {
    released.wait();
    ++came;
  });
  Inbox<int> heard;
  const Client client = connect();
  int taken = 0;
  while (!client.trySend({{"op", "note"}})) ++taken;
  const auto run = [&]() -> Task {
    for (int number = 0; number < 10; ++number) {
      const Call sending = client.sending({{"op", "note"}});
      const auto sent = co_await sending;
      heard.put(sent ? number : -1);
    }
  };
  // From where callbacks run, nobody may wait.
  const TaskQueue tasks{Delivery()};
  tasks.add([&] { run(); });
  std::this_thread::sleep_for(20ms);
  EXPECT_TRUE(heard.soFar().empty());
  release.set_value();
  EXPECT_EQ(heard.waitFor(10), (std::vector{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_TRUE(eventually([&] { return came == taken + 10; }));
}

TEST_F(Services, KeepTheCapturesOfAHandlerForItsCoroutines) {
  const auto text = std::make_shared<std::string>("captured");
  Inbox<Request> asked;
  service.on("part", [&](const Request& request) { asked.put(request); });
  const Client client = connect();
  service.on("whole", [text, &client](Request request) -> Task {
    const Call part = client.call({{"op", "part"}});
    const auto reply = co_await part;
    request.reply({{"text", *text}});
  });
  const Call whole = client.call({{"op", "whole"}});
  const Request part = asked.waitFor(1)[0];
  service.on("whole", nullptr);
  part.reply({});
  EXPECT_EQ(whole.get().value(), (NSDictionary{{"text", "captured"}}));
  EXPECT_TRUE(eventually([&] { return text.use_count() == 1; }));
}

TEST_F(Services, MakeACallAgainThatMayBeRepeated) {
  Inbox<Request> held;
  auto first = std::make_unique<Service>("again", ServiceOptions{.place = place});
  first->onOther([&](const Request& request) { held.put(request); });
  first->start();
  const Client client = Client::connect("again", {.reconnects = true, .place = place}).value();
  const Call repeated = client.call({{"a", 1}}, {.isIdempotent = true});
  const Call once = client.call({{"a", 2}});
  held.waitFor(2);
  first.reset();
  EXPECT_EQ(once.get().error().failure(), Failure::peerGone);
  Service second("again", {.place = place});
  second.onOther([](const Request& request) { request.reply(request.message()); });
  second.start();
  EXPECT_EQ(repeated.get().value(), (NSDictionary{{"a", 1}}));
}

TEST_F(Services, MakeACallAgainNoMoreOftenThanTheLimit) {
  Inbox<Request> held;
  const auto start = [&] {
    auto again = std::make_unique<Service>("again", ServiceOptions{.place = place});
    again->onOther([&](const Request& request) { held.put(request); });
    again->start();
    return again;
  };
  auto again = start();
  const Client client = Client::connect("again", {.reconnects = true, .place = place}).value();
  const Call repeated = client.call({{"a", 1}}, {.isIdempotent = true});
  for (std::size_t made = 1; made <= limits::kRepeats + 1; ++made) {
    held.waitFor(made);
    again.reset();
    again = start();
  }
  EXPECT_EQ(repeated.get().error().failure(), Failure::peerGone);
  EXPECT_EQ(held.soFar().size(), limits::kRepeats + 1U);
}

TEST_F(Services, AreAskedLaterByThoseWhoMayNotWaitUpToTheLimit) {
  std::promise<void> release;
  service.on("note", [released = release.get_future().share()](const Request&) { released.wait(); });
  const Client client = connect();
  while (!client.trySend({{"op", "note"}})) continue;
  Inbox<Call> calls;
  const TaskQueue tasks{Delivery()};
  tasks.add([&] {
    for (std::size_t made = 0; made <= limits::kParkedCalls; ++made) {
      calls.put(client.call({{"op", "sum"}, {"a", 1}, {"b", 2}}));
    }
  });
  auto made = calls.waitFor(limits::kParkedCalls + 1);
  EXPECT_EQ(made.back().get().error().failure(), Failure::full);
  made.pop_back();
  EXPECT_FALSE(made.back().hasEnded());
  release.set_value();
  for (const Call& each : made) ASSERT_EQ(each.get().value(), (NSDictionary{{"sum", 3}}));
}

NSFileDescriptor readableWith(const std::string& text) {
  int ends[2];
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  EXPECT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::close(ends[1]);
  return NSFileDescriptor::fileDescriptorTaking(ends[0]);
}

std::string contentsOf(const NSFileDescriptor& readable) {
  char buffer[64];
  const ssize_t got = ::read(readable.descriptor(), buffer, sizeof buffer);
  return got < 0 ? "" : std::string(buffer, static_cast<std::size_t>(got));
}

TEST_F(Services, TakeAndGiveDescriptorsWhereTheyAreAdmitted) {
  Service pipes("pipes", {.admitsDescriptors = true, .place = place});
  pipes.on("", [](const Request& request) {
    const std::string text = contentsOf(request.message()["readable"].as<NSFileDescriptor>());
    request.reply({{"readable", readableWith(text + " there")}});
  });
  pipes.start();
  const Client client = Client::connect("pipes", {.admitsDescriptors = true, .place = place}).value();
  const auto reply = client.call({{"readable", readableWith("here and")}}).get();
  EXPECT_EQ(contentsOf(reply.value()["readable"].as<NSFileDescriptor>()), "here and there");
}

TEST_F(Services, RefuseDescriptorsWhereTheyAreNot) {
  const auto strict = connect().call({{"op", "sum"}, {"a", readableWith("a")}}).get();
  EXPECT_EQ(strict.error().text(), "a is of class NSFileDescriptor, which the other end's strict types forbid");
  Service loose("loose", {.strictTypes = false, .place = place});
  loose.on("", [](const Request& request) { request.reply({{"readable", readableWith("b")}}); });
  loose.start();
  const Client client = Client::connect("loose", {.place = place}).value();
  const auto refused = client.call({{"a", readableWith("a")}}).get();
  EXPECT_EQ(refused.error().failure(), Failure::refused);
  EXPECT_TRUE(refused.error().isByPeer());
  const auto reply = client.call({{"a", 1}}).get();
  EXPECT_EQ(reply.error().failure(), Failure::refused);
  EXPECT_FALSE(reply.error().isByPeer());
}

TEST_F(Services, TellARequestThatRunsOrWaitsThatItWasTakenBack) {
  std::promise<Request> running;
  std::atomic<int> begun{0};
  std::promise<void> seen;
  service.on("long", [&](const Request& request) {
    ++begun;
    running.set_value(request);
    while (!request.isCancelled()) std::this_thread::yield();
    seen.set_value();
  });
  service.on("short", [&](const Request& request) {
    ++begun;
    request.reply({});
  });
  const Client client = connect();
  const Call longCall = client.call({{"op", "long"}});
  running.get_future().wait();
  const Call waiting = client.call({{"op", "short"}});
  waiting.cancel();
  longCall.cancel();
  seen.get_future().wait();
  EXPECT_TRUE(client.call({{"op", "short"}}).get());
  EXPECT_EQ(begun, 2) << "one was taken back before its turn";
}

// What runs ahead of those that wait is dealt with before them.
TEST_F(Services, AreNotLostByACrowdOfCallsThatAreTakenBack) {
  std::promise<void> release;
  std::promise<void> begun;
  service.on("block", [&, released = release.get_future().share()](const Request& request) {
    begun.set_value();
    released.wait();
    request.reply({});
  });
  const Client client = connect();
  const Call blocked = client.call("block", {});
  begun.get_future().wait();
  const NSData data(std::vector<std::uint8_t>(3'000));
  for (int number = 0; number < 1'500; ++number) client.call("sum", {{"data", data}}).cancel();
  release.set_value();
  EXPECT_TRUE(blocked.get());
  EXPECT_TRUE(client.call("sum", {{"a", 1}, {"b", 2}}).get());
}

TEST_F(Services, AreConnectedToByTheThreadThatRunsTheirLoop) {
  const Loop loop;
  Service looped("looped", {.delivery = loop, .place = place});
  looped.on("", [](const Request& request) { request.reply({{"ok", true}}); });
  looped.start();
  const Client client = Client::connect("looped", {.delivery = loop, .place = place}).value();
  std::optional<Call::Reply> reply;
  client.call(NSDictionary{{"a", 1}}).then([&](Call::Reply came) { reply = std::move(came); });
  pollfd watched{loop.fd(), POLLIN, 0};
  while (!reply && ::poll(&watched, 1, 10'000) > 0) loop.dispatch();
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->value(), (NSDictionary{{"ok", true}}));
}

TEST_F(Services, KnowTheProcessBehindARequest) {
  service.on("who", [](const Request& request) {
    request.reply({{"process", request.processIdentifier()},
                   {"user", request.userIdentifier()},
                   {"has descriptor", ::fcntl(request.processDescriptor(), F_GETFD) >= 0}});
  });
  EXPECT_EQ(connect().call({{"op", "who"}}).get().value(),
            (NSDictionary{{"process", ::getpid()}, {"user", ::geteuid()}, {"has descriptor", true}}));
}

// One that says nothing before.
TEST_F(Services, RunInTheirLoopWhateverAClientSaysFirst) {
  const Loop loop;
  Service looped("looped", {.delivery = loop, .place = place});
  bool isStray = false;
  int begun = 0;
  looped.on("", [&](const Request&) {
    isStray = isStray || !Loop::isDispatching();
    ++begun;
  });
  looped.start();
  const auto rude = place.names()->connect("looped").connection;
  rude->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<calls::CallsPeer>());
  rude->resume();
  rude->remoteObjectProxyWithErrorHandler<calls::CallsPeer>(nullptr)->call<&calls::CallsPeer::connectionID>(
      "", NSDictionary::dictionary(), VeltoReplyHandler());
  pollfd watched{loop.fd(), POLLIN, 0};
  while (begun == 0 && ::poll(&watched, 1, 10'000) > 0) loop.dispatch();
  EXPECT_EQ(begun, 1);
  EXPECT_FALSE(isStray);
}

TEST_F(Services, RunInALoopAndNowhereElse) {
  Loop loop;
  Inbox<std::thread::id> threads;
  Service looped("looped", {.delivery = loop, .place = place});
  looped.on("", [&](const Request& request) {
    threads.put(std::this_thread::get_id());
    request.reply({{"ok", true}});
  });
  looped.start();
  auto reply = std::async(std::launch::async, [&] {
    const Client client = Client::connect("looped", {.place = place}).value();
    return client.call(NSDictionary{{"a", 1}}).get();
  });
  pollfd watched{loop.fd(), POLLIN, 0};
  while (reply.wait_for(0s) != std::future_status::ready && ::poll(&watched, 1, 10) >= 0) loop.dispatch();
  EXPECT_EQ(reply.get().value(), (NSDictionary{{"ok", true}}));
  EXPECT_EQ(threads.waitFor(1), std::vector(1, std::this_thread::get_id()));
}

}  // namespace
}  // namespace velto
