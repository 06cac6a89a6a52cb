// Every fourth message is one that nobody answers, so that the close meets waiting senders, sending ones and some in
// between; every second send has no time-out.

#include "tests/death/Storm.h"

#include "VeltoIPC/VeltoConstants.h"
#include "tests/peer/Payload.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

namespace {

constexpr double kLongTimeOut = 10.0 * static_cast<double>(kBound.count());

}  // namespace

Storm::Counts& Storm::Counts::operator+=(const Counts& other) {
  sent += other.sent;
  replied += other.replied;
  timedOut += other.timedOut;
  unavailable += other.unavailable;
  strange += other.strange;
  return *this;
}

Storm::Storm(Send send) : send_(std::move(send)) {
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads_.push_back(inBackground([this, thread] { return sendUntilItFails(thread); }));
  }
}

void Storm::waitForReplies(std::size_t count) const {
  if (!eventually([&] { return replies_ >= count || ended_ == kThreads; })) giveUp("the storm does not begin");
}

Storm::Counts Storm::finish() {
  Counts all;
  for (auto& thread : threads_) all += velto::testing::finish(thread);
  return all;
}

Storm::Counts Storm::sendUntilItFails(std::size_t thread) {
  Counts counts;
  for (std::size_t number = thread; counts.returned() == counts.replied; ++number) {
    // The last thread never stops talking; the others meet silence sooner or later.
    const bool isSilent = thread != 0 && number % 32 == 31;
    const NSDictionary message = messageOf((isSilent ? "silence:" : "echo:") + std::to_string(number));
    NSError error;
    ++counts.sent;
    const NSDictionary reply = send_(message, number % 2 == 0 ? VKT_IPC_TIME_FOREVER : kLongTimeOut, &error);
    // A reply that comes while the wait is being given up is returned all the same, with the error.
    if (!reply.isNil() && reply == message && (error.isNil() || error.code() == 6)) {
      ++counts.replied;
      ++replies_;
    } else if (reply.isNil() && error.code() == 6) {
      ++counts.timedOut;
    } else if (reply.isNil() && error.code() == 2) {
      ++counts.unavailable;
    } else {
      ++counts.strange;
    }
  }
  ++ended_;
  return counts;
}

}  // namespace velto::testing
