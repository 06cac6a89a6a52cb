// What the tests of calls from inside callbacks share.

#include "tests/conformance/ReentrancyFixture.h"

namespace velto::testing {

NSError reportedError() {
  return NSError::errorWithDomain("org.example", 5, nil);
}

void callEverything(VeltoListener& listener, const NSString& id) {
  NSError error;
  listener.sendMessage(plainMessage(), id, &error, [](const NSDictionary&) {});
  listener.sendMessageSync(plainMessage(), id, 0.0, &error);
  listener.sendMessageSync(plainMessage(), "unknown", VKT_IPC_TIME_FOREVER, &error);
  listener.sendMessageSync(plainMessage(), id, -0.5, &error);
  listener.setStrictMessageTypes(false);
  listener.setStrictMessageTypes(true);
  listener.close("unknown");
  listener.isConnectionActive_internal(id);
  listener.setDelegate(listener.delegate());
  listener.setDaemonConnection(listener.daemonConnection());
  listener.setReceivedConnections(listener.receivedConnections());
  listener.setConnectionConditions(listener.connectionConditions());
  listener.setReceivedProxyObjects(listener.receivedProxyObjects());
  listener.connectionID("somebody", plainMessage(), [](const NSDictionary&) {});
  listener.connectionError(reportedError());
  listener.ping();
  // A connection that is invalid from the start: accepted, told of, and gone.
  listener.listener(nullptr, NSXPCConnection::initWithListenerEndpoint(nil));
}

void callEverything(VeltoConnection& client) {
  NSError error;
  client.waitUntilReady(0.0, &error);
  client.getID();
  client.sendMessage(plainMessage(), &error, [](const NSDictionary&) {});
  client.sendMessageSync(plainMessage(), 0.0, &error);
  client.sendMessageSync(plainMessage(), -0.5, &error);
  client.setDelegate(client.delegate());
  client.setDaemonConnection(client.daemonConnection());
  client.setListenerEndpoint(client.listenerEndpoint());
  client.setListenerConnection(client.listenerConnection());
  client.setListenerProxyObject(client.listenerProxyObject());
  client.messageValid(NSUUID::UUID());
  client.connectionID("foreign", plainMessage(), [](const NSDictionary&) {});
  client.connectionID(client.getID(), plainMessage(), [](const NSDictionary&) {});
  client.connectionError(reportedError());
  client.setStrictMessageTypesRemote(true);
  client.connectionUUID(client.getID());
}

}  // namespace velto::testing
