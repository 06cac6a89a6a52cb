// bench, stats, top, doctor, and what terminals get.
#include <filesystem>

#include <unistd.h>

#include "tests/veltoctl/Command.h"

namespace velto::testing {

using ctl::ExitCode;

namespace {

constexpr char kName[] = "org.example.a";

class Serving : public WithBroker {
 protected:
  Serving() {
    service.onOther([](const Request& request) { request.reply(request.message()); });
    start(service);
  }
  static NSDictionary finding(const Ran& ran, const char* subject) {
    for (const NSObject& each : ran.json().as<NSArray>()) {
      if (each.as<NSDictionary>()["subject"] == NSObject(subject)) return each.as<NSDictionary>();
    }
    return nil;
  }

  Service service{kName};
};

}  // namespace

TEST_F(Serving, BenchMeasuresAsManyCallsAsItIsTold) {
  const Ran ran = run({"bench", kName, "--count", "200", "--concurrency", "4", "--json"});
  ASSERT_EQ(ran.code, 0) << ran.errors;
  const NSDictionary result = ran.json().as<NSDictionary>();
  EXPECT_EQ(result["calls"], NSObject(200));
  const NSDictionary latency = result["latency"].as<NSDictionary>();
  double before = 0;
  for (const char* const each : {"min", "p50", "p90", "p99", "p99.9", "max"}) {
    EXPECT_GE(latency[each].doubleValue(), before) << each;
    before = latency[each].doubleValue();
  }
  EXPECT_GT(latency["min"].doubleValue(), 0);
  double counted = 0;
  for (const NSObject& each : result["histogram"].as<NSArray>()) counted += each.as<NSArray>()[1].doubleValue();
  EXPECT_EQ(counted, 200);
}

TEST_F(Serving, BenchTellsPeopleAHistogramAndShowsProgressOnATerminalOnly) {
  const Ran ran = run({"bench", kName, "--duration", "0.3"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_NE(ran.output.find("p99.9"), std::string::npos);
  EXPECT_NE(ran.output.find("##"), std::string::npos);
  EXPECT_EQ(ran.errors, "");
  EXPECT_NE(runOnTerminal({"bench", kName, "--duration", "0.3"}).output.find("\r["), std::string::npos);
}

TEST_F(Serving, BenchEndsWithTheFirstFailure) {
  EXPECT_EQ(run({"bench", "org.example.none"}).code, code(ExitCode::notFound));
  EXPECT_EQ(run({"bench", kName, R"({"when": {"$date": 1.0}})", "--count", "5"}).code, code(ExitCode::refused));
}

TEST_F(Serving, StatsCountsWhatHasGoneOverConnections) {
  ASSERT_EQ(run({"send", kName, "{}", "--count", "10"}).code, 0);
  const Ran ran = run({"stats", "--json"});
  ASSERT_EQ(ran.code, 0) << ran.errors;
  const NSDictionary stats = ran.json().as<NSDictionary>();
  const NSDictionary broker = stats["broker"].as<NSDictionary>();
  EXPECT_EQ(broker["process"], NSObject(daemon.process().processID()));
  EXPECT_EQ(broker["names"], NSObject(1));
  EXPECT_EQ(broker["registrations"], NSObject(1));
  EXPECT_GE(broker["lookUps"].doubleValue(), 1);
  const NSDictionary name = stats["names"].as<NSArray>()[0].as<NSDictionary>();
  const NSDictionary traffic = name["traffic"].as<NSDictionary>();
  EXPECT_GE(traffic["messagesIn"].doubleValue(), 10);
  EXPECT_GE(traffic["messagesOut"].doubleValue(), 10);
  EXPECT_GE(traffic["bytesIn"].doubleValue(), 10 * 8);
  EXPECT_EQ(traffic["undeliveredBytes"], NSObject(0));
  EXPECT_NE(run({"stats"}).output.find(kName), std::string::npos);
}

TEST_F(Serving, TopTellsRatesAgainAndAgain) {
  Running sending({"send", kName, "{}", "--count", "1000000"}, ChildProcess::Errors::inherit);
  ASSERT_TRUE(sending.readLine());
  const Ran ran = run({"top", "--count", "2", "--interval", "0.3", "--json"});
  ASSERT_EQ(ran.lines().size(), 2u) << ran.errors;
  Ran last;
  last.output = ran.lines()[1];
  const NSDictionary name = last.json().as<NSDictionary>()["names"].as<NSArray>()[0].as<NSDictionary>();
  EXPECT_EQ(name["traffic"].as<NSDictionary>()["connections"], NSObject(1));
  const Ran text = run({"top", "--count", "1", "--interval", "0.1"});
  EXPECT_NE(text.output.find("CLIENTS"), std::string::npos);
  EXPECT_EQ(text.output.find('\033'), std::string::npos);
}

TEST_F(Serving, TopHasAScreenOfItsOwnOnATerminal) {
  const Ran ran = runOnTerminal({"top", "--count", "1", "--interval", "0.1"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_TRUE(ran.output.find("\033[?1049h") != std::string::npos &&
              ran.output.find("\033[?1049l") != std::string::npos);
}

TEST_F(Serving, ColoursAreForTerminalsThatWantThem) {
  ::unsetenv("NO_COLOR");
  EXPECT_EQ(run({"info", kName}).output.find('\033'), std::string::npos);
  EXPECT_NE(runOnTerminal({"info", kName}).output.find("\033[1m"), std::string::npos);
  ::setenv("NO_COLOR", "1", 1);
  const Ran plain = runOnTerminal({"info", kName});
  ::unsetenv("NO_COLOR");
  EXPECT_NE(plain.output.find(kName), std::string::npos);
  EXPECT_EQ(plain.output.find('\033'), std::string::npos);
}

TEST_F(Serving, DoctorFindsNothingInAHealthySystem) {
  const Ran ran = run({"doctor", "--json"});
  EXPECT_EQ(ran.code, 0) << ran.output;
  for (const char* const each : {"runtime directory", "/proc", "endpoints", "broker", "listeners"}) {
    EXPECT_EQ(finding(ran, each)["finding"], NSObject("good")) << each << ran.output;
  }
}

TEST_F(Serving, DoctorTellsThatOthersMayWriteToTheRuntimeDirectoryAndHowToMendIt) {
  std::filesystem::permissions(directory.path(), std::filesystem::perms::all);
  const Ran ran = run({"doctor", "--json"});
  std::filesystem::permissions(directory.path(), std::filesystem::perms::owner_all);
  EXPECT_EQ(ran.code, code(ExitCode::failure));
  const NSDictionary found = finding(ran, "runtime directory");
  EXPECT_EQ(found["finding"], NSObject("bad"));
  EXPECT_EQ(found["remedy"], NSObject("close it to others: chmod 700 " + directory.path().string()));
}

TEST(WithoutABroker, DoctorTellsWhetherOneCanBeStarted) {
  const RuntimeDirectory directory;
  EXPECT_NE(run({"doctor"}).output.find("none runs, and none can be started"), std::string::npos);
  ::setenv("VELTO_IPC_DAEMON", VELTO_DAEMON, 1);
  const Ran ran = run({"doctor"});
  ::setenv("VELTO_IPC_DAEMON", "", 1);
  EXPECT_EQ(ran.code, 0);
  EXPECT_NE(ran.output.find("none runs; it is started when one is needed"), std::string::npos) << ran.output;
}

TEST(WithoutARuntimeDirectory, DoctorSaysWhy) {
  const RuntimeDirectory directory;
  const auto missing = (directory.path() / "missing").string();
  ::setenv("XDG_RUNTIME_DIR", missing.c_str(), 1);
  const Ran ran = run({"doctor"});
  ::setenv("XDG_RUNTIME_DIR", directory.path().c_str(), 1);
  EXPECT_EQ(ran.code, code(ExitCode::failure));
  EXPECT_NE(ran.output.find("make it: mkdir -m 700 " + missing), std::string::npos) << ran.output;
}

}  // namespace velto::testing
