// The ends of a synchronous send's time: when it begins to count, and what becomes of a reply that comes when it is
// over but the call has not returned yet.

#include "tests/conformance/steps/ReplyGap.h"

#include <chrono>

#include "tests/conformance/steps/ClientInside.h"
#include "tests/conformance/steps/ClientSteps.h"
#include "tests/conformance/steps/ListenerSteps.h"

namespace velto::testing {
namespace {

constexpr std::chrono::milliseconds kTime{20};
constexpr double kSeconds = 0.02;

// Counts how often this thread goes to sleep in an NSCondition.
class SleepCount final : public WaitObserver {
 public:
  SleepCount() : former_(install(this)) {}
  ~SleepCount() { install(former_); }
  SleepCount(const SleepCount&) = delete;
  SleepCount& operator=(const SleepCount&) = delete;

  void threadWillWait() noexcept override { ++count_; }
  void threadDidWait() noexcept override {}
  int count() const { return count_; }

 private:
  WaitObserver* const former_;
  int count_ = 0;
};

// Returns once the time of a send that has begun is over.
void letTimePass() {
  const auto end = std::chrono::steady_clock::now() + kTime;
  EXPECT_TRUE(eventually([end] { return std::chrono::steady_clock::now() > end; }));
}

using ClientReplyGap = ClientSteps;
using ListenerReplyGap = ListenerSteps;

TEST_F(ClientReplyGap, AReplyInTheGapIsReturnedTogetherWithTheError) {
  PROVES("client.sync.24",
         "a reply that comes after the time is over, but before the call has returned, is returned together with the "
         "time-out error");
  becomeReady("id");
  const NSDictionary answer{{"late", "but there"}};
  ReplyGap gap;
  NSError error = gap.errorThatOpensIt(registryOf(*client), [&] { lastMessage()->answer(answer); });
  const NSDictionary reply = client->sendMessageSync(NSDictionary{{"op", "ask"}}, 0, &error);
  ASSERT_TRUE(gap.wasOpened());
  EXPECT_EQ(reply, answer);
  expectError(error, 6, "Timed out waiting");
  EXPECT_EQ(registryOf(*client).count(), 0u);
}

TEST_F(ClientReplyGap, TheTimeCountsFromBeforeTheSend) {
  PROVES("client.sync.25", "the deadline is set before the message is handed over: what that takes is time, too");
  becomeReady("id");
  journal().observe([](const std::string& line) {
    if (line.starts_with("proxy#2")) letTimePass();
  });
  NSError error;
  const SleepCount sleeps;
  EXPECT_TRUE(client->sendMessageSync(NSDictionary{{"op", "ask"}}, kSeconds, &error).isNil());
  journal().observe({});
  expectError(error, 6, "Timed out waiting");
  EXPECT_EQ(sleeps.count(), 0);
}

TEST_F(ListenerReplyGap, AReplyInTheGapIsReturnedTogetherWithTheError) {
  PROVES("listener.sync.31",
         "a reply that comes after the time is over, but before the call has returned, is returned together with the "
         "time-out error");
  start();
  const auto client = accept();
  ReplyGap gap;
  NSError error = gap.errorThatOpensIt(listener->connectionConditions(),
                                       [&] { client.connection->lastCall(kMessage)->answer(kHello); });
  const NSDictionary reply = listener->sendMessageSync(kHello, client.id, 0, &error);
  ASSERT_TRUE(gap.wasOpened());
  EXPECT_EQ(reply, kHello);
  expectError(error, 6, "Timed out waiting");
  EXPECT_EQ(waiting(client.id), 0u);
}

TEST_F(ListenerReplyGap, TheTimeCountsFromBeforeTheSend) {
  PROVES("listener.sync.32", "the deadline is set before the message is handed over: what that takes is time, too");
  start();
  const auto client = accept();
  const SleepCount sleeps;
  const auto outcome = sendSync(client.id, kSeconds, [](RecordedCall&) { letTimePass(); });
  EXPECT_TRUE(outcome.reply.isNil());
  expectError(outcome.error, 6, "Timed out waiting");
  EXPECT_EQ(sleeps.count(), 0);
}

}  // namespace
}  // namespace velto::testing
