#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/Protocol.h"

namespace velto::testing {

// A call that the library made at a proxy. As with the real platform the call holds its reply block and its proxy's
// error handler until it is settled: answer it, refuse it or let it go. Thread-safe.
class RecordedCall {
 public:
  using ErrorHandler = std::shared_ptr<const std::function<void(NSError)>>;

  RecordedCall(std::string selector, std::vector<NSObject> arguments, xpc::ReplyBlock reply, ErrorHandler errorHandler)
      : selector_(std::move(selector)),
        arguments_(std::move(arguments)),
        reply_(std::move(reply)),
        errorHandler_(std::move(errorHandler)) {}

  const std::string& selector() const { return selector_; }
  // Without the reply block. A bool has become a number.
  const std::vector<NSObject>& arguments() const { return arguments_; }
  // Whether the library gave a reply block with it (and it is not settled yet).
  bool hasReply() const;
  // Calls the reply block as the platform does when the reply has come, then lets go of it.
  void answer(const NSObject& value);
  // Calls the reply block and keeps it.
  void answerAndKeep(const NSObject& value) const;
  // Calls the proxy's error handler, as the platform does when the call failed, then lets go of the reply block.
  void refuse(const NSError& error);
  // Lets go of the reply block and of the handler uncalled.
  void drop();

 private:
  const std::string selector_;
  const std::vector<NSObject> arguments_;
  mutable Mutex mutex_;
  xpc::ReplyBlock reply_ VELTO_GUARDED_BY(mutex_);
  ErrorHandler errorHandler_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::testing
