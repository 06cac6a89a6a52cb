#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/foundation/NSObject.h"
#include "platform/xpc/system/Descriptor.h"

// A transferable handle on an anonymous listener: whoever holds it can connect to the listener, and can do nothing else
// with it. It travels as an argument of a call or a reply; it cannot be guessed, listed or forged, since it is a
// descriptor that the kernel passes on. With it travels the reading end of a pipe whose hang-up tells that the listener
// is gone. See NSObject for nil and threads. Endpoints are equal when they are one and the same socket.
class VELTO_EXPORT NSXPCListenerEndpoint : public NSObject {
 public:
  NSXPCListenerEndpoint() noexcept = default;
  NSXPCListenerEndpoint(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }

  static velto::Class classObject();

  // Calls `handler` once, on a thread of the platform, when the listener is gone; at once when it already is. Nothing
  // after the returned watch is destroyed (a call that has begun may still be running). Null for nil, and when the
  // kernel has no descriptor left for it.
  class Watch;
  std::shared_ptr<Watch> watch(std::function<void()> handler) const;

  // Whether the listener is gone, as far as the kernel knows at this moment. A nil endpoint has none.
  bool isGone() const;

  // For the platform: the socket (an O_PATH descriptor) and the reading end of the pipe.
  static NSXPCListenerEndpoint endpointWithDescriptors(velto::system::SharedDescriptor socket,
                                                       velto::system::SharedDescriptor hangUp);
  velto::system::SharedDescriptor socket() const;
  velto::system::SharedDescriptor hangUp() const;

 private:
  explicit NSXPCListenerEndpoint(velto::ObjectBody* body) noexcept : NSObject(body) {}
};
