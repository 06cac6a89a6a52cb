// Which time-outs a listener's synchronous send takes, and what comes of them.

#include <cmath>
#include <limits>

#include "tests/conformance/ListenerFixture.h"

namespace velto::testing {
namespace {

using ListenerTimeouts = ListenerHere;
INSTANTIATE_TEST_SUITE_P(, ListenerTimeouts, kArrangementsHere, printArrangement);

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// Another value for "forever" while it lives.
class AnotherForever {
 public:
  explicit AnotherForever(double value) { VKT_IPC_TIME_FOREVER = value; }
  ~AnotherForever() { VKT_IPC_TIME_FOREVER = -1.0; }
  AnotherForever(const AnotherForever&) = delete;
  AnotherForever& operator=(const AnotherForever&) = delete;
};

TEST_P(ListenerTimeouts, BelowZeroAreRefusedBeforeAnythingHappens) {
  PROVES("listener.sync.1",
         "a negative time-out other than VKT_IPC_TIME_FOREVER fails with code 6 \"Timed out value is not valid\", logs "
         "nothing, sends nothing and registers nothing");
  const TwoEnds ends;
  ends.client.delegate->echo();
  clearLogOfHandshakes();
  const double barelyLess = std::nextafter(-1.0, -2.0);
  const double barelyMore = std::nextafter(-1.0, 0.0);
  for (const double timeout : {-0.5, -2.0, -1e300, -kInfinity, barelyLess, barelyMore, -5e-324}) {
    NSError error;
    EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), ends.id, timeout, &error).isNil());
    expectError(error, 6, "Timed out value is not valid");
    EXPECT_EQ(ends.server.waiting(ends.id), 0u);
  }
  EXPECT_EQ(linesOfEnds(), Lines{});
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  EXPECT_EQ(ends.client.delegate->messages().size(), 1u);
}

TEST_P(ListenerTimeouts, AreJudgedBeforeIdentifierAndMessage) {
  PROVES("listener.sync.8", "the time-out is judged before the identifier and the message");
  const ListenerEnd server(kName);
  log.clear();
  NSError error;
  EXPECT_TRUE(server.listener->sendMessageSync(messageWithDate(), "unknown", -0.5, &error).isNil());
  expectError(error, 6, "Timed out value is not valid");
  EXPECT_EQ(linesOfEnds(), Lines{});
}

TEST_P(ListenerTimeouts, OfZeroAndAboveAreValid) {
  PROVES("listener.sync.2", "zero, of either sign, and every positive time-out are valid");
  const TwoEnds ends;
  ends.client.delegate->echo();
  for (const double timeout : {0.0, -0.0, 5e-324, 1e-9}) {
    NSError error;
    if (ends.server.listener->sendMessageSync(plainMessage(), ends.id, timeout, &error).isNil()) {
      expectError(error, 6, "Timed out waiting");
    }
  }
  for (const double timeout : {kLong, 1e300, std::numeric_limits<double>::max()}) {
    EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, timeout), plainMessage());
  }
  EXPECT_EQ(ends.client.delegate->messages().size(), 7u);
}

TEST_P(ListenerTimeouts, OfZeroSendAndDoNotWait) {
  PROVES("listener.sync.6", "a time-out of zero sends the message and fails with code 6 \"Timed out waiting\"");
  const TwoEnds ends;
  NSError error;
  EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), ends.id, 0.0, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  ends.client.delegate->waitForMessages(1);
  EXPECT_EQ(ends.client.delegate->messages().front().message, plainMessage());
}

TEST_P(ListenerTimeouts, ThatPassEndTheWaitWithoutALogLine) {
  PROVES("listener.sync.7", "a deadline that passes fails with code 6 \"Timed out waiting\" and logs nothing");
  PROVES("listener.sync.13", "a wait condition is removed after the time-out");
  PROVES("listener.sync.29", "a client that never answers leaves no trace but the time-out");
  const TwoEnds ends;
  clearLogOfHandshakes();
  NSError error;
  EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kShort, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_EQ(ends.server.waiting(ends.id), 0u);
  ends.client.delegate->waitForMessages(1);
  EXPECT_EQ(linesOfEnds().size(), 1u) << "the client's line of the message" << log.text();
  ends.client.delegate->echo();
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, kLong), plainMessage());
  EXPECT_TRUE(ends.server.delegate->errors().empty());
  EXPECT_TRUE(ends.client.delegate->errors().empty());
}

TEST_P(ListenerTimeouts, OfForeverWaitForTheReply) {
  PROVES("listener.sync.3", "VKT_IPC_TIME_FOREVER is -1.0, and waits without a deadline");
  PROVES("listener.sync.25", "an infinite time-out waits for the reply");
  EXPECT_EQ(VKT_IPC_TIME_FOREVER, -1.0);
  const TwoEnds ends;
  for (const double timeout : {-1.0, kInfinity}) {
    const std::size_t before = ends.client.delegate->messages().size();
    NSError error;
    auto call =
        inBackground([&] { return ends.server.listener->sendMessageSync(plainMessage(), ends.id, timeout, &error); });
    ASSERT_TRUE(ends.client.delegate->waitForMessages(before + 1));
    EXPECT_TRUE(isHeldUp(call));
    ends.client.delegate->messages().back().reply({{"at", "last"}});
    EXPECT_EQ(finish(call), (NSDictionary{{"at", "last"}}));
    EXPECT_TRUE(error.isNil());
  }
}

TEST_P(ListenerTimeouts, OfForeverAreReadAtEveryCall) {
  PROVES("listener.sync.4", "VKT_IPC_TIME_FOREVER is read at every call");
  const TwoEnds ends;
  ends.client.delegate->echo();
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, -1.0), plainMessage());
  const AnotherForever another(-3.5);
  NSError error;
  EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), ends.id, -1.0, &error).isNil());
  expectError(error, 6, "Timed out value is not valid");
  EXPECT_EQ(ends.server.listener->sendMessageSync(plainMessage(), ends.id, -3.5), plainMessage());
}

TEST_P(ListenerTimeouts, ThatAreNoNumberAreValidAndDoNotWait) {
  PROVES("listener.sync.24", "a time-out that is not a number is valid, sends, and does not wait");
  const TwoEnds ends;
  NSError error;
  const double noNumber = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(ends.server.listener->sendMessageSync(plainMessage(), ends.id, noNumber, &error).isNil());
  expectError(error, 6, "Timed out waiting");
  EXPECT_TRUE(ends.client.delegate->waitForMessages(1));
}

}  // namespace
}  // namespace velto::testing
