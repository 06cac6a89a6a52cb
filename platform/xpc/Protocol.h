#pragma once

// Protocols, and the endpoints that their methods may take.
#include "platform/xpc/NSXPCListenerEndpoint.h"
#include "platform/xpc/interface/Protocol.h"
