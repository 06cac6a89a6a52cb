#pragma once

#include <memory>
#include <string>

#include "message/PeerProtocol.h"
#include "tests/conformance/Statements.h"
#include "tests/conformance/double/StepsTest.h"

namespace velto::testing {

// A listener on the platform double. Its link to the broker is connection#1 with proxy#1, its first client connection#2
// with proxy#2, and so on.
class ListenerSteps : public StepsTest {
 protected:
  static constexpr const char* kRegister = "sendListenerConnection:withName:";
  static constexpr const char* kMessage = "connectionID:withMessage:handler:";

  // A listener under the name "name"; the journal of it forgotten.
  void start();
  // A client connects to it; the journal of it forgotten.
  struct Accepted {
    std::shared_ptr<ConnectionDouble> connection;
    NSString id;
    bool isAccepted;
  };
  Accepted accept();
  // Lets go of the listener although its connections are still there; it must then be gone.
  void letGoOfListener();

  // Which of the tables, "C" onditions, "R" eceived connections and "P" roxies, hold the identifier.
  std::string tables(const NSString& id) const;
  std::size_t waiting(const NSString& id) const { return listener->connectionConditions()[id].count(); }
  // What a synchronous send brings, with `during` run at the moment when the proxy gets the message.
  struct Outcome {
    NSDictionary reply;
    NSError error;
  };
  Outcome sendSync(const NSString& id, double timeout, const std::function<void(RecordedCall&)>& during);

  std::shared_ptr<VeltoListener> listener;
};

inline const NSDictionary kHello{{"text", "hello"}};

}  // namespace velto::testing
