#pragma once

#include <map>
#include <string>
#include <vector>

#include "daemon/NameStore.h"
#include "platform/xpc/system/Descriptor.h"

namespace velto {

// The store that systemd keeps for a service: each registration as three descriptors of one name, the endpoint's two and
// a piece of memory that says the rest. What cannot be kept is said in the log.
class DescriptorStore final : public NameStore {
 public:
  void keep(const StoredName& name) noexcept override;
  void forget(const std::string& token) noexcept override;
};

// What the program was started with, as systemd passes descriptors; so does who starts a broker without systemd.
struct PassedDescriptors {
  // Takes all of them over.
  static PassedDescriptors take();

  // Of local stream sockets that listen; owned by whoever takes the first, -1 when there is none.
  int listening = -1;
  // In the order in which they were registered.
  std::vector<StoredName> names;
};

// What three descriptors of one name stand for. False when they are not what keep() gave away.
bool readStoredName(std::vector<system::Descriptor> descriptors, StoredName& name);

}  // namespace velto
