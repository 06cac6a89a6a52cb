#pragma once

#include <cstddef>

#include "platform/foundation/NSObject.h"

namespace velto::calls {

// What an item of a stream counts for in the bytes that its reader keeps. Both ends come to the same.
std::size_t sizeOfItem(const NSObject& item);

}  // namespace velto::calls
