// The members of NSXPCListener and NSXPCListenerEndpoint, as the double has them: an endpoint is an object that is only
// handed around.

#include "tests/conformance/double/ListenerDouble.h"

#include <utility>

#include "tests/conformance/double/PlatformDouble.h"

using velto::testing::PlatformDouble;
using velto::xpc::ListenerCore;

namespace velto::testing {
namespace {

class EndpointBody final : public ObjectBody {
 public:
  const ClassBody& classBody() const override { return *NSXPCListenerEndpoint::classObject().classBody(); }
};

class EndpointObject final : public NSObject {
 public:
  EndpointObject() : NSObject(new EndpointBody) {}
};

}  // namespace

NSXPCListenerEndpoint makeEndpoint() {
  return EndpointObject().as<NSXPCListenerEndpoint>();
}

}  // namespace velto::testing

namespace velto::xpc {

ListenerCore::ListenerCore(std::size_t number, NSXPCListenerEndpoint endpoint,
                           std::shared_ptr<testing::Journal> journal)
    : number_(number), endpoint_(std::move(endpoint)), journal_(std::move(journal)) {}

std::shared_ptr<NSXPCListener> ListenerCore::wrap(const std::shared_ptr<ListenerCore>& core) {
  std::shared_ptr<NSXPCListener> listener(new NSXPCListener(core));
  MutexLock lock(core->mutex_);
  core->listener_ = listener;
  return listener;
}

void ListenerCore::note(const std::string& what) const {
  journal_->write("listener#" + std::to_string(number_) + " " + what);
}

std::shared_ptr<NSXPCListenerDelegate> ListenerCore::delegate() const {
  MutexLock lock(mutex_);
  return delegate_.lock();
}

bool ListenerCore::isLetGo() const {
  MutexLock lock(mutex_);
  return isLetGo_;
}

ListenerCore::Offer ListenerCore::offerConnection() {
  auto core = PlatformDouble::current().makeConnection();
  core->made("accepted");
  std::shared_ptr<NSXPCListener> listener;
  {
    MutexLock lock(mutex_);
    listener = listener_.lock();
  }
  const auto receiver = delegate();
  const bool isAccepted = receiver && receiver->listener(listener, ConnectionCore::wrap(core));
  return {core, isAccepted};
}

NSXPCListenerEndpoint ListenerCore::endpoint() const {
  note("endpoint");
  return endpoint_;
}

void ListenerCore::setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate) {
  {
    MutexLock lock(mutex_);
    std::swap(delegate_, delegate);
  }
  note("setDelegate");
}

void ListenerCore::letGo() {
  MutexLock lock(mutex_);
  isLetGo_ = true;
}

}  // namespace velto::xpc

std::shared_ptr<NSXPCListener> NSXPCListener::anonymousListener() {
  const auto core = PlatformDouble::current().makeListener();
  core->note("anonymousListener");
  return ListenerCore::wrap(core);
}

// A socket for a broker that has restarted: there is none here.
std::shared_ptr<NSXPCListener> NSXPCListener::listenerWithFreshServiceName(const NSString&, NSError*) {
  return nullptr;
}

unsigned velto::system::forkGeneration() noexcept {
  return 0;
}

NSXPCListener::NSXPCListener(std::shared_ptr<ListenerCore> core) : core_(std::move(core)) {}

NSXPCListener::~NSXPCListener() {
  core_->letGo();
}

NSXPCListenerEndpoint NSXPCListener::endpoint() const {
  return core_->endpoint();
}

void NSXPCListener::setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate) {
  core_->setDelegate(std::move(delegate));
}

void NSXPCListener::resume() {
  core_->note("resume");
}

void NSXPCListener::invalidate() {
  core_->note("invalidate");
}

Class NSXPCListenerEndpoint::classObject() {
  static const Class& made = *new Class(Class::define("NSXPCListenerEndpoint", NSObject::classObject()));
  return made;
}
