#pragma once

#include "platform/foundation/NSObject.h"

namespace velto {

// The value, if need be as a copy, that keeps nothing alive but itself: a value of a small message that has come
// shares its memory with the whole message.
NSObject owned(const NSObject& value);

}  // namespace velto
