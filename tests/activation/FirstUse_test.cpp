// The broker that nobody has to think of: started by the first who needs it, gone when nobody does, and, after a kill, as
// if it had never been away.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "VeltoIPC/VeltoIPC.h"
#include "tests/activation/StartedBroker.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/Waiting.h"

namespace velto::testing {
namespace {

constexpr char kNobody[] = "Listener not available";

// How a connection to the broker of this process fails.
std::string errorOfALink() {
  const auto client = Client::connect("nobody", {.patience = std::chrono::milliseconds(100)});
  EXPECT_FALSE(client);
  return client ? "" : client.error().text();
}

TEST(FirstUse, StartsABrokerAndTheNextFindsIt) {
  const StartedBroker broker;
  EXPECT_EQ(found("nobody"), kNobody);
  EXPECT_EQ(found("nobody"), kNobody);
  EXPECT_EQ(broker.started().size(), 1u);
  struct stat status {};
  ASSERT_EQ(::stat((broker.sockets() / "org.velto.VeltoIPCDaemon").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  ASSERT_EQ(::stat(broker.sockets().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);
}

TEST(FirstUse, OfAHundredProcessesAtOnceStartsExactlyOne) {
  const StartedBroker broker;
  std::vector<std::unique_ptr<Guest>> guests;
  for (int count = 0; count < 100; ++count) guests.push_back(std::make_unique<Guest>("find", "nobody"));
  for (const auto& guest : guests) EXPECT_EQ(guest->says(), kNobody);
  EXPECT_EQ(broker.started().size(), 1u);
}

TEST(FirstUse, IsHeardOfByNobodyWhoWaitsForChildren) {
  const StartedBroker broker;
  static volatile std::sig_atomic_t heard = 0;
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) { heard = 1; };
  ASSERT_EQ(::sigaction(SIGCHLD, &action, &before), 0);
  const auto client = Client::connect("nobody", {.patience = std::chrono::milliseconds(100)});
  EXPECT_FALSE(client);
  EXPECT_EQ(broker.started().size(), 1u);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(heard, 0);
  ::sigaction(SIGCHLD, &before, nullptr);
}

TEST(FirstUse, StartsAProgramThatHasNothingOfTheStartersButTheSocket) {
  const StartedBroker broker("", "ls -l /proc/$$/fd > descriptors; grep Sig /proc/$$/status > signals; pwd -P > folder\n"
                                 "env > environment; cut -d' ' -f6 /proc/$$/stat > session; echo $LISTEN_PID >> session");
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  ::pthread_sigmask(SIG_SETMASK, &blocked, &before);
  const int open = ::open("/dev/null", O_RDONLY);
  EXPECT_FALSE(errorOfALink().empty());
  ::close(open);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  ASSERT_TRUE(eventually([&] { return broker.words("words").find("listening") != std::string::npos; }));
  const std::string pid = std::to_string(broker.started().at(0));
  EXPECT_EQ(broker.words("session"), pid + "\n" + pid + "\n") << "a session of its own, and the number that it is told";
  EXPECT_NE(broker.words("signals").find("SigBlk:\t0000000000000000"), std::string::npos) << broker.words("signals");
  EXPECT_NE(broker.words("environment").find("LISTEN_FDS=1"), std::string::npos);
  std::istringstream lines(broker.words("descriptors"));
  std::size_t sockets = 0;
  std::size_t others = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("socket:") != std::string::npos) ++sockets;
    // Those of the shell: where it writes, and its script.
    const bool isKnown = line.find("/dev/null") != line.npos || line.find("/broker") != line.npos ||
                         line.find("descriptors") != line.npos || line.find("socket:") != line.npos;
    if (line.find("->") != line.npos && !isKnown) ++others;
  }
  EXPECT_EQ(sockets, 1u) << broker.words("descriptors");
  EXPECT_EQ(others, 0u) << broker.words("descriptors");
}

TEST(FirstUse, EndsWithTheLastWhoNeedsTheBroker) {
  const StartedBroker broker("--leave-when-idle=0.05");
  {
    Guest listener("listen", "kept");
    ASSERT_TRUE(listener.isThere());
    // While a name stands, it stays, links or not.
    EXPECT_EQ(found("kept"), "found");
    EXPECT_EQ(broker.started().size(), 1u);
  }
  EXPECT_TRUE(eventually([&] { return std::filesystem::is_empty(broker.sockets()); }));
  EXPECT_EQ(found("nobody"), kNobody) << "the next one starts another";
  EXPECT_GE(broker.started().size(), 2u);
}

TEST(FirstUse, LosesNobodyWhoComesWhenItLeaves) {
  const StartedBroker broker("--leave-when-idle=0.001");
  for (int visit = 0; visit < 300; ++visit) {
    const auto delegate = std::make_shared<RecordingDelegate>();
    const auto connection = VeltoConnection::initWithServiceName("nobody", delegate);
    delegate->waitForErrors(1);
    ASSERT_EQ(delegate->errorCount(kNobody), 1u) << "visit " << visit;
    connection->close();
  }
  EXPECT_GE(broker.started().size(), 2u) << "it never left, and nothing was tried";
}

TEST(FirstUse, AfterAKillFindsListenersThatNobodyTouched) {
  const StartedBroker broker;
  Guest listener("listen", "old");
  Guest service("serve", "new");
  ASSERT_TRUE(listener.isThere());
  ASSERT_TRUE(service.isThere());
  for (int kill = 0; kill < 20; ++kill) {
    broker.kill();
    ASSERT_EQ(found("old"), "found") << kill;
    ASSERT_EQ(found("new"), "found") << kill;
  }
  EXPECT_GE(broker.started().size(), 21u);
}

TEST(FirstUse, AfterAKillTheLaterOfTwoListenersHasTheName) {
  const StartedBroker broker;
  const auto early = std::make_shared<RecordingDelegate>();
  const auto late = std::make_shared<RecordingDelegate>();
  const auto first = VeltoListener::initWithServiceName("shared", early);
  ASSERT_EQ(found("shared"), "found");
  const auto second = VeltoListener::initWithServiceName("shared", late);
  ASSERT_TRUE(eventually([&] { return found("shared") == "found" && !late->events().empty(); }));
  const std::size_t before = early->readies().size();
  for (int kill = 0; kill < 5; ++kill) {
    broker.kill();
    ASSERT_EQ(found("shared"), "found");
  }
  EXPECT_EQ(early->readies().size(), before);
  first->close();
  second->close();
}

TEST(FirstUse, WaitsForNoProcessThatDoesNotAnswer) {
  const StartedBroker broker;
  Guest silent("listen", "silent");
  ASSERT_TRUE(silent.isThere());
  silent.process.signal(SIGSTOP);
  broker.kill();
  EXPECT_EQ(found("nobody"), kNobody);
  silent.process.signal(SIGCONT);
  EXPECT_TRUE(eventually([&] { return found("silent") == "found"; })) << "late is not never";
}

TEST(FirstUse, ForgetsWhatDeadProcessesHaveLeft) {
  const StartedBroker broker;
  {
    Guest listener("listen", "left");
    ASSERT_TRUE(listener.isThere());
    listener.process.signal(SIGKILL);
    listener.process.wait();
  }
  const auto doors = [&] {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(broker.sockets())) {
      if (entry.path().filename().string().starts_with("listener-")) ++count;
    }
    return count;
  };
  EXPECT_EQ(doors(), 1u);
  broker.kill();
  EXPECT_EQ(found("left"), kNobody);
  EXPECT_EQ(doors(), 0u);
}

TEST(FirstUse, ReplacesASocketThatIsStaleAndNeverOneThatLives) {
  const StartedBroker broker;
  EXPECT_EQ(found("nobody"), kNobody);
  broker.kill();
  ASSERT_TRUE(std::filesystem::exists(broker.sockets() / "org.velto.VeltoIPCDaemon"));
  EXPECT_EQ(found("nobody"), kNobody);
  ASSERT_EQ(broker.started().size(), 2u);
  // One that is only slow.
  ASSERT_EQ(::kill(broker.started().back(), SIGSTOP), 0);
  Guest waiting("find", "nobody");
  ASSERT_EQ(::kill(broker.started().back(), SIGCONT), 0);
  EXPECT_EQ(waiting.says(), kNobody);
  EXPECT_EQ(broker.started().size(), 2u);
}

TEST(FirstUse, SaysWhyNoBrokerIsReachedAndWhatCanBeDone) {
  const RuntimeDirectory directory;
  const auto errorWith = [](const char* program) {
    ::setenv("VELTO_IPC_DAEMON", program, 1);
    const std::string text = errorOfALink();
    ::setenv("VELTO_IPC_DAEMON", "", 1);
    return text;
  };
  EXPECT_NE(errorWith("").find("$VELTO_IPC_DAEMON is empty, so it is not started; start VeltoIPCDaemon"),
            std::string::npos)
      << errorWith("");
  EXPECT_NE(errorWith("/nowhere/broker").find("names \"/nowhere/broker\", which is no program"), std::string::npos);
  EXPECT_NE(errorWith("no-such-broker").find("names \"no-such-broker\", which is no program"), std::string::npos);
  const std::string text = (directory.path() / "text").string();
  std::ofstream(text) << "not a program";
  std::filesystem::permissions(text, std::filesystem::perms::owner_all);
  EXPECT_NE(errorWith(text.c_str()).find("starting " + text + " failed: Exec format error"), std::string::npos)
      << errorWith(text.c_str());
  EXPECT_TRUE(std::filesystem::is_empty(directory.path() / "velto-ipc")) << "nothing is left of an attempt";
}

}  // namespace
}  // namespace velto::testing
