#include "client/PromptPeer.h"

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::PromptPeer>() {
  using Peer = PromptPeer;
  static const Protocol& table = *new Protocol(
      "PromptPeer",
      {
          method<&Peer::connectionID>("connectionID:withMessage:handler:", Requirement::required, Way::oneWay),
          method<&Peer::connectionError>("connectionError:", Requirement::required, Way::oneWay),
          method<&Peer::setStrictMessageTypesRemote>("setStrictMessageTypesRemote:", Requirement::optional,
                                                     Way::prompt),
          method<&Peer::connectionUUID>("connectionUUID:", Requirement::optional, Way::prompt),
      });
  return table;
}

namespace velto {

void PromptPeer::connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler) {
  client_->connectionID(std::move(connectionID), std::move(withMessage), std::move(handler));
}

void PromptPeer::connectionError(NSError error) {
  client_->connectionError(std::move(error));
}

void PromptPeer::setStrictMessageTypesRemote(bool flag) {
  client_->setStrictMessageTypesRemote(flag);
}

void PromptPeer::connectionUUID(NSString connectionID) {
  identified_(std::move(connectionID));
}

}  // namespace velto
