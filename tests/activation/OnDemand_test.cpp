// Services that are started by being looked up.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "VeltoIPC/VeltoIPC.h"
#include "tests/activation/StartedBroker.h"
#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

constexpr char kNobody[] = "Listener not available";

class OnDemand : public ::testing::Test {
 protected:
  OnDemand() {
    ::setenv("XDG_DATA_HOME", (directory.path() / "home").c_str(), 1);
    ::setenv("XDG_DATA_DIRS", (directory.path() / "data").c_str(), 1);
    std::filesystem::create_directories(files());
    broker.emplace(std::vector<std::string>{VELTO_DAEMON});
  }
  ~OnDemand() override {
    ::unsetenv("XDG_DATA_HOME");
    ::unsetenv("XDG_DATA_DIRS");
  }

  std::filesystem::path files() const { return directory.path() / "data/velto-ipc/services"; }
  void say(const std::string& name, const std::string& text) const {
    std::ofstream(files() / (name + ".service")) << text;
  }
  // A program that notes that it was started, and does this then.
  std::string program(const std::string& name, const std::string& then) const {
    const auto path = directory.path() / name;
    std::ofstream(path) << "#!/bin/sh\necho started >> '" << path.string() << ".log'\n" << then << "\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path.string();
  }
  std::size_t startsOf(const std::string& program) const {
    std::ifstream file(program + ".log");
    std::size_t count = 0;
    for (std::string line; std::getline(file, line);) ++count;
    return count;
  }
  // Serves the name until the broker's directory is gone.
  std::string serving(const std::string& name) const {
    return "(while [ -d '" + files().string() + "' ]; do sleep 0.1; done) | '" VELTO_ACTIVATION_GUEST "' serve '" + name + "'";
  }
  // Why a client does not find the name.
  static std::string why(const std::string& name) {
    const auto client = Client::connect(name, {.patience = std::chrono::milliseconds(300)});
    return client ? "it does" : client.error().text();
  }

  const RuntimeDirectory directory;
  std::optional<ChildProcess> broker;
};

TEST_F(OnDemand, AServiceIsStartedByItsFirstLookUpWhichWaitsForIt) {
  const std::string started = program("service", serving("started"));
  say("started", "# How it is started.\n[Service]\nExec='" + started + "' with \"some arguments\"\n");
  EXPECT_EQ(found("started"), "found");
  EXPECT_EQ(found("started"), "found");
  EXPECT_EQ(startsOf(started), 1u);
}

TEST_F(OnDemand, OneStartServesAllWhoAskMeanwhile) {
  const std::string started = program("service", "sleep 0.5\n" + serving("slow"));
  say("slow", "Exec=" + started);
  std::vector<std::unique_ptr<Guest>> guests;
  for (int count = 0; count < 10; ++count) guests.push_back(std::make_unique<Guest>("find", "slow"));
  for (const auto& guest : guests) EXPECT_EQ(guest->says(), "found");
  EXPECT_EQ(startsOf(started), 1u);
}

TEST_F(OnDemand, WhoWaitsForAServiceThatEndsIsToldAndItIsNotStartedAgainAtOnce) {
  const std::string failing = program("failing", "exit 3");
  say("failing", "Exec=" + failing);
  EXPECT_EQ(found("failing"), kNobody);
  EXPECT_EQ(found("failing"), kNobody);
  EXPECT_EQ(startsOf(failing), 1u);
  const std::string text = why("failing");
  EXPECT_NE(text.find("says how to start it, but it ended with status 3 before it had registered"), std::string::npos)
      << text;
  EXPECT_NE(text.find("it is not started again within "), std::string::npos) << text;
  // The pause is over some time.
  EXPECT_TRUE(eventually([&] {
    found("failing");
    return startsOf(failing) == 2;
  }));
}

TEST_F(OnDemand, WhatIsWrongWithAFileIsSaid) {
  say("wrong", "Run=something\n");
  EXPECT_EQ(found("wrong"), kNobody);
  EXPECT_NE(why("wrong").find("wrong.service: line 1: \"Run\" is neither Exec nor SystemdUnit"), std::string::npos)
      << why("wrong");
  say("missing", "Exec=/nowhere/at/all\n");
  EXPECT_EQ(found("missing"), kNobody);
  EXPECT_NE(why("missing").find("cannot be started: /nowhere/at/all: No such file or directory"), std::string::npos)
      << why("missing");
}

TEST_F(OnDemand, AServiceThatIsMendedIsStarted) {
  const std::string path = program("mended", "exit 1");
  say("mended", "Exec=" + path);
  EXPECT_EQ(found("mended"), kNobody);
  program("mended", serving("mended"));
  EXPECT_TRUE(eventually([] { return found("mended") == "found"; }));
  EXPECT_EQ(why("mended"), "it does");
}

TEST_F(OnDemand, ANameWithoutAFileIsNotThereAtOnce) {
  EXPECT_EQ(found("nothing"), kNobody);
  EXPECT_EQ(found("../../service"), kNobody);
  EXPECT_EQ(why("nothing"), "nobody serves \"nothing\"");
}

}  // namespace
}  // namespace velto::testing
