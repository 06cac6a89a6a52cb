// Messages of the client end. A synchronous send is an asynchronous one plus a wait: it registers after it has sent, so
// that close() can wake it, and a reply that comes before that has already set its flag.
#include <utility>

#include "VeltoIPC/VeltoConnection.h"
#include "VeltoIPC/VeltoConstants.h"
#include "message/Errors.h"
#include "message/PeerProtocol.h"
#include "message/ReplyChain.h"
#include "message/SynchronousReply.h"
#include "message/TypeChecking.h"
#include "platform/logging/VeltoLogging.h"

namespace {

// Until the deadline has passed, the reply has come or the request is no longer valid, asked for in this order.
template <class Predicate>
void waitForReply(const velto::SynchronousReply& shared, double timeout, const NSDate& deadline, Predicate isValid)
    VELTO_REQUIRES(shared.condition);

template <class Predicate>
void waitForReply(const velto::SynchronousReply& shared, double timeout, const NSDate& deadline, Predicate isValid) {
  if (timeout == VKT_IPC_TIME_FOREVER) {
    while (!shared.hasReplied && isValid()) shared.condition.wait();
    return;
  }
  while (deadline.timeIntervalSinceNow() > 0.0 && !shared.hasReplied && isValid()) {
    shared.condition.waitUntilDate(deadline);
  }
}

}  // namespace

bool VeltoConnection::sendMessage(const NSDictionary& message, NSError* error, VeltoReplyHandler handler) {
  if (!listenerProxyObject() || !getID()) {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "VeltoConnection Connection is not available or connectionUUID is nil");
    return velto::fail(error, VeltoIPCConnectionError, "Connection is not available");
  }
  if (_strictMessageTypeSet && !velto::checkMessage(message)) {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "VeltoConnection SendMessage failed message type check");
    return velto::fail(error, VeltoIPCMessageTypeError, "SendMessage failed message type check");
  }
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Sending the VeltoConnection Message %@ with the handle", message);
  if (!handler) handler = velto::emptyReplyHandler();
  if (const auto proxy = listenerProxyObject()) {
    proxy->call<&VeltoCommunicationMessageProtocol::connectionID>(getID(), message, std::move(handler));
  }
  return true;
}

NSDictionary VeltoConnection::sendMessageSync(const NSDictionary& message, double timeout, NSError* error) {
  if (!velto::isValidTimeout(timeout)) {
    velto::fail(error, VeltoIPCTimeoutError, "Timed out value is not valid");
    return nil;
  }
  const NSDate deadline = NSDate::dateWithTimeIntervalSinceNow(timeout);
  const auto shared = std::make_shared<velto::SynchronousReply>();
  const NSUUID key = NSUUID::UUID();
  if (!sendMessage(message, error, velto::replyHandlerFor(shared))) return nil;
  setMessageCondition(shared->condition, key);
  {
    const NSError former = velto::heldBy(error);
    const velto::ConditionLock lock(shared->condition);
    waitForReply(*shared, timeout, deadline, [&] { return messageValid(key); });
    if (!shared->hasReplied) velto::fail(error, VeltoIPCTimeoutError, "Timed out waiting");
  }
  setMessageCondition(nil, key);
  // Read last: a reply that came since the lock was let go of is returned all the same.
  return shared->reply.get();
}

void VeltoConnection::setMessageCondition(const NSCondition& condition, const NSUUID& key) {
  const NSSynchronized monitor(_messageConditions.get());
  _messageConditions.get().setObjectForKeyedSubscript(condition, key);
}

bool VeltoConnection::messageValid(const NSUUID& key) const {
  const NSSynchronized monitor(_messageConditions.get());
  return !_messageConditions.get().objectForKeyedSubscript(key).isNil();
}

void VeltoConnection::connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler) {
  if (!connectionID.isEqualToString(getID())) {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "VeltoConnection connectionID is not correct with message sent");
    const NSError error = velto::makeError(VeltoIPCConnectionIDError, "connectionID is not correct with message sent");
    connectionError(error);
    if (const auto proxy = listenerProxyObject()) {
      proxy->call<&VeltoCommunicationMessageProtocol::connectionError>(error);
    }
    return;
  }
  VeltoReplyHandler wrapper = velto::wrapForDelegate(connectionID, std::move(handler));
  if (const auto delegate = this->delegate()) {
    delegate->receivedMessage(std::move(withMessage), std::move(connectionID), std::move(wrapper));
  }
}

void VeltoConnection::setStrictMessageTypesRemote(bool flag) {
  _strictMessageTypeSet = flag;
}
