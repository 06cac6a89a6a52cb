// What is refused, who hears of it, and that the connection goes on.

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Greeter.h"

namespace velto::testing {
namespace {

class Refusals : public ::testing::Test {
 protected:
  Refusals() {
    listener->setDelegate(service);
    listener->resume();
  }
  GreeterClient& client() {
    if (!client_) {
      client_ = std::make_unique<GreeterClient>(NSXPCConnection::initWithListenerEndpoint(listener->endpoint()));
    }
    return *client_;
  }
  // The first error, once it has come and the connection has shown that it still works.
  NSError refusal() {
    const NSError error = client().errors.waitFor(1).front();
    EXPECT_EQ(client().greet("still there"), "hello still there");
    EXPECT_EQ(client().errors.soFar().size(), 1U) << "nothing is reported twice";
    return error;
  }
  static void expectText(const NSError& error, const std::string& part) {
    EXPECT_NE(error.localizedDescription().string().find(part), std::string::npos)
        << error.localizedDescription().string();
  }

  const PrivateRuntimeDirectory directory;
  const std::shared_ptr<GreeterService> service = std::make_shared<GreeterService>();
  const std::shared_ptr<NSXPCListener> listener = NSXPCListener::anonymousListener();
  std::unique_ptr<GreeterClient> client_;
};

TEST_F(Refusals, AMethodThatTheOtherEndDoesNotImplementIsNamed) {
  client().proxy->call<&Greeter::wave>();
  const NSError error = refusal();
  EXPECT_EQ(error.code(), NSXPCCallRefused);
  expectText(error, "wave was refused by the other end");
}

TEST_F(Refusals, AClassOutsideTheSetIsNamedWithItsArgument) {
  client().proxy->call<&Greeter::tell>(NSDictionary{{"where", VKTLogGetAnchor()}});
  const NSError error = refusal();
  EXPECT_EQ(error.code(), NSXPCCallRefused);
  expectText(error, "tell: was refused by the other end: argument 0");
  expectText(error, "VKTLogAnchor");
  EXPECT_TRUE(service->greeter->told.soFar().empty());
}

TEST_F(Refusals, AClassThatWasAddedToTheSetIsAdmitted) {
  service->adjustExported = [](NSXPCInterface& interface) {
    auto classes = NSMutableSet::initWithSet(interface.classesForSelector("tell:", 0, false));
    classes.addObject(VKTLogAnchor::classObject());
    interface.setClasses(classes, "tell:", 0, false);
  };
  client().proxy->call<&Greeter::tell>(NSDictionary{{"where", VKTLogGetAnchor()}});
  const auto told = service->greeter->told.waitFor(1);
  EXPECT_NE(told.front()["where"].as<VKTLogAnchor>().file().string().find("Refusals_test.cpp"), std::string::npos);
}

TEST_F(Refusals, ACallOverTheSizeLimitIsNotSentAndSaysHowLargeItIs) {
  const std::string large(limits::kMaximumFrameBytes + 1, 'x');
  client().proxy->call<&Greeter::tell>(NSDictionary{{"text", large}});
  const NSError error = refusal();
  EXPECT_EQ(error.code(), NSXPCLimitExceeded);
  expectText(error, "tell: was not sent: argument 0");
  expectText(error, std::to_string(limits::kMaximumFrameBytes));
}

TEST_F(Refusals, AReplyOverTheSizeLimitComesBackAsAnError) {
  service->greeter->onGreet = [](const NSString& name, const std::function<void(NSString)>& reply) {
    reply(name == NSString("large") ? std::string(limits::kMaximumFrameBytes, 'x') : "hello " + name.string());
  };
  client().proxy->call<&Greeter::greet>("large", [](NSString) { FAIL(); });
  EXPECT_EQ(refusal().code(), NSXPCLimitExceeded);
}

TEST_F(Refusals, AMethodCanRefuseItsCallItself) {
  service->greeter->onTell = [](const NSDictionary&) { throw NSXPCRefusal("the news is old"); };
  client().proxy->call<&Greeter::tell>(NSDictionary::dictionary());
  const NSError error = refusal();
  EXPECT_EQ(error.code(), NSXPCCallRefused);
  expectText(error, "the news is old");
}

TEST_F(Refusals, WhatWaitsForAReceiverThatIsBlockedIsBounded) {
  std::promise<void> release;
  auto released = release.get_future().share();
  service->greeter->onTell = [released](const NSDictionary&) { released.wait(); };
  const NSData portion(std::vector<std::uint8_t>(std::size_t{4} << 20));
  // More than the other end and this one together may hold.
  const std::size_t enough = (limits::kUndeliveredBytes + limits::kWaitingBytes) / (std::size_t{4} << 20) + 4;
  for (std::size_t sent = 0; sent < enough; ++sent) client().proxy->call<&Greeter::tell>(NSDictionary{{"p", portion}});
  const NSError error = client().errors.waitFor(1).front();
  EXPECT_EQ(error.code(), NSXPCLimitExceeded);
  expectText(error, "bytes that wait to be sent");
  expectText(error, std::to_string(limits::kWaitingBytes));
  release.set_value();
  EXPECT_EQ(client().greet("recovered"), "hello recovered");
}

TEST_F(Refusals, RepliesPassCallsThatWaitForCredit) {
  std::promise<void> release;
  auto released = release.get_future().share();
  service->greeter->onTell = [released](const NSDictionary&) { released.wait(); };
  const NSData portion(std::vector<std::uint8_t>(std::size_t{8} << 20));
  for (int sent = 0; sent < 8; ++sent) client().proxy->call<&Greeter::tell>(NSDictionary{{"p", portion}});
  // The client's own calls are stuck; its reply to a call from the other end is not.
  const auto back = service->accepted.waitFor(1).front()->remoteObjectProxyWithErrorHandler<Greeter>([](NSError) {});
  std::promise<std::string> answer;
  back->call<&Greeter::greet>("Bob", std::function<void(NSString)>(NonBlockingReply<NSString>{
                                         [&](NSString text) { answer.set_value(text.string()); }}));
  EXPECT_EQ(answer.get_future().get(), "hello Bob");
  release.set_value();
  EXPECT_EQ(client().greet("Ada"), "hello Ada");
}

}  // namespace
}  // namespace velto::testing
