// Both sides of the broker's protocol, without the library. A lookup doubles as a barrier: calls of one link are taken
// in their order, so its answer tells that everything sent before has been dealt with.

#include "tests/support/BrokerLink.h"

#include <future>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/Waiting.h"

namespace velto::testing {

namespace {

NSXPCListenerEndpoint lookUp(const std::shared_ptr<NSXPCProxy<VeltoIPCDaemonProtocol>>& proxy, const NSString& name) {
  auto answer = std::make_shared<std::promise<NSXPCListenerEndpoint>>();
  std::future<NSXPCListenerEndpoint> answered = answer->get_future();
  proxy->call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
      name, [answer](const NSXPCListenerEndpoint& found) { answer->set_value(found); });
  if (answered.wait_for(kBound) != std::future_status::ready) {
    ADD_FAILURE() << "the broker does not answer a lookup";
    return nil;
  }
  return answered.get();
}

}  // namespace

void settle(const std::shared_ptr<NSXPCConnection>& link) {
  ASSERT_TRUE(link);
  lookUp(link->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>([](const NSError&) {}), "org.velto.nobody");
}

TestLink::TestLink() : connection_(NSXPCConnection::initWithServiceName(VeltoIPCDaemonServiceName)) {
  connection_->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>());
  connection_->resume();
  proxy_ = connection_->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>([](const NSError&) {});
}

TestLink::~TestLink() {
  connection_->invalidate();
}

void TestLink::registerEndpoint(const NSXPCListenerEndpoint& endpoint, const std::string& name) {
  proxy_->call<&VeltoIPCDaemonProtocol::sendListenerConnection>(endpoint, NSString(name));
  settle(connection_);
}

void TestLink::kill(const std::string& name) {
  proxy_->call<&VeltoIPCDaemonProtocol::killListenerConnection>(NSString(name));
  settle(connection_);
}

NSXPCListenerEndpoint TestLink::find(const std::string& name) {
  return lookUp(proxy_, name);
}

std::shared_ptr<ScriptedBroker> ScriptedBroker::start() {
  auto made = std::make_shared<ScriptedBroker>();
  NSError error;
  made->listener_ = NSXPCListener::listenerWithServiceName(VeltoIPCDaemonServiceName, &error);
  if (!made->listener_) giveUp(("the broker's name cannot be served: " + error.description().string()).c_str());
  made->listener_->setDelegate(made);
  made->listener_->resume();
  return made;
}

ScriptedBroker::~ScriptedBroker() = default;

void ScriptedBroker::stop() {
  if (listener_) listener_->invalidate();
  listener_.reset();
  dropLinks();
}

std::vector<std::string> ScriptedBroker::calls() const {
  MutexLock lock(mutex_);
  return calls_;
}

NSXPCListenerEndpoint ScriptedBroker::registered() const {
  MutexLock lock(mutex_);
  return registered_;
}

void ScriptedBroker::answerWith(const NSXPCListenerEndpoint& endpoint) {
  std::vector<std::function<void(NSXPCListenerEndpoint)>> waiting;
  {
    MutexLock lock(mutex_);
    answer_ = endpoint;
    answers_ = true;
    waiting.swap(unanswered_);
  }
  for (const auto& handle : waiting) handle(endpoint);
}

void ScriptedBroker::dropLinks() {
  std::vector<std::shared_ptr<NSXPCConnection>> dropped;
  {
    MutexLock lock(mutex_);
    dropped.swap(links_);
  }
  for (const auto& link : dropped) link->invalidate();
}

void ScriptedBroker::sendListenerConnection(NSXPCListenerEndpoint endpoint, NSString withName) {
  record(std::string(endpoint.isNil() ? "register nothing as " : "register ") + withName.description().string());
  MutexLock lock(mutex_);
  registered_ = std::move(endpoint);
}

void ScriptedBroker::findListenerEndpointForName(NSString name, std::function<void(NSXPCListenerEndpoint)> handle) {
  record("find " + name.description().string());
  NSXPCListenerEndpoint answer;
  {
    MutexLock lock(mutex_);
    if (!answers_) {
      unanswered_.push_back(std::move(handle));
      return;
    }
    answer = answer_;
  }
  handle(answer);
}

void ScriptedBroker::killListenerConnection(NSString name) {
  record("kill " + name.description().string());
}

bool ScriptedBroker::listener(const std::shared_ptr<NSXPCListener>&,
                              const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) {
  shouldAcceptNewConnection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>());
  shouldAcceptNewConnection->setExportedObject<VeltoIPCDaemonProtocol>(shared_from_this());
  shouldAcceptNewConnection->setInvalidationHandler([this, self = weak_from_this()] {
    if (const auto alive = self.lock()) record("link ended");
  });
  shouldAcceptNewConnection->resume();
  MutexLock lock(mutex_);
  links_.push_back(shouldAcceptNewConnection);
  return true;
}

void ScriptedBroker::record(const std::string& call) {
  MutexLock lock(mutex_);
  calls_.push_back(call);
}

}  // namespace velto::testing
