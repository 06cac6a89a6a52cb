// The library's errors. An error is made only where somebody receives it: a caller that gave no out-pointer costs
// nothing.
#include "message/Errors.h"

namespace velto {

NSError makeError(VeltoIPCErrorCode code, const char* description) {
  return NSError::errorWithDomain(VeltoIPCErrorDomain, code, {{NSLocalizedDescriptionKey, description}});
}

bool fail(NSError* error, VeltoIPCErrorCode code, const char* description) {
  if (error != nullptr) *error = makeError(code, description);
  return false;
}

}  // namespace velto
