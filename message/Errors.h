#pragma once

#include <cstdint>

#include "platform/foundation/NSError.h"

inline constexpr char VeltoIPCErrorDomain[] = "org.velto.VeltoIPC";

// The codes of that domain. Errors of one code are told apart by their descriptions. 1 and 4 are not used.
enum VeltoIPCErrorCode : std::int64_t {
  // There is no connection, to the other end or to the broker, or no longer.
  VeltoIPCConnectionError = 2,
  // A message holds what strict types forbid.
  VeltoIPCMessageTypeError = 3,
  // A message was meant for another connection.
  VeltoIPCConnectionIDError = 5,
  // The time is over, or was none to begin with.
  VeltoIPCTimeoutError = 6,
  // The other end reported an error without saying which.
  VeltoIPCUnknownError = 7,
};

namespace velto {

// An error of the library's domain whose user info holds `description` and nothing else.
NSError makeError(VeltoIPCErrorCode code, const char* description);

// Stores makeError() in `*error`, if that is given, and returns false: for `return fail(…)`.
bool fail(NSError* error, VeltoIPCErrorCode code, const char* description);

// What `*error`, if that is given, holds so far. Kept beyond a lock, whoever writes to `*error` with the lock held
// destroys nothing there: an error's user info can hold objects of users' classes.
inline NSError heldBy(const NSError* error) {
  return error != nullptr ? *error : NSError();
}

}  // namespace velto
