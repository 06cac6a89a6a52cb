#pragma once

#include "fuzz/support/Input.h"
#include "platform/foundation/NSObject.h"

namespace velto::fuzzing {

// The value that the bytes describe, of any kind, or nil: each object is a byte that says what it is, and what that
// kind takes. It may be one that does not travel: too deep, infinitely far away, of a class that is not known.
NSObject builtValue(Bytes bytes);

// Data of such values that is lent and has not been given back.
int lentData() noexcept;

}  // namespace velto::fuzzing
