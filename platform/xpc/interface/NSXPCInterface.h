#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "platform/foundation/NSSet.h"
#include "platform/foundation/NSString.h"
#include "platform/xpc/interface/Protocol.h"

namespace velto::wire {
class ClassSet;
}

// What one end of a connection may be asked: a protocol, and for each object argument (and reply) the set of classes
// that it may consist of, at every depth. The default set of a dictionary, array or set admits every value class; that
// of an error, the error and what its user info may hold; that of any other class, that class.
//
// Set it up on one thread before a connection that uses it is resumed; from then on it is only read.
class VELTO_EXPORT NSXPCInterface {
 public:
  template <class P>
  static std::shared_ptr<NSXPCInterface> interfaceWithProtocol() {
    return std::shared_ptr<NSXPCInterface>(new NSXPCInterface(velto::xpc::protocolOf<P>()));
  }
  ~NSXPCInterface();
  NSXPCInterface(const NSXPCInterface&) = delete;
  NSXPCInterface& operator=(const NSXPCInterface&) = delete;

  const velto::xpc::Protocol& protocol() const noexcept { return protocol_; }

  // nil for a selector or an index that the protocol does not have. Argument indices count from 0, without the reply
  // block; a reply block's own argument is index 0 with `ofReply`.
  NSSet classesForSelector(const NSString& selector, std::size_t argumentIndex, bool ofReply) const;
  // Raises an NSException for a selector or index that the protocol does not have, and for a set that holds anything
  // but class objects.
  void setClasses(const NSSet& classes, const NSString& forSelector, std::size_t argumentIndex, bool ofReply);

  // For the platform. The selector and index exist.
  const velto::wire::ClassSet& admitted(const velto::xpc::Method& method, std::size_t argumentIndex,
                                        bool ofReply) const;

  // How many descriptors one call, or one reply, can carry that anybody claims.
  std::size_t claimableDescriptors(bool ofReply) const;
  // Whether any call, or any reply, can carry data.
  bool admitsData(bool ofReply) const;

 private:
  explicit NSXPCInterface(const velto::xpc::Protocol& protocol);

  struct Entry;
  struct Table;
  using Key = std::tuple<const velto::xpc::Method*, std::size_t, bool>;
  static std::shared_ptr<const Table> defaultsOf(const velto::xpc::Protocol& protocol);

  const velto::xpc::Protocol& protocol_;
  // Shared by all interfaces of the protocol whose sets nobody has changed: many connections each have their own.
  std::shared_ptr<const Table> table_;
};
