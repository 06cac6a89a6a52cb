// A client and a service of the new kind with those of the two classes, over one wire.

#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "VeltoIPC/Client.h"
#include "VeltoIPC/Service.h"
#include "VeltoIPC/VeltoIPC.h"
#include "platform/xpc/testing/Support.h"
#include "tests/support/Brokers.h"
#include "tests/support/RuntimeDirectory.h"
#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

using namespace std::chrono_literals;

constexpr char kKindsName[] = "org.velto.test.kinds";

// Hears everything; answers "sum" with the sum, lets go of "drop", and tells who asks to be told.
class Heard final : public VeltoIPCDelegate {
 public:
  void connectionReady(NSString connectionID) override { ready.put(connectionID); }
  void connectionError(NSString, NSError) override {}
  void receivedMessage(NSDictionary message, NSString connectionID, VeltoReplyHandler usingHandler) override {
    messages.put(message);
    if (message["op"] == "drop") return;
    if (usingHandler) usingHandler({{"sum", message["a"].integerValue() + message["b"].integerValue()}});
    if (const auto from = listener.lock(); from && message["op"] == "tell me") {
      from->sendMessage({{"told", true}}, connectionID, nullptr);
    }
  }

  Inbox<NSString> ready;
  Inbox<NSDictionary> messages;
  std::weak_ptr<VeltoListener> listener;
};

class BothKinds : public ::testing::Test {
 protected:
  const RuntimeDirectory directory;
  const DaemonProcess broker;
  const std::shared_ptr<Heard> heard = std::make_shared<Heard>();
};

class ANewClient : public BothKinds {
 protected:
  ANewClient() { heard->listener = listener; }
  ~ANewClient() override { listener->close(); }

  Call::Reply call(const NSDictionary& message) const { return client->call(message, {.timeout = kGenerous}).get(); }

  Inbox<NSDictionary> told;
  const std::shared_ptr<VeltoListener> listener = VeltoListener::initWithServiceName(kKindsName, heard);
  const Outcome<Client> client =
      Client::connect(kKindsName, {.onMessage = [this](const Request& request) { told.put(request.message()); }});
};

TEST_F(ANewClient, IsAnsweredByAListener) {
  ASSERT_TRUE(client) << client.error().text();
  EXPECT_EQ(call({{"op", "sum"}, {"a", 1}, {"b", 2}}).value(), (NSDictionary{{"sum", 3}}));
}

TEST_F(ANewClient, HearsThatAListenerHasLetGoOfItsCall) {
  ASSERT_TRUE(client);
  const auto reply = call({{"op", "drop"}});
  ASSERT_FALSE(reply);
  EXPECT_EQ(reply.error().failure(), Failure::dropped);
}

TEST_F(ANewClient, IsRefusedAStreamByAListener) {
  ASSERT_TRUE(client);
  const auto result = client->open({{"op", "sum"}}).result();
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().failure(), Failure::refused);
}

TEST_F(ANewClient, IsSentToByAListener) {
  ASSERT_TRUE(client);
  EXPECT_TRUE(call({{"op", "tell me"}}));
  EXPECT_EQ(told.waitFor(1)[0], (NSDictionary{{"told", true}}));
}

TEST_F(ANewClient, SendsToAListener) {
  ASSERT_TRUE(client);
  EXPECT_EQ(client->send({{"note", 1}}), std::nullopt);
  EXPECT_EQ(heard->messages.waitFor(1)[0], (NSDictionary{{"note", 1}}));
}

class ANewService : public BothKinds {
 protected:
  ANewService() {
    service.on("sum", [](const Request& request) { request.reply({{"sum", request.message()["a"].integerValue()}}); });
    service.on("fail", [](const Request& request) { request.fail("not today", 7); });
    service.start();
    EXPECT_EQ(service.waitUntilRegistered(kGenerous), std::nullopt);
    connection = VeltoConnection::initWithServiceName(kKindsName, heard);
    NSError error;
    EXPECT_TRUE(connection->waitUntilReady(kSeconds, &error)) << error.localizedDescription().string();
  }
  ~ANewService() override { connection->close(); }

  NSDictionary ask(const NSDictionary& message) const {
    NSError error;
    return connection->sendMessageSync(message, kSeconds, &error);
  }

  static constexpr double kSeconds = std::chrono::duration<double>(kGenerous).count();
  Service service{kKindsName};
  std::shared_ptr<VeltoConnection> connection;
};

TEST_F(ANewService, AnswersAConnection) {
  EXPECT_EQ(ask({{"op", "sum"}, {"a", 4}}), (NSDictionary{{"sum", 4}}));
  Inbox<NSDictionary> replies;
  EXPECT_TRUE(connection->sendMessage({{"op", "sum"}, {"a", 5}}, nullptr,
                                      [&](const NSDictionary& reply) { replies.put(reply); }));
  EXPECT_EQ(replies.waitFor(1)[0], (NSDictionary{{"sum", 5}}));
}

TEST_F(ANewService, TellsAConnectionOfItsFailuresInTheReply) {
  EXPECT_EQ(ask({{"op", "fail"}}), (NSDictionary{{"error", "not today"}, {"code", 7}}));
  EXPECT_EQ(ask({{"op", "product"}}), (NSDictionary{{"error", "there is no operation \"product\""}, {"code", 0}}));
}

TEST_F(ANewService, TellsEveryConnectionAsSoonAsItIsReady) {
  EXPECT_EQ(service.clientCount(), 1U);
  EXPECT_EQ(service.broadcast({{"news", 1}}), 0U);
  EXPECT_EQ(heard->messages.waitFor(1)[0], (NSDictionary{{"news", 1}}));
}

}  // namespace
}  // namespace velto::testing
