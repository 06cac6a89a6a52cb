// Two ends of a connection in one process, by endpoint and by name: calls, replies, and every way to end.

#include "platform/xpc/NSXPCConnection.h"

#include <thread>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Greeter.h"

namespace velto::testing {
namespace {

class Connection : public ::testing::Test {
 protected:
  Connection() {
    listener->setDelegate(service);
    listener->resume();
  }

  std::unique_ptr<GreeterClient> connect() {
    return std::make_unique<GreeterClient>(NSXPCConnection::initWithListenerEndpoint(listener->endpoint()));
  }
  static std::vector<std::string> onlyInvalidated() { return {"invalidated"}; }

  const PrivateRuntimeDirectory directory;
  const std::shared_ptr<GreeterService> service = std::make_shared<GreeterService>();
  const std::shared_ptr<NSXPCListener> listener = NSXPCListener::anonymousListener();
};

TEST_F(Connection, CarriesACallAndItsReply) {
  const auto client = connect();
  EXPECT_EQ(client->greet("Ada"), "hello Ada");
}

TEST_F(Connection, ServesBothDirections) {
  const auto client = connect();
  client->greet("Ada");
  const auto back = service->accepted.waitFor(1).front()->remoteObjectProxyWithErrorHandler<Greeter>([](NSError) {});
  std::promise<std::string> answer;
  back->call<&Greeter::greet>("Bob", [&](NSString text) { answer.set_value(text.string()); });
  EXPECT_EQ(answer.get_future().get(), "hello Bob");
}

TEST_F(Connection, DeliversCallsInTheOrderInWhichTheyWereMade) {
  const auto client = connect();
  for (int number = 0; number < 500; ++number) client->proxy->call<&Greeter::tell>(NSDictionary{{"n", number}});
  const auto told = service->greeter->told.waitFor(500);
  for (int number = 0; number < 500; ++number) {
    ASSERT_EQ(told[static_cast<std::size_t>(number)]["n"].integerValue(), number);
  }
}

TEST_F(Connection, CallsThatArriveWhileTheirConnectionIsResumedKeepTheirOrder) {
  constexpr int kRounds = 100;
  constexpr int kCalls = 200;
  for (int round = 0; round < kRounds; ++round) {
    const auto client = connect();
    for (int number = 0; number < kCalls; ++number) client->proxy->call<&Greeter::tell>(NSDictionary{{"n", number}});
    const auto told = service->greeter->told.waitFor(static_cast<std::size_t>((round + 1) * kCalls));
    for (int number = 0; number < kCalls; ++number) {
      ASSERT_EQ(told[static_cast<std::size_t>(round * kCalls + number)]["n"].integerValue(), number) << round;
    }
  }
}

TEST_F(Connection, CallsMadeBeforeResumeGoOutWithIt) {
  const auto connection = NSXPCConnection::initWithListenerEndpoint(listener->endpoint());
  connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<Greeter>());
  const auto proxy = connection->remoteObjectProxyWithErrorHandler<Greeter>([](NSError) { FAIL(); });
  proxy->call<&Greeter::flag>(true);
  EXPECT_TRUE(service->greeter->flags.soFar().empty());
  connection->resume();
  EXPECT_EQ(service->greeter->flags.waitFor(1), std::vector<bool>{true});
}

TEST_F(Connection, MoreCallsBeforeResumeThanTheSocketHoldsGoOutAllTheSame) {
  const auto connection = NSXPCConnection::initWithListenerEndpoint(listener->endpoint());
  connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<Greeter>());
  const auto proxy = connection->remoteObjectProxyWithErrorHandler<Greeter>([](NSError) { FAIL(); });
  const NSData portion(std::vector<std::uint8_t>(std::size_t{1} << 20));
  for (int number = 0; number < 8; ++number) proxy->call<&Greeter::tell>(NSDictionary{{"portion", portion}});
  connection->resume();
  EXPECT_EQ(service->greeter->told.waitFor(8).size(), 8U);
}

TEST_F(Connection, MayBeInvalidatedWhileItIsResumed) {
  for (int round = 0; round < 200; ++round) {
    const auto connection = NSXPCConnection::initWithListenerEndpoint(listener->endpoint());
    connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<Greeter>());
    const auto ended = std::make_shared<std::promise<void>>();
    connection->setInvalidationHandler([ended] { ended->set_value(); });
    std::thread other([&] { connection->invalidate(); });
    connection->resume();
    other.join();
    ASSERT_EQ(ended->get_future().wait_for(kGenerous), std::future_status::ready);
  }
}

TEST_F(Connection, CarriesEndpoints) {
  const auto client = connect();
  const auto other = NSXPCListener::anonymousListener();
  std::promise<NSXPCListenerEndpoint> back;
  client->proxy->call<&Greeter::introduce>(other->endpoint(),
                                           [&](NSXPCListenerEndpoint endpoint) { back.set_value(endpoint); });
  const auto returned = back.get_future().get();
  EXPECT_EQ(returned, other->endpoint());
  const auto otherService = std::make_shared<GreeterService>();
  other->setDelegate(otherService);
  other->resume();
  GreeterClient through(NSXPCConnection::initWithListenerEndpoint(returned));
  EXPECT_EQ(through.greet("Eve"), "hello Eve");
}

TEST_F(Connection, CarriesANilEndpointAndANilString) {
  const auto client = connect();
  std::promise<bool> isNil;
  client->proxy->call<&Greeter::introduce>(nil, [&](NSXPCListenerEndpoint endpoint) { isNil.set_value(!endpoint); });
  EXPECT_TRUE(isNil.get_future().get());
  std::promise<bool> wasNil;
  service->greeter->onGreet = [&](const NSString& name, const auto& reply) { reply(name ? "text" : NSString()); };
  client->proxy->call<&Greeter::greet>(NSString(), [&](NSString text) { wasNil.set_value(text.isNil()); });
  EXPECT_TRUE(wasNil.get_future().get());
}

TEST_F(Connection, InvalidatingHereTellsThisEndOnceAndTheOtherNothingOfAnInterruption) {
  const auto client = connect();
  client->greet("Ada");
  client->connection->invalidate();
  client->connection->invalidate();
  EXPECT_EQ(client->events.waitFor(1), onlyInvalidated());
  EXPECT_EQ(service->events.waitFor(1), onlyInvalidated());
}

TEST_F(Connection, WhatWasSentBeforeInvalidatingStillArrives) {
  const auto client = connect();
  for (int number = 0; number < 100; ++number) {
    client->proxy->call<&Greeter::tell>(
        NSDictionary{{"n", number}, {"padding", NSData::dataWithVector(std::vector<std::uint8_t>(50'000))}});
  }
  client->connection->invalidate();
  EXPECT_EQ(service->greeter->told.waitFor(100).size(), 100U);
  EXPECT_EQ(service->events.waitFor(1), onlyInvalidated());
}

TEST_F(Connection, LettingGoOfTheLastReferenceInvalidates) {
  auto connection = NSXPCConnection::initWithListenerEndpoint(listener->endpoint());
  connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<Greeter>());
  connection->resume();
  connection->remoteObjectProxyWithErrorHandler<Greeter>([](NSError) {})->call<&Greeter::flag>(true);
  service->greeter->flags.waitFor(1);
  connection.reset();
  EXPECT_EQ(service->events.waitFor(1), onlyInvalidated());
}

TEST_F(Connection, AnUnansweredCallGetsAnErrorBeforeTheInvalidationHandlerRuns) {
  const auto client = connect();
  std::promise<void> arrived;
  std::function<void(NSString)> kept;
  service->greeter->onGreet = [&](const NSString&, std::function<void(NSString)> reply) {
    kept = std::move(reply);
    arrived.set_value();
  };
  client->proxy->call<&Greeter::greet>("Ada", [](NSString) { FAIL(); });
  arrived.get_future().wait();
  client->connection->invalidate();
  EXPECT_EQ(client->events.waitFor(2), (std::vector<std::string>{"error", "invalidated"}));
  const NSError error = client->errors.soFar().front();
  EXPECT_EQ(error.domain(), NSXPCErrorDomain);
  EXPECT_EQ(error.code(), NSXPCConnectionInvalid);
  EXPECT_NE(error.localizedDescription().string().find("greet:reply:"), std::string::npos);
}

TEST_F(Connection, ACallOnAnInvalidConnectionGetsAnError) {
  const auto client = connect();
  client->connection->invalidate();
  client->proxy->call<&Greeter::flag>(true);
  EXPECT_EQ(client->events.waitFor(2), (std::vector<std::string>{"invalidated", "error"}));
}

TEST_F(Connection, AListenerThatIsGoneCannotBeReached) {
  const auto endpoint = listener->endpoint();
  listener->invalidate();
  GreeterClient client(NSXPCConnection::initWithListenerEndpoint(endpoint));
  EXPECT_EQ(client.events.waitFor(1).front(), "invalidated");
  client.proxy->call<&Greeter::flag>(true);
  EXPECT_NE(client.errors.waitFor(1).front().localizedDescription().string().find("cannot be reached"),
            std::string::npos);
}

TEST_F(Connection, ANilEndpointMakesAnInvalidConnection) {
  GreeterClient client(NSXPCConnection::initWithListenerEndpoint(nil));
  EXPECT_EQ(client.events.waitFor(1).front(), "invalidated");
}

TEST_F(Connection, ANameThatCannotBeAFilesMakesAnInvalidConnectionThatSaysWhy) {
  for (const NSString& name : {NSString(), NSString(""), NSString("../x"), NSString(std::string(256, 'n'))}) {
    GreeterClient client(NSXPCConnection::initWithServiceName(name));
    client.proxy->call<&Greeter::flag>(true);
    EXPECT_NE(client.errors.waitFor(1).front().localizedDescription().string().find("the name"), std::string::npos);
  }
}

TEST_F(Connection, ReachesANamedService) {
  const auto named = NSXPCListener::listenerWithServiceName("greeter");
  ASSERT_TRUE(named);
  named->setDelegate(service);
  named->resume();
  GreeterClient client(NSXPCConnection::initWithServiceName("greeter"));
  EXPECT_EQ(client.greet("Ada"), "hello Ada");
}

TEST_F(Connection, TheDelegateCanTurnAConnectionAway) {
  service->accepts = false;
  const auto client = connect();
  client->proxy->call<&Greeter::greet>("Ada", [](NSString) { FAIL(); });
  const auto events = client->events.waitFor(2);
  EXPECT_EQ(events[0], "error");
  EXPECT_EQ(events.back(), "invalidated");
}

TEST_F(Connection, AReplyBlockWorksOnceAndThenIsIgnored) {
  const auto client = connect();
  service->greeter->onGreet = [](const NSString&, const std::function<void(NSString)>& reply) {
    reply("first");
    reply("second");
  };
  EXPECT_EQ(client->greet("Ada"), "first");
  EXPECT_EQ(client->greet("Bob"), "first") << "the connection goes on";
}

TEST_F(Connection, AReplyBlockThatIsLetGoOfIsForgottenSilently) {
  const auto client = connect();
  service->greeter->onGreet = [](const NSString&, const std::function<void(NSString)>&) {};
  const auto token = std::make_shared<int>(0);
  client->proxy->call<&Greeter::greet>("Ada", [token](NSString) { FAIL(); });
  ASSERT_TRUE(eventually([&] { return token.use_count() == 1; })) << "the caller's block must be let go of";
  client->connection->invalidate();
  EXPECT_EQ(client->events.waitFor(1), onlyInvalidated());
}

TEST_F(Connection, AReplyCanComeFromAnyThreadAndLater) {
  const auto client = connect();
  std::promise<std::function<void(NSString)>> kept;
  service->greeter->onGreet = [&](const NSString&, std::function<void(NSString)> reply) {
    kept.set_value(std::move(reply));
  };
  std::thread later([&] { kept.get_future().get()("later"); });
  EXPECT_EQ(client->greet("Ada"), "later");
  later.join();
}

TEST_F(Connection, ACallbackCanWaitForANonBlockingReplyOfItsOwnConnection) {
  const auto client = connect();
  std::promise<std::string> got;
  client->proxy->call<&Greeter::greet>("outer", [&](NSString) {
    // On the connection's queue, which is held up meanwhile.
    auto inner = std::make_shared<std::promise<std::string>>();
    client->proxy->call<&Greeter::greet>("inner", std::function<void(NSString)>(NonBlockingReply<NSString>{
                                                      [inner](NSString text) { inner->set_value(text.string()); }}));
    got.set_value(inner->get_future().get());
  });
  EXPECT_EQ(got.get_future().get(), "hello inner");
}

TEST_F(Connection, ANonBlockingReplyThatRaisesLeavesItsConnectionAsItIs) {
  const auto client = connect();
  const auto raising = [&](auto raised) {
    client->proxy->call<&Greeter::greet>(
        "Ada", std::function<void(NSString)>(NonBlockingReply<NSString>{[raised](const NSString&) { throw raised; }}));
  };
  raising(std::runtime_error("raised on purpose"));
  EXPECT_EQ(client->greet("one"), "hello one");
  raising(1);
  EXPECT_EQ(client->greet("two"), "hello two");
}

TEST_F(Connection, WhatAReplyBlockHeldMayEndItsConnectionAsItIsDestroyed) {
  const auto client = connect();
  service->greeter->onGreet = [](const NSString&, const std::function<void(NSString)>&) {};
  // Its reply is dropped at the other end; with the block goes what it holds.
  const std::shared_ptr<void> atItsEnd(nullptr, [connection = client->connection](void*) { connection->invalidate(); });
  client->proxy->call<&Greeter::greet>("Ada", [atItsEnd](NSString) {});
  const_cast<std::shared_ptr<void>&>(atItsEnd).reset();
  EXPECT_EQ(client->events.waitFor(1).back(), "invalidated");
}

TEST_F(Connection, ManyConnectionsAreServedSideBySideWhileOneIsBlocked) {
  std::promise<void> release;
  auto released = release.get_future().share();
  service->greeter->onGreet = [released](const NSString& name, const std::function<void(NSString)>& reply) {
    if (name == NSString("blocked")) released.wait();
    reply(name);
  };
  const auto blocked = connect();
  blocked->proxy->call<&Greeter::greet>("blocked", [](NSString) {});
  for (int number = 0; number < 20; ++number) EXPECT_EQ(connect()->greet("free"), "free");
  release.set_value();
}

TEST_F(Connection, TheEndIsToldEvenWhileACallbackSleepsInACondition) {
  const auto client = connect();
  const auto condition = NSCondition::condition();
  bool over = false;
  std::promise<void> woke;
  client->greeter->onGreet = [&](const NSString&, const std::function<void(NSString)>&) {
    {
      const ConditionLock lock(condition);
      while (!over) condition.wait();
    }
    woke.set_value();
  };
  std::promise<void> told;
  client->connection->setInvalidationHandler([&] {
    {
      const ConditionLock lock(condition);
      over = true;
      condition.signal();
    }
    told.set_value();
  });
  client->greet("Ada");
  const auto accepted = service->accepted.waitFor(1).front();
  accepted->remoteObjectProxyWithErrorHandler<Greeter>([](NSError) {})->call<&Greeter::greet>("x", [](NSString) {});
  accepted->invalidate();
  EXPECT_EQ(told.get_future().wait_for(kGenerous), std::future_status::ready);
  EXPECT_EQ(woke.get_future().wait_for(kGenerous), std::future_status::ready);
}

TEST_F(Connection, LeavesNoDescriptorsBehind) {
  connect()->greet("warm");
  ASSERT_TRUE(eventually([&] { return service->events.soFar().size() == 1; }));
  const std::size_t before = openDescriptors();
  for (int round = 0; round < 50; ++round) connect()->greet("Ada");
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= before; })) << openDescriptors() << " now, " << before;
}

}  // namespace
}  // namespace velto::testing
