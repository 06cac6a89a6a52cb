#pragma once

// The errors of the connections of this folder, at the name that users include.
#include "platform/xpc/interface/NSXPCError.h"
