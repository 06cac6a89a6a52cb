#include "VeltoIPC/Request.h"

#include "calls/Incoming.h"

namespace velto {

const NSDictionary& Request::message() const noexcept {
  return incoming_->message();
}

int Request::processIdentifier() const noexcept {
  return incoming_->process().processIdentifier();
}

unsigned int Request::userIdentifier() const noexcept {
  return incoming_->process().userIdentifier();
}

int Request::processDescriptor() const {
  return incoming_->process().processDescriptor();
}

std::optional<std::chrono::steady_clock::time_point> Request::deadline() const noexcept {
  return incoming_->deadline();
}

bool Request::isCancelled() const noexcept {
  return incoming_->stopToken().stop_requested();
}

std::stop_token Request::stopToken() const {
  return incoming_->stopToken();
}

bool Request::reply(const NSDictionary& reply) const {
  return incoming_->answer(reply);
}

bool Request::fail(std::string text, std::int64_t code) const {
  return incoming_->answer(CallError(Failure::failed, std::move(text), true, code));
}

bool Request::refuse(std::string text) const {
  return incoming_->answer(CallError(Failure::refused, std::move(text), true));
}

bool Request::drop(std::string text) const {
  return incoming_->answer(CallError(Failure::dropped, std::move(text), true));
}

bool Request::hasStream() const noexcept {
  return incoming_->stream() != nullptr;
}

Stream Request::stream() const {
  if (const auto& stream = incoming_->stream()) {
    stream->open();
    return Stream(incoming_, stream);
  }
  const auto none = std::make_shared<calls::StreamState>(nullptr, nullptr);
  none->end(CallError(Failure::refused, "the caller has opened no stream", true));
  return Stream(nullptr, none);
}

}  // namespace velto
