// The examples that there are in several versions, as programs of their own: all do the same.

#ifdef VELTO_EXAMPLES

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <signal.h>

#include "VeltoIPC/Client.h"
#include "tests/support/Brokers.h"
#include "tests/support/RuntimeDirectory.h"
#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

// The parameter is what stands before the names of the programs.
class Examples : public ::testing::TestWithParam<std::string> {
 protected:
  // What a program has written until its end, to standard error, too; and how it ended.
  struct Written {
    Lines lines;
    int exitCode = 0;
    friend bool operator==(const Written&, const Written&) = default;
    friend std::ostream& operator<<(std::ostream& out, const Written& written) {
      for (const std::string& line : written.lines) out << line << "\n";
      return out << "exit code " << written.exitCode;
    }
  };

  static std::vector<std::string> command(std::vector<std::string> words) {
    words[0] = std::string(VELTO_EXAMPLES "/") + GetParam() + words[0];
    return words;
  }
  static Written rest(ChildProcess& program) {
    Written written;
    while (auto line = program.readLine()) written.lines.push_back(*std::move(line));
    written.exitCode = program.wait();
    return written;
  }
  static Written run(const std::vector<std::string>& words) {
    ChildProcess program(command(words), ChildProcess::Errors::joinOutput);
    return rest(program);
  }

  // A service that can be called once this is made.
  struct Server : ChildProcess {
    Server(const std::vector<std::string>& words, const std::string& name)
        : ChildProcess(command(words), Errors::joinOutput) {
      EXPECT_EQ(readLine(), "serving");
      EXPECT_TRUE(Client::connect(name, {.patience = kBound}));
    }
    // It ends in good order, and has said nothing else.
    void expectQuietEnd() {
      writeLine("");
      EXPECT_EQ(rest(*this), Written{});
    }
  };

  static pid_t numberIn(const std::optional<std::string>& line) {
    return line ? static_cast<pid_t>(std::stol(*line)) : 0;
  }
  static bool isGone(pid_t process) {
    return eventually([&] { return ::kill(process, 0) != 0 && errno == ESRCH; });
  }

  const RuntimeDirectory directory;
  DaemonProcess daemon;
};

INSTANTIATE_TEST_SUITE_P(Of, Examples, ::testing::Values("", "classic_"),
                         [](const auto& version) { return version.param.empty() ? "Calls" : "Classic"; });

constexpr const char* kStore = "org.velto.examples.store";

TEST_P(Examples, AStoreTellsItsWatchersOfEachChange) {
  Server server({"store", "serve"}, kStore);
  EXPECT_EQ(run({"store", "set", "a", "1"}), Written{});
  EXPECT_EQ(run({"store", "get", "a"}), (Written{{"1"}, 0}));
  EXPECT_EQ(run({"store", "get", "b"}), (Written{{"nothing is stored there"}, 1}));
  ChildProcess watcher(command({"store", "watch", "a"}), ChildProcess::Errors::joinOutput);
  EXPECT_EQ(watcher.readLine(), "1");
  EXPECT_EQ(run({"store", "set", "b", "other"}), Written{});
  EXPECT_EQ(run({"store", "set", "a", "2"}), Written{});
  EXPECT_EQ(run({"store", "set", "a", "3"}), Written{});
  EXPECT_EQ(watcher.readLine(), "2");
  EXPECT_EQ(watcher.readLine(), "3");
  server.expectQuietEnd();
  const Written end = rest(watcher);
  EXPECT_EQ(end.exitCode, 1);
  EXPECT_EQ(end.lines.size(), 1U) << end;
}

TEST_P(Examples, AStoreIsBoundedByNoWatcherThatIsSlowOrDies) {
  Server server({"store", "serve"}, kStore);
  const Client client = Client::connect(kStore).value();
  const auto set = [&](int value) {
    const auto text = std::to_string(value);
    return client.call({{"op", "set"}, {"key", "a"}, {"value", text}}, {.timeout = kBound}).get().has_value();
  };
  EXPECT_TRUE(set(0));
  ChildProcess slow(command({"store", "watch", "a"}), ChildProcess::Errors::joinOutput);
  ChildProcess dying(command({"store", "watch", "a"}));
  ChildProcess quick(command({"store", "watch", "a"}));
  for (ChildProcess* each : {&slow, &dying, &quick}) EXPECT_EQ(each->readLine(), "0");
  slow.signal(SIGSTOP);
  dying.signal(SIGKILL);
  dying.wait();
  constexpr int kMany = 1'000;
  for (int value = 1; value <= kMany; ++value) {
    ASSERT_TRUE(set(value));
    ASSERT_EQ(quick.readLine(), std::to_string(value));
  }
  slow.signal(SIGCONT);
  const Written written = [&] {
    Written all;
    while (const auto line = slow.readLine()) {
      all.lines.push_back(*line);
      if (*line == "the watcher is too slow") break;
    }
    all.exitCode = slow.wait();
    return all;
  }();
  ASSERT_GT(written.lines.size(), 1U);
  ASSERT_LT(written.lines.size(), static_cast<std::size_t>(kMany));
  EXPECT_EQ(written.lines.back(), "the watcher is too slow");
  EXPECT_EQ(written.exitCode, 1);
  for (std::size_t line = 0; line + 1 < written.lines.size(); ++line) {
    EXPECT_EQ(written.lines[line], std::to_string(line + 1));
  }
}

constexpr const char* kJobs = "org.velto.examples.jobs";

TEST_P(Examples, AJobShowsItsOutputAndItsExitStatus) {
  Server server({"jobs", "serve"}, kJobs);
  EXPECT_EQ(run({"jobs", "run", "echo one; echo two >&2; exit 3"}), (Written{{"one", "two", "exit status 3"}, 0}));
  Lines many;
  for (int line = 1; line <= 5'000; ++line) many.push_back(std::to_string(line));
  many.emplace_back("exit status 0");
  EXPECT_EQ(run({"jobs", "run", "seq 5000"}), (Written{many, 0}));
  server.expectQuietEnd();
}

TEST_P(Examples, AJobEndsWhenItsClientIsInterruptedOrDies) {
  Server server({"jobs", "serve"}, kJobs);
  for (const int signal : {SIGINT, SIGKILL}) {
    ChildProcess client(command({"jobs", "run", "echo $$; exec sleep 1000"}), ChildProcess::Errors::joinOutput);
    const pid_t job = numberIn(client.readLine());
    ASSERT_GT(job, 0);
    client.signal(signal);
    const Written expected = signal == SIGINT ? Written{{"the call was taken back"}, 1} : Written{{}, -SIGKILL};
    EXPECT_EQ(rest(client), expected);
    EXPECT_TRUE(isGone(job));
  }
}

TEST_P(Examples, AJobEndsWithItsService) {
  Server server({"jobs", "serve"}, kJobs);
  ChildProcess client(command({"jobs", "run", "echo $$; exec sleep 1000"}), ChildProcess::Errors::joinOutput);
  const pid_t job = numberIn(client.readLine());
  ASSERT_GT(job, 0);
  server.writeLine("");
  EXPECT_EQ(rest(client).exitCode, 1);
  EXPECT_EQ(rest(server).exitCode, 0);
  EXPECT_TRUE(isGone(job));
}

constexpr const char* kBack = "org.velto.examples.relay.back";
constexpr const char* kFront = "org.velto.examples.relay.front";

TEST_P(Examples, ARelayServesAndCallsInOneThread) {
  Server back({"relay", "back"}, kBack);
  Server front({"relay", "front"}, kFront);
  EXPECT_EQ(run({"relay", "ask", "hello"}), (Written{{"HELLO"}, 0}));
  EXPECT_EQ(run({"relay", "ask", "you"}), (Written{{"YOU"}, 0}));
  front.writeLine("status");
  EXPECT_EQ(front.readLine(), "answered 2");
  front.expectQuietEnd();
  back.expectQuietEnd();
}

TEST_P(Examples, ARelayWaitsForABackThatIsStartedAgain) {
  auto back = std::make_unique<Server>(std::vector<std::string>{"relay", "back"}, kBack);
  Server front({"relay", "front"}, kFront);
  back->signal(SIGKILL);
  back->wait();
  EXPECT_EQ(run({"relay", "ask", "nobody"}).exitCode, 1);
  back = std::make_unique<Server>(std::vector<std::string>{"relay", "back"}, kBack);
  EXPECT_TRUE(eventually([] { return run({"relay", "ask", "again"}).lines == Lines{"AGAIN"}; }));
}

class Counters : public Examples {};

#ifdef VELTO_EXAMPLE_SD_EVENT
const std::string kLoops[] = {"poll_", "pool_", "sd_event_"};
#else
const std::string kLoops[] = {"poll_", "pool_"};
#endif
INSTANTIATE_TEST_SUITE_P(Of, Counters, ::testing::ValuesIn(kLoops),
                         [](const auto& loop) { return loop.param.substr(0, loop.param.size() - 1); });

constexpr const char* kCounter = "org.velto.examples.counter";

TEST_P(Counters, CountWhatTheyAreToldAndEndInGoodOrder) {
  Server server({"counter"}, kCounter);
  const auto add = [](const Client& client, int by) {
    const auto reply = client.call({{"op", "add"}, {"by", by}}, {.timeout = kBound}).get();
    return reply ? (*reply)["total"].integerValue() : -1;
  };
  const Client client = Client::connect(kCounter).value();
  EXPECT_EQ(add(client, 2), 2);
  EXPECT_EQ(add(Client::connect(kCounter).value(), 3), 5);
  EXPECT_EQ(add(client, 4), 9);
  server.writeLine("");
  EXPECT_EQ(rest(server), (Written{{"total 9"}, 0}));
}

}  // namespace
}  // namespace velto::testing

#endif
