// The identifier, the recorded error, and waiting for either.

#include <cmath>
#include <limits>

#include "VeltoIPC/VeltoConstants.h"
#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ClientReadiness : public ClientSteps {
 protected:
  void giveIdentifier(const NSString& identifier) {
    peer().deliver<&VeltoCommunicationMessageProtocol::connectionUUID>(identifier);
  }
  // From a thread that is not the callback's: a lock that is held there would show.
  bool looksReadyFromOutside(NSError* error = nullptr) {
    auto look = inBackground([&] { return client->waitUntilReady(0, error); });
    return finish(look);
  }
};

TEST_F(ClientReadiness, TheIdentifierIsLoggedThenToldToTheDelegate) {
  PROVES("client.identifier.1",
         "the identifier is logged at level 2 as \"Connection ID received\", then connectionReady is called with it");
  configure();
  giveIdentifier("some id");
  EXPECT_THAT(journal().take(),
              ElementsAre("log 2 Connection ID received some id", "delegate connectionReady some id"));
  EXPECT_EQ(client->getID(), NSString("some id"));
}

TEST_F(ClientReadiness, TheIdentifierIsStoredAfterTheLogLineAndBeforeTheCallback) {
  PROVES("client.identifier.2",
         "the identifier is stored, and waiters find the client ready, after the log line and before connectionReady");
  configure();
  NSString whenLogged = "nothing";
  NSString whenTold;
  bool readyWhenLogged = true;
  bool readyWhenTold = false;
  journal().observe([&](const std::string& line) {
    if (line.starts_with("log 2 Connection ID")) {
      whenLogged = client->getID();
      readyWhenLogged = looksReadyFromOutside();
    }
    if (line.starts_with("delegate connectionReady")) {
      whenTold = client->getID();
      readyWhenTold = looksReadyFromOutside();
    }
  });
  giveIdentifier("id");
  journal().observe({});
  EXPECT_TRUE(whenLogged.isNil());
  EXPECT_FALSE(readyWhenLogged);
  EXPECT_EQ(whenTold, NSString("id"));
  EXPECT_TRUE(readyWhenTold);
}

TEST_F(ClientReadiness, TheIdentifierWakesWhoeverWaits) {
  PROVES("client.identifier.3", "the identifier ends a wait for readiness before its deadline, with success");
  configure();
  NSError error = platformError();
  auto waiter = waitAsleep(600, error);
  giveIdentifier("id");
  EXPECT_TRUE(finish(waiter));
  EXPECT_TRUE(error.isNil());
}

TEST_F(ClientReadiness, ANilIdentifierIsStoredLikeAnyOther) {
  PROVES("client.identifier.4", "a nil identifier is taken like any other: ready, but without one");
  configure();
  giveIdentifier(nil);
  EXPECT_THAT(journal().take(), ElementsAre("log 2 Connection ID received (null)", "delegate connectionReady (null)"));
  EXPECT_TRUE(client->getID().isNil());
  EXPECT_TRUE(client->waitUntilReady(0));
  NSError error;
  EXPECT_FALSE(client->sendMessage(NSDictionary::dictionary(), &error));
  expectError(error, 2, "Connection is not available");
}

TEST_F(ClientReadiness, ASecondIdentifierReplacesTheFirst) {
  PROVES("client.identifier.5", "a second identifier replaces the first and is told to the delegate again");
  becomeReady("first");
  giveIdentifier("second");
  EXPECT_THAT(journal().take(), ElementsAre("log 2 Connection ID received second", "delegate connectionReady second"));
  EXPECT_EQ(client->getID(), NSString("second"));
  client->sendMessage(NSDictionary::dictionary());
  EXPECT_EQ(lastMessage()->arguments().at(0), NSObject("second"));
}

TEST_F(ClientReadiness, AnErrorIsRecordedBeforeTheDelegateIsTold) {
  PROVES("client.error.1", "an error is recorded, for waiters to find, before the delegate is told of it");
  configure();
  NSError found;
  delegate->recorded.onError([&](const NSString&, const NSError&) { looksReadyFromOutside(&found); });
  const NSError error = platformError();
  client->connectionError(error);
  EXPECT_TRUE(found.isIdenticalTo(error));
}

TEST_F(ClientReadiness, AnErrorWritesNoLine) {
  PROVES("client.error.2", "connectionError itself logs nothing");
  becomeReady("id");
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionError>(platformError());
  client->connectionError(nil);
  EXPECT_THAT(journal().take(), ElementsAre("delegate connectionError id 2 the platform failed",
                                            "delegate connectionError id 7 Unknown error sent from listener"));
}

TEST_F(ClientReadiness, ANilErrorBecomesCode7) {
  PROVES("client.error.3", "a nil error is replaced by code 7 \"Unknown error sent from listener\", recorded and told");
  configure();
  client->connectionError(nil);
  const auto errors = delegate->recorded.errors();
  ASSERT_EQ(errors.size(), 1u);
  expectError(errors[0].error, 7, "Unknown error sent from listener");
  NSError error;
  EXPECT_FALSE(client->waitUntilReady(0, &error));
  EXPECT_TRUE(error.isIdenticalTo(errors[0].error));
}

TEST_F(ClientReadiness, TheLastErrorIsTheOneThatIsKept) {
  PROVES("client.error.4", "each error replaces the one recorded before; none is ever forgotten");
  configure();
  client->connectionError(nil);
  client->connectionError(platformError());
  for (int time = 0; time < 2; ++time) {
    NSError error;
    EXPECT_FALSE(client->waitUntilReady(0, &error));
    EXPECT_EQ(error, platformError());
  }
}

TEST_F(ClientReadiness, AnErrorLeavesReadinessAsItIs) {
  PROVES("client.error.5", "an error does not make a ready client unready, nor a failed one unable to become ready");
  configure();
  client->connectionError(platformError());
  EXPECT_FALSE(client->waitUntilReady(0));
  giveIdentifier("id");
  EXPECT_TRUE(client->waitUntilReady(0));
  client->connectionError(nil);
  EXPECT_TRUE(client->waitUntilReady(0));
}

TEST_F(ClientReadiness, AnErrorWakesWhoeverWaits) {
  PROVES("client.error.6", "every recorded error ends a wait for readiness, which then fails with it");
  configure();
  NSError error;
  auto waiter = waitAsleep(600, error);
  peer().playInterruption();
  EXPECT_FALSE(finish(waiter));
  expectError(error, 2, "Listener connection interrupted");
}

TEST_F(ClientReadiness, NoTimeMeansOneLook) {
  PROVES("client.wait.1", "0, any negative number, VKT_IPC_TIME_FOREVER and not-a-number wait not at all: one look");
  configure();
  const double notANumber = std::numeric_limits<double>::quiet_NaN();
  const double timeouts[] = {0.0, -0.0, -0.001, -1.0, VKT_IPC_TIME_FOREVER, -1e300, notANumber};
  for (const double timeout : timeouts) {
    NSError error;
    EXPECT_FALSE(client->waitUntilReady(timeout, &error)) << timeout;
    expectError(error, 6, "Timed out waiting");
  }
  client->connectionError(platformError());
  for (const double timeout : timeouts) {
    NSError error;
    EXPECT_FALSE(client->waitUntilReady(timeout, &error)) << timeout;
    EXPECT_EQ(error, platformError());
  }
  giveIdentifier("id");
  for (const double timeout : timeouts) {
    NSError error;
    EXPECT_TRUE(client->waitUntilReady(timeout, &error)) << timeout;
    EXPECT_EQ(error, platformError());
  }
}

TEST_F(ClientReadiness, ATimeThatRunsOutIsCode6) {
  PROVES("client.wait.2", "when neither readiness nor an error has come by the deadline: code 6 \"Timed out waiting\"");
  configure();
  NSError error;
  EXPECT_FALSE(client->waitUntilReady(0.02, &error));
  expectError(error, 6, "Timed out waiting");
  EXPECT_THAT(journal().take(), IsEmpty()) << "the wait itself logs nothing and tells nobody";
}

TEST_F(ClientReadiness, WaitingOnceReadySucceedsAndWritesNil) {
  PROVES("client.wait.3", "once ready a wait succeeds at once, and its out-pointer receives nil");
  becomeReady("id");
  NSError error = platformError();
  EXPECT_TRUE(client->waitUntilReady(600, &error));
  EXPECT_TRUE(error.isNil());
}

TEST_F(ClientReadiness, WaitingOnceReadyWritesAnEarlierErrorToo) {
  PROVES("client.wait.4", "once ready a wait succeeds even when an error is recorded, which the out-pointer receives");
  becomeReady("id");
  client->connectionError(platformError());
  NSError error;
  EXPECT_TRUE(client->waitUntilReady(600, &error));
  EXPECT_EQ(error, platformError());
}

TEST_F(ClientReadiness, WaitingAfterAnErrorFailsAtOnce) {
  PROVES("client.wait.5", "once an error is recorded, and no identifier, a wait fails at once with it");
  configure();
  client->connectionError(platformError());
  NSError error;
  EXPECT_FALSE(client->waitUntilReady(600, &error));
  EXPECT_EQ(error, platformError());
}

TEST_F(ClientReadiness, TheErrorIsNotWantedByEveryone) {
  PROVES("client.wait.6", "without an out-pointer a wait has the same results");
  configure();
  EXPECT_FALSE(client->waitUntilReady(0));
  EXPECT_FALSE(client->waitUntilReady(0.01));
  client->connectionError(platformError());
  EXPECT_FALSE(client->waitUntilReady(600));
  giveIdentifier("id");
  EXPECT_TRUE(client->waitUntilReady(600));
}

TEST_F(ClientReadiness, AHugeTimeIsAWaitForTheEvent) {
  PROVES("client.wait.7", "times too large to be dates are waits for the event alone");
  configure();
  NSError error;
  auto waiter = waitAsleep(std::numeric_limits<double>::infinity(), error);
  client->connectionError(platformError());
  EXPECT_FALSE(finish(waiter));
  EXPECT_EQ(error, platformError());
  EXPECT_FALSE(client->waitUntilReady(1e300));
}

TEST_F(ClientReadiness, AnEventIsNeverSleptThrough) {
  PROVES("client.wait.8", "however wait and event fall together, the wait sees the event");
  for (int round = 0; round < 100; ++round) {
    const auto each = VeltoConnection::init();
    auto waiter = inBackground([&] { return each->waitUntilReady(600); });
    each->connectionUUID("id");
    ASSERT_TRUE(finish(waiter));
  }
}

TEST_F(ClientReadiness, ReadyThenClosedStaysReadyWithItsError) {
  PROVES("client.wait.9", "ready, then closed: a wait still succeeds, with the error of the invalidation");
  becomeReady("id");
  client->close();
  peer().playInvalidation();
  NSError error;
  EXPECT_TRUE(client->waitUntilReady(600, &error));
  expectError(error, 2, "Listener connection invalidated");
}

}  // namespace
}  // namespace velto::testing
