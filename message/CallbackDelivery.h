#pragma once

#include <functional>
#include <memory>

namespace velto {
class Delivery;
}
class NSXPCConnection;

namespace velto {

// Where the callbacks of an object run that was given a loop or an executor. One that was given none has none of these.
// Thread-safe.
class CallbackDelivery {
 public:
  virtual ~CallbackDelivery() = default;

  // Runs a callback there that belongs to no single connection, behind those that wait.
  virtual void run(std::function<void()> callback) const = 0;
  // Has the connection, which is not resumed yet, deliver there. `ended` is called as NSXPCConnection::setEndHandler()
  // says.
  virtual void adopt(NSXPCConnection& connection, std::function<void()> ended) const = 0;
  // Runs a callback there as one of the connection's.
  virtual void perform(NSXPCConnection& connection, std::function<void()> callback) const = 0;
};

std::shared_ptr<const CallbackDelivery> makeCallbackDelivery(const Delivery& delivery);

}  // namespace velto
