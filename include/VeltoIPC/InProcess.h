#pragma once

#include <memory>

#include "platform/foundation/Export.h"

namespace velto {

namespace calls {
class Names;
}

// Names that are served and found within this process, without a broker: for tests of one's own services and clients.
// Messages take the same way as between processes, with the same limits and errors. Copies are the same place.
class VELTO_EXPORT InProcess {
 public:
  InProcess();

  [[nodiscard]] const std::shared_ptr<calls::Names>& names() const noexcept { return names_; }

 private:
  std::shared_ptr<calls::Names> names_;
};

}  // namespace velto
