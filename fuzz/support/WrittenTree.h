#pragma once

#include "platform/foundation/NSObject.h"
#include "platform/xpc/wire/Frame.h"

namespace velto::fuzzing {

// What was written for a value, read by libcbor and held against the value, item by item. The frame has all its bytes
// in its buffer, and nothing else in them. What differs is a finding.
void requireWritten(const NSObject& value, const wire::Frame& frame);

}  // namespace velto::fuzzing
