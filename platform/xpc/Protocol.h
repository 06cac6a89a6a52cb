#pragma once

// Protocols, and the endpoints and file descriptors that their methods may take.
#include "platform/xpc/NSFileDescriptor.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/interface/Protocol.h"
