#include "calls/CallsPeer.h"

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::calls::CallsPeer>() {
  using Peer = velto::calls::CallsPeer;
  static const Protocol& table = *new Protocol(
      "CallsPeer",
      {
          method<&Peer::connectionID>("connectionID:withMessage:handler:", Requirement::required, Way::oneWay),
          method<&Peer::connectionError>("connectionError:", Requirement::required, Way::oneWay),
          method<&Peer::setStrictMessageTypesRemote>("setStrictMessageTypesRemote:", Requirement::optional),
          method<&Peer::connectionUUID>("connectionUUID:", Requirement::optional),
          method<&Peer::ping>("ping", Requirement::optional, Way::prompt),
          method<&Peer::meet>("meet:answer:", Requirement::optional, Way::prompt),
          method<&Peer::call>("call:terms:message:outcome:", Requirement::optional, Way::oneWay),
          method<&Peer::cancel>("cancel:", Requirement::optional, Way::ahead),
          method<&Peer::item>("item:ofCall:", Requirement::optional, Way::ahead),
          method<&Peer::finish>("finish:", Requirement::optional, Way::ahead),
          method<&Peer::allow>("allow:bytes:ofCall:", Requirement::optional, Way::ahead),
      });
  return table;
}
