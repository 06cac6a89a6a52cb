// What the tests of the listener's steps share.

#include "tests/conformance/steps/ListenerSteps.h"

namespace velto::testing {

void ListenerSteps::start() {
  listener = VeltoListener::initWithServiceName("name", delegate);
  journal().take();
}

ListenerSteps::Accepted ListenerSteps::accept() {
  const auto offer = platform.listener(1).offerConnection();
  journal().take();
  return {offer.connection, offer.connection->lastCall("connectionUUID:")->arguments().at(0).as<NSString>(),
          offer.isAccepted};
}

void ListenerSteps::letGoOfListener() {
  for (std::size_t number = 1; number <= platform.connectionCount(); ++number) {
    platform.connection(number).letGoOfExportedObject();
  }
  const std::weak_ptr<VeltoListener> watched = listener;
  listener.reset();
  EXPECT_TRUE(watched.expired());
  journal().take();
}

std::string ListenerSteps::tables(const NSString& id) const {
  std::string found;
  if (!listener->connectionConditions()[id].isNil()) found += "C";
  if (!listener->receivedConnections()[id].isNil()) found += "R";
  if (!listener->receivedProxyObjects()[id].isNil()) found += "P";
  return found;
}

ListenerSteps::Outcome ListenerSteps::sendSync(const NSString& id, double timeout,
                                               const std::function<void(RecordedCall&)>& during) {
  journal().observe([this, &during](const std::string& line) {
    if (!line.starts_with("proxy#") || !line.ends_with(kMessage)) return;
    during(*platform.connection(platform.connectionCount()).lastCall(kMessage));
  });
  Outcome outcome;
  outcome.reply = listener->sendMessageSync(kHello, id, timeout, &outcome.error);
  journal().observe({});
  return outcome;
}

}  // namespace velto::testing
