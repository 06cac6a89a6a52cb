// A broker that was killed knows nothing when it comes back, and listeners hear nothing of that: their links may be
// long closed. So it is the broker that asks, at a socket which each process with listeners has beside its listeners'
// own, and the process answers over a link as any other, by which the broker knows who it is.
#include "broker/Registrations.h"

#include <chrono>
#include <utility>
#include <vector>

#include "broker/BrokerConnection.h"
#include "broker/VeltoIPCNamesProtocol.h"
#include "broker/VeltoIPCRecallProtocol.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/system/PerProcess.h"

namespace velto {
namespace {

std::uint64_t nowOnThisMachine() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

NSDictionary descriptionOf(const NSString& name, const xpc::ListenerTraffic& traffic) {
  return {{"name", name},
          {"connections", traffic.connections},
          {"accepted", traffic.accepted},
          {"messagesIn", traffic.messagesIn},
          {"messagesOut", traffic.messagesOut},
          {"bytesIn", traffic.bytesIn},
          {"bytesOut", traffic.bytesOut},
          {"undeliveredBytes", traffic.undeliveredBytes},
          {"unsentBytes", traffic.unsentBytes}};
}

// One time that all is registered again: it lives in the reply blocks, and is over when the last of them has been
// called or let go of.
class RegisteringAgain {
 public:
  RegisteringAgain(std::shared_ptr<NSXPCConnection> link, std::size_t count, std::function<void(std::size_t)> done)
      : link_(std::move(link)), count_(count), done_(std::move(done)) {}
  ~RegisteringAgain() {
    link_->invalidate();
    done_(count_);
  }
  RegisteringAgain(const RegisteringAgain&) = delete;
  RegisteringAgain& operator=(const RegisteringAgain&) = delete;

 private:
  const std::shared_ptr<NSXPCConnection> link_;
  const std::size_t count_;
  const std::function<void(std::size_t)> done_;
};

// What the broker calls.
class Door final : public VeltoIPCRecallProtocol {
 public:
  void registerAgain(std::function<void(NSNumber)> answer) override {
    Registrations::shared().registerAgain([answer = std::move(answer)](std::size_t count) {
      if (answer) answer(count);
    });
  }
  void describeListeners(std::function<void(NSDictionary)> answer) override {
    if (answer) answer(Registrations::shared().describe());
  }
};

}  // namespace

// Others hold delegates weakly, hence the shared pointer, which is never let go of.
Registrations& Registrations::shared() {
  struct Kept {
    std::shared_ptr<Registrations> object{new Registrations};
  };
  return *system::perProcess<Kept>().object;
}

std::shared_ptr<Registrations::Entry> Registrations::add(const NSString& name,
                                                         const std::shared_ptr<NSXPCListener>& listener) {
  if (!listener) return nullptr;
  std::uint64_t number = 0;
  {
    MutexLock lock(mutex_);
    number = ++lastNumber_;
    listed_.emplace(number, Listed{name, listener, nowOnThisMachine()});
  }
  auto entry = std::make_shared<Entry>(number);
  becomeReachable();
  return entry;
}

// Without it all works as long as the broker does, so a process that has nothing left for one more socket goes on.
void Registrations::becomeReachable() {
  {
    MutexLock lock(mutex_);
    if (door_ || listed_.empty()) return;
  }
  NSError error;
  auto door = NSXPCListener::listenerWithFreshServiceName(VeltoIPCListenerServicePrefix, &error);
  if (!door) {
    VKTLoggingLog(VKTLogGetAnchor(), 2, "A broker that restarts cannot ask here: %@", error);
    return;
  }
  door->setDelegate(weak_from_this());
  door->resume();
  // What is not needed after all, because another was quicker or nothing is listed any more, ends after the lock.
  MutexLock lock(mutex_);
  if (!door_ && !listed_.empty()) door_.swap(door);
}

void Registrations::remove(std::uint64_t number) {
  std::shared_ptr<NSXPCListener> door;
  MutexLock lock(mutex_);
  listed_.erase(number);
  if (listed_.empty()) door.swap(door_);
}

bool Registrations::listener(const std::shared_ptr<NSXPCListener>&,
                             const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) {
  NSXPCConnection& connection = *shouldAcceptNewConnection;
  connection.setExportedInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCRecallProtocol>());
  connection.setExportedObject<VeltoIPCRecallProtocol>(std::make_shared<Door>());
  // It lives as long as the broker wants it to.
  connection.setInvalidationHandler([kept = shouldAcceptNewConnection] {});
  connection.resume();
  return true;
}

std::vector<Registrations::Listed> Registrations::all() {
  std::vector<Listed> all;
  MutexLock lock(mutex_);
  for (const auto& [number, listed] : listed_) all.push_back(listed);
  return all;
}

NSDictionary Registrations::describe() {
  NSMutableArray listeners = NSMutableArray::array();
  for (const Listed& each : all()) {
    if (const auto listener = each.listener.lock()) listeners.addObject(descriptionOf(each.name, listener->traffic()));
  }
  return {{"process", NSProcessInfo::processInfo().processIdentifier()}, {"listeners", listeners}};
}

void Registrations::registerAgain(const std::function<void(std::size_t)>& done) {
  const std::vector<Listed> all = this->all();
  const auto link = connectionToBroker();
  link->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCNamesProtocol>());
  link->resume();
  const auto again = std::make_shared<RegisteringAgain>(link, all.size(), done);
  const auto broker = link->remoteObjectProxyWithErrorHandler<VeltoIPCNamesProtocol>(
      [](const NSError& error) { VKTLoggingLog(VKTLogGetAnchor(), 2, "A name was not registered again: %@", error); });
  for (const Listed& each : all) {
    const auto listener = each.listener.lock();
    if (!listener) continue;
    broker->call<&VeltoIPCNamesProtocol::registerNameAgain>(each.name, listener->endpoint(), each.since,
                                                            [again](const NSDictionary&) {});
  }
}

Registrations::Entry::Entry(std::uint64_t number) noexcept : generation_(system::forkGeneration()), number_(number) {}

// In the child of a fork it counts nowhere.
Registrations::Entry::~Entry() {
  if (generation_ == system::forkGeneration()) Registrations::shared().remove(number_);
}

}  // namespace velto
