// What the library exports besides its classes, what all its errors and log lines have in common, and what it leaves to
// the platform.

#include <map>
#include <set>

#include "VeltoIPC/VeltoConstants.h"
#include "message/Errors.h"
#include "platform/logging/VeltoLogging.h"
#include "tests/conformance/steps/ClientSteps.h"
#include "tests/support/Census.h"

namespace velto::testing {
namespace {

using ::testing::SizeIs;

class MessageConstants : public ClientSteps {
 protected:
  // A life with everything in it that can be had on one thread.
  void liveThroughEverything() {
    becomeReady("id");
    const NSDictionary message{{"op", "any"}};
    client->sendMessage(message);
    client->sendMessage(NSDictionary{{"when", NSDate::date()}});
    client->sendMessageSync(message, 0.001);
    client->waitUntilReady(0);
    client->connectionID("id", message, {});
    client->connectionID("other", message, {});
    peer().playProxyError(platformError());
    peer().playInterruption();
    link().playInterruption();
    client->close();
    peer().playInvalidation();
    link().playInvalidation();
  }
};

TEST_F(MessageConstants, TellTheVersion) {
  PROVES("types.constants.1", "VeltoIPCVersionNumber is 0, VeltoIPCVersionString the what-string of the library");
  EXPECT_EQ(VeltoIPCVersionNumber, 0.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(VeltoIPCVersionString), "@(#)PROGRAM:VeltoIPC  PROJECT:VeltoIPC-\n");
}

TEST_F(MessageConstants, NumberTheErrors) {
  PROVES("types.constants.2", "errors have the codes 2, 3, 5, 6 and 7 in the domain org.velto.VeltoIPC");
  EXPECT_STREQ(VeltoIPCErrorDomain, "org.velto.VeltoIPC");
  expectError(makeError(VeltoIPCConnectionError, "text"), 2, "text");
  expectError(makeError(VeltoIPCMessageTypeError, "text"), 3, "text");
  expectError(makeError(VeltoIPCConnectionIDError, "text"), 5, "text");
  expectError(makeError(VeltoIPCTimeoutError, "text"), 6, "text");
  expectError(makeError(VeltoIPCUnknownError, "text"), 7, "text");
}

TEST_F(MessageConstants, EveryLineHasAnAnchorOfItsOwnPlace) {
  PROVES("types.constants.3",
         "every log line comes with the anchor of the place that wrote it, and is of level 0 or 2");
  std::map<std::string, std::set<std::uint32_t>> placesOfFiles;
  std::set<std::string> texts;
  std::set<int> levels;
  VKTLogSetSink([&](const VKTLogAnchor& anchor, int level, const NSString& text) {
    ASSERT_FALSE(anchor.isNil()) << text.view();
    EXPECT_FALSE(anchor.function().view().empty());
    placesOfFiles[anchor.file().string()].insert(anchor.line());
    texts.insert(text.string());
    levels.insert(level);
  });
  liveThroughEverything();
  VKTLogSetSink({});
  EXPECT_EQ(levels, (std::set<int>{VKTLogLevelFailure, VKTLogLevelProgress}));
  EXPECT_GE(texts.size(), 15u);
  std::size_t places = 0;
  for (const auto& [file, lines] : placesOfFiles) places += lines.size();
  EXPECT_GE(places, 14u);
}

TEST_F(MessageConstants, TheLibraryMakesNoThreadAndOpensNothing) {
  PROVES("types.constants.4", "the library makes no thread and opens no file: both are the platform's alone");
  const std::size_t threads = runningThreads();
  const std::size_t descriptors = openDescriptors();
  liveThroughEverything();
  EXPECT_EQ(runningThreads(), threads);
  EXPECT_EQ(openDescriptors(), descriptors);
}

}  // namespace
}  // namespace velto::testing
