#pragma once

#include <memory>

#include "VeltoIPC/VeltoCommunicationMessageProtocol.h"
#include "platform/xpc/NSXPCConnection.h"

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoCommunicationMessageProtocol>();

namespace velto {

// The other end of a connection, as either end calls it.
using PeerProxy = NSXPCProxy<VeltoCommunicationMessageProtocol>;

// A new interface of the peer protocol, every argument with its default class set.
std::shared_ptr<NSXPCInterface> makePeerInterface();

// Sets up the client's end: one interface serves both roles.
void configureClientEnd(NSXPCConnection& connection, const std::shared_ptr<NSXPCInterface>& peerInterface,
                        std::shared_ptr<VeltoCommunicationMessageProtocol> exportedObject);

// Sets up the listener's end. A message that comes from the client may hold a VKTLogAnchor too; nothing else that
// travels either way may.
void configureListenerEnd(NSXPCConnection& connection,
                          std::shared_ptr<VeltoCommunicationMessageProtocol> exportedObject);

}  // namespace velto
