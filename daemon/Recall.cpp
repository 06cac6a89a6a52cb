// Their sockets lie beside the broker's, under names that begin alike. Who does not answer any more is forgotten.
#include "daemon/Recall.h"

#include <chrono>
#include <utility>

#include "broker/VeltoIPCRecallProtocol.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/NSXPCListener.h"

namespace velto {

void Recall::begin(std::chrono::nanoseconds patience, std::function<void()> done) {
  const NSArray names = NSXPCListener::serviceNamesWithPrefix(VeltoIPCListenerServicePrefix);
  if (names.count() == 0) return done();
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Asking %u processes for their listeners", names.count());
  const std::shared_ptr<Recall> recall(new Recall(std::move(done)));
  auto timeOut = xpc::DelayedCall::after(patience, [recall] { recall->finish(); });
  {
    MutexLock lock(recall->mutex_);
    for (const NSObject& name : names) recall->names_.push_back(name.as<NSString>());
    recall->timeOut_.swap(timeOut);
  }
  recall->askNext();
}

void Recall::askNext() {
  for (;;) {
    NSString name;
    {
      MutexLock lock(mutex_);
      if (names_.empty() || asked_.size() >= kMostAtOnce) return;
      name = names_.front();
      names_.pop_front();
      asked_.emplace(name.string(), nullptr);
    }
    ask(name);
  }
}

void Recall::ask(const NSString& name) {
  const auto connection = NSXPCConnection::initWithServiceName(name);
  connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCRecallProtocol>());
  connection->setInvalidationHandler([self = shared_from_this(), name] { self->ended(name, false); });
  {
    MutexLock lock(mutex_);
    asked_[name.string()] = connection;
  }
  connection->resume();
  const auto process = connection->remoteObjectProxyWithErrorHandler<VeltoIPCRecallProtocol>(
      [self = shared_from_this(), name](const NSError&) { self->ended(name, false); });
  process->call<&VeltoIPCRecallProtocol::registerAgain>(
      [self = shared_from_this(), name](const NSNumber&) { self->ended(name, true); });
}

void Recall::ended(const NSString& name, bool hasAnswered) {
  std::shared_ptr<NSXPCConnection> connection;
  bool isLast = false;
  {
    MutexLock lock(mutex_);
    const auto found = asked_.find(name.string());
    if (found == asked_.end()) return;
    connection = std::move(found->second);
    asked_.erase(found);
    isLast = asked_.empty() && names_.empty();
  }
  if (connection) connection->invalidate();
  if (!hasAnswered) NSXPCListener::forgetServiceNames(NSArray{name});
  isLast ? finish() : askNext();
}

void Recall::finish() {
  std::function<void()> done;
  std::shared_ptr<xpc::DelayedCall> timeOut;
  {
    MutexLock lock(mutex_);
    done.swap(done_);
    timeOut.swap(timeOut_);
  }
  if (done) done();
}

}  // namespace velto
