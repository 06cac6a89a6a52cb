#pragma once

#include <gtest/gtest.h>

#include "VeltoIPC/VeltoIPC.h"
#include "platform/logging/VeltoLogging.h"
#include "tests/support/Brokers.h"
#include "tests/support/Errors.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Printing.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/RuntimeDirectory.h"

namespace velto::testing {

inline const NSDictionary kHello{{"text", "hello"}};
inline const NSDictionary kHelloAndNumber{{"text", "hello"}, {"number", 7}};

// A test with a runtime directory and a log of its own. A failed test shows the log.
class QuietTest : public ::testing::Test {
 protected:
  void TearDown() override;

  RuntimeDirectory directory;
  LogCapture log;
};

// A test whose ends are all in this process, the broker included.
class LibraryTest : public QuietTest {
 protected:
  // Forgets the log up to here. The last lines of a handshake may come after both ends are ready: they are waited for.
  void clearLogOfHandshake();

  BrokerHere broker;
};

// A listener and its delegate; registered once this is made. At the end it is closed, and what that brings waited for,
// so that no callback and no log line of one test reaches the next.
class ListenerEnd {
 public:
  enum class Types { strict, any };

  explicit ListenerEnd(const std::string& name, Types types = Types::strict);
  ~ListenerEnd();
  ListenerEnd(const ListenerEnd&) = delete;
  ListenerEnd& operator=(const ListenerEnd&) = delete;

  // Which of the three tables have an entry under an identifier.
  struct Entries {
    bool connection;
    bool proxy;
    bool conditions;
    friend bool operator==(const Entries&, const Entries&) = default;
  };
  Entries entries(const NSString& connectionID) const;
  // Synchronous sends registered under the identifier.
  std::size_t waiting(const NSString& connectionID) const;

  const std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  const std::shared_ptr<VeltoListener> listener;
};

inline constexpr ListenerEnd::Entries kAllEntries{true, true, true};
inline constexpr ListenerEnd::Entries kNoEntries{false, false, false};
std::ostream& operator<<(std::ostream& out, const ListenerEnd::Entries& entries);

// A client and its delegate. Its end is as the listener's.
class ClientEnd {
 public:
  explicit ClientEnd(const std::string& name);
  ~ClientEnd();
  ClientEnd(const ClientEnd&) = delete;
  ClientEnd& operator=(const ClientEnd&) = delete;

  // Waits until it is ready; its identifier.
  NSString ready();

  const std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  const std::shared_ptr<VeltoConnection> connection;
};

// A listener and a client of it that is ready.
class Pair {
 public:
  explicit Pair(ListenerEnd::Types types = ListenerEnd::Types::strict);

  // A message to the listener and its reply: whatever was sent before on this connection has been dealt with. The
  // listener's delegate must echo.
  void roundTrip();

  ListenerEnd server;
  ClientEnd client;
  const NSString id;
};

// Waits until nobody else holds the object: its connections have ended and their handlers have run.
template <class T>
bool waitUntilAlone(const std::shared_ptr<T>& object) {
  const bool alone = eventually([&] { return object.use_count() == 1; });
  if (!alone) ADD_FAILURE() << "the object is still held by " << object.use_count() - 1;
  return alone;
}

}  // namespace velto::testing
