// The errors that proxy error handlers get: a code for the program, a text for whoever reads the log.

#include "platform/xpc/interface/NSXPCError.h"

#include "platform/xpc/interface/Errors.h"

// Never destroyed: threads of the platform may still report errors when the process ends.
const NSString& NSXPCErrorDomain = *new NSString("org.velto.xpc");

namespace velto::xpc {

NSError makeError(NSXPCErrorCode code, const std::string& text) {
  return NSError::errorWithDomain("org.velto.xpc", code, {{NSLocalizedDescriptionKey, text}});
}

std::string overLimit(const std::string& what, std::size_t value, std::size_t maximum) {
  return what + ": " + std::to_string(value) + ", the maximum is " + std::to_string(maximum);
}

bool isOfKind(const NSObject& value, const Class& declared) {
  return value.isNil() || value.isKindOfClass(declared);
}

std::string wrongKind(const NSObject& value, const Class& declared) {
  return "is an object of class " + value.getClass().name().string() + " where one of class " +
         declared.name().string() + " is due";
}

}  // namespace velto::xpc
