// The log during fuzzing: formatting is under test, writing is not.

#include "fuzz/support/Quiet.h"

#include "fuzz/support/Require.h"
#include "platform/foundation/UTF8.h"
#include "platform/logging/VeltoLogging.h"

namespace velto::fuzzing {

void formatLogAndDropIt() {
  VKTLogSetLevel(VKTLogLevelProgress);
  VKTLogSetSink([](const VKTLogAnchor&, int, const NSString& text) {
    require(isValidUTF8(text.view()), "a line of the log is UTF-8");
  });
}

}  // namespace velto::fuzzing
