// list, info, wait.
#include <thread>

#include <unistd.h>

#include "VeltoIPC/Limits.h"
#include "tests/veltoctl/Command.h"

namespace velto::testing {

using ctl::ExitCode;

TEST_F(WithBroker, ListTellsNamesInTheirOrderAndWhoServesThem) {
  Service second("org.example.b"), first("org.example.a");
  start(second);
  start(first);
  const Ran ran = run({"list", "--json"});
  EXPECT_EQ(ran.code, 0);
  const NSArray names = ran.json().as<NSArray>();
  ASSERT_EQ(names.count(), 2u);
  const NSDictionary name = names[0].as<NSDictionary>();
  EXPECT_EQ(name["name"], NSObject("org.example.a"));
  EXPECT_EQ(name["process"], NSObject(::getpid()));
  EXPECT_EQ(name["user"], NSObject(static_cast<std::int64_t>(::getuid())));
  EXPECT_NE(name["command"].stringValue().find("veltoctl_test"), std::string::npos);
  EXPECT_TRUE(name["since"].is<NSDate>());
  EXPECT_LT(std::abs(name["since"].as<NSDate>().timeIntervalSinceNow()), 60);
  EXPECT_EQ(names[1].as<NSDictionary>()["name"], NSObject("org.example.b"));
}

TEST_F(WithBroker, ListHasALineForEachNameAndNothingElseOnStandardOutput) {
  EXPECT_EQ(run({"list"}).output, "");
  EXPECT_EQ(run({"list"}).errors, "veltoctl: no name is registered\n");
  Service service("org.example.a");
  start(service);
  const Ran ran = run({"list"});
  ASSERT_EQ(ran.lines().size(), 1u) << ran.output;
  EXPECT_TRUE(ran.lines()[0].starts_with("org.example.a  " + std::to_string(::getpid()) + "  ")) << ran.output;
  EXPECT_EQ(ran.errors, "");
}

TEST_F(WithBroker, ListTellsMoreNamesThanOneAnswerHas) {
  std::vector<std::unique_ptr<Service>> services;
  for (std::size_t each = 0; each < limits::kBrokerNamesOfOneAnswer + 3; ++each) {
    services.push_back(std::make_unique<Service>("org.example." + std::to_string(each)));
    services.back()->start();
  }
  for (const auto& each : services) ASSERT_FALSE(each->waitUntilRegistered(kBound));
  EXPECT_EQ(run({"list", "--json"}).json().as<NSArray>().count(), services.size());
}

TEST_F(WithBroker, ANameThatWouldWriteToTheTerminalIsMadeHarmless) {
  Service service("org.\033[31mred");
  start(service);
  EXPECT_TRUE(run({"list"}).output.starts_with("org.\\x1b[31mred  "));
  EXPECT_EQ(run({"list"}).output.find('\033'), std::string::npos);
}

TEST_F(WithBroker, InfoTellsWhoServesANameAndWhatHasGoneOverIt) {
  Service service("org.example.a");
  service.onOther([](const Request& request) { request.reply(request.message()); });
  start(service);
  ASSERT_EQ(run({"send", "org.example.a", "{}"}).code, 0);
  const NSDictionary info = infoOf("org.example.a");
  EXPECT_EQ(info["process"], NSObject(::getpid()));
  const NSDictionary traffic = info["traffic"].as<NSDictionary>();
  EXPECT_EQ(traffic["accepted"], NSObject(1));
  EXPECT_GT(traffic["messagesIn"].doubleValue(), 0);
  EXPECT_GT(traffic["bytesOut"].doubleValue(), 0);
  const Ran text = run({"info", "org.example.a"});
  EXPECT_NE(text.output.find("process      " + std::to_string(::getpid())), std::string::npos) << text.output;
}

TEST_F(WithBroker, InfoOfANameThatNobodyServesSaysSo) {
  const Ran ran = run({"info", "org.example.a"});
  EXPECT_EQ(ran.code, code(ExitCode::notFound));
  EXPECT_EQ(ran.output, "");
  EXPECT_EQ(ran.errors, "veltoctl: nobody serves \"org.example.a\"\n");
}

TEST_F(WithBroker, WaitEndsWhenTheNameIsServed) {
  Running waiting({"wait", "org.example.a", "--json"});
  // It waits by then, or will find the name.
  EXPECT_TRUE(eventually([] {
    const NSObject stats = run({"stats", "--json"}).json();
    return stats.as<NSDictionary>()["broker"].as<NSDictionary>()["waiters"] == NSObject(1);
  }));
  Service service("org.example.a");
  start(service);
  EXPECT_NE(waiting.lineWith("org.example.a"), "");
  EXPECT_EQ(waiting.wait(), 0);
}

TEST_F(WithBroker, WaitEndsWithItsTime) {
  EXPECT_EQ(run({"wait", "org.example.a", "--timeout", "0.2"}).code, code(ExitCode::timedOut));
  EXPECT_EQ(run({"wait", "org.example.a", "--timeout", "0"}).code, code(ExitCode::timedOut));
}

TEST(WithoutABroker, EveryCommandThatNeedsOneSaysSo) {
  const RuntimeDirectory directory;
  for (const std::vector<std::string>& each : std::vector<std::vector<std::string>>{
           {"list"}, {"info", "a"}, {"send", "a", "{}"}, {"bench", "a"}, {"monitor", "a"}, {"stats"}, {"top"}}) {
    const Ran ran = run(each);
    EXPECT_EQ(ran.code, code(ExitCode::noBroker)) << each[0] << ran.errors;
    EXPECT_NE(ran.errors.find("veltoctl doctor"), std::string::npos) << each[0];
  }
  EXPECT_EQ(run({"wait", "a", "--timeout", "0.3"}).code, code(ExitCode::noBroker));
}

TEST(TheCommandLine, IsCheckedAndSaysWhatIsWrong) {
  for (const std::vector<std::string>& each : std::vector<std::vector<std::string>>{{},
                                                                                    {"nothing"},
                                                                                    {"info"},
                                                                                    {"wait", "a", "--timeout", "x"},
                                                                                    {"send", "a", "--count", "0"},
                                                                                    {"list", "--no"}}) {
    const Ran ran = run(each);
    EXPECT_EQ(ran.code, code(ExitCode::usage)) << ran.errors;
    EXPECT_EQ(ran.output, "");
  }
  EXPECT_EQ(run({"--version"}).code, 0);
  EXPECT_EQ(run({"send", "--help"}).code, 0);
}

TEST(Failures, AreJSONWhereThatIsWanted) {
  const RuntimeDirectory directory;
  Ran ran = run({"--json", "list"});
  ran.output = ran.errors;
  const NSDictionary error = ran.json().as<NSDictionary>()["error"].as<NSDictionary>();
  EXPECT_EQ(error["code"], NSObject(code(ExitCode::noBroker)));
  EXPECT_EQ(error["name"], NSObject("noBroker"));
  EXPECT_TRUE(error["text"].is<NSString>());
}

}  // namespace velto::testing
