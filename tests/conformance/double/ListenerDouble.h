#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCListener.h"
#include "tests/conformance/double/ConnectionDouble.h"
#include "tests/conformance/double/Journal.h"

namespace velto::xpc {

// What stands behind an NSXPCListener of the double, as ConnectionCore behind a connection. Thread-safe.
//
//   listener#N anonymousListener | endpoint | setDelegate | resume | invalidate
class ListenerCore final {
 public:
  ListenerCore(std::size_t number, NSXPCListenerEndpoint endpoint, std::shared_ptr<testing::Journal> journal);

  // Makes the handle that the library holds.
  static std::shared_ptr<NSXPCListener> wrap(const std::shared_ptr<ListenerCore>& core);

  std::size_t number() const { return number_; }
  // What the listener hands out, without a line in the journal.
  NSXPCListenerEndpoint knownEndpoint() const { return endpoint_; }
  // The delegate as it was set; null when it was not, or is gone.
  std::shared_ptr<NSXPCListenerDelegate> delegate() const;
  // Whether the library has let go of the last reference.
  bool isLetGo() const;

  struct Offer {
    std::shared_ptr<ConnectionCore> connection;
    bool isAccepted;
  };
  // A client has connected and called: hands a new connection to the delegate, on this thread. As with the platform,
  // only what the delegate keeps of it stays. Without a delegate it is turned away.
  Offer offerConnection();

  // For the double itself.
  NSXPCListenerEndpoint endpoint() const;
  void setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate);
  void note(const std::string& what) const;
  void letGo();

 private:
  const std::size_t number_;
  const NSXPCListenerEndpoint endpoint_;
  const std::shared_ptr<testing::Journal> journal_;
  mutable Mutex mutex_;
  std::weak_ptr<NSXPCListener> listener_ VELTO_GUARDED_BY(mutex_);
  std::weak_ptr<NSXPCListenerDelegate> delegate_ VELTO_GUARDED_BY(mutex_);
  bool isLetGo_ VELTO_GUARDED_BY(mutex_) = false;
};

}  // namespace velto::xpc

namespace velto::testing {

using ListenerDouble = xpc::ListenerCore;

// An endpoint that leads nowhere, equal only to itself.
NSXPCListenerEndpoint makeEndpoint();

}  // namespace velto::testing
