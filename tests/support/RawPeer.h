#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "message/PeerProtocol.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/contract/NSXPCListenerDelegate.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

// One call of the peer protocol, as the receiving end saw it.
struct PeerCall {
  std::string method;
  NSString connectionID;
  NSDictionary message;
  VeltoReplyHandler reply;
  NSError error;
  bool flag = false;
};

// An object that is called as an end of a connection would be, writes the calls down and does nothing else.
class RecordingPeer final : public VeltoCommunicationMessageProtocol {
 public:
  std::vector<PeerCall> calls() const;
  std::size_t count(const std::string& method) const;
  // The last call of a method, once it has come `times` times.
  PeerCall waitFor(const std::string& method, std::size_t times = 1) const;

  void connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler) override;
  void connectionError(NSError error) override;
  void setStrictMessageTypesRemote(bool flag) override;
  void connectionUUID(NSString connectionID) override;
  void ping() override;

 private:
  void record(PeerCall call);

  mutable Mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<PeerCall> calls_ VELTO_GUARDED_BY(mutex_);
};

// The errors that a proxy's handler was given.
class ProxyErrors {
 public:
  std::function<void(NSError)> handler();
  NSError waitForOne() const;
  std::vector<NSError> all() const;

 private:
  struct State;
  std::shared_ptr<State> state_ = makeState();
  static std::shared_ptr<State> makeState();
};

// A client that is nothing but a connection of the platform: it says what the test tells it to.
class BareClient {
 public:
  explicit BareClient(const NSXPCListenerEndpoint& endpoint);
  ~BareClient();

  // Pings, and waits for the identifier that the listener gives.
  NSString handshake();

  const std::shared_ptr<RecordingPeer> exported = std::make_shared<RecordingPeer>();
  ProxyErrors errors;
  std::shared_ptr<NSXPCConnection> connection;
  std::shared_ptr<PeerProxy> proxy;
};

// A listener that is nothing but a listener of the platform: it accepts, and says what the test tells it to.
class BareListener final : public NSXPCListenerDelegate {
 public:
  // Takes the proxy to a client that was accepted, on a thread of the platform.
  using Greeting = std::function<void(const std::shared_ptr<PeerProxy>&)>;

  static std::shared_ptr<BareListener> start(Greeting greeting = {});
  ~BareListener() override;

  NSXPCListenerEndpoint endpoint() const { return listener_->endpoint(); }
  // The proxies to the clients so far, waited for.
  std::shared_ptr<PeerProxy> waitForClient() const;
  // Ends the connections that were accepted.
  void dropClients();

  const std::shared_ptr<RecordingPeer> exported = std::make_shared<RecordingPeer>();
  ProxyErrors errors;

  bool listener(const std::shared_ptr<NSXPCListener>& listener,
                const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) override;

 private:
  explicit BareListener(Greeting greeting) : greeting_(std::move(greeting)) {}

  const Greeting greeting_;
  std::shared_ptr<NSXPCListener> listener_;
  mutable Mutex mutex_;
  std::vector<std::shared_ptr<NSXPCConnection>> connections_ VELTO_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<PeerProxy>> proxies_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::testing
