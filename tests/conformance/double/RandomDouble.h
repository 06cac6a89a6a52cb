#pragma once

#include "platform/foundation/NSUUID.h"

namespace velto::testing {

// The UUID that was made last in this process. In a program with the platform double its random source is
// watched, since the keys of synchronous sends are known to nobody else.
NSUUID lastUUIDMade();

}  // namespace velto::testing
