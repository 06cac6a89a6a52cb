#pragma once

#include <functional>
#include <memory>

#include "platform/foundation/Export.h"
#include "platform/xpc/contract/Delivery.h"

namespace velto {

// Tasks that run one at a time, in order.
class VELTO_EXPORT TaskQueue {
 public:
  explicit TaskQueue(const Delivery& delivery);

  void add(std::function<void()> task) const;

 private:
  std::shared_ptr<transport::SerialQueue> queue_;
};

}  // namespace velto
