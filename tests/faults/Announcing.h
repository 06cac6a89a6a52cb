#pragma once

namespace velto::testing {

// Has the kernel announce once more what can be read from a descriptor that this process watches. For scripts that cut
// a read short or let it find nothing: the kernel never leaves anything behind without announcing it, and the code
// under test may rely on that.
void announceAgain(int descriptor);

}  // namespace velto::testing
