// What programs write to standard error when nobody has set up logging: nothing, as long as everybody leaves in good
// order; and the failures of those who do not.

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <signal.h>

#include "VeltoIPC/Client.h"
#include "VeltoIPC/Service.h"
#include "tests/peer/Payload.h"
#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

constexpr const char* kQuietName = "org.velto.test.quiet";

// Standard error and the log are as in a program that has just begun.
class QuietLife : public ::testing::Test {
 protected:
  QuietLife() {
    VKTLogSetSink(nullptr);
    VKTLogSetLevel(VKTLogLevelFailure);
    ::testing::internal::CaptureStderr();
  }
  ~QuietLife() override {
    if (!isRead_) written();
    // What is still being closed would write to the output of the next test.
    VKTLogSetSink([](const VKTLogAnchor&, int, const NSString&) {});
  }

  std::string written() {
    isRead_ = true;
    return ::testing::internal::GetCapturedStderr();
  }
  static std::unique_ptr<ListenerEnd> makeListener() {
    auto made = std::make_unique<ListenerEnd>(kQuietName);
    made->delegate->echo();
    return made;
  }
  // Ready at both ends, with a message in each direction behind it.
  static std::unique_ptr<ClientEnd> makeClient(const ListenerEnd& listener) {
    auto made = std::make_unique<ClientEnd>(kQuietName);
    made->delegate->echo();
    const NSString id = made->ready();
    EXPECT_EQ(made->connection->sendMessageSync(messageOf("echo:1"), 20.0), messageOf("echo:1"));
    EXPECT_EQ(listener.listener->sendMessageSync(messageOf("echo:2"), id, 20.0), messageOf("echo:2"));
    return made;
  }

 private:
  bool isRead_ = false;
  const RuntimeDirectory directory_;
};

// Who leaves in which order: the broker, the listener, the client.
class EveryOrderOfLeaving : public QuietLife, public ::testing::WithParamInterface<std::string> {};

TEST_P(EveryOrderOfLeaving, IsQuiet) {
  auto broker = std::make_unique<BrokerHere>();
  auto listener = makeListener();
  auto client = makeClient(*listener);
  for (const char who : GetParam()) {
    if (who == 'L') listener.reset();
    if (who == 'C') client.reset();
    if (who != 'B') continue;
    broker.reset();
    if (listener) listener->delegate->waitForError("Daemon connection invalidated");
    if (client) client->delegate->waitForError("Daemon connection invalidated");
  }
  EXPECT_EQ(written(), "");
}

INSTANTIATE_TEST_SUITE_P(Is, EveryOrderOfLeaving, ::testing::Values("BLC", "BCL", "LBC", "LCB", "CBL", "CLB"),
                         [](const ::testing::TestParamInfo<std::string>& order) { return order.param; });

TEST_F(QuietLife, AClientThatIsClosedBeforeItIsReadyIsQuiet) {
  const BrokerHere broker;
  {
    const auto listener = makeListener();
    for (int each = 0; each < 50; ++each) {
      const ClientEnd client(kQuietName);
      // Some get further than others.
      if (each % 2 == 1) listener->delegate->waitForReadies(static_cast<std::size_t>(each / 2));
      client.connection->close();
    }
  }
  EXPECT_EQ(written(), "");
}

TEST_F(QuietLife, MessagesThatAreUnderWayWhenAnEndLeavesAreLostQuietly) {
  const BrokerHere broker;
  for (const bool clientLeaves : {true, false}) {
    auto listener = std::make_unique<ListenerEnd>(kQuietName);
    auto client = std::make_unique<ClientEnd>(kQuietName);
    const NSString id = client->ready();
    for (int each = 0; each < 50; ++each) {
      client->connection->sendMessage(messageOf("silence:"), nullptr, [](const NSDictionary&) {});
      listener->listener->sendMessage(messageOf("silence:"), id, nullptr, [](const NSDictionary&) {});
    }
    clientLeaves ? client.reset() : listener.reset();
    if (client) client->delegate->waitForError("Listener connection invalidated");
    if (listener) listener->delegate->waitForError("Connection invalidated");
  }
  EXPECT_EQ(written(), "");
}

TEST_F(QuietLife, ADelegateThatOutlivesItsEndOrGoesBeforeItIsQuiet) {
  const BrokerHere broker;
  const auto listener = makeListener();
  auto survivor = std::make_shared<RecordingDelegate>();
  auto early = VeltoConnection::initWithServiceName(kQuietName, survivor);
  EXPECT_TRUE(early->waitUntilReady(20.0));
  early->close();
  waitUntilAlone(early);
  early.reset();
  survivor->waitForErrors(2);
  const auto orphan = VeltoConnection::initWithServiceName(kQuietName, survivor);
  EXPECT_TRUE(orphan->waitUntilReady(20.0));
  survivor.reset();
  orphan->close();
  waitUntilAlone(orphan);
  EXPECT_EQ(written(), "");
}

TEST_F(QuietLife, AClientThatReconnectsToAServiceThatGoesAndComesBackIsQuiet) {
  {
    auto broker = std::make_unique<BrokerHere>();
    std::optional<Client> client;
    for (int life = 0; life < 2; ++life) {
      Service service(kQuietName);
      service.onOther([](const Request& request) { request.reply(request.message()); });
      service.start();
      if (!client) client = Client::connect(kQuietName, {.reconnects = true}).value();
      // It need not have heard yet that the first service has gone.
      EXPECT_TRUE(client->call(messageOf("echo:1"), {.isIdempotent = true}).get());
      client->call(messageOf("echo:2")).cancel();
      EXPECT_TRUE(service.stop(std::chrono::seconds(20)));
    }
    client->close();
  }
  EXPECT_EQ(written(), "");
}

TEST_F(QuietLife, TheBrokersProgramSaysThatItListensAndNothingElse) {
  DaemonProcess daemon;
  {
    const auto listener = makeListener();
    const auto client = makeClient(*listener);
  }
  daemon.process().signal(SIGTERM);
  EXPECT_EQ(daemon.process().readLine(), std::nullopt);
  EXPECT_EQ(daemon.process().wait(), 0);
  EXPECT_EQ(daemon.words().find("VeltoIPCDaemon: listening on "), 0U);
  EXPECT_EQ(written(), "");
}

TEST_F(QuietLife, ABrokerThatIsKilledIsAFailure) {
  DaemonProcess daemon;
  const auto listener = makeListener();
  daemon.process().signal(SIGKILL);
  listener->delegate->waitForError("Daemon connection invalidated");
  EXPECT_EQ(written(), "VeltoIPC: Daemon connection interrupted\nVeltoIPC: Daemon connection invalidated\n");
}

TEST_F(QuietLife, ProgressShowsEveryEnd) {
  const BrokerHere broker;
  VKTLogSetLevel(VKTLogLevelProgress);
  makeClient(*makeListener()).reset();
  EXPECT_NE(written().find("VeltoIPC: Daemon connection invalidated\n"), std::string::npos);
}

#ifdef VELTO_EXAMPLE_LISTENER

// What the library said, of all that a program has written until its end.
std::string libraryLines(ChildProcess& program) {
  std::string lines;
  while (const auto line = program.readLine()) {
    if (line->find("VeltoIPC: ") == 0) lines += *line + "\n";
  }
  EXPECT_EQ(program.wait(), 0);
  return lines;
}

// They show failures, too, and these are all that is written.
TEST_F(QuietLife, TheExamplesWriteTheFailuresThatTheyShow) {
  using Errors = ChildProcess::Errors;
  DaemonProcess daemon;
  ChildProcess listener({VELTO_EXAMPLE_LISTENER, "3"}, Errors::joinOutput);
  // The first of its three clients finds out when it can be found.
  EXPECT_TRUE(eventually([] {
    ClientEnd client("org.velto.examples.machine");
    return client.connection->waitUntilReady(20.0);
  }));
  ChildProcess facts({VELTO_EXAMPLE_CLIENT, "facts", "facts"}, Errors::joinOutput);
  EXPECT_EQ(libraryLines(facts),
            "VeltoIPC: Failed Type Checking with the following object NSDate with ClassName NSDate\n"
            "VeltoIPC: VeltoConnection SendMessage failed message type check\n");
  ChildProcess files({VELTO_EXAMPLE_CLIENT, "files", "files", VELTO_EXAMPLE_CLIENT}, Errors::joinOutput);
  EXPECT_EQ(libraryLines(files), "VeltoIPC: Endpoint for org.velto.examples.nobody is Nill\n");
  EXPECT_EQ(libraryLines(listener), "");
}

#endif

}  // namespace
}  // namespace velto::testing
