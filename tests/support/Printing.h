#pragma once

#include <concepts>
#include <ostream>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSString.h"

// How a failed expectation shows a value.
template <std::derived_from<NSObject> T>
void PrintTo(const T& value, std::ostream* out) {
  *out << value.description().view();
}
