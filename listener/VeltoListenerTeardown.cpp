// The end of connections. Invalidating one brings its handler, which closes it again: the second time finds nothing and
// does no harm. The listener itself goes on listening for as long as it lives.
#include "VeltoIPC/VeltoListener.h"
#include "message/PeerProtocol.h"
#include "platform/foundation/Box.h"
#include "platform/logging/VeltoLogging.h"

void VeltoListener::close(const NSString& connectionID) {
  NSObject connection;
  {
    const NSSynchronized monitor(connectionConditions());
    connection = receivedConnections().objectForKey(connectionID);
  }
  if (const auto found = velto::unbox<NSXPCConnection>(connection)) found->invalidate();
  // What is taken out is let go of after the monitor.
  NSObject proxy;
  {
    const NSSynchronized monitor(connectionConditions());
    receivedConnections().removeObjectForKey(connectionID);
    proxy = receivedProxyObjects().objectForKey(connectionID);
    receivedProxyObjects().removeObjectForKey(connectionID);
  }
  wakeWaitersOf(connectionID);
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Cleared out connections and objects for %@", connectionID);
}

void VeltoListener::wakeWaitersOf(const NSString& connectionID) {
  const NSSynchronized monitor(connectionConditions());
  const NSMutableArray waiters = waitersOf(connectionID);
  connectionConditions().setObjectForKeyedSubscript(nil, connectionID);
  for (const NSObject& waiter : waiters) waiter.as<NSCondition>().signal();
}

void VeltoListener::close() {
  NSArray identifiers;
  {
    const NSSynchronized monitor(connectionConditions());
    identifiers = receivedConnections().allKeys();
  }
  for (const NSObject& identifier : identifiers) close(identifier.as<NSString>());
  NSArray proxies;
  {
    const NSSynchronized monitor(connectionConditions());
    proxies = receivedProxyObjects().allValues();
    receivedProxyObjects().removeAllObjects();
  }
  // Told to end, then let go of. Whoever closes at the same moment tells it again, which does nothing.
  if (const auto connection = daemonConnection()) {
    connection->invalidate();
    setDaemonConnection(nullptr);
  }
}

void VeltoListener::connectionError(NSError error) {
  report(nil, error);
}
