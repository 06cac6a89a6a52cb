#pragma once

#include <memory>
#include <string>

#include "tests/conformance/Statements.h"
#include "tests/conformance/double/StepsTest.h"
#include "tests/conformance/steps/SleepWatch.h"

namespace velto::testing {

inline constexpr char kLookup[] = "findListenerEndpointForName:handle:";
inline constexpr char kMessage[] = "connectionID:withMessage:handler:";
inline constexpr char kReport[] = "connectionError:";

// A client on the platform double, taken as far as the test wants it. Its link to the broker is connection#1 with
// proxy#1, its connection to the listener connection#2 with proxy#2.
class ClientSteps : public StepsTest {
 protected:
  // Each of these takes the steps of those before it, and at its end forgets the journal.
  void lookUp();
  void configure();
  void becomeReady(const NSString& identifier = "id");

  ConnectionDouble& link() const { return platform.connection(1); }
  ConnectionDouble& peer() const { return platform.connection(2); }
  // The message that was sent last.
  std::shared_ptr<RecordedCall> lastMessage() const { return peer().lastCall(kMessage); }
  // Waits for readiness on a thread of its own; returns once that thread sleeps.
  std::future<bool> waitAsleep(double timeout, NSError& error);
  // Lets go of the client; it must then be gone.
  void letGoOfClient();

  const NSXPCListenerEndpoint endpoint = makeEndpoint();
  std::shared_ptr<VeltoConnection> client;
};

// A reply handler that counts its calls, and tells when it was let go of.
class CountedReply {
 public:
  VeltoReplyHandler handler();
  const std::vector<NSDictionary>& replies() const { return *replies_; }
  // Whether anybody still holds a handler that was given out.
  bool isHeld() const { return replies_.use_count() > 1; }

 private:
  std::shared_ptr<std::vector<NSDictionary>> replies_ = std::make_shared<std::vector<NSDictionary>>();
};

// The object as its connection exports it.
inline const void* asPeer(const std::shared_ptr<VeltoConnection>& client) {
  return static_cast<VeltoCommunicationMessageProtocol*>(client.get());
}

}  // namespace velto::testing
