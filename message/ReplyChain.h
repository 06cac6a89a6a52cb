#pragma once

#include "VeltoIPC/VeltoIPCDelegate.h"

namespace velto {

// What a message carries whose sender wants no reply: does nothing. One for all.
const VeltoReplyHandler& emptyReplyHandler();

// Wraps the reply handler of a message that has come, for the delegate to call: every call is passed on, and logged
// under a label of its own message. Logs that the handler goes to the delegate. `incoming` may be empty.
VeltoReplyHandler wrapForDelegate(const NSString& connectionID, VeltoReplyHandler incoming);

}  // namespace velto
