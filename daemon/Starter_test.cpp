// When a service is started, and when not.
#include "daemon/Starter.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <unistd.h>

namespace velto {
namespace {

using State = Starter::State;
using std::chrono::seconds;

class StartsOfFiles : public ::testing::Test {
 protected:
  StartsOfFiles() {
    files.setFailureHandler([this](const std::string& failed) { told.push_back(failed); });
    write("a");
  }
  ~StartsOfFiles() override { std::filesystem::remove_all(folder); }

  static std::filesystem::path freshFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "velto-starter-XXXXXX").string();
    return mkdtemp(name.data());
  }
  void write(const std::string& name) const { std::ofstream(folder / (name + ".service")) << "Exec=run\n"; }
  static int statusOf(int code) { return code << 8; }

  const std::filesystem::path folder = freshFolder();
  Starter::Clock::time_point now = Starter::Clock::now();
  pid_t launched = 0;
  bool canLaunch = true;
  std::vector<std::string> told;
  Starter files{{{folder.string()},
                 [this](const ServiceFile&, std::string& reason) -> pid_t {
                   if (canLaunch) return ++launched;
                   reason = "not now";
                   return -1;
                 },
                 [this] { return now; }}};
};

TEST_F(StartsOfFiles, AreOneForAllWhoAsk) {
  EXPECT_EQ(files.start("a"), State::starting);
  EXPECT_EQ(files.start("a"), State::starting);
  EXPECT_EQ(launched, 1);
  EXPECT_TRUE(files.isStarting());
  files.registered("a");
  EXPECT_FALSE(files.isStarting());
  EXPECT_EQ(files.start("a"), State::starting) << "it has gone, and is wanted again";
  EXPECT_EQ(launched, 2);
}

TEST_F(StartsOfFiles, ComeAfterAPauseThatDoublesUpToAMinute) {
  seconds pause{1};
  for (int failure = 1; failure <= 8; ++failure) {
    ASSERT_EQ(files.start("a"), State::starting) << failure;
    files.childEnded(launched, statusOf(1));
    EXPECT_EQ(told.size(), static_cast<std::size_t>(failure));
    now += pause - seconds(1);
    if (pause > seconds(1)) {
      EXPECT_EQ(files.start("a"), State::failed);
      EXPECT_NE(files.reason("a").find("not started again within 1 s"), std::string::npos) << files.reason("a");
    }
    now += seconds(1);
    pause = std::min(2 * pause, Starter::kLongestPause);
  }
  ASSERT_EQ(files.start("a"), State::starting);
  files.registered("a");
  ASSERT_EQ(files.start("a"), State::starting);
  files.childEnded(launched, statusOf(1));
  now += seconds(1);
  EXPECT_EQ(files.start("a"), State::starting) << "success forgets the failures";
}

TEST_F(StartsOfFiles, AreOverWithTheirTime) {
  ASSERT_EQ(files.start("a"), State::starting);
  now += Starter::kPatience + seconds(1);
  EXPECT_FALSE(files.isStarting()) << "though nobody said so";
  EXPECT_EQ(files.start("a"), State::starting);
  EXPECT_EQ(launched, 2);
}

TEST_F(StartsOfFiles, OfOneThatEndsWellGoOn) {
  ASSERT_EQ(files.start("a"), State::starting);
  files.childEnded(launched, statusOf(0));
  EXPECT_EQ(files.state("a"), State::starting) << "it may have left another behind";
  files.failed("a", "it never came");
  EXPECT_EQ(files.state("a"), State::failed);
  EXPECT_EQ(told, std::vector<std::string>{"a"});
  EXPECT_NE(files.reason("a").find("but it never came"), std::string::npos);
}

TEST_F(StartsOfFiles, AreBoundedInNumber) {
  for (std::size_t count = 0; count <= Starter::kMostAtOnce; ++count) write("s" + std::to_string(count));
  for (std::size_t count = 0; count < Starter::kMostAtOnce; ++count) {
    ASSERT_EQ(files.start("s" + std::to_string(count)), State::starting);
  }
  const std::string last = "s" + std::to_string(Starter::kMostAtOnce);
  EXPECT_EQ(files.start(last), State::failed);
  EXPECT_NE(files.reason(last).find("64 services are being started, which is the maximum"), std::string::npos);
  files.registered("s0");
  EXPECT_EQ(files.start(last), State::starting);
}

TEST_F(StartsOfFiles, ThatCannotBeAreSaidAndOfWhatHasNoFileThereIsNone) {
  canLaunch = false;
  EXPECT_EQ(files.start("a"), State::failed);
  EXPECT_NE(files.reason("a").find("cannot be started: not now"), std::string::npos) << files.reason("a");
  EXPECT_EQ(files.start("b"), State::unknown);
  EXPECT_EQ(files.reason("b"), "");
  std::filesystem::remove(folder / "a.service");
  EXPECT_EQ(files.start("a"), State::unknown);
  EXPECT_EQ(files.reason("a"), "");
}

}  // namespace
}  // namespace velto
