#pragma once

#include <memory>

#include "VeltoIPC/VeltoIPCDelegate.h"

namespace velto {

// Calls of the delegate that are not the last step of what they belong to. Null hears nothing. Whatever the callback
// throws ends there: a line of level 0 says so, and the caller's next step follows.
void tellReady(const std::shared_ptr<VeltoIPCDelegate>& delegate, const NSString& connectionID) noexcept;
void tellError(const std::shared_ptr<VeltoIPCDelegate>& delegate, const NSString& connectionID,
               const NSError& error) noexcept;

}  // namespace velto
