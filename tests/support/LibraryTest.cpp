// What most tests begin with.

#include "tests/support/LibraryTest.h"

#include "platform/foundation/NSSynchronized.h"
#include "tests/support/BrokerLink.h"

namespace velto::testing {

void QuietTest::TearDown() {
  if (HasFailure()) std::cerr << "the log of the failed test:" << log.text() << "\n";
}

void LibraryTest::clearLogOfHandshake() {
  log.waitFor(2, "Connection Configured and Pinged");
  log.waitFor(2, "VeltoConnection Pinged VeltoListener");
  log.clear();
}

namespace {

std::shared_ptr<VeltoListener> listenerWithTypes(const std::string& name,
                                                 const std::shared_ptr<RecordingDelegate>& delegate,
                                                 ListenerEnd::Types types) {
  std::shared_ptr<VeltoListener> made = VeltoListener::initWithServiceName(name, delegate);
  if (types == ListenerEnd::Types::any) made->setStrictMessageTypes(false);
  settle(made->daemonConnection());
  return made;
}

template <class End>
void closeAndWait(const std::shared_ptr<End>& end, RecordingDelegate& delegate) {
  end->close();
  delegate.waitForError("Daemon connection invalidated");
  waitUntilAlone(end);
  delegate.quiesce();
}

}  // namespace

ListenerEnd::ListenerEnd(const std::string& name, Types types) : listener(listenerWithTypes(name, delegate, types)) {}

ListenerEnd::~ListenerEnd() {
  closeAndWait(listener, *delegate);
}

ListenerEnd::Entries ListenerEnd::entries(const NSString& connectionID) const {
  NSSynchronized lock(listener->connectionConditions());
  return {!listener->receivedConnections()[connectionID].isNil(),
          !listener->receivedProxyObjects()[connectionID].isNil(),
          !listener->connectionConditions()[connectionID].isNil()};
}

std::size_t ListenerEnd::waiting(const NSString& connectionID) const {
  NSSynchronized lock(listener->connectionConditions());
  return listener->connectionConditions()[connectionID].count();
}

std::ostream& operator<<(std::ostream& out, const ListenerEnd::Entries& entries) {
  return out << "connection " << entries.connection << ", proxy " << entries.proxy << ", conditions "
             << entries.conditions;
}

ClientEnd::ClientEnd(const std::string& name) : connection(VeltoConnection::initWithServiceName(name, delegate)) {}

ClientEnd::~ClientEnd() {
  closeAndWait(connection, *delegate);
}

NSString ClientEnd::ready() {
  NSError error;
  EXPECT_TRUE(connection->waitUntilReady(static_cast<double>(kBound.count()), &error)) << error.description().view();
  EXPECT_FALSE(connection->getID().isNil());
  return connection->getID();
}

Pair::Pair(ListenerEnd::Types types)
    : server("org.velto.test.pair", types), client("org.velto.test.pair"), id(client.ready()) {}

void Pair::roundTrip() {
  const NSDictionary message{{"round", "trip"}};
  NSError error;
  EXPECT_EQ(client.connection->sendMessageSync(message, static_cast<double>(kBound.count()), &error), message)
      << error.description().view();
}

}  // namespace velto::testing
