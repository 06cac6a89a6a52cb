#pragma once

#include <functional>

#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSString.h"

// Takes the reply to a message, or hands one over: a callable that takes one dictionary. Called with a pair of empty
// braces, reply({}), it takes or hands over an empty dictionary; only nil, and a dictionary that is nil, make a nil
// reply, which a synchronous send returns like any other, without an error.
using VeltoReplyHandler = std::function<void(NSDictionary reply)>;

// Hears of everything that happens to a VeltoConnection or a VeltoListener. Derive from it; both hold it weakly, so
// keep it alive yourself.
//
// Threads: every callback runs on a thread of the library's platform, never on yours, and with no lock of the library
// held; or, if the object was made with a velto::Delivery, there and nowhere else. Callbacks about one connection come
// one at a time, in order; callbacks about different connections, and about the link to the broker, may run at the same
// time. A callback may call anything on either class, send synchronously and close included.
//
// A callback that sleeps, in a synchronous send or in an NSCondition, may be overtaken by the end of its own
// connection: connectionError() about it then runs meanwhile, on another thread, since the sleeper may be waiting for
// exactly that. When the sleeper wakes, it first waits until that callback has returned, or sleeps itself, but for no
// longer than five seconds, because it may hold a lock that the other wants; and the rest of the end waits until the
// sleeper has returned.
//
// What a callback throws ends that callback; it is logged, and everything else goes on.
class VeltoIPCDelegate {
 public:
  virtual ~VeltoIPCDelegate() = default;

  // Client: the listener has accepted this connection and given it its identifier; messages may be sent.
  // Listener: a client has connected. It can be sent to as soon as this callback has returned, not before.
  virtual void connectionReady(NSString connectionID) = 0;

  // A message has come. Call `usingHandler` with the reply, now or later, on any thread; whoever never calls it leaves
  // the sender without a reply. For a listener, `fromConnection` is whatever the client states, and proves nothing: a
  // client can state the identifier of another.
  virtual void receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) = 0;

  // Something failed or ended. `connectionID` is nil when no single connection is concerned, or when it has no
  // identifier yet.
  virtual void connectionError(NSString connectionID, NSError error) = 0;
};
