// How a client gets from one state to the next, by what the test plays of the broker and the listener.

#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {

void ClientSteps::lookUp() {
  client = VeltoConnection::initWithServiceName("service", delegate);
  journal().take();
}

void ClientSteps::configure() {
  lookUp();
  link().lastCall(kLookup)->answer(endpoint);
  journal().take();
}

void ClientSteps::becomeReady(const NSString& identifier) {
  configure();
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionUUID>(identifier);
  journal().take();
}

std::future<bool> ClientSteps::waitAsleep(double timeout, NSError& error) {
  auto watch = std::make_shared<SleepWatch>();
  auto waiter = inBackground([this, watch, timeout, &error] {
    const SleepWatch::Guard guard(*watch);
    return client->waitUntilReady(timeout, &error);
  });
  watch->waitUntilAsleep();
  return waiter;
}

void ClientSteps::letGoOfClient() {
  for (std::size_t number = 1; number <= platform.connectionCount(); ++number) {
    platform.connection(number).letGoOfExportedObject();
  }
  const std::weak_ptr<VeltoConnection> watched = client;
  client = nullptr;
  EXPECT_TRUE(watched.expired()) << "the client is still held by " << watched.use_count();
}

VeltoReplyHandler CountedReply::handler() {
  return [replies = replies_](NSDictionary reply) { replies->push_back(std::move(reply)); };
}

}  // namespace velto::testing
