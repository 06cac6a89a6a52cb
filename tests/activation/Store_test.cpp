// A broker that systemd starts, with the names that it keeps; a stand-in speaks for systemd.
#include <csignal>

#include <fcntl.h>
#include <gtest/gtest.h>

#include "tests/activation/StandIn.h"
#include "tests/activation/StartedBroker.h"
#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

constexpr char kNobody[] = "Listener not available";

TEST(Store, KeepsTheNamesOverTwentyKillsWhileTheListenersStandStill) {
  StandIn systemd;
  systemd.start();
  Guest one("listen", "one");
  Guest other("listen", "other");
  ASSERT_TRUE(one.isThere());
  ASSERT_TRUE(other.isThere());
  ASSERT_TRUE(systemd.waitFor([](const auto& stored) { return stored.size() == 2; }));
  // They cannot be asked to register again.
  one.process.signal(SIGSTOP);
  other.process.signal(SIGSTOP);
  for (int kill = 0; kill < 20; ++kill) {
    systemd.kill();
    systemd.start();
    EXPECT_EQ(systemd.stored().size(), 2u);
  }
  one.process.signal(SIGCONT);
  other.process.signal(SIGCONT);
  EXPECT_EQ(found("one"), "found");
  EXPECT_EQ(found("other"), "found");
}

TEST(Store, AnswersFromWhatItKeepsWithoutWaitingForTheListeners) {
  StandIn systemd;
  systemd.start();
  Guest listener("listen", "kept");
  ASSERT_TRUE(listener.isThere());
  ASSERT_TRUE(systemd.waitFor([](const auto& stored) { return stored.size() == 1; }));
  systemd.kill();
  listener.process.signal(SIGSTOP);
  // Asked before there is a broker.
  Guest asking("find", "kept");
  systemd.start();
  listener.process.signal(SIGCONT);
  EXPECT_EQ(asking.says(), "found");
}

TEST(Store, LetsGoOfWhatIsGone) {
  StandIn systemd;
  systemd.start();
  {
    Guest listener("listen", "short");
    ASSERT_TRUE(listener.isThere());
    ASSERT_TRUE(systemd.waitFor([](const auto& stored) { return stored.size() == 1; }));
    systemd.kill();
  }
  // It has gone while there was no broker.
  systemd.start();
  EXPECT_TRUE(systemd.waitFor([](const auto& stored) { return stored.empty(); }));
  EXPECT_EQ(found("short"), kNobody);
}

TEST(Store, HoldsOneOfANameThatIsRegisteredAgain) {
  StandIn systemd;
  systemd.start();
  Guest early("listen", "same");
  ASSERT_TRUE(early.isThere());
  Guest late("serve", "same");
  ASSERT_TRUE(late.isThere());
  EXPECT_TRUE(systemd.waitFor([](const auto& stored) { return stored.size() == 1; }));
  early.process.signal(SIGKILL);
  early.process.wait();
  systemd.kill();
  systemd.start();
  EXPECT_EQ(found("same"), "found");
}

TEST(Store, ThrowsAwayWhatIsNotItsOwn) {
  StandIn systemd;
  systemd.stored()["velto-name-strange"].emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  systemd.start();
  EXPECT_TRUE(systemd.waitFor([](const auto& stored) { return stored.empty(); }));
  EXPECT_EQ(found("nobody"), kNobody);
}

TEST(Store, NeedsASocketThatListens) {
  StandIn systemd;
  const system::Descriptor nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(systemd.startWith(nothing.get()), 1);
}

}  // namespace
}  // namespace velto::testing
