#pragma once

// What decides about the connections that reach a listener.
#include "platform/xpc/contract/NSXPCListenerDelegate.h"
