#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/foundation/NSError.h"
#include "platform/xpc/interface/Protocol.h"

namespace velto::xpc {

using ErrorHandler = std::shared_ptr<const std::function<void(NSError)>>;

// A call that was made here and is not settled: it waits for credit, for its reply, or for the news that it was dealt
// with.
struct OutgoingCall {
  std::uint64_t identifier = 0;
  const Method* method = nullptr;
  ReplyBlock reply;  // none when no reply is wanted, or wanted any more
  ErrorHandler errorHandler;
  std::uint64_t frameNumber = 0;  // of the channel; 0 while the call waits here
};

}  // namespace velto::xpc
