#include "VeltoIPC/Call.h"

#include "calls/CallState.h"

namespace velto {

Call::Reply Call::get() const {
  return state_->wait();
}

std::future<Call::Reply> Call::future() const {
  const auto promise = std::make_shared<std::promise<Reply>>();
  auto future = promise->get_future();
  whenEnded([promise](Reply reply) { promise->set_value(std::move(reply)); });
  return future;
}

void Call::whenEnded(std::function<void(Reply)> handler) const {
  state_->whenEnded(std::move(handler), true);
}

void Call::then(std::function<void(Reply)> handler) const {
  state_->whenEnded(std::move(handler), false);
}

void Call::cancel() const {
  state_->cancel();
}

bool Call::hasEnded() const {
  return state_->hasEnded();
}

}  // namespace velto
