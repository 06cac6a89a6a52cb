// A client whose callbacks run in a loop of its user's, or by an executor. What somebody may wait for is known without
// them: the identifier, the replies to synchronous sends, the end.
#include "VeltoIPC/VeltoConnection.h"
#include "message/CallbackDelivery.h"

std::shared_ptr<VeltoConnection> VeltoConnection::initWithServiceName(
    const NSString& serviceName, const std::shared_ptr<VeltoIPCDelegate>& withDelegate,
    const velto::Delivery& delivery) {
  auto made = init();
  if (delivery.runner()) made->_callbacks = velto::makeCallbackDelivery(delivery);
  made->start(serviceName, withDelegate);
  return made;
}
