#include "message/CallbackDelivery.h"

#include <utility>

#include "platform/xpc/Delivery.h"
#include "platform/xpc/NSXPCConnection.h"

namespace velto {
namespace {

class DeliveredThere final : public CallbackDelivery {
 public:
  explicit DeliveredThere(const Delivery& delivery) : delivery_(delivery), others_(delivery) {}

  void run(std::function<void()> callback) const override { others_.add(std::move(callback)); }
  void adopt(NSXPCConnection& connection, std::function<void()> ended) const override {
    connection.deliverOn(delivery_);
    connection.setEndHandler(std::move(ended));
  }
  void perform(NSXPCConnection& connection, std::function<void()> callback) const override {
    connection.perform(std::move(callback));
  }

 private:
  const Delivery delivery_;
  const TaskQueue others_;
};

}  // namespace

std::shared_ptr<const CallbackDelivery> makeCallbackDelivery(const Delivery& delivery) {
  return std::make_shared<DeliveredThere>(delivery);
}

}  // namespace velto
