// The other end deals with what comes in its order; so it has taken everything once it answers a question that was
// asked last. The one that every end answers, be it by refusing it, is with what it is met.
#include "tools/veltoctl/AsyncSender.h"

#include <utility>

namespace velto::ctl {

AsyncSender::AsyncSender(const std::string& name, std::chrono::nanoseconds patience) {
  BrokerLink broker;
  const auto endpoint = broker.find(name);
  if (!endpoint) broker.requireServed(name);
  connection_ = NSXPCConnection::initWithListenerEndpoint(endpoint);
  connection_->setWritableHandler([state = state_] {
    const std::lock_guard lock(state->mutex);
    state->changed.notify_all();
  });
  calls::Peer::Hooks hooks;
  hooks.ready = [state = state_] {
    const std::lock_guard lock(state->mutex);
    state->isReady = true;
    state->changed.notify_all();
  };
  hooks.received = [](const std::shared_ptr<calls::Incoming>&) {};
  hooks.ended = [state = state_](const CallError& error) { fail(*state, error); };
  peer_ = std::make_shared<calls::Peer>(connection_, std::move(hooks));
  peer_->introduce();
  waitFor(patience, "the connection was not made in time", [this] { return state_->isReady; });
}

AsyncSender::~AsyncSender() {
  if (peer_) peer_->close();
}

void AsyncSender::fail(State& state, const CallError& error) {
  const std::lock_guard lock(state.mutex);
  if (!state.error) state.error = error;
  state.changed.notify_all();
}

template <class Condition>
void AsyncSender::waitFor(std::chrono::nanoseconds patience, const char* what, Condition condition) {
  std::unique_lock lock(state_->mutex);
  const bool isMet = state_->changed.wait_for(lock, patience, [&] { return state_->error || condition(); });
  if (state_->error) throw CommandError(*state_->error);
  if (!isMet) throw CommandError(ExitCode::timedOut, what);
}

void AsyncSender::send(const NSDictionary& message, std::chrono::nanoseconds patience) {
  waitFor(patience, "the other end is behind", [this] { return connection_->isWritable(); });
  peer_->send(message, [state = state_](const CallError& error) { fail(*state, error); });
}

void AsyncSender::settle(std::chrono::nanoseconds patience) {
  const auto settled = [state = state_] {
    const std::lock_guard lock(state->mutex);
    state->isSettled = true;
    state->changed.notify_all();
  };
  const auto last =
      connection_->remoteObjectProxyWithErrorHandler<calls::CallsPeer>([settled](const NSError&) { settled(); });
  last->call<&calls::CallsPeer::meet>(NSDictionary::dictionary(),
                                      std::function<void(NSDictionary)>([settled](const NSDictionary&) { settled(); }));
  waitFor(patience, "the other end has not taken it all in time", [this] { return state_->isSettled; });
}

}  // namespace velto::ctl
