#include "VeltoIPC/Service.h"

#include <utility>

#include "calls/ServiceCore.h"

namespace velto {

Service::Service(const NSString& name, ServiceOptions options)
    : core_(std::make_shared<calls::ServiceCore>(name, std::move(options))) {}
Service::Service(Service&& other) noexcept = default;

Service& Service::operator=(Service&& other) noexcept {
  if (core_ && core_ != other.core_) core_->closeAndWait();
  core_ = std::move(other.core_);
  return *this;
}

Service::~Service() {
  if (core_) core_->closeAndWait();
}

Service& Service::on(const std::string& operation, Handler handler) {
  core_->setHandler(operation, std::move(handler));
  return *this;
}

Service& Service::onOther(Handler handler) {
  core_->setOtherHandler(std::move(handler));
  return *this;
}

const std::string& Service::operationKey() const noexcept {
  return core_->operationKey();
}

void Service::start() {
  core_->start();
}

std::optional<CallError> Service::waitUntilRegistered(std::chrono::nanoseconds timeout) {
  return core_->waitUntilRegistered(timeout);
}

std::size_t Service::clientCount() const {
  return core_->clientCount();
}

std::size_t Service::broadcast(const NSDictionary& message) {
  return core_->broadcast(message);
}

bool Service::stop(std::chrono::nanoseconds patience) {
  return core_->stop(patience);
}

void Service::close() {
  core_->close();
}

}  // namespace velto
