// Ends of a connection without the library: what a library's end must put up with from the other side.

#include "tests/support/RawPeer.h"

#include <algorithm>
#include <utility>

#include <gtest/gtest.h>

namespace velto::testing {

std::vector<PeerCall> RecordingPeer::calls() const {
  MutexLock lock(mutex_);
  return calls_;
}

std::size_t RecordingPeer::count(const std::string& method) const {
  const std::vector<PeerCall> all = calls();
  return static_cast<std::size_t>(
      std::count_if(all.begin(), all.end(), [&](const PeerCall& call) { return call.method == method; }));
}

PeerCall RecordingPeer::waitFor(const std::string& method, std::size_t times) const {
  const auto end = std::chrono::steady_clock::now() + kBound;
  MutexLock lock(mutex_);
  for (;;) {
    std::size_t seen = 0;
    for (const PeerCall& call : calls_) {
      if (call.method == method && ++seen == times) return call;
    }
    if (lock.waitUntil(changed_, end) == std::cv_status::timeout) break;
  }
  ADD_FAILURE() << "the peer was never called with " << method << " (" << times << ")";
  return {};
}

void RecordingPeer::connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler) {
  record({"connectionID:withMessage:handler:", connectionID, withMessage, std::move(handler), nil});
}

void RecordingPeer::connectionError(NSError error) {
  record({"connectionError:", nil, nil, {}, error});
}

void RecordingPeer::setStrictMessageTypesRemote(bool flag) {
  record({"setStrictMessageTypesRemote:", nil, nil, {}, nil, flag});
}

void RecordingPeer::connectionUUID(NSString connectionID) {
  record({"connectionUUID:", connectionID, nil, {}, nil});
}

void RecordingPeer::ping() {
  record({"ping", nil, nil, {}, nil});
}

void RecordingPeer::record(PeerCall call) {
  {
    MutexLock lock(mutex_);
    calls_.push_back(std::move(call));
  }
  changed_.notify_all();
}

struct ProxyErrors::State {
  Mutex mutex;
  std::vector<NSError> errors VELTO_GUARDED_BY(mutex);
};

std::shared_ptr<ProxyErrors::State> ProxyErrors::makeState() {
  return std::make_shared<State>();
}

std::function<void(NSError)> ProxyErrors::handler() {
  return [state = state_](NSError error) {
    MutexLock lock(state->mutex);
    state->errors.push_back(std::move(error));
  };
}

std::vector<NSError> ProxyErrors::all() const {
  MutexLock lock(state_->mutex);
  return state_->errors;
}

NSError ProxyErrors::waitForOne() const {
  if (!eventually([this] { return !all().empty(); })) {
    ADD_FAILURE() << "the proxy's error handler was never called";
    return nil;
  }
  return all().front();
}

namespace {

void exportPeer(NSXPCConnection& connection, const std::shared_ptr<RecordingPeer>& peer) {
  connection.setRemoteObjectInterface(makePeerInterface());
  connection.setExportedInterface(makePeerInterface());
  connection.setExportedObject<VeltoCommunicationMessageProtocol>(peer);
}

}  // namespace

BareClient::BareClient(const NSXPCListenerEndpoint& endpoint)
    : connection(NSXPCConnection::initWithListenerEndpoint(endpoint)) {
  exportPeer(*connection, exported);
  connection->resume();
  proxy = connection->remoteObjectProxyWithErrorHandler<VeltoCommunicationMessageProtocol>(errors.handler());
}

BareClient::~BareClient() {
  connection->invalidate();
}

NSString BareClient::handshake() {
  proxy->call<&VeltoCommunicationMessageProtocol::ping>();
  return exported->waitFor("connectionUUID:").connectionID;
}

std::shared_ptr<BareListener> BareListener::start(Greeting greeting) {
  std::shared_ptr<BareListener> made(new BareListener(std::move(greeting)));
  made->listener_ = NSXPCListener::anonymousListener();
  made->listener_->setDelegate(made);
  made->listener_->resume();
  return made;
}

BareListener::~BareListener() {
  listener_->invalidate();
  dropClients();
}

std::shared_ptr<PeerProxy> BareListener::waitForClient() const {
  std::shared_ptr<PeerProxy> proxy;
  const bool came = eventually([&] {
    MutexLock lock(mutex_);
    if (!proxies_.empty()) proxy = proxies_.back();
    return proxy != nullptr;
  });
  if (!came) giveUp("no client ever came to the bare listener");
  return proxy;
}

void BareListener::dropClients() {
  std::vector<std::shared_ptr<NSXPCConnection>> dropped;
  {
    MutexLock lock(mutex_);
    dropped.swap(connections_);
    proxies_.clear();
  }
  for (const auto& connection : dropped) connection->invalidate();
}

bool BareListener::listener(const std::shared_ptr<NSXPCListener>&,
                            const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) {
  exportPeer(*shouldAcceptNewConnection, exported);
  shouldAcceptNewConnection->resume();
  auto proxy =
      shouldAcceptNewConnection->remoteObjectProxyWithErrorHandler<VeltoCommunicationMessageProtocol>(errors.handler());
  if (greeting_) greeting_(proxy);
  MutexLock lock(mutex_);
  connections_.push_back(shouldAcceptNewConnection);
  proxies_.push_back(std::move(proxy));
  return true;
}

}  // namespace velto::testing
