// monitor: what it shows, and that neither end notices.
#include <csignal>
#include <future>

#include <unistd.h>

#include "tests/support/RecordingDelegate.h"
#include "tests/veltoctl/Command.h"
#include "tools/ValueFromJSON.h"

namespace velto::testing {

using ctl::ExitCode;

namespace {

constexpr char kName[] = "org.example.a";

class Monitored : public WithBroker {
 protected:
  Monitored() {
    service.on("echo", [](const Request& request) { request.reply(request.message()); });
    service.on("fail", [](const Request& request) { request.fail("it cannot be done", 7); });
    service.on("drop", [](const Request& request) { request.drop("no answer"); });
    service.on("keep", [this](const Request& request) { kept.push_back(request); });
    start(service);
  }

  // Once it stands in.
  std::unique_ptr<Running> monitor() const {
    auto running = std::make_unique<Running>(std::vector<std::string>{"--json", "monitor", kName});
    EXPECT_TRUE(eventually([] { return standIn() != 0; }));
    return running;
  }
  static pid_t standIn() { return static_cast<pid_t>(infoOf(kName)["standIn"].to<std::int32_t>().value_or(0)); }
  static NSDictionary event(Running& running, const std::string& text) {
    return tools::valueFromJSON(running.lineWith(text)).as<NSDictionary>();
  }

  std::vector<Request> kept;
  Service service{kName};
};

}  // namespace

TEST_F(Monitored, WhatIsSaidIsShownBothWays) {
  const auto running = monitor();
  EXPECT_EQ(run({"send", kName, R"({"op": "echo", "n": 1})"}).output, "{\"op\":\"echo\",\"n\":1}\n");
  const NSDictionary opened = event(*running, "opened");
  EXPECT_EQ(opened["connection"], NSObject(1));
  EXPECT_GT(opened["client"].doubleValue(), 0);
  const NSDictionary call = event(*running, "call:terms:message:outcome:");
  EXPECT_EQ(call["direction"], NSObject("toService"));
  EXPECT_EQ(call["arguments"].as<NSArray>()[2], NSObject(NSDictionary{{"op", "echo"}, {"n", 1}}));
  const NSDictionary reply = event(*running, R"("value":{"reply")");
  EXPECT_EQ(reply["kind"], NSObject("reply"));
  EXPECT_EQ(reply["direction"], NSObject("toClient"));
  EXPECT_EQ(event(*running, "goodbye")["direction"], NSObject("toService"));
  EXPECT_NE(running->lineWith("closed"), "");
  running->signal(SIGINT);
  EXPECT_EQ(running->wait(), 0);
}

TEST_F(Monitored, EveryKindOfAnswerIsTheSame) {
  const auto running = monitor();
  const Ran failed = run({"send", kName, R"({"op": "fail"})"});
  EXPECT_EQ(failed.code, code(ExitCode::answeredWithError));
  EXPECT_EQ(failed.errors, "veltoctl: it cannot be done\n");
  EXPECT_EQ(run({"send", kName, R"({"op": "drop"})"}).code, code(ExitCode::unanswered));
  EXPECT_EQ(run({"send", kName, R"({"op": "none"})"}).code, code(ExitCode::refused));
  EXPECT_EQ(run({"send", kName, R"({"op": "keep"})", "--timeout", "0.2"}).code, code(ExitCode::timedOut));
  // It holds messages to the plain types, and the client knows.
  EXPECT_EQ(run({"send", kName, R"({"op": "echo", "when": {"$date": 1.0}})"}).code, code(ExitCode::refused));
  ASSERT_TRUE(eventually([this] { return !kept.empty(); }));
  EXPECT_TRUE(eventually([this] { return kept.front().isCancelled(); }));
}

TEST_F(Monitored, LargeMessagesAndDescriptorsPass) {
  const auto running = monitor();
  auto client = Client::connect(kName, {.patience = kBound}).value();
  // More than a frame holds: it goes in shared memory, as a descriptor.
  const NSDictionary message{{"op", "echo"},
                             {"data", NSData::dataWithVector(std::vector<std::uint8_t>(20'000'000, 7))}};
  const auto reply = client.call(message, {.timeout = kBound}).get();
  ASSERT_TRUE(reply) << reply.error();
  EXPECT_EQ(reply->objectForKey("data"), message["data"]);
}

TEST_F(WithBroker, TheOlderClassesDoNotNoticeEither) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto listener = VeltoListener::initWithServiceName(kName, delegate);
  ASSERT_TRUE(isServed(kName));
  Running running({"--json", "monitor", kName});
  ASSERT_TRUE(eventually([] { return !infoOf(kName)["standIn"].isNil(); }));
  const auto connection = VeltoConnection::initWithServiceName(kName, nullptr);
  ASSERT_TRUE(connection->waitUntilReady(20));
  const NSString identifier = connection->getID();
  // The listener knows it by the identifier that the client was given.
  EXPECT_TRUE(eventually([&] { return listener->isConnectionActive_internal(identifier); }));
  EXPECT_TRUE(connection->sendMessage({{"n", 1}}));
  NSError error;
  EXPECT_FALSE(connection->sendMessage({{"when", NSDate::date()}}, &error));
  EXPECT_EQ(error.code(), 3);
  // And the other way.
  EXPECT_TRUE(eventually([&] { return listener->sendMessage({{"n", 2}}, identifier); }));
  EXPECT_NE(running.lineWith(R"({"n":2})"), "");
  connection->close();
  EXPECT_TRUE(eventually([&] { return !listener->isConnectionActive_internal(identifier); }));
  listener->close();
}

TEST_F(WithBroker, AServiceThatVanishesVanishesForItsClients) {
  ChildProcess service({VELTO_ACTIVATION_GUEST, "serve", kName});
  ASSERT_EQ(service.readLine(), "serving");
  Running running({"--json", "monitor", kName});
  ASSERT_TRUE(eventually([] { return !infoOf(kName)["standIn"].isNil(); }));
  std::promise<CallError> lost;
  ClientOptions options{.patience = kBound};
  options.onLost = [&lost](const CallError& error) { lost.set_value(error); };
  const auto client = Client::connect(kName, std::move(options)).value();
  ASSERT_TRUE(client.call({{"n", 1}}).get());
  service.signal(SIGKILL);
  auto told = lost.get_future();
  ASSERT_EQ(told.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(told.get().failure(), Failure::peerGone);
}

TEST_F(Monitored, WhenItIsKilledConnectionsGoOnAndNewOnesGoStraight) {
  const auto running = monitor();
  const pid_t relaying = standIn();
  const auto client = Client::connect(kName, {.patience = kBound}).value();
  ASSERT_TRUE(client.call({{"op", "echo"}}).get());
  running->signal(SIGKILL);
  EXPECT_EQ(running->wait(), -SIGKILL);
  EXPECT_TRUE(eventually([] { return standIn() == 0; }));
  EXPECT_TRUE(client.call({{"op", "echo"}}).get());
  EXPECT_EQ(run({"send", kName, R"({"op": "echo"})"}).code, 0);
  EXPECT_EQ(::kill(relaying, 0), 0);
}

TEST_F(Monitored, WhenWhatRelaysIsKilledTheRealOneIsFoundAgain) {
  const auto running = monitor();
  const pid_t relaying = standIn();
  ASSERT_GT(relaying, 0);
  ASSERT_NE(relaying, running->processID());
  ASSERT_EQ(::kill(relaying, SIGKILL), 0);
  EXPECT_EQ(running->wait(), code(ExitCode::failure));
  EXPECT_EQ(run({"send", kName, R"({"op": "echo"})"}).code, 0);
  EXPECT_EQ(standIn(), 0);
}

TEST_F(Monitored, AServiceThatTakesTheNameOverIsTheOneThatIsMonitored) {
  const auto running = monitor();
  Service second(kName);
  second.onOther([](const Request& request) { request.reply({{"second", true}}); });
  start(second);
  EXPECT_EQ(run({"send", kName, "{}"}).output, "{\"second\":true}\n");
  EXPECT_NE(running->lineWith("opened"), "");
  EXPECT_NE(standIn(), 0);
}

TEST_F(Monitored, ASecondMonitorIsRefused) {
  const auto running = monitor();
  const Ran second = run({"monitor", kName});
  EXPECT_EQ(second.code, code(ExitCode::refused));
  EXPECT_NE(second.errors.find("stands in for org.example.a already"), std::string::npos) << second.errors;
}

TEST_F(WithBroker, ANameThatNobodyServesIsNotMonitored) {
  EXPECT_EQ(run({"monitor", kName}).code, code(ExitCode::notFound));
}

}  // namespace velto::testing
