// The broker's program with its own limits: what one link can make it hold, and what one process, whatever its links.

#include <array>
#include <filesystem>

#include <signal.h>

#include "VeltoIPC/Limits.h"
#include "tests/limits/Ends.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/Brokers.h"
#include "tests/support/ChildProcess.h"

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

// A process that uses the broker.
class Guest {
 public:
  // The answer to an order; see guest/main.cpp.
  std::string told(const std::string& order) {
    EXPECT_TRUE(process_.writeLine(order));
    return process_.readLine().value_or("no answer");
  }
  std::size_t registers(std::size_t names, const std::string& prefix, const std::string& other = {}) {
    return numberTold("names " + std::to_string(names) + " " + prefix + " " + other);
  }
  // How many of so many are waiting, for names that nobody has.
  std::size_t waits(std::size_t names) { return numberTold("wait " + std::to_string(names)); }
  // How many were answered.
  std::size_t opens(std::size_t links) { return numberTold("links " + std::to_string(links)); }
  void dies() {
    process_.signal(SIGKILL);
    process_.wait();
  }

 private:
  std::size_t numberTold(const std::string& order) { return std::stoul(told(order)); }

  ChildProcess process_{{VELTO_BROKER_GUEST}};
};

// A newcomer is answered, and can register what others find.
void expectServed(const std::string& name) {
  Guest newcomer;
  EXPECT_EQ(newcomer.told("find nobody"), "nothing");
  EXPECT_EQ(newcomer.registers(1, name), 1U);
  EXPECT_EQ(Guest().told("find " + name + "0"), "found");
}

TEST_F(BrokerLimits, OneLinkRegistersAsManyNamesAsItMayAndTheBrokerHoldsNoMoreForIt) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  const auto listener = NSXPCListener::anonymousListener();
  const pid_t process = daemon.process().processID();
  std::size_t before = 0;
  const std::size_t ofOne = limits::kBrokerDescriptorsOfOneLink + limits::kBrokerDescriptorsOfOneProcess;
  {
    TestLink first;
    EXPECT_FALSE(first.find("nothing"));
    before = descriptorsOf(process) - 1 - limits::kBrokerDescriptorsOfOneProcess;
  }
  EXPECT_TRUE(eventually([&] { return descriptorsOf(process) == before; }));
  {
    TestLink link;
    // Each of another listener: names of one share what watches over it.
    std::vector<std::shared_ptr<NSXPCListener>> listeners;
    for (std::size_t name = 0; name < limits::kBrokerNamesOfOneLink; ++name) {
      listeners.push_back(NSXPCListener::anonymousListener());
      link.registerEndpoint(listeners.back()->endpoint(), "name " + std::to_string(name));
    }
    EXPECT_EQ(descriptorsOf(process), before + ofOne);
    for (int round = 0; round < 3; ++round) link.registerEndpoint(listener->endpoint(), "one more");
    EXPECT_FALSE(link.find("one more"));
    EXPECT_TRUE(link.find("name 0"));
    EXPECT_EQ(descriptorsOf(process), before + ofOne) << "a refused name holds nothing";
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

TEST_F(BrokerLimits, OneProcessRegistersAsManyNamesAsItMayWhateverBecomesOfItsLinks) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  Guest greedy;
  EXPECT_EQ(greedy.registers(limits::kBrokerNamesOfOneProcess + 100, "greedy"), limits::kBrokerNamesOfOneProcess);
  EXPECT_EQ(greedy.registers(1, "again"), 0U) << "all its links are gone, its names are not";
  EXPECT_EQ(greedy.registers(1, "greedy"), 1U) << "one that it has already may be registered anew";
  expectServed("other");
  greedy.dies();
  EXPECT_TRUE(eventually([] { return Guest().told("find greedy0") == "nothing"; }));
  EXPECT_EQ(Guest().registers(limits::kBrokerNamesOfOneProcess, "next"), limits::kBrokerNamesOfOneProcess);
}

TEST_F(BrokerLimits, OneProcessWaitsAsOftenAsItMayAndOthersWaitBesideIt) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  Guest greedy;
  EXPECT_EQ(greedy.waits(limits::kBrokerWaitersOfOneProcess + 100), limits::kBrokerWaitersOfOneProcess);
  EXPECT_EQ(greedy.waits(1), 0U) << "over whatever link";
  EXPECT_EQ(Guest().waits(10), 10U);
  EXPECT_EQ(greedy.told("forget"), "done");
  EXPECT_TRUE(eventually([&] { return greedy.waits(1) == 1; }));
}

TEST_F(BrokerLimits, ProcessesThatHoldAllNamesMakeRoomForAnother) {
  DaemonProcess daemon;
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  std::array<Guest, limits::kBrokerNames / limits::kBrokerNamesOfOneProcess> greedy;
  for (std::size_t number = 0; number < greedy.size(); ++number) {
    greedy[number].registers(limits::kBrokerNamesOfOneProcess, "greedy" + std::to_string(number) + "/");
  }
  expectServed("first");
  expectServed("second");
  const std::string told = daemon.process().readLine().value_or("");
  EXPECT_NE(told.find("makes room: its process holds the most"), std::string::npos) << told;
  EXPECT_EQ(Guest().told("find greedy0/0"), "found") << "the oldest stay";
}

// A limit of its own that is far below all the totals: what there is, is shared out.
TEST_F(BrokerLimits, WithFewDescriptorsTheBrokerStillServesEverybody) {
  DaemonProcess daemon(2048);
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  std::array<Guest, 2> greedy;
  EXPECT_EQ(greedy[0].opens(600), 600U);
  EXPECT_EQ(greedy[1].opens(600), 511U) << "the first makes room until both have as many";
  for (int round = 0; round < 3; ++round) expectServed("newcomer");
  EXPECT_LE(descriptorsOf(daemon.process().processID()), 1024U + 64U);
  EXPECT_LT(greedy[0].opens(100), 100U) << "it is told so in good order";
  expectServed("last");
  greedy[0].dies();
  greedy[1].dies();
  daemon.process().signal(SIGTERM);
  std::string words;
  while (const auto line = daemon.process().readLine()) words += *line + "\n";
  EXPECT_NE(words.find("makes room: its process holds the most, and descriptors would be 1025; the maximum is 1024"),
            std::string::npos)
      << words;
  EXPECT_EQ(words.find("cannot be accepted"), std::string::npos) << words;
}

TEST_F(BrokerLimits, ALinkThatIsUsedMakesRoomAfterThoseThatAreIdle) {
  DaemonProcess daemon(256);
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  Guest greedy;
  Guest other;
  ASSERT_EQ(greedy.opens(120), 120U);
  EXPECT_EQ(greedy.told("use 0"), "nothing");
  EXPECT_EQ(other.opens(10), 10U);
  EXPECT_EQ(greedy.told("use 0"), "nothing");
  // One of the others, in whichever order the broker heard of them, and it is told in good order.
  bool isTold = false;
  for (int link = 1; link < 120 && !isTold; ++link) {
    const std::string told = greedy.told("use " + std::to_string(link));
    isTold = told.find("invalidated by the other end") != std::string::npos;
    EXPECT_TRUE(isTold || told == "nothing") << told;
  }
  EXPECT_TRUE(isTold);
}

TEST_F(BrokerLimits, ALinkThatMakesRoomGivesItsDescriptorBackThoughItDoesNotRead) {
  DaemonProcess daemon(256);
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  Guest deaf;
  Guest other;
  deaf.told("deaf 100");
  EXPECT_EQ(other.opens(60), 60U);
  EXPECT_LE(descriptorsOf(daemon.process().processID()), 128U + 16U);
}

// Each holds one name, for a listener that goes on: so many dead processes are not as many living ones.
TEST_F(BrokerLimits, WhatDeadProcessesHaveLeftMakesRoomForTheLiving) {
  DaemonProcess daemon(256);
  ASSERT_TRUE(daemon.listens()) << daemon.words();
  const auto listener = NSXPCListener::anonymousListener();
  TestLink().registerEndpoint(listener->endpoint(), "lasting");
  std::size_t taken = 0;
  for (int number = 0; number < 50; ++number) {
    Guest guest;
    taken += guest.registers(1, "left" + std::to_string(number) + "/", "lasting");
    guest.dies();
  }
  EXPECT_EQ(taken, 50U);
  EXPECT_EQ(Guest().told("find left0/0"), "found") << "its listener is still there";
  expectServed("newcomer");
}

}  // namespace
}  // namespace velto::testing
