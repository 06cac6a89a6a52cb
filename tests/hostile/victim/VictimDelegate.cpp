// The callbacks of a victim. An order comes with each message, so that one program serves every attack.

#include "tests/hostile/victim/VictimDelegate.h"

namespace velto::hostile {

namespace {

constexpr double kTimedSeconds = 10.0;

// Asleep where the platform sees it: what else there is of the connection may run meanwhile.
void sleepInCondition(std::chrono::milliseconds time) {
  const NSDate until = NSDate::dateWithTimeIntervalSinceNow(std::chrono::duration<double>(time).count());
  const NSCondition condition = NSCondition::condition();
  const ConditionLock lock(condition);
  while (condition.waitUntilDate(until)) continue;
}

}  // namespace

void VictimDelegate::connectionReady(NSString connectionID) {
  if (readyPause_.count() > 0) sleepInCondition(readyPause_);
  const std::lock_guard lock(mutex_);
  identifiers_.push_back(connectionID.string());
}

void VictimDelegate::receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) {
  ++messages_;
  ++inside_;
  obey(message["do"].stringValue(), message, fromConnection, usingHandler);
  --inside_;
}

void VictimDelegate::obey(const std::string& order, const NSDictionary& message, const NSString& fromConnection,
                          const VeltoReplyHandler& usingHandler) {
  if (order == "gate") gate_.pass();
  if (order == "condition") gate_.passInCondition();
  if (order == "back") sendBack_(fromConnection, VKT_IPC_TIME_FOREVER);
  if (order == "back-timed") sendBack_(fromConnection, kTimedSeconds);
  if (order == "keep") {
    const std::lock_guard lock(mutex_);
    kept_.push_back(usingHandler);
  } else if (order == "big") {
    const std::vector<std::uint8_t> bytes(static_cast<std::size_t>(message["bytes"].unsignedIntegerValue()));
    usingHandler({{"data", NSData::dataWithBytes(bytes.data(), bytes.size())}});
  } else if (!order.empty()) {
    usingHandler({{"done", order}});
  }
}

void VictimDelegate::connectionError(NSString, NSError) {
  ++errors_;
}

std::vector<std::string> VictimDelegate::identifiers() const {
  const std::lock_guard lock(mutex_);
  return identifiers_;
}

std::string VictimDelegate::figures() const {
  return "ready=" + std::to_string(identifiers().size()) + " messages=" + std::to_string(messages_) +
         " inside=" + std::to_string(inside_) + " errors=" + std::to_string(errors_);
}

}  // namespace velto::hostile
