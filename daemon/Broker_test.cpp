#include "daemon/Broker.h"

#include <future>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "message/CapturedLog.h"
#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/NSXPCListener.h"

namespace {

constexpr std::chrono::seconds kPatience{10};

// A link of a client, with what its handlers told.
class Client {
 public:
  explicit Client(const NSXPCListener& broker) : link_(NSXPCConnection::initWithListenerEndpoint(broker.endpoint())) {
    link_->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCNamesProtocol>());
    link_->setInvalidationHandler([ended = ended_] { ended->set_value(); });
    link_->resume();
  }
  ~Client() { link_->invalidate(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // What became of a look-up: the endpoint, or nil; or the error.
  struct Answer {
    NSXPCListenerEndpoint endpoint;
    NSError error;
  };
  Answer find(const NSString& name) {
    auto answer = std::make_shared<std::promise<Answer>>();
    proxyReportingTo(answer)->call<&VeltoIPCNamesProtocol::findListenerEndpointForName>(
        name, [answer](NSXPCListenerEndpoint endpoint) {
          answer->set_value({endpoint, nil});
        });
    return answer->get_future().get();
  }

  void add(const NSString& name, const NSXPCListenerEndpoint& endpoint) {
    proxyReportingTo({})->call<&VeltoIPCNamesProtocol::sendListenerConnection>(endpoint, name);
    // Calls of one connection are taken in order: once this one is answered, that one has been.
    find("");
  }
  NSError refusalOf(const NSString& name, const NSXPCListenerEndpoint& endpoint) {
    auto answer = std::make_shared<std::promise<Answer>>();
    proxyReportingTo(answer)->call<&VeltoIPCNamesProtocol::sendListenerConnection>(endpoint, name);
    auto told = answer->get_future();
    return told.wait_for(kPatience) == std::future_status::ready ? told.get().error : NSError();
  }
  void kill(const NSString& name) {
    proxyReportingTo({})->call<&VeltoIPCNamesProtocol::killListenerConnection>(name);
    find("");
  }
  velto::NameAnswer registers(const NSString& name, const NSXPCListenerEndpoint& endpoint, bool takingOver) {
    std::promise<velto::NameAnswer> told;
    proxyReportingTo({})->call<&VeltoIPCNamesProtocol::registerName>(
        name, endpoint, takingOver,
        [&told](const NSDictionary& answer) { told.set_value(velto::nameAnswerIn(answer)); });
    return told.get_future().get();
  }
  void giveBack(const NSString& name, std::uint64_t registration) {
    proxyReportingTo({})->call<&VeltoIPCNamesProtocol::giveBackName>(name, registration);
    find("");
  }
  // Both wait from when they return.
  std::future<Answer> waitsFor(const NSString& name, const NSNumber& seconds = nil) {
    auto answer = std::make_shared<std::promise<Answer>>();
    proxyReportingTo(answer)->call<&VeltoIPCNamesProtocol::waitForName>(name, seconds,
                                                                        [answer](NSXPCListenerEndpoint endpoint) {
                                                                          answer->set_value({endpoint, nil});
                                                                        });
    find("");
    return answer->get_future();
  }
  std::future<NSDictionary> waitsForOther(const NSString& name, std::uint64_t known) {
    auto answer = std::make_shared<std::promise<NSDictionary>>();
    proxyReportingTo({})->call<&VeltoIPCNamesProtocol::waitForChangeOfName>(
        name, known, [answer](const NSDictionary& state) { answer->set_value(state); });
    find("");
    return answer->get_future();
  }
  bool ends() { return ended_->get_future().wait_for(kPatience) == std::future_status::ready; }

 private:
  std::shared_ptr<NSXPCProxy<VeltoIPCNamesProtocol>> proxyReportingTo(std::shared_ptr<std::promise<Answer>> answer) {
    return link_->remoteObjectProxyWithErrorHandler<VeltoIPCNamesProtocol>([answer](const NSError& error) {
      if (answer) answer->set_value({nil, error});
    });
  }

  const std::shared_ptr<std::promise<void>> ended_ = std::make_shared<std::promise<void>>();
  const std::shared_ptr<NSXPCConnection> link_;
};

class BrokerTest : public ::testing::Test {
 protected:
  BrokerTest() {
    service->setDelegate(broker);
    service->resume();
  }

  velto::CapturedLog log;
  const std::shared_ptr<velto::Broker> broker =
      velto::Broker::make({.names = 8, .namesOfOneLink = 4, .links = 3, .waiters = 4, .waitersOfOneProcess = 3});
  const std::shared_ptr<NSXPCListener> service = NSXPCListener::anonymousListener();
  std::shared_ptr<NSXPCListener> first = NSXPCListener::anonymousListener();
  std::shared_ptr<NSXPCListener> second = NSXPCListener::anonymousListener();
};

}  // namespace

TEST_F(BrokerTest, ALookUpFromAnotherLinkFindsWhatWasRegistered) {
  Client server(*service);
  Client client(*service);
  server.add("a", first->endpoint());
  EXPECT_EQ(client.find("a").endpoint, first->endpoint());
}

TEST_F(BrokerTest, ALookUpOfNothingAnswersNil) {
  Client client(*service);
  for (const NSString& name : {NSString("a"), NSString(""), NSString(), NSString(std::string(300, 'x'))}) {
    const Client::Answer answer = client.find(name);
    EXPECT_FALSE(answer.endpoint);
    EXPECT_FALSE(answer.error) << answer.error.description().string();
  }
}

TEST_F(BrokerTest, TheLastRegistrationOfANameWins) {
  Client one(*service);
  Client other(*service);
  one.add("a", first->endpoint());
  other.add("a", second->endpoint());
  EXPECT_EQ(one.find("a").endpoint, second->endpoint());
}

TEST_F(BrokerTest, ARegistrationOutlivesItsLinkAndEndsWithItsListener) {
  std::make_unique<Client>(*service)->add("a", first->endpoint());
  Client client(*service);
  EXPECT_EQ(client.find("a").endpoint, first->endpoint());
  first.reset();
  EXPECT_TRUE(log.waitFor({2, "The listener of a is gone"}));
  EXPECT_FALSE(client.find("a").endpoint);
}

TEST_F(BrokerTest, KillDropsAName) {
  Client client(*service);
  client.add("a", first->endpoint());
  client.kill("a");
  EXPECT_FALSE(client.find("a").endpoint);
  client.kill("a");
  client.kill(nil);
  client.add("a", first->endpoint());
  EXPECT_EQ(client.find("a").endpoint, first->endpoint());
}

TEST_F(BrokerTest, ARefusalReachesTheOneThatRegistersAndItsLinkStays) {
  Client client(*service);
  const std::pair<NSString, NSString> refused[] = {
      {nil, "the name is nil"},
      {"", "the name is empty"},
      {std::string(256, 'x'), "the name has 256 bytes; the maximum is 255"},
  };
  for (const auto& [name, reason] : refused) {
    const NSError error = client.refusalOf(name, first->endpoint());
    EXPECT_EQ(error.domain(), NSXPCErrorDomain);
    EXPECT_EQ(error.code(), NSXPCCallRefused);
    EXPECT_NE(error.localizedDescription().view().find(reason.view()), std::string_view::npos)
        << error.description().string();
  }
  EXPECT_EQ(client.refusalOf("a", nil).code(), NSXPCCallRefused);
  client.add("a", first->endpoint());
  EXPECT_EQ(client.find("a").endpoint, first->endpoint());
}

TEST_F(BrokerTest, NamesOverTheLimitOfOneLinkAreRefused) {
  Client client(*service);
  for (const char* name : {"a", "b", "c", "d"}) client.add(name, first->endpoint());
  const NSError error = client.refusalOf("e", first->endpoint());
  EXPECT_NE(error.localizedDescription().view().find("names of one link would be 5; the maximum is 4"),
            std::string_view::npos)
      << error.description().string();
  Client other(*service);
  other.add("e", first->endpoint());
  EXPECT_EQ(client.find("e").endpoint, first->endpoint());
}

TEST_F(BrokerTest, LinksOverTheLimitAreTurnedAwayAndRoomComesBack) {
  Client one(*service);
  Client two(*service);
  auto three = std::make_unique<Client>(*service);
  one.find("a");
  two.find("a");
  three->find("a");
  EXPECT_EQ(broker->linkCount(), 3U);
  Client four(*service);
  EXPECT_TRUE(four.find("a").error);
  EXPECT_TRUE(four.ends());
  EXPECT_TRUE(log.waitFor({0, "A link was refused: links would be 4; the maximum is 3"}));
  three.reset();
  while (broker->linkCount() == 3) std::this_thread::yield();
  Client five(*service);
  EXPECT_FALSE(five.find("a").error);
}

TEST_F(BrokerTest, NamesOfManyKindsAreKeptApart) {
  Client client(*service);
  client.add(std::string("a\0b", 3), first->endpoint());
  client.add("../a", second->endpoint());
  EXPECT_FALSE(client.find("a").endpoint);
  EXPECT_EQ(client.find(std::string("a\0b", 3)).endpoint, first->endpoint());
  EXPECT_EQ(client.find("../a").endpoint, second->endpoint());
}

TEST_F(BrokerTest, TellsWhoRegistersThatItStandsOrWhoHasTheNameOrWhyNot) {
  Client one(*service);
  Client other(*service);
  const velto::NameAnswer stands = one.registers("a", first->endpoint(), false);
  EXPECT_TRUE(stands.stands());
  const velto::NameAnswer taken = other.registers("a", second->endpoint(), false);
  EXPECT_TRUE(taken.isTaken);
  EXPECT_EQ(taken.state, (velto::NameState{stands.state.registration, getpid()}));
  EXPECT_TRUE(other.registers("a", second->endpoint(), true).stands());
  EXPECT_EQ(one.find("a").endpoint, second->endpoint());
  EXPECT_EQ(one.registers("", first->endpoint(), true).refusal, "the name is empty");
  EXPECT_EQ(one.registers("b", nil, true).refusal, "the endpoint is nil");
  for (const char* name : {"b", "c", "d", "e"}) EXPECT_TRUE(one.registers(name, first->endpoint(), true).stands());
  EXPECT_EQ(one.registers("f", first->endpoint(), true).refusal, "names of one link would be 5; the maximum is 4");
}

TEST_F(BrokerTest, TellsWhoIsPushedOutByWhomAndWhenTheNameIsFree) {
  Client one(*service);
  Client other(*service);
  const auto own = one.registers("a", first->endpoint(), true).state.registration;
  auto pushedOut = one.waitsForOther("a", own);
  const auto its = other.registers("a", second->endpoint(), true).state.registration;
  EXPECT_EQ(velto::nameStateIn(pushedOut.get()), (velto::NameState{its, getpid()}));
  auto free = one.waitsForOther("a", its);
  one.giveBack("a", own);
  EXPECT_EQ(free.wait_for(std::chrono::seconds(0)), std::future_status::timeout) << "it is not its own any more";
  other.giveBack("a", its);
  EXPECT_EQ(velto::nameStateIn(free.get()), velto::NameState());
}

TEST_F(BrokerTest, TellsWhoWaitsForANameWhenItIsRegisteredInWhateverWay) {
  Client one(*service);
  Client other(*service);
  auto early = one.waitsFor("a");
  auto late = one.waitsFor("b", 3600);
  auto never = one.waitsFor("c", 0.001);
  EXPECT_FALSE(never.get().endpoint);
  other.add("a", first->endpoint());
  EXPECT_EQ(early.get().endpoint, first->endpoint());
  other.registers("b", second->endpoint(), false);
  EXPECT_EQ(late.get().endpoint, second->endpoint());
  EXPECT_EQ(one.waitsFor("b").get().endpoint, second->endpoint());
  EXPECT_EQ(broker->waiterCount(), 0U);
}

TEST_F(BrokerTest, RefusesWaitersOverTheLimitAndRecovers) {
  Client client(*service);
  std::vector<std::future<Client::Answer>> waiting;
  for (const char* name : {"a", "b", "c"}) waiting.push_back(client.waitsFor(name));
  const NSError error = client.waitsFor("d").get().error;
  EXPECT_EQ(error.code(), NSXPCCallRefused);
  EXPECT_NE(error.localizedDescription().view().find("waiters of one process would be 4; the maximum is 3"),
            std::string_view::npos)
      << error.description().string();
  EXPECT_EQ(client.waitsFor("").get().error.code(), NSXPCCallRefused);
  client.add("a", first->endpoint());
  EXPECT_EQ(waiting.front().get().endpoint, first->endpoint());
  auto again = client.waitsFor("d");
  EXPECT_EQ(broker->waiterCount(), 3U);
}

TEST_F(BrokerTest, ForgetsWhoWaitedWithTheLink) {
  auto waiting = std::make_unique<Client>(*service);
  const auto one = waiting->waitsFor("a", 3600);
  const auto other = waiting->waitsForOther("b", 0);
  EXPECT_EQ(broker->waiterCount(), 2U);
  waiting.reset();
  while (broker->waiterCount() > 0) std::this_thread::yield();
  Client client(*service);
  client.add("a", first->endpoint());
  EXPECT_EQ(client.find("a").endpoint, first->endpoint());
}
