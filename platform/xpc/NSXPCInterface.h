#pragma once

// What the connections of this folder are set up with, at the name that users include.
#include "platform/xpc/Protocol.h"
#include "platform/xpc/interface/NSXPCInterface.h"
