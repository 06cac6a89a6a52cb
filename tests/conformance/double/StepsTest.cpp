// Platform, log and delegates write into one journal, so that a test can state the order across all three.

#include "tests/conformance/double/StepsTest.h"

#include <utility>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/NSXPCError.h"

namespace velto::testing {

void JournalDelegate::connectionReady(NSString connectionID) {
  journal_.write(name_ + " connectionReady " + connectionID.description().string());
  recorded.connectionReady(connectionID);
}

void JournalDelegate::receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) {
  journal_.write(name_ + " receivedMessage " + message.description().string() + " from " +
                 fromConnection.description().string());
  recorded.receivedMessage(message, fromConnection, std::move(usingHandler));
}

void JournalDelegate::connectionError(NSString connectionID, NSError error) {
  const std::string what =
      error.isNil() ? "(null)"
                    : std::to_string(error.code()) + " " + error.localizedDescription().description().string();
  journal_.write(name_ + " connectionError " + connectionID.description().string() + " " + what);
  recorded.connectionError(connectionID, error);
}

StepsTest::StepsTest() {
  VKTLogSetLevel(VKTLogLevelProgress);
  VKTLogSetSink([this](const VKTLogAnchor&, int level, const NSString& text) {
    journal().write("log " + std::to_string(level) + " " + text.string());
  });
}

StepsTest::~StepsTest() {
  VKTLogSetSink({});
  VKTLogSetLevel(VKTLogLevelFailure);
}

std::shared_ptr<JournalDelegate> StepsTest::makeDelegate(const std::string& name) {
  return std::make_shared<JournalDelegate>(name, platform.journal());
}

NSError StepsTest::platformError() {
  return NSError::errorWithDomain(NSXPCErrorDomain, NSXPCConnectionInterrupted,
                                  NSDictionary{{NSLocalizedDescriptionKey, "the platform failed"}});
}

}  // namespace velto::testing
