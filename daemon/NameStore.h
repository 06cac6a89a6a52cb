#pragma once

#include <cstdint>
#include <string>

#include "platform/foundation/NSString.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"

namespace velto {

// A registration, as it outlives the broker.
struct StoredName {
  // By which it is taken out again; no two have the same.
  std::string token;
  NSString name;
  NSXPCListenerEndpoint endpoint;
  std::int32_t process = 0;
  // When it was registered, in nanoseconds of the clock that all processes of the machine share.
  std::uint64_t since = 0;
};

// Keeps registrations while the broker is away. Called with the registry's lock held, so that what is kept and what
// stands never differ in order.
class NameStore {
 public:
  virtual ~NameStore() = default;
  virtual void keep(const StoredName& name) noexcept = 0;
  virtual void forget(const std::string& token) noexcept = 0;
};

}  // namespace velto
