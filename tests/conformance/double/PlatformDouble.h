#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCInterface.h"
#include "tests/conformance/double/ConnectionDouble.h"
#include "tests/conformance/double/InterfaceDouble.h"
#include "tests/conformance/double/Journal.h"
#include "tests/conformance/double/ListenerDouble.h"

namespace velto::testing {

// A platform that does nothing but write down what the library asks of it. The classes of platform/xpc/ (connections,
// proxies, interfaces, listeners, endpoints) are replaced when the program is linked: the library's own sources are
// built once more, against the very same headers, as velto_library_on_double. Nothing touches the system, and nothing
// happens by itself: a test plays the platform, on its own thread, so every order of events can be had.
//
//   auto client = VeltoConnection::initWithServiceName("name", delegate);
//   auto& link = platform.connection(1);                                    // the first one made
//   platform.journal().take();                                              // what it asked for so far, as lines
//   link.lastCall("findListenerEndpointForName:handle:")->answer(makeEndpoint());
//   platform.connection(2).deliver<&VeltoCommunicationMessageProtocol::connectionUUID>("id");
//   platform.connection(2).playInvalidation();
//
// See ConnectionDouble, ListenerDouble and InterfaceDouble for the lines, and StepsTest for a fixture that brings log
// lines and callbacks of delegates into the same journal. One at a time; made before, and destroyed after, anything of
// the library. At its end it lets go of everything that the library gave to it. Thread-safe.
class PlatformDouble {
 public:
  PlatformDouble();
  ~PlatformDouble();
  PlatformDouble(const PlatformDouble&) = delete;
  PlatformDouble& operator=(const PlatformDouble&) = delete;

  static PlatformDouble& current();

  Journal& journal() { return *journal_; }

  // Those made so far, of each kind. Asking for one that was not made ends the program.
  std::size_t connectionCount() const;
  ConnectionDouble& connection(std::size_t number) const;
  std::size_t listenerCount() const;
  ListenerDouble& listener(std::size_t number) const;
  std::size_t interfaceCount() const;
  InterfaceDouble interface(std::size_t number) const;

  // For the substituted classes.
  std::shared_ptr<ConnectionDouble> makeConnection();
  std::shared_ptr<ListenerDouble> makeListener();
  std::size_t nextProxyNumber();
  void interfaceMade(const NSXPCInterface* interface, const xpc::Protocol& protocol);
  InterfaceDouble interfaceOf(const NSXPCInterface* interface) const;
  void storeClasses(const NSXPCInterface* interface, const InterfaceDouble::Key& key, const NSSet& classes);
  void noteInterface(const NSXPCInterface* interface, const std::string& what);
  // "interface#N", or "nil".
  std::string nameOf(const NSXPCInterface* interface) const;

 private:
  const std::shared_ptr<Journal> journal_ = std::make_shared<Journal>();
  mutable Mutex mutex_;
  std::vector<std::shared_ptr<ConnectionDouble>> connections_ VELTO_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<ListenerDouble>> listeners_ VELTO_GUARDED_BY(mutex_);
  std::size_t proxyCount_ VELTO_GUARDED_BY(mutex_) = 0;
  // In the order in which they were made; an address may be used again.
  std::vector<InterfaceDouble> interfaces_ VELTO_GUARDED_BY(mutex_);
  std::map<const NSXPCInterface*, std::size_t> interfaceNumbers_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::testing
