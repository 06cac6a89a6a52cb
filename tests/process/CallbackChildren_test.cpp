// Programs that callbacks start. The threads that callbacks run on block every signal; what they start must not.

#include <array>
#include <functional>
#include <string>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/LibraryTest.h"

namespace velto::testing {
namespace {

constexpr double kSeconds = 20;

// SIGUSR2 is the program's own to block, here as in its children.
class CallbackChildren : public ::testing::Test {
 protected:
  CallbackChildren() {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &blocked, &former_);
    ends.emplace();
  }
  ~CallbackChildren() override {
    ends.reset();
    pthread_sigmask(SIG_SETMASK, &former_, nullptr);
  }

  // What `find` says in a callback of the listener's delegate.
  std::string inCallback(const std::function<std::string()>& find) {
    ends->pair.server.delegate->onMessage([&](const NSDictionary&, const NSString&, const VeltoReplyHandler& reply) {
      reply({{"answer", find()}});
    });
    const NSDictionary question{{"question", true}};
    const NSDictionary answer = ends->pair.client.connection->sendMessageSync(question, kSeconds);
    return answer["answer"].stringValue();
  }

 private:
  struct Ends {
    RuntimeDirectory directory;
    LogCapture log;
    BrokerHere broker;
    Pair pair;
  };
  sigset_t former_{};

 protected:
  std::optional<Ends> ends;
};

std::string hexadecimalMask(std::initializer_list<int> signals) {
  std::uint64_t bits = 0;
  for (const int signal : signals) bits |= std::uint64_t{1} << (signal - 1);
  std::array<char, 17> text{};
  std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(bits));
  return text.data();
}

// Of the thread that asks.
std::string ownMask() {
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  std::uint64_t bits = 0;
  for (int signal = 1; signal <= 64; ++signal) {
    if (sigismember(&blocked, signal) == 1) bits |= std::uint64_t{1} << (signal - 1);
  }
  std::array<char, 17> text{};
  std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(bits));
  return text.data();
}

// A program that prints the mask that it was started with.
char kProgram[] = "/bin/sed";
char kQuiet[] = "-n";
char kScript[] = "s/^SigBlk:\t//p";
char kStatus[] = "/proc/self/status";
char* const kPrintMask[] = {kProgram, kQuiet, kScript, kStatus, nullptr};

// What `start`, which makes a process that writes to this descriptor, brings about.
std::string outputOf(const std::function<pid_t(int)>& start) {
  int pipeEnds[2] = {-1, -1};
  if (pipe2(pipeEnds, O_CLOEXEC) != 0) return "no pipe";
  const pid_t child = start(pipeEnds[1]);
  close(pipeEnds[1]);
  std::string output;
  char byte = 0;
  while (read(pipeEnds[0], &byte, 1) == 1) {
    if (byte != '\n') output += byte;
  }
  close(pipeEnds[0]);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return "no child";
  return output;
}

[[noreturn]] void becomeProgramThatPrintsItsMask(int output) {
  if (dup2(output, STDOUT_FILENO) == STDOUT_FILENO) execv(kProgram, kPrintMask);
  _exit(1);
}

pid_t forkAndExec(int output) {
  const pid_t child = fork();
  if (child == 0) becomeProgramThatPrintsItsMask(output);
  return child;
}

// A child that has a mask of its own forks another.
pid_t forkTwice(int output) {
  const pid_t child = fork();
  if (child != 0) return child;
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGHUP);
  pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
  const pid_t grandchild = fork();
  if (grandchild == 0) becomeProgramThatPrintsItsMask(output);
  int status = 1;
  waitpid(grandchild, &status, 0);
  _exit(status == 0 ? 0 : 1);
}

pid_t spawn(int output, const sigset_t* mask) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  if (mask != nullptr) {
    posix_spawnattr_setsigmask(&attributes, mask);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  }
  pid_t child = -1;
  if (posix_spawn(&child, kProgram, &actions, &attributes, kPrintMask, environ) != 0) child = -1;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return child;
}

TEST_F(CallbackChildren, AProgramThatACallbackForksAndExecutesHasTheMaskOfTheProcess) {
  EXPECT_EQ(inCallback([] { return outputOf(forkAndExec); }), hexadecimalMask({SIGUSR2}));
}

TEST_F(CallbackChildren, TheCallbackItselfHasEverySignalBlockedBeforeAndAfterAFork) {
  const std::string blocked = inCallback(ownMask);
  EXPECT_NE(blocked, hexadecimalMask({SIGUSR2}));
  EXPECT_EQ(inCallback([] {
              outputOf(forkAndExec);
              return ownMask();
            }),
            blocked);
}

TEST_F(CallbackChildren, AForkOfACallbacksForkInheritsTheMaskThatThisHasSet) {
  EXPECT_EQ(inCallback([] { return outputOf(forkTwice); }), hexadecimalMask({SIGHUP}));
}

TEST_F(CallbackChildren, AProgramThatACallbackSpawnsHasTheMaskThatIsAskedFor) {
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  const auto start = [&own](int output) { return spawn(output, &own); };
  EXPECT_EQ(inCallback([&] { return outputOf(start); }), hexadecimalMask({SIGUSR2}));
}

TEST_F(CallbackChildren, AForkOfTheProgramsOwnThreadKeepsTheMaskOfThatThread) {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  EXPECT_EQ(outputOf(forkAndExec), hexadecimalMask({SIGUSR2, SIGALRM}));
}

}  // namespace
}  // namespace velto::testing
