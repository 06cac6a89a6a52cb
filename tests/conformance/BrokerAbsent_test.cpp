// The link to a broker that is not there, that goes away, or that never answers.

#include <algorithm>
#include <csignal>

#include "platform/xpc/NSXPCError.h"
#include "tests/conformance/Statements.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

using BrokerAbsent = QuietTest;

TEST_F(BrokerAbsent, TheLinkIsMadeAndFailsLater) {
  PROVES(
      "broker.absent.1",
      "without a broker a link is made, resumed and logged as ever; the delegate then hears that it was invalidated");
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto client = VeltoConnection::initWithServiceName("name", delegate);
  EXPECT_EQ(log.count(2, "DaemonConnection Created"), 1u);
  EXPECT_NE(client->daemonConnection(), nullptr);
  const Event event = delegate->waitForError("Daemon connection invalidated");
  EXPECT_TRUE(event.connectionID.isNil());
  expectError(event.error, 2, "Daemon connection invalidated");
  EXPECT_TRUE(log.waitFor(0, "Daemon connection invalidated"));
  client->close();
  waitUntilAlone(client);
}

TEST_F(BrokerAbsent, TheLookupFailsWithThePlatformsError) {
  PROVES("broker.absent.2",
         "without a broker waiting for readiness fails with the platform's error, which the delegate hears too");
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto client = VeltoConnection::initWithServiceName("name", delegate);
  NSError error;
  EXPECT_FALSE(client->waitUntilReady(3600, &error));
  expectPlatformError(error, NSXPCConnectionInvalid);
  ASSERT_TRUE(delegate->waitForErrors(2));
  const auto isThatError = [&](const Event& event) { return event.error == error && event.connectionID.isNil(); };
  const auto errors = delegate->errors();
  EXPECT_EQ(std::count_if(errors.begin(), errors.end(), isThatError), 1);
  EXPECT_EQ(log.containing(0, "Velto lost connection with VeltoIPCDaemon ").size(), 1u);
  client->close();
  waitUntilAlone(client);
}

TEST_F(BrokerAbsent, ABrokerThatSaysGoodbyeIsReportedAndChangesNothingElse) {
  PROVES("broker.absent.3",
         "a broker that says goodbye is reported as an invalidated link; the established connection goes on");
  const auto broker = ScriptedBroker::start();
  const auto listener = BareListener::start();
  broker->answerWith(listener->endpoint());
  ClientEnd client("name");
  listener->waitForClient()->call<&VeltoCommunicationMessageProtocol::connectionUUID>(NSString("id"));
  client.ready();
  broker->dropLinks();
  EXPECT_TRUE(client.delegate->waitForError("Daemon connection invalidated").connectionID.isNil());
  EXPECT_EQ(client.delegate->errors().size(), 1u);
  EXPECT_NE(client.connection->daemonConnection(), nullptr) << "the owner keeps its dead link";
  EXPECT_TRUE(client.connection->sendMessage(NSDictionary{{"still", "here"}}));
  EXPECT_EQ(listener->exported->waitFor("connectionID:withMessage:handler:").connectionID, NSString("id"));
  client.connection->close();
  broker->stop();
}

TEST_F(BrokerAbsent, ABrokerThatIsKilledIsReportedTwiceAndChangesNothingElse) {
  PROVES("broker.absent.5",
         "a broker that is killed is reported by both ends' links as interrupted, then as invalidated; messages go on");
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  Pair pair;
  pair.server.delegate->echo();
  daemon.process().signal(SIGKILL);
  daemon.process().wait();
  for (const auto& delegate : {pair.client.delegate, pair.server.delegate}) {
    ASSERT_TRUE(delegate->waitForErrors(2));
    const auto errors = delegate->errors();
    ASSERT_EQ(errors.size(), 2u);
    expectError(errors[0].error, 2, "Daemon connection interrupted");
    expectError(errors[1].error, 2, "Daemon connection invalidated");
    for (const Event& event : errors) EXPECT_TRUE(event.connectionID.isNil());
  }
  pair.roundTrip();
  NSError error = NSError::errorWithDomain("nothing", 1, nil);
  EXPECT_TRUE(pair.client.connection->waitUntilReady(0, &error));
  EXPECT_TRUE(error.isNil()) << "the link's end is not recorded";
}

TEST_F(BrokerAbsent, ABrokerThatNeverAnswersLetsTheTimeRunOut) {
  PROVES("broker.absent.4",
         "a lookup has no time-out of its own: while the broker is silent only the waiter's time ends");
  const auto broker = ScriptedBroker::start();
  ClientEnd client("name");
  NSError error;
  EXPECT_FALSE(client.connection->waitUntilReady(0.02, &error));
  expectError(error, 6, "Timed out waiting");
  const auto asked = [&] { return broker->calls() == std::vector<std::string>{"find name"}; };
  EXPECT_TRUE(eventually(asked)) << "one lookup and nothing else";
  EXPECT_TRUE(client.delegate->errors().empty());
  broker->answerWith(nil);
  client.delegate->waitForError("Listener not available");
  broker->stop();
}

}  // namespace
}  // namespace velto::testing
