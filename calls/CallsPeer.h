#pragma once

#include <functional>

#include "VeltoIPC/VeltoCommunicationMessageProtocol.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSNumber.h"
#include "platform/xpc/Protocol.h"

namespace velto::calls {

// What two ends say to each other of which one at least is a Client or a Service: the peer protocol, and behind it what
// only the new ends know. Whether the other end knows it is learnt with the first word, `meet`, which an end of the two
// classes refuses. What belongs to a call that has been handed over does not wait for its turn.
class CallsPeer : public VeltoCommunicationMessageProtocol {
 public:
  void connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler) override = 0;
  void connectionError(NSError error) override = 0;
  void setStrictMessageTypesRemote(bool flag) override = 0;
  void connectionUUID(NSString connectionID) override = 0;
  void ping() override = 0;

  using Answer = std::function<void(NSDictionary)>;

  // What this end can, and then what the other can.
  virtual void meet(NSDictionary abilities, Answer abilitiesThere) = 0;
  // A call: its number, which is the caller's and greater than 0, and the terms under which it is made. The outcome is
  // either {"reply": …} or {"error": [failure, code, text]}, and says how many items of its stream went before.
  virtual void call(NSNumber number, NSDictionary terms, NSDictionary message, Answer outcome) = 0;
  // Nobody waits for this call any more.
  virtual void cancel(NSNumber number) = 0;
  // An item of the stream of a call: of one that this end has made, by its number, or of one that the other has made,
  // by its number with a minus. nil when one could not go on its way.
  virtual void item(NSDictionary item, NSNumber ofCall) = 0;
  // No more items come.
  virtual void finish(NSNumber call) = 0;
  // So much more may come.
  virtual void allow(NSNumber items, NSNumber bytes, NSNumber ofCall) = 0;
};

}  // namespace velto::calls

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::calls::CallsPeer>();
