#include "VeltoIPC/Client.h"

#include "calls/ClientCore.h"

namespace velto {

Outcome<Client> Client::connect(const NSString& name, ClientOptions options) {
  auto core = std::make_shared<calls::ClientCore>(name, std::move(options));
  Client client(core);
  if (auto error = core->connect()) return *std::move(error);
  return Outcome<Client>(std::move(client));
}

Client::Client(std::shared_ptr<calls::ClientCore> core) noexcept : core_(std::move(core)) {}
Client::Client(Client&& other) noexcept = default;

Client& Client::operator=(Client&& other) noexcept {
  if (core_ && core_ != other.core_) core_->closeAndWait();
  core_ = std::move(other.core_);
  return *this;
}

Client::~Client() {
  if (core_) core_->closeAndWait();
}

Call Client::call(const NSDictionary& message, CallOptions options) const {
  return core_->call(message, options);
}

Call Client::callOperation(std::string_view operation, const NSDictionary& message, CallOptions options) const {
  return core_->call(core_->withOperation(operation, message), options);
}

Call Client::sending(const NSDictionary& message, CallOptions options) const {
  return core_->sending(message, options);
}

Stream Client::openOperation(std::string_view operation, const NSDictionary& message, CallOptions options) const {
  return core_->open(core_->withOperation(operation, message), options);
}

Stream Client::open(const NSDictionary& message, CallOptions options) const {
  return core_->open(message, options);
}

std::optional<CallError> Client::send(const NSDictionary& message, std::optional<std::chrono::nanoseconds> timeout,
                                      std::function<void(CallError)> failed) const {
  return core_->send(message, timeout, true, std::move(failed));
}

std::optional<CallError> Client::trySend(const NSDictionary& message, std::function<void(CallError)> failed) const {
  return core_->send(message, std::nullopt, false, std::move(failed));
}

void Client::close() {
  core_->close();
}

}  // namespace velto
