#include "platform/xpc/Delivery.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/xpc/transport/ExecutorRunner.h"
#include "platform/xpc/transport/LoopRunner.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto {

Loop::Loop() : runner_(transport::LoopRunner::make()) {
  if (!runner_) throw std::system_error(errno, std::generic_category(), "a loop needs a descriptor");
}

int Loop::fd() const noexcept {
  return runner_->descriptor();
}

bool Loop::dispatch() const {
  return runner_->dispatch();
}

bool Loop::isDispatching() noexcept {
  return transport::LoopRunner::isDispatching();
}

TaskQueue::TaskQueue(const Delivery& delivery) : queue_(transport::Reactor::shared().makeQueue()) {
  if (delivery.runner()) queue_->moveTo(delivery.runner());
}

void TaskQueue::add(std::function<void()> task) const {
  queue_->add(std::move(task));
}

Delivery::Delivery(const Loop& loop) noexcept : runner_(loop.runner_->shared_from_this()) {}

Delivery::Delivery(Executor executor)
    : runner_(executor ? std::make_shared<transport::ExecutorRunner>(std::move(executor)) : nullptr) {}

}  // namespace velto
