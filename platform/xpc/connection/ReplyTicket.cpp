// The receiving end's half of a reply. It does not keep its connection alive: an answer to a connection that is gone
// has nowhere to go.

#include "platform/xpc/connection/ReplyTicket.h"

#include <new>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/connection/ConnectionCore.h"

namespace velto::xpc {

ReplyTicket::~ReplyTicket() {
  if (settled_.load()) return;
  const auto core = core_.lock();
  if (!core) return;
  try {
    core->dropReply(identifier_);
  } catch (const std::bad_alloc&) {
    // The other end would wait for ever.
    core->giveUp();
  }
}

void ReplyTicket::answer(const NSObject& value) {
  if (settled_.exchange(true)) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A reply block of %s was called again, which is ignored",
                  method_.selector);
    return;
  }
  if (const auto core = core_.lock()) core->sendReply(identifier_, method_, value);
}

void ReplyTicket::settle() noexcept {
  if (settled_.exchange(true)) return;
  if (const auto core = core_.lock()) core->replySettled();
}

}  // namespace velto::xpc
