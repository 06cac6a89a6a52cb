// A listener whose callbacks run in a loop of its user's, or by an executor.
#include "VeltoIPC/VeltoListener.h"
#include "message/CallbackDelivery.h"

std::shared_ptr<VeltoListener> VeltoListener::initWithServiceName(const NSString& serviceName,
                                                                  const std::shared_ptr<VeltoIPCDelegate>& withDelegate,
                                                                  const velto::Delivery& delivery) {
  auto made = init();
  if (delivery.runner()) made->_callbacks = velto::makeCallbackDelivery(delivery);
  made->start(serviceName, withDelegate);
  return made;
}
