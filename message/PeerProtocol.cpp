// What the two ends say to each other, as a table, and what each end's connection lets in. The listener admits one
// class more than the client does, and only in messages: so it uses two interfaces where the client uses one.
#include "message/PeerProtocol.h"

#include <utility>

#include "platform/logging/VeltoLogging.h"

VeltoCommunicationMessageProtocol::~VeltoCommunicationMessageProtocol() = default;

void VeltoCommunicationMessageProtocol::setStrictMessageTypesRemote(bool) {
  throw NSXPCUnrecognizedSelector("setStrictMessageTypesRemote:");
}

void VeltoCommunicationMessageProtocol::connectionUUID(NSString) {
  throw NSXPCUnrecognizedSelector("connectionUUID:");
}

void VeltoCommunicationMessageProtocol::ping() {
  throw NSXPCUnrecognizedSelector("ping");
}

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<VeltoCommunicationMessageProtocol>() {
  using Peer = VeltoCommunicationMessageProtocol;
  static const Protocol& table = *new Protocol(
      "VeltoCommunicationMessageProtocol",
      {
          method<&Peer::connectionID>("connectionID:withMessage:handler:", Requirement::required, Way::oneWay),
          method<&Peer::connectionError>("connectionError:", Requirement::required, Way::oneWay),
          method<&Peer::setStrictMessageTypesRemote>("setStrictMessageTypesRemote:", Requirement::optional),
          method<&Peer::connectionUUID>("connectionUUID:", Requirement::optional),
          method<&Peer::ping>("ping", Requirement::optional),
      });
  return table;
}

namespace velto {
namespace {

constexpr char kMessageSelector[] = "connectionID:withMessage:handler:";
constexpr std::size_t kMessageIndex = 1;

std::shared_ptr<NSXPCInterface> makeInterfaceThatAdmitsAnchors() {
  auto interface = makePeerInterface();
  auto classes = NSMutableSet::initWithSet(interface->classesForSelector(kMessageSelector, kMessageIndex, false));
  classes.addObject(VKTLogAnchor::classObject());
  interface->setClasses(classes, kMessageSelector, kMessageIndex, false);
  return interface;
}

}  // namespace

std::shared_ptr<NSXPCInterface> makePeerInterface() {
  return NSXPCInterface::interfaceWithProtocol<VeltoCommunicationMessageProtocol>();
}

void configureClientEnd(NSXPCConnection& connection, const std::shared_ptr<NSXPCInterface>& peerInterface,
                        std::shared_ptr<VeltoCommunicationMessageProtocol> exportedObject) {
  connection.setRemoteObjectInterface(peerInterface);
  connection.setExportedInterface(peerInterface);
  connection.setExportedObject(std::move(exportedObject));
}

void configureListenerEnd(NSXPCConnection& connection,
                          std::shared_ptr<VeltoCommunicationMessageProtocol> exportedObject) {
  connection.setExportedInterface(makeInterfaceThatAdmitsAnchors());
  connection.setExportedObject(std::move(exportedObject));
  connection.setRemoteObjectInterface(makePeerInterface());
}

}  // namespace velto
