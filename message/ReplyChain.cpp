// The way of a reply from the delegate back to the sender, the same at both ends. Nobody counts: a delegate that
// answers twice, or never, is passed on as it is, and the layer below lets one reply through.
#include "message/ReplyChain.h"

#include <utility>

#include "platform/foundation/NSUUID.h"
#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/Protocol.h"

namespace velto {

const VeltoReplyHandler& emptyReplyHandler() {
  // Never destroyed, since messages may be on their way until the process has ended. The platform knows that it does
  // nothing.
  static const auto& handler = *new VeltoReplyHandler(IgnoredReply<NSDictionary>());
  return handler;
}

VeltoReplyHandler wrapForDelegate(const NSString& connectionID, VeltoReplyHandler incoming) {
  // The two parts of the label, which is put together only for who sees the lines.
  const NSUUID message = NSUUID::UUID();
  VeltoReplyHandler wrapper = [connectionID, message, incoming = std::move(incoming)](NSDictionary reply) {
    VKTLoggingLog(VKTLogGetAnchor(), 2, "%@_%@ handler called by delegate", connectionID, message);
    if (incoming) incoming(std::move(reply));
  };
  VKTLoggingLog(VKTLogGetAnchor(), 2, "%@_%@ handler sent to delegate", connectionID, message);
  return wrapper;
}

}  // namespace velto
