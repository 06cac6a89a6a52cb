#pragma once

#include <memory>

#include "VeltoIPC/VeltoIPCDelegate.h"
#include "platform/foundation/AtomicProperty.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto {

// What a synchronous send and its reply handler share. The handler may run after the send has given up, and then writes
// here for nobody.
struct SynchronousReply {
  // The sender sleeps on it.
  const NSCondition condition = NSCondition::condition();
  bool hasReplied VELTO_GUARDED_BY(condition) = false;
  // Written with the condition's lock held; read by the sender once it has let go of it.
  AtomicProperty<NSDictionary> reply;
};

// The reply handler: stores the reply and wakes the sender. It never blocks, so it runs ahead of the connection's
// queue: a callback that sends synchronously over its own connection gets its reply.
VeltoReplyHandler replyHandlerFor(std::shared_ptr<SynchronousReply> reply);

// 0, everything above, not-a-number (which is no wait at all) and VKT_IPC_TIME_FOREVER as of now.
bool isValidTimeout(double timeout);

}  // namespace velto
