// send, listen: messages there and back, and every way in which that can fail.
#include <fstream>

#include "platform/foundation/JSON.h"
#include "tests/veltoctl/Command.h"

namespace velto::testing {

using ctl::ExitCode;

namespace {

constexpr char kName[] = "org.example.a";

class Sending : public WithBroker {
 protected:
  Sending() {
    service.on("echo", [](const Request& request) { request.reply(request.message()); });
    service.on("fail", [](const Request& request) { request.fail("it cannot be done", 7); });
    service.on("drop", [](const Request& request) { request.drop("no answer"); });
    service.on("refuse", [](const Request& request) { request.refuse("not this"); });
    service.on("keep", [this](const Request& request) { kept.push_back(request); });
    service.on("count", [this](const Request& request) {
      ++count;
      request.reply({{"count", count.load()}});
    });
    start(service);
  }

  std::vector<Request> kept;
  std::atomic<int> count{0};
  Service service{kName};
};

}  // namespace

TEST_F(Sending, TheAnswerIsOneLineOfJSON) {
  const Ran ran = run({"send", kName, R"({"op": "echo", "terms": [1, 2, 3.5]})"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.output, "{\"op\":\"echo\",\"terms\":[1,2,3.5]}\n");
  EXPECT_EQ(ran.errors, "");
}

TEST_F(Sending, TheMessageComesFromStandardInputOrAFile) {
  const std::string message = R"({"op":"echo","n":1})";
  EXPECT_EQ(run({"send", kName}, message).output, message + "\n");
  EXPECT_EQ(run({"send", kName, "-"}, message).output, message + "\n");
  const auto file = directory.path() / "message.json";
  std::ofstream(file) << message;
  EXPECT_EQ(run({"send", kName, "--file", file.string()}).output, message + "\n");
  EXPECT_EQ(run({"send", kName, "--file", (directory.path() / "none").string()}).code, code(ExitCode::usage));
}

TEST_F(Sending, OneCanBeSentManyTimes) {
  const Ran ran = run({"send", kName, R"({"op": "count"})", "--count", "3", "--interval", "0.01"});
  EXPECT_EQ(ran.output, "{\"count\":1}\n{\"count\":2}\n{\"count\":3}\n");
}

TEST_F(Sending, WhatWantsNoAnswerHasBeenTakenWhenTheCommandEnds) {
  const Ran ran = run({"send", kName, R"({"op": "count"})", "--async", "--count", "500"});
  EXPECT_EQ(ran.code, 0) << ran.errors;
  EXPECT_EQ(ran.output, "");
  EXPECT_EQ(count, 500);
}

TEST_F(Sending, EachFailureHasACodeOfItsOwn) {
  EXPECT_EQ(run({"send", "org.example.none", "{}"}).code, code(ExitCode::notFound));
  EXPECT_EQ(run({"send", kName, R"({"op": "refuse"})"}).code, code(ExitCode::refused));
  // A service that holds messages to the plain types.
  EXPECT_EQ(run({"send", kName, R"({"op": "echo", "when": {"$date": 1.0}})"}).code, code(ExitCode::refused));
  EXPECT_EQ(run({"send", kName, R"({"op": "nobody has this"})"}).code, code(ExitCode::refused));
  EXPECT_EQ(run({"send", kName, R"({"op": "keep"})", "--timeout", "0.2"}).code, code(ExitCode::timedOut));
  const Ran failed = run({"send", kName, R"({"op": "fail"})"});
  EXPECT_EQ(failed.code, code(ExitCode::answeredWithError));
  EXPECT_EQ(failed.errors, "veltoctl: it cannot be done\n");
  EXPECT_EQ(run({"send", kName, R"({"op": "drop"})"}).code, code(ExitCode::unanswered));
  EXPECT_EQ(run({"send", kName, "[1]"}).code, code(ExitCode::usage));
  const Ran broken = run({"send", kName, "{\"a\": }"});
  EXPECT_EQ(broken.code, code(ExitCode::usage));
  EXPECT_NE(broken.errors.find("line 1, column 7"), std::string::npos) << broken.errors;
}

TEST_F(WithBroker, AServiceThatVanishesMeanwhileIsLost) {
  Running listening({"listen", kName, "--exec", "kill -KILL $PPID"});
  ASSERT_TRUE(isServed(kName));
  EXPECT_EQ(run({"send", kName, "{}"}).code, code(ExitCode::lost));
}

TEST_F(WithBroker, ListenPrintsWhatComesAndAnswersWithAnArgument) {
  Running listening({"listen", kName, "--reply", R"({"ok": true})", "--count", "2"});
  ASSERT_TRUE(isServed(kName));
  EXPECT_EQ(run({"send", kName, R"({"n": 1})"}).output, "{\"ok\":true}\n");
  EXPECT_EQ(run({"send", kName, R"({"n": 2})"}).output, "{\"ok\":true}\n");
  EXPECT_EQ(listening.readLine(), "{\"n\":1}");
  EXPECT_EQ(listening.readLine(), "{\"n\":2}");
  EXPECT_EQ(listening.wait(), 0);
}

TEST_F(WithBroker, ListenTellsOfWhomAMessageComesWhenAsked) {
  Running listening({"listen", kName, "--json", "--count", "1"});
  ASSERT_TRUE(isServed(kName));
  EXPECT_EQ(run({"send", kName, R"({"n": 1})"}).output, "{}\n");
  Ran line;
  line.output = listening.readLine().value_or("");
  const NSDictionary envelope = line.json().as<NSDictionary>();
  EXPECT_EQ(envelope["message"], NSObject(NSDictionary{{"n", 1}}));
  EXPECT_GT(envelope["process"].doubleValue(), 0);
  EXPECT_TRUE(envelope["time"].is<NSDate>());
}

TEST_F(WithBroker, ListenAnswersThroughACommand) {
  Running listening({"listen", kName, "--exec", R"(sed s/question/answer/)"});
  ASSERT_TRUE(isServed(kName));
  EXPECT_EQ(run({"send", kName, R"({"question": 42})"}).output, "{\"answer\":42}\n");
  listening.signal(SIGTERM);
  EXPECT_EQ(listening.wait(), 0);
}

TEST_F(WithBroker, ACommandMayTakeAndGiveMoreThanAPipeHolds) {
  Running listening({"listen", kName, "--exec", "cat"});
  ASSERT_TRUE(isServed(kName));
  const std::string message = R"({"text":")" + std::string(3'000'000, 'x') + R"("})";
  auto printed = inBackground([&listening] { return listening.readLine(); });
  const Ran ran = run({"send", kName}, message);
  EXPECT_TRUE(finish(printed) == message);
  EXPECT_EQ(ran.errors, "");
  EXPECT_TRUE(ran.output == message + "\n") << ran.output.size();
}

TEST_F(WithBroker, ACommandThatFailsAnswersWithAnError) {
  Running listening({"listen", kName, "--exec", R"(read line; case $line in *bad*) exit 3;; *) echo nonsense;; esac)"});
  ASSERT_TRUE(isServed(kName));
  const Ran failed = run({"send", kName, R"({"bad": 1})"});
  EXPECT_EQ(failed.code, code(ExitCode::answeredWithError));
  EXPECT_EQ(failed.errors, "veltoctl: the command ended with 3\n");
  EXPECT_EQ(run({"send", kName, R"({"good": 1})"}).code, code(ExitCode::answeredWithError));
}

TEST_F(WithBroker, ListenLeavesANameToWhoeverHasIt) {
  Service service(kName);
  start(service);
  EXPECT_EQ(run({"listen", kName}).code, code(ExitCode::refused));
  EXPECT_EQ(run({"listen", kName, "--reply", "1"}).code, code(ExitCode::usage));
}

TEST_F(WithBroker, ListenTakesANameOverIfItIsTold) {
  Running first({"listen", kName});
  ASSERT_TRUE(isServed(kName));
  Running second({"listen", kName, "--take-over"});
  // The first hears of it.
  EXPECT_EQ(first.wait(), code(ExitCode::lost));
}

TEST_F(WithBroker, EveryValueClassComesBackAsItWent) {
  Running listening({"listen", kName, "--exec", "cat"});
  ASSERT_TRUE(isServed(kName));
  const NSDictionary inner{{"$marker like", 1}, {"plain", "text"}};
  const std::vector<NSObject> values{
      NSNull::null(),
      true,
      std::int64_t{-7},
      std::int64_t{9007199254740993},
      std::uint64_t{7},
      std::uint64_t{18446744073709551615ull},
      1.0,
      -0.0,
      1e300,
      std::numeric_limits<double>::quiet_NaN(),
      -std::numeric_limits<double>::infinity(),
      "text with \" and \n and \xc3\xa4",
      NSData::dataWithVector({0, 1, 2, 255}),
      NSDate::dateWithTimeIntervalSince1970(1.25),
      NSUUID::UUID(),
      NSURL::URLWithString("https://example.org/"),
      NSArray{1, "two"},
      NSSet{1, "two"},
      inner,
      NSDictionary{{NSObject(1), NSObject("value")}, {NSObject("key"), NSObject(2)}},
      NSError::errorWithDomain("d", 2, {{"why", "because"}}),
  };
  for (const NSObject& each : values) {
    const std::string text = toJSON(NSDictionary{{"value", each}});
    ASSERT_FALSE(text.empty());
    const Ran ran = run({"send", kName, text});
    EXPECT_EQ(ran.output, text + "\n") << ran.errors;
    // And as it was printed on the way.
    EXPECT_EQ(listening.readLine(), text);
  }
}

}  // namespace velto::testing
