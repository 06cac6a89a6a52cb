#pragma once

#include <string>

#include "platform/foundation/Class.h"
#include "platform/xpc/interface/NSXPCError.h"

namespace velto::xpc {

// An error of the platform's domain with its text as the only user info.
NSError makeError(NSXPCErrorCode code, const std::string& text);

// "what: value, the maximum is maximum".
std::string overLimit(const std::string& what, std::size_t value, std::size_t maximum);

// Whether a received value is of the class that the method declares; nil always is.
bool isOfKind(const NSObject& value, const Class& declared);
std::string wrongKind(const NSObject& value, const Class& declared);

}  // namespace velto::xpc
