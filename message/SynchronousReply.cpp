// The part of a synchronous send that both ends share. How they register, wait and clean up differs, and is their own.
#include "message/SynchronousReply.h"

#include <utility>

#include "VeltoIPC/VeltoConstants.h"
#include "platform/xpc/Protocol.h"

namespace velto {

VeltoReplyHandler replyHandlerFor(std::shared_ptr<SynchronousReply> reply) {
  return NonBlockingReply<NSDictionary>{[shared = std::move(reply)](NSDictionary value) {
    const ConditionLock lock(shared->condition);
    shared->hasReplied = true;
    // An earlier reply is let go of after the lock.
    value = shared->reply.exchange(std::move(value));
    shared->condition.signal();
  }};
}

bool isValidTimeout(double timeout) {
  return !(timeout < 0.0 && timeout != VKT_IPC_TIME_FOREVER);
}

}  // namespace velto
