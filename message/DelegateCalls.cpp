// Users' callbacks, each in a place where steps of ours follow: an introduction, a close. Those must not depend on what
// a user's code throws.
#include "message/DelegateCalls.h"

#include <exception>

#include "platform/logging/VeltoLogging.h"

namespace velto {
namespace {

void logRaised(const char* callback, const char* what) noexcept {
  try {
    VKTLoggingLog(VKTLogGetAnchor(), 0, "The delegate raised an exception in %s, which is ignored: %s", callback, what);
  } catch (...) {
    // There is no memory for the line.
  }
}

template <class Call>
void contain(const char* callback, const Call& call) noexcept {
  try {
    call();
  } catch (const std::exception& exception) {
    logRaised(callback, exception.what());
  } catch (...) {
    logRaised(callback, "it is of an unknown kind");
  }
}

}  // namespace

void tellReady(const std::shared_ptr<VeltoIPCDelegate>& delegate, const NSString& connectionID) noexcept {
  if (delegate) contain("connectionReady", [&] { delegate->connectionReady(connectionID); });
}

void tellError(const std::shared_ptr<VeltoIPCDelegate>& delegate, const NSString& connectionID,
               const NSError& error) noexcept {
  if (delegate) contain("connectionError", [&] { delegate->connectionError(connectionID, error); });
}

}  // namespace velto
