#include "platform/xpc/transport/PeerProcess.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include <sys/epoll.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/testing/ConnectedChild.h"
#include "platform/xpc/testing/Support.h"
#include "platform/xpc/transport/Reactor.h"

namespace velto::transport {
namespace {

using system::Descriptor;
using velto::testing::ConnectedChild;
using velto::testing::eventually;
using velto::testing::Inbox;
using velto::testing::openDescriptors;
using velto::testing::PrivateRuntimeDirectory;

// The kernel, but for what a test wants otherwise.
class AlteredKernel final : public system::SystemCalls {
 public:
  // The number that every process has.
  std::atomic<pid_t> number{-1};
  std::atomic<int> numberError{0};
  std::atomic<int> peerError{0};
  std::atomic<int> processError{0};
  std::atomic<int> watchError{0};
  // How often this thread has waited for events.
  static inline thread_local int waits = 0;

  void reset() {
    number = -1;
    numberError = peerError = processError = watchError = 0;
  }

  int peerProcess(int socket, pid_t& process) override {
    if (fails(numberError)) return -1;
    const int result = SystemCalls::peerProcess(socket, process);
    if (number >= 0) process = number;
    return result;
  }
  int openPeerProcess(int socket) override { return fails(peerError) ? -1 : SystemCalls::openPeerProcess(socket); }
  int openProcess(pid_t process) override { return fails(processError) ? -1 : SystemCalls::openProcess(process); }
  int epollControl(int epoll, int operation, int descriptor, epoll_event& event) override {
    if (operation == EPOLL_CTL_ADD && fails(watchError)) return -1;
    return SystemCalls::epollControl(epoll, operation, descriptor, event);
  }
  int epollWait(int epoll, epoll_event* events, int capacity) override {
    ++waits;
    return SystemCalls::epollWait(epoll, events, capacity);
  }
  int epollLook(int epoll, epoll_event* events, int capacity) override {
    ++waits;
    return SystemCalls::epollLook(epoll, events, capacity);
  }

 private:
  static bool fails(const std::atomic<int>& error) {
    if (error != 0) errno = error;
    return error != 0;
  }
};

// Where children connect to.
class Door {
 public:
  Door() {
    sockaddr_un address{AF_UNIX, {}};
    std::strcpy(address.sun_path, path().c_str());
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(socket_.get(), 4096), 0);
  }
  std::string path() const { return directory_.path() + "/door"; }
  Descriptor accept() { return Descriptor(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)); }

 private:
  const PrivateRuntimeDirectory directory_;
  const Descriptor socket_{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

// A process that has connected, and this end of its connections.
class Child : public ConnectedChild {
 public:
  explicit Child(Door& door, std::size_t connections = 1) : ConnectedChild(door.path(), connections) {
    for (std::size_t count = 0; count < connections; ++count) sockets.push_back(door.accept());
  }

  std::shared_ptr<PeerProcess> peer() const { return PeerProcess::of(sockets.front().get()); }

  std::vector<Descriptor> sockets;
};

class PeerProcesses : public ::testing::Test {
 protected:
  // The reactor's descriptors are made, and a thread of it waits.
  PeerProcesses() : witness(door), watched(witness.peer()) {}
  ~PeerProcesses() override { kernel.reset(); }

  // In place from the first test on and never destroyed: threads of the reactor are in its calls.
  static AlteredKernel& alteredKernel() {
    static AlteredKernel& made = *[] {
      auto* altered = new AlteredKernel;
      system::replaceSystemCalls(altered);
      return altered;
    }();
    return made;
  }

  AlteredKernel& kernel = alteredKernel();
  Door door;
  Child witness;
  std::shared_ptr<PeerProcess> watched;
};

TEST_F(PeerProcesses, AreToldByTheKernel) {
  const Child child(door);
  const auto peer = child.peer();
  EXPECT_EQ(peer->identifier(), child.process());
  EXPECT_FALSE(peer->isDead());
  EXPECT_NE(peer, watched);
  EXPECT_NE(peer->number(), watched->number());
}

TEST_F(PeerProcesses, OfAThousandConnectionsAreOneAndCostOneDescriptor) {
  const Child child(door, 1000);
  const std::size_t before = openDescriptors();
  std::vector<std::shared_ptr<PeerProcess>> peers;
  for (const Descriptor& socket : child.sockets) peers.push_back(PeerProcess::of(socket.get()));
  for (const auto& peer : peers) EXPECT_EQ(peer, peers.front());
  EXPECT_EQ(openDescriptors(), before + 1);
  peers.clear();
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(PeerProcesses, LendTheirDescriptorBeyondTheirDeathAndNoLonger) {
  Child child(door);
  const std::size_t before = openDescriptors();
  auto peer = child.peer();
  EXPECT_EQ(peer->user(), ::geteuid());
  const int lent = peer->lendDescriptor();
  EXPECT_GE(lent, 0);
  Inbox<bool> told;
  {
    const auto death = peer->onDeath([&] { told.put(true); });
    child.dies();
    told.waitFor(1);
  }
  EXPECT_EQ(system::systemCalls().isReadable(lent), 1);
  EXPECT_EQ(peer->lendDescriptor(), lent);
  peer.reset();
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(PeerProcesses, ThatHaveDiedHaveNoneToLend) {
  Child child(door);
  const auto peer = child.peer();
  Inbox<bool> told;
  const auto death = peer->onDeath([&] { told.put(true); });
  child.dies();
  told.waitFor(1);
  EXPECT_EQ(peer->lendDescriptor(), -1);
}

TEST_F(PeerProcesses, ThatAreThisOneAreOneAndCostNoDescriptor) {
  const auto [one, other] = velto::testing::socketPair();
  const std::size_t before = openDescriptors();
  const auto peer = PeerProcess::of(one.get());
  EXPECT_EQ(peer, PeerProcess::of(other.get()));
  EXPECT_EQ(peer->identifier(), ::getpid());
  EXPECT_FALSE(peer->isDead());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(peer->user(), ::geteuid());
  EXPECT_GE(peer->lendDescriptor(), 0);
  EXPECT_FALSE(peer->isDead());
  EXPECT_EQ(openDescriptors(), before + 1) << "until it is asked for";
}

TEST_F(PeerProcesses, WithoutANumberAreEachTheirOwn) {
  const auto expectUnknown = [&] {
    const auto one = watched;
    const auto peer = witness.peer();
    const auto again = witness.peer();
    EXPECT_NE(peer, again);
    EXPECT_NE(peer->number(), again->number());
    EXPECT_EQ(peer->identifier(), 0);
    EXPECT_FALSE(peer->isDead());
  };
  kernel.number = 0;
  expectUnknown();
  kernel.number = -1;
  kernel.numberError = ENOMEM;
  expectUnknown();
}

TEST_F(PeerProcesses, TellOnceOnAnotherThreadThatTheyDieAndGiveTheirDescriptorBack) {
  Child child(door);
  const std::size_t before = openDescriptors();
  const auto peer = child.peer();
  Inbox<std::thread::id> told;
  const auto first = peer->onDeath([&] { told.put(std::this_thread::get_id()); });
  const auto second = peer->onDeath([&] { told.put(std::this_thread::get_id()); });
  EXPECT_TRUE(told.soFar().empty());
  child.diesUnburied();
  for (const auto thread : told.waitFor(2)) EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_TRUE(peer->isDead());
  child.dies();
  EXPECT_TRUE(peer->isDead());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(told.soFar().size(), 2U);
}

TEST_F(PeerProcesses, ThatAreDeadAlreadySaySoAndTellSoon) {
  for (const bool isBuried : {false, true}) {
    Child child(door);
    child.diesUnburied();
    if (isBuried) child.dies();
    ASSERT_TRUE(eventually([&] { return child.peer()->isDead(); }));
    const std::size_t before = openDescriptors();
    const auto peer = child.peer();
    Inbox<std::thread::id> told;
    const auto subscription = peer->onDeath([&] { told.put(std::this_thread::get_id()); });
    EXPECT_NE(told.waitFor(1).front(), std::this_thread::get_id());
    EXPECT_EQ(openDescriptors(), before);
  }
}

TEST_F(PeerProcesses, TellNobodyWhoDoesNotListenAnyMore) {
  Child child(door);
  const auto peer = child.peer();
  std::atomic<int> mistakes{0};
  Inbox<int> told;
  auto destroyed = std::make_optional(peer->onDeath([&] { ++mistakes; }));
  auto replaced = peer->onDeath([&] { ++mistakes; });
  auto moved = peer->onDeath([&] { told.put(1); });
  destroyed.reset();
  replaced = std::move(moved);
  const auto last = peer->onDeath([&] { told.put(2); });
  child.dies();
  told.waitFor(2);
  EXPECT_EQ(mistakes, 0);
}

TEST_F(PeerProcesses, MayBeLetGoOfByTheirOwnHandler) {
  Child child(door);
  const std::size_t before = openDescriptors();
  Inbox<int> told;
  std::mutex mutex;
  std::optional<PeerProcess::Subscription> subscription;
  {
    const std::lock_guard lock(mutex);
    subscription = child.peer()->onDeath([&] {
      {
        const std::lock_guard inHandler(mutex);
        subscription.reset();
      }
      told.put(1);
    });
  }
  child.dies();
  told.waitFor(1);
  EXPECT_TRUE(eventually([&] { return openDescriptors() == before; }));
}

TEST_F(PeerProcesses, AreWatchedForAsLongAsASubscriptionStands) {
  const Child child(door);
  const std::size_t before = openDescriptors();
  auto subscription = child.peer()->onDeath([] {});
  EXPECT_EQ(openDescriptors(), before + 1);
  subscription = {};
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(PeerProcesses, TellTheRestWhenOneHandlerRaises) {
  Inbox<std::string> logged;
  VKTLogSetSink([&](const VKTLogAnchor&, int, const NSString& text) { logged.put(text.string()); });
  Child child(door);
  const auto peer = child.peer();
  Inbox<int> told;
  const auto raising = peer->onDeath([] { throw std::runtime_error("a handler's own failure"); });
  const auto next = peer->onDeath([&] { told.put(1); });
  child.dies();
  told.waitFor(1);
  EXPECT_EQ(logged.waitFor(1).front(), "The death of a process could not be dealt with: a handler's own failure");
  VKTLogSetSink({});
}

// Between two waits for an event a thread tells a few.
TEST_F(PeerProcesses, WithManyHandlersLeaveOthersTheirTurn) {
  constexpr std::size_t kHandlers = 1000;
  Child child(door);
  const auto peer = child.peer();
  Inbox<std::pair<std::thread::id, int>> told;
  std::vector<PeerProcess::Subscription> subscriptions;
  for (std::size_t count = 0; count < kHandlers; ++count) {
    subscriptions.push_back(peer->onDeath([&] { told.put({std::this_thread::get_id(), AlteredKernel::waits}); }));
  }
  child.dies();
  std::map<std::pair<std::thread::id, int>, int> toldInOneTurn;
  for (const auto& turn : told.waitFor(kHandlers)) EXPECT_LE(++toldInOneTurn[turn], 64);
  EXPECT_EQ(told.soFar().size(), kHandlers);
}

TEST_F(PeerProcesses, WithTheNumberOfADeadOneAreOthers) {
  kernel.number = 1'000'000;
  Child child(door);
  Child successor(door);
  const auto peer = child.peer();
  child.dies();
  const auto other = successor.peer();
  EXPECT_NE(other, peer);
  EXPECT_TRUE(peer->isDead());
  EXPECT_FALSE(other->isDead());
  // A connection that the dead one has left behind is not its successor's.
  const auto late = child.peer();
  EXPECT_TRUE(late->isDead());
  EXPECT_EQ(successor.peer(), other);
}

TEST_F(PeerProcesses, AreFoundByTheirNumberWhereTheKernelOffersNothingBetter) {
  for (const int error : {ENOPROTOOPT, EINVAL, ENODATA, EPERM}) {
    kernel.peerError = error;
    Child child(door);
    const auto peer = child.peer();
    Inbox<int> told;
    const auto subscription = peer->onDeath([&] { told.put(1); });
    EXPECT_EQ(child.peer(), peer);
    EXPECT_FALSE(peer->isDead());
    child.dies();
    told.waitFor(1);
    EXPECT_TRUE(child.peer()->isDead()) << "nobody has the number";
  }
}

TEST_F(PeerProcesses, ThatCannotBeWatchedAreWatchedAsSoonAsTheyCanBe) {
  const auto expectWatchedLater = [&](const std::string& when) {
    Child child(door);
    const std::size_t before = openDescriptors();
    const auto peer = child.peer();
    EXPECT_FALSE(peer->isDead()) << when;
    EXPECT_EQ(child.peer(), peer) << when << ": it is one process all the same";
    EXPECT_EQ(openDescriptors(), before) << when;
    Inbox<int> told;
    const auto subscription = peer->onDeath([&] { told.put(1); });
    kernel.peerError = kernel.processError = kernel.watchError = 0;
    EXPECT_EQ(child.peer(), peer) << when;
    EXPECT_EQ(openDescriptors(), before + 1) << when;
    child.dies();
    told.waitFor(1);
  };
  for (const int error : {EMFILE, ENFILE, ENOMEM}) {
    kernel.peerError = error;
    expectWatchedLater(std::strerror(error));
  }
  for (const int error : {EMFILE, ENFILE, ENOMEM, ENOSYS, EPERM}) {
    kernel.peerError = ENOPROTOOPT;
    kernel.processError = error;
    expectWatchedLater(std::string("by number: ") + std::strerror(error));
  }
  for (const int error : {ENOSPC, ENOMEM}) {
    kernel.watchError = error;
    expectWatchedLater(std::string("no room: ") + std::strerror(error));
  }
}

TEST_F(PeerProcesses, ThatCannotBeWatchedAndAreDeadSaySoOnceTheyCanBe) {
  kernel.peerError = EMFILE;
  Child child(door);
  const auto peer = child.peer();
  child.dies();
  EXPECT_FALSE(peer->isDead()) << "nobody can know";
  kernel.peerError = 0;
  EXPECT_TRUE(child.peer()->isDead());
}

TEST_F(PeerProcesses, OfTheParentSayNothingInTheChildOfAFork) {
  const auto peer = watched;
  auto subscription = peer->onDeath([] {});
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (peer->isDead()) ::_exit(1);
    subscription = {};
    const auto ignored = peer->onDeath([] {});
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) ::_exit(2);
    const auto own = PeerProcess::of(ends[0]);
    if (own->identifier() != ::getpid() || own == peer) ::_exit(3);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(peer->isDead());
}

TEST_F(PeerProcesses, CanBeAskedForInTheChildWhileTheParentAsksForThem) {
  std::atomic<bool> over{false};
  std::thread asking([&] {
    while (!over) {
      const auto peer = witness.peer();
      const auto subscription = peer->onDeath([] {});
    }
  });
  for (int round = 0; round < 200; ++round) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::alarm(20);
      int ends[2];
      if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) ::_exit(1);
      ::_exit(PeerProcess::of(ends[0])->identifier() == ::getpid() && !watched->isDead() ? 0 : 2);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  over = true;
  asking.join();
}

TEST_F(PeerProcesses, MayDieWhileOthersComeAndGo) {
  for (int round = 0; round < 20; ++round) {
    Child child(door, 4);
    const std::size_t before = openDescriptors();
    std::atomic<int> told{0};
    std::atomic<int> kept{0};
    std::atomic<bool> isDead{false};
    std::vector<std::thread> threads;
    for (const Descriptor& socket : child.sockets) {
      threads.emplace_back([&] {
        std::vector<PeerProcess::Subscription> subscriptions;
        for (int count = 0; count < 200; ++count) {
          const auto peer = PeerProcess::of(socket.get());
          if (count % 2 == 0) {
            const auto dropped = peer->onDeath([] {});
          } else {
            subscriptions.push_back(peer->onDeath([&] { ++told; }));
            ++kept;
          }
        }
        // What was subscribed to before the death and what after it is told alike.
        EXPECT_TRUE(eventually([&] { return isDead.load(); }));
        EXPECT_TRUE(eventually([&] { return told == kept && kept == 400; })) << told << " of " << kept;
      });
    }
    child.dies();
    isDead = true;
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(told, 400);
    EXPECT_TRUE(eventually([&] { return openDescriptors() == before; }));
  }
}

}  // namespace
}  // namespace velto::transport
