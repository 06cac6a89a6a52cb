#pragma once

#include <memory>

#include "VeltoIPC/VeltoIPCDelegate.h"
#include "broker/VeltoIPCDaemonProtocol.h"
#include "message/CallbackDelivery.h"
#include "platform/xpc/NSXPCConnection.h"

// Opens a link to the broker and resumes it; never null. When the link is interrupted or invalidated, a deliberate
// invalidate() included, this delegate hears so with a nil identifier, where `callbacks` run if there are any. It is
// held weakly and may be null.
std::shared_ptr<NSXPCConnection> setupDaemonConnection(
    const std::shared_ptr<VeltoIPCDelegate>& delegate,
    const std::shared_ptr<const velto::CallbackDelivery>& callbacks = nullptr);
