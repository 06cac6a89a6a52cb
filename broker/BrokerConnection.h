#pragma once

#include <memory>

#include "platform/xpc/NSXPCConnection.h"

namespace velto {

// A connection to the broker, to be set up and resumed; never null. When no broker runs, the platform starts one: the
// program that $VELTO_IPC_DAEMON names (a path, or a name that is looked for in $PATH; when it is set and empty, none),
// else the one that was installed with the library, else VeltoIPCDaemon in $PATH.
std::shared_ptr<NSXPCConnection> connectionToBroker();
// That program.
xpc::ServingProgram brokerProgram();

}  // namespace velto
