#include "calls/Incoming.h"

#include <exception>

#include "platform/logging/VeltoLogging.h"

namespace velto::calls {

Incoming::~Incoming() {
  if (isAnswered_) return;
  try {
    answer(CallError(Failure::dropped, "the service let go of the request without an answer", true));
  } catch (const std::exception& exception) {
    VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A request could not be given up: %s", exception.what());
  }
}

void Incoming::takeBack(const CallError& why) {
  stop_.request_stop();
  if (stream_) stream_->end(why);
}

bool Incoming::answer(Outcome<NSDictionary> outcome) {
  if (isAnswered_.exchange(true)) return false;
  answer_(std::move(outcome));
  if (whenAnswered_) whenAnswered_();
  return true;
}

}  // namespace velto::calls
