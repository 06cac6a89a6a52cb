// The broker's program with its own limits: what one link can make it hold.

#include <filesystem>

#include "VeltoIPC/Limits.h"
#include "tests/limits/Ends.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/Brokers.h"

namespace velto::testing {
namespace {

std::size_t descriptorsOf(pid_t process) {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
    ++count;
  }
  return count;
}

using BrokerLimits = LimitTest;

TEST_F(BrokerLimits, OneLinkRegistersAsManyNamesAsItMayAndTheBrokerHoldsNoMoreForIt) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  const auto listener = NSXPCListener::anonymousListener();
  const pid_t process = daemon.process().processID();
  std::size_t before = 0;
  {
    TestLink first;
    EXPECT_FALSE(first.find("nothing"));
    before = descriptorsOf(process) - 1;
  }
  EXPECT_TRUE(eventually([&] { return descriptorsOf(process) == before; }));
  {
    TestLink link;
    for (std::size_t name = 0; name < limits::kBrokerNamesOfOneLink; ++name) {
      link.registerEndpoint(listener->endpoint(), "name " + std::to_string(name));
    }
    EXPECT_EQ(descriptorsOf(process), before + limits::kBrokerDescriptorsOfOneLink);
    for (int round = 0; round < 3; ++round) link.registerEndpoint(listener->endpoint(), "one more");
    EXPECT_FALSE(link.find("one more"));
    EXPECT_TRUE(link.find("name 0"));
    EXPECT_EQ(descriptorsOf(process), before + limits::kBrokerDescriptorsOfOneLink) << "a refused name holds nothing";
    // A name that is given up makes room; another link has room of its own.
    link.kill("name 0");
    link.registerEndpoint(listener->endpoint(), "one more");
    EXPECT_TRUE(link.find("one more"));
    TestLink other;
    other.registerEndpoint(listener->endpoint(), "another's");
    EXPECT_TRUE(other.find("another's"));
  }
  listener->invalidate();
  EXPECT_TRUE(eventually([&] { return descriptorsOf(process) == before; })) << descriptorsOf(process);
}

}  // namespace
}  // namespace velto::testing
