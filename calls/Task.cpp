#include "VeltoIPC/Task.h"

#include <exception>
#include <string>

#include "platform/logging/VeltoLogging.h"

namespace velto::detail {

std::string textOfException() {
  try {
    throw;
  } catch (const std::exception& exception) {
    return exception.what();
  } catch (...) {
    return "one of a type of its own";
  }
}

void logException() {
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "A task raised an exception: %s", textOfException().c_str());
}

}  // namespace velto::detail
