// A trace that several processes write: what each of them did, and which steps belong to one message.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <signal.h>

#include "tests/support/Arrangement.h"
#include "tests/support/LibraryTest.h"
#include <nlohmann/json.hpp>

namespace velto::testing {
namespace {

using Json = nlohmann::json;

// The events in a file: an array that nobody closes, with a comma after each. Nothing, and a failure, for anything
// else.
std::vector<Json> eventsIn(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  std::string array = text.str();
  if (!array.starts_with("[\n")) {
    ADD_FAILURE() << path << " does not begin an array: " << array.substr(0, 80);
    return {};
  }
  const std::size_t comma = array.find_last_not_of("\n");
  if (array[comma] == ',') array.erase(comma);
  const Json parsed = Json::parse(array + "]", nullptr, false);
  if (!parsed.is_array()) {
    ADD_FAILURE() << path << " is no JSON";
    return {};
  }
  return parsed;
}

bool isStep(const Json& event, const std::string& kind) {
  return event["ph"] == "X" && event["name"].get<std::string>().starts_with(kind + " ");
}

// A step of a message: a slice, and the key of the flow that begins where it does.
struct Step {
  std::string what;
  int process;
  char phase;
  double at;
};

// Where and when a slice or a flow begins.
std::tuple<int, int, double> placeOf(const Json& event) {
  return {event["pid"], event["tid"], event["ts"]};
}

// The steps of each message, by its key, in the order in which they happened.
std::map<std::string, std::vector<Step>> messagesIn(const std::vector<Json>& events) {
  std::map<std::tuple<int, int, double>, std::string> slices;
  for (const Json& event : events) {
    if (event["ph"] == "X") slices[placeOf(event)] = event["name"];
  }
  std::map<std::string, std::vector<Step>> messages;
  for (const Json& flow : events) {
    const std::string phase = flow["ph"];
    if (phase != "s" && phase != "t" && phase != "f") continue;
    const auto slice = slices.find(placeOf(flow));
    if (slice == slices.end()) {
      ADD_FAILURE() << "a flow belongs to no slice: " << flow;
      continue;
    }
    const std::string what = slice->second.substr(0, slice->second.find(' '));
    messages[flow["id"]].push_back({what, flow["pid"], phase[0], flow["ts"]});
  }
  for (auto& [key, steps] : messages) {
    std::ranges::sort(steps, {}, &Step::at);
  }
  return messages;
}

// Messages that one process sent, another was given and answered, and the first got the answer to.
std::size_t wholeRoundTrips(const std::vector<Json>& events, int sender, int receiver) {
  std::size_t whole = 0;
  for (const auto& [key, steps] : messagesIn(events)) {
    std::string seen;
    for (const Step& step : steps) {
      seen += step.what + (step.process == sender ? "<" : step.process == receiver ? ">" : "?") + step.phase + " ";
    }
    if (seen == "send<s deliver>t reply>t answer<f ") ++whole;
  }
  return whole;
}

class Tracing : public QuietTest {
 protected:
  ~Tracing() override { unsetenv("VELTO_TRACE"); }

  // Of processes that are started from now on.
  void traceTo(const std::string& name) { setenv("VELTO_TRACE", (directory.path() / name).c_str(), 1); }
  std::filesystem::path fileOf(pid_t process) const { return directory.path() / (std::to_string(process) + ".json"); }

  // A daemon, a listener and a client that send each other so many messages, and end in good order.
  void exchange(int count) {
    DaemonProcess daemon;
    ASSERT_TRUE(daemon.listens()) << daemon.words();
    ChildActor server;
    ChildActor client;
    listener = server.process().processID();
    sender = client.process().processID();
    ASSERT_EQ(server.ask("listen traced any"), "listening");
    ASSERT_EQ(client.ask("connect traced"), "connecting");
    ASSERT_EQ(client.ask("ready 20"), "yes");
    ASSERT_EQ(client.ask("burst " + std::to_string(count)), "done");
    ASSERT_EQ(client.ask("close"), "closed");
    for (ChildActor* each : {&client, &server}) {
      each->process().closeInput();
      EXPECT_EQ(each->process().wait(), 0);
    }
  }

  pid_t listener = 0;
  pid_t sender = 0;
};

TEST_F(Tracing, TheStepsOfAMessageConnectByItsKeyAcrossTheFilesOfTwoProcesses) {
  traceTo("%p.json");
  exchange(50);
  std::vector<Json> events = eventsIn(fileOf(sender));
  EXPECT_TRUE(std::ranges::all_of(events, [&](const Json& event) { return event["pid"] == sender; }));
  const std::vector<Json> theirs = eventsIn(fileOf(listener));
  EXPECT_TRUE(std::ranges::all_of(theirs, [&](const Json& event) { return event["pid"] == listener; }));
  events.insert(events.end(), theirs.begin(), theirs.end());
  EXPECT_GE(wholeRoundTrips(events, sender, listener), 50U);
}

TEST_F(Tracing, SeveralProcessesWriteWholeEventsToOneFile) {
  traceTo("trace.json");
  exchange(500);
  const std::vector<Json> events = eventsIn(directory.path() / "trace.json");
  EXPECT_GE(wholeRoundTrips(events, sender, listener), 500U);
  std::set<std::string> processes;
  for (const Json& event : events) {
    if (event["name"] == "process_name") processes.insert(event["args"]["name"]);
  }
  EXPECT_EQ(processes, (std::set<std::string>{"VeltoIPCDaemon", "velto_test_peer"}));
}

TEST_F(Tracing, BothEndsOfAConnectionNameItAlikeAndTellHowItBeganAndEnded) {
  traceTo("%p.json");
  exchange(1);
  std::map<std::string, std::set<std::pair<int, std::string>>> ends;
  for (const pid_t process : {sender, listener}) {
    for (const Json& event : eventsIn(fileOf(process))) {
      if (event["name"] != "connect" && event["name"] != "end") continue;
      ends[event["args"]["connection"]].insert({process, event["name"]});
    }
  }
  const std::set<std::pair<int, std::string>> all{
      {sender, "connect"}, {sender, "end"}, {listener, "connect"}, {listener, "end"}};
  EXPECT_TRUE(std::ranges::any_of(ends, [&](const auto& entry) { return entry.second == all; }));
}

TEST_F(Tracing, AFileOfAProcessThatWasKilledIsReadable) {
  traceTo("%p.json");
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  ChildActor server;
  ASSERT_EQ(server.ask("listen traced any"), "listening");
  ChildActor client;
  ASSERT_EQ(client.ask("connect traced"), "connecting");
  ASSERT_EQ(client.ask("ready 20"), "yes");
  ASSERT_EQ(client.ask("burst 2000"), "done");
  const auto file = fileOf(client.process().processID());
  ASSERT_TRUE(eventually([&] { return std::filesystem::exists(file) && std::filesystem::file_size(file) > 100; }));
  client.process().signal(SIGKILL);
  EXPECT_EQ(client.process().wait(), -SIGKILL);
  const std::vector<Json> events = eventsIn(file);
  EXPECT_GT(std::ranges::count_if(events, [](const Json& event) { return isStep(event, "send"); }), 0);
}

TEST_F(Tracing, WhatCannotBeWrittenEndsTheTraceAndNothingElse) {
  setenv("VELTO_TRACE", (directory.path() / "missing" / "trace.json").c_str(), 1);
  exchange(5);
  EXPECT_FALSE(std::filesystem::exists(directory.path() / "missing"));
}

TEST_F(Tracing, ADirectoryInPlaceOfAFileEndsTheTraceAndNothingElse) {
  setenv("VELTO_TRACE", directory.path().c_str(), 1);
  exchange(5);
}

}  // namespace
}  // namespace velto::testing
