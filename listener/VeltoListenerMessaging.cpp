// Messages of the listener end. A synchronous send registers before it sends, in the array of its connection, and stays
// registered when the send fails: close() of that connection clears the array.
#include <utility>

#include "VeltoIPC/VeltoConstants.h"
#include "VeltoIPC/VeltoListener.h"
#include "message/Errors.h"
#include "message/PeerProtocol.h"
#include "message/ReplyChain.h"
#include "message/SynchronousReply.h"
#include "message/TypeChecking.h"
#include "platform/foundation/Box.h"
#include "platform/logging/VeltoLogging.h"

namespace {

// Until the connection is no longer active, the deadline has passed or the reply has come, asked for in this order.
template <class Predicate>
void waitForReply(const velto::SynchronousReply& shared, double timeout, const NSDate& deadline, Predicate isActive)
    VELTO_REQUIRES(shared.condition);

template <class Predicate>
void waitForReply(const velto::SynchronousReply& shared, double timeout, const NSDate& deadline, Predicate isActive) {
  if (timeout == VKT_IPC_TIME_FOREVER) {
    while (isActive() && !shared.hasReplied) shared.condition.wait();
    return;
  }
  while (isActive() && deadline.timeIntervalSinceNow() > 0.0 && !shared.hasReplied) {
    shared.condition.waitUntilDate(deadline);
  }
}

}  // namespace

bool VeltoListener::sendMessage(const NSDictionary& message, const NSString& toConnection, NSError* error,
                                VeltoReplyHandler handler) {
  const auto proxy = proxyOf(toConnection);
  if (!proxy) {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "VeltoIPCListener Connection is not available");
    return velto::fail(error, VeltoIPCConnectionError, "Connection is not available");
  }
  if (strictMessageTypeSet && !velto::checkMessage(message)) {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "VeltoIPCListener SendMessage failed message type check");
    return velto::fail(error, VeltoIPCMessageTypeError, "SendMessage failed message type check");
  }
  if (!handler) handler = velto::emptyReplyHandler();
  proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(toConnection, message, std::move(handler));
  return true;
}

std::shared_ptr<velto::PeerProxy> VeltoListener::proxyOf(const NSString& connectionID) const {
  const NSSynchronized monitor(connectionConditions());
  return velto::unbox<velto::PeerProxy>(receivedProxyObjects().objectForKey(connectionID));
}

bool VeltoListener::isConnectionActive_internal(const NSString& connectionID) const {
  const NSSynchronized monitor(connectionConditions());
  return !connectionConditions().objectForKeyedSubscript(connectionID).isNil();
}

NSDictionary VeltoListener::sendMessageSync(const NSDictionary& message, const NSString& toConnection, double timeout,
                                            NSError* error) {
  if (!velto::isValidTimeout(timeout)) {
    velto::fail(error, VeltoIPCTimeoutError, "Timed out value is not valid");
    return nil;
  }
  const NSDate deadline = NSDate::dateWithTimeIntervalSinceNow(timeout);
  const auto shared = std::make_shared<velto::SynchronousReply>();
  {
    const NSSynchronized monitor(connectionConditions());
    waitersOf(toConnection).addObject(shared->condition);
  }
  if (!sendMessage(message, toConnection, error, velto::replyHandlerFor(shared))) return nil;
  {
    const NSError former = velto::heldBy(error);
    const velto::ConditionLock lock(shared->condition);
    waitForReply(*shared, timeout, deadline, [&] { return isConnectionActive_internal(toConnection); });
    if (!shared->hasReplied) velto::fail(error, VeltoIPCTimeoutError, "Timed out waiting");
  }
  {
    const NSSynchronized monitor(connectionConditions());
    waitersOf(toConnection).removeObject(shared->condition);
  }
  return shared->reply.get();
}

NSMutableArray VeltoListener::waitersOf(const NSString& connectionID) const {
  return connectionConditions().objectForKeyedSubscript(connectionID).as<NSMutableArray>();
}

void VeltoListener::connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler) {
  VeltoReplyHandler wrapper = velto::wrapForDelegate(connectionID, std::move(handler));
  if (const auto delegate = this->delegate()) {
    delegate->receivedMessage(std::move(withMessage), std::move(connectionID), std::move(wrapper));
  }
}

void VeltoListener::setStrictMessageTypes(bool flag) {
  strictMessageTypeSet = flag;
}
