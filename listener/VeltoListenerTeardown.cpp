// The end of connections. Invalidating one brings its handler, which closes it again: the second time finds nothing and
// does no harm. The listener itself goes on listening for as long as it lives.
#include "VeltoIPC/VeltoListener.h"
#include "message/PeerProtocol.h"
#include "platform/foundation/Box.h"
#include "platform/logging/VeltoLogging.h"

namespace {

NSObject takeFrom(NSMutableDictionary table, const NSString& connectionID) {
  NSObject taken = table.objectForKey(connectionID);
  table.removeObjectForKey(connectionID);
  return taken;
}

}  // namespace

void VeltoListener::close(const NSString& connectionID) {
  if (const auto connection = connectionOf(connectionID)) connection->invalidate();
  takeOut(connectionID);
  VKTLoggingLog(VKTLogGetAnchor(), 2, "Cleared out connections and objects for %@", connectionID);
}

std::shared_ptr<NSXPCConnection> VeltoListener::connectionOf(const NSString& connectionID) const {
  const NSSynchronized monitor(connectionConditions());
  return velto::unbox<NSXPCConnection>(receivedConnections().objectForKey(connectionID));
}

// The three tables change together: nobody sees a connection that is half gone, nor puts a proxy into the gap. What is
// taken out is let go of after the monitor.
void VeltoListener::takeOut(const NSString& connectionID) {
  NSObject connection, proxy, waiters;
  const NSSynchronized monitor(connectionConditions());
  connection = takeFrom(receivedConnections(), connectionID);
  proxy = takeFrom(receivedProxyObjects(), connectionID);
  waiters = takeFrom(connectionConditions(), connectionID);
  for (const NSObject& waiter : waiters.as<NSMutableArray>()) waiter.as<NSCondition>().signal();
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
