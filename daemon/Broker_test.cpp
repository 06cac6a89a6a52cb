#include "daemon/Broker.h"

#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "message/CapturedLog.h"
#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/NSXPCListener.h"

namespace {

constexpr std::chrono::seconds kPatience{10};

// A link of a client, with what its handlers told.
class Client {
 public:
  explicit Client(const NSXPCListener& broker) : link_(NSXPCConnection::initWithListenerEndpoint(broker.endpoint())) {
    link_->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>());
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
    proxyReportingTo(answer)->call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
        name, [answer](NSXPCListenerEndpoint endpoint) {
          answer->set_value({endpoint, nil});
        });
    return answer->get_future().get();
  }

  void add(const NSString& name, const NSXPCListenerEndpoint& endpoint) {
    proxyReportingTo({})->call<&VeltoIPCDaemonProtocol::sendListenerConnection>(endpoint, name);
    // Calls of one connection are taken in order: once this one is answered, that one has been.
    find("");
  }
  NSError refusalOf(const NSString& name, const NSXPCListenerEndpoint& endpoint) {
    auto answer = std::make_shared<std::promise<Answer>>();
    proxyReportingTo(answer)->call<&VeltoIPCDaemonProtocol::sendListenerConnection>(endpoint, name);
    auto told = answer->get_future();
    return told.wait_for(kPatience) == std::future_status::ready ? told.get().error : NSError();
  }
  void kill(const NSString& name) {
    proxyReportingTo({})->call<&VeltoIPCDaemonProtocol::killListenerConnection>(name);
    find("");
  }
  bool ends() { return ended_->get_future().wait_for(kPatience) == std::future_status::ready; }

 private:
  std::shared_ptr<NSXPCProxy<VeltoIPCDaemonProtocol>> proxyReportingTo(std::shared_ptr<std::promise<Answer>> answer) {
    return link_->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>([answer](const NSError& error) {
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
  const std::shared_ptr<velto::Broker> broker = velto::Broker::make({.names = 8, .namesOfOneLink = 4, .links = 3});
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
