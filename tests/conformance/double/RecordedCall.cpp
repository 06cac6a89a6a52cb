// Settling a call hands the reply block out of the lock before it runs: it is the library's code, and may do anything.

#include "tests/conformance/double/RecordedCall.h"

#include <utility>

#include <gtest/gtest.h>

namespace velto::testing {

bool RecordedCall::hasReply() const {
  MutexLock lock(mutex_);
  return static_cast<bool>(reply_);
}

void RecordedCall::answer(const NSObject& value) {
  answerAndKeep(value);
  drop();
}

void RecordedCall::answerAndKeep(const NSObject& value) const {
  xpc::ReplyBlock reply;
  {
    MutexLock lock(mutex_);
    reply = reply_;
  }
  if (!reply) {
    ADD_FAILURE() << selector_ << " has no reply block";
    return;
  }
  reply.block(value);
}

void RecordedCall::refuse(const NSError& error) {
  ErrorHandler handler;
  {
    MutexLock lock(mutex_);
    handler = errorHandler_;
  }
  drop();
  if (handler && *handler) (*handler)(error);
}

void RecordedCall::drop() {
  xpc::ReplyBlock reply;
  ErrorHandler handler;
  MutexLock lock(mutex_);
  std::swap(reply.block, reply_.block);
  std::swap(handler, errorHandler_);
}

}  // namespace velto::testing
