#include "tools/veltoctl/BrokerLink.h"

#include "broker/BrokerConnection.h"

namespace velto::ctl {
namespace {

constexpr std::string_view kRefused = "was refused by the other end: ";

}  // namespace

BrokerLink::BrokerLink(Start start)
    : connection_(start == Start::ifNeeded ? connectionToBroker()
                                           : NSXPCConnection::initWithServiceName(VeltoIPCDaemonServiceName)) {
  connection_->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCObserverProtocol>());
  connection_->setInvalidationHandler([ended = hasEnded_] { *ended = true; });
  connection_->resume();
}

BrokerLink::~BrokerLink() {
  connection_->invalidate();
}

CommandError BrokerLink::commandErrorOf(const NSError& error) {
  const std::string text = error.localizedDescription().string();
  const bool isRefusal = error.code() == NSXPCCallRefused || error.code() == NSXPCLimitExceeded;
  // Behind the name of the method, which says nothing to who uses the tool.
  const std::size_t reason = text.find(kRefused);
  if (isRefusal) return {ExitCode::refused, reason == std::string::npos ? text : text.substr(reason + kRefused.size())};
  return {ExitCode::noBroker, "no broker can be asked: " + text + " (veltoctl doctor looks into it)"};
}

std::vector<NameDescription> BrokerLink::names() {
  std::vector<NameDescription> all;
  for (bool hasMore = true; hasMore;) {
    const NSString after = all.empty() ? NSString() : NSString(all.back().name);
    const auto answer = ask<NSDictionary, &VeltoIPCObserverProtocol::listNames>(kPatience, after);
    const std::size_t before = all.size();
    for (const NSObject& each : answer["names"].as<NSArray>()) {
      if (auto name = nameDescriptionIn(each.as<NSDictionary>())) all.push_back(*std::move(name));
    }
    hasMore = answer["more"].boolValue() && all.size() > before;
  }
  return all;
}

std::optional<NameDescription> BrokerLink::describe(const std::string& name) {
  return nameDescriptionIn(ask<NSDictionary, &VeltoIPCObserverProtocol::describeName>(kPatience, NSString(name)));
}

NSDictionary BrokerLink::describeBroker() {
  return ask<NSDictionary, &VeltoIPCObserverProtocol::describeBroker>(kPatience);
}

NSXPCListenerEndpoint BrokerLink::find(const std::string& name) {
  return ask<NSXPCListenerEndpoint, &VeltoIPCObserverProtocol::findListenerEndpointForName>(kPatience, NSString(name));
}

void BrokerLink::requireServed(const std::string& name) {
  if (find(name)) return;
  std::string why;
  try {
    const auto said = ask<NSString, &VeltoIPCObserverProtocol::explainAbsenceOfName>(kPatience, NSString(name));
    if (said) why = ": " + said.string();
  } catch (const CommandError&) {
    // An older broker has no more to say.
  }
  throw CommandError(ExitCode::notFound, "nobody serves \"" + name + "\"" + why);
}

bool BrokerLink::wait(const std::string& name, std::optional<double> seconds) {
  return static_cast<bool>(ask<NSXPCListenerEndpoint, &VeltoIPCObserverProtocol::waitForName>(
      std::nullopt, NSString(name), seconds ? NSNumber(*seconds) : NSNumber()));
}

void BrokerLink::standIn(const std::string& name, const NSXPCListenerEndpoint& endpoint) {
  ask<NSDictionary, &VeltoIPCObserverProtocol::standInForName>(kPatience, NSString(name), endpoint);
}

NSXPCListenerEndpoint BrokerLink::findBehind(const std::string& name) {
  return ask<NSXPCListenerEndpoint, &VeltoIPCObserverProtocol::findListenerEndpointBehindName>(kPatience,
                                                                                               NSString(name));
}

}  // namespace velto::ctl
