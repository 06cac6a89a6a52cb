#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "VeltoIPC/VeltoCommunicationMessageProtocol.h"
#include "platform/xpc/NSXPCConnection.h"

namespace velto {

// What a client exports whose callbacks run where its user says. Its identifier and its strictness do not wait for
// their turn: whoever waits until it is ready may be the one who would run the callbacks.
class PromptPeer final {
 public:
  // `identified` must not block.
  PromptPeer(std::shared_ptr<VeltoCommunicationMessageProtocol> client, std::function<void(NSString)> identified)
      : client_(std::move(client)), identified_(std::move(identified)) {}

  void connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler);
  void connectionError(NSError error);
  void setStrictMessageTypesRemote(bool flag);
  void connectionUUID(NSString connectionID);

 private:
  const std::shared_ptr<VeltoCommunicationMessageProtocol> client_;
  const std::function<void(NSString)> identified_;
};

}  // namespace velto

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::PromptPeer>();
