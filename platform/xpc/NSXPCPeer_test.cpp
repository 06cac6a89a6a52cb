#include "platform/xpc/NSXPCPeer.h"

#include <algorithm>
#include <fstream>

#include "platform/xpc/testing/ConnectedChild.h"
#include "platform/xpc/testing/Greeter.h"
#include "platform/xpc/transport/Sockets.h"
#include "platform/xpc/wire/Messages.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::testing {
namespace {

constexpr char kName[] = "org.velto.test.peers";

// A connection's first words: a hello, and the call with which it is handed over.
std::vector<std::uint8_t> firstWords() {
  wire::ValueEncoder encoder(wire::FrameType::call);
  wire::encodeCallHeader(encoder, {1, "wave", false});
  std::vector<std::uint8_t> words;
  for (const wire::Frame& frame : {wire::Hello::ours().encode(), encoder.take()}) {
    const auto header = wire::FrameHeader{static_cast<std::uint32_t>(frame.body.size()), frame.type, 0}.encode();
    words.insert(words.end(), header.begin(), header.end());
    words.insert(words.end(), frame.body.begin(), frame.body.end());
  }
  return words;
}

class ConnectionPeers : public ::testing::Test {
 protected:
  ConnectionPeers() {
    listener->setDelegate(service);
    listener->resume();
  }

  std::string path() const { return listener->path().string(); }

  const PrivateRuntimeDirectory directory;
  const std::shared_ptr<GreeterService> service = std::make_shared<GreeterService>();
  const std::shared_ptr<NSXPCListener> listener = NSXPCListener::listenerWithServiceName(kName);
};

TEST_F(ConnectionPeers, AreNilUntilTheConnectionIsMadeAndThenStay) {
  const auto connection = NSXPCConnection::initWithServiceName(kName);
  EXPECT_FALSE(connection->peer());
  EXPECT_EQ(connection->peer().number(), 0U);
  EXPECT_EQ(connection->peer().processIdentifier(), 0);
  EXPECT_EQ(connection->peer(), NSXPCPeer(nil));
  EXPECT_EQ(connection->peer().userIdentifier(), static_cast<uid_t>(-1));
  EXPECT_EQ(connection->peer().processDescriptor(), -1);
  EXPECT_FALSE(connection->peer().watch([] {}));
  GreeterClient client(connection);
  client.greet("Ada");
  const NSXPCPeer peer = connection->peer();
  EXPECT_TRUE(peer);
  EXPECT_EQ(peer.processIdentifier(), ::getpid());
  connection->invalidate();
  EXPECT_EQ(connection->peer(), peer);
}

TEST_F(ConnectionPeers, AreEqualForAllConnectionsOfOneProcessAndNoOther) {
  const ConnectedChild one(path(), 2, firstWords());
  const ConnectedChild other(path(), 1, firstWords());
  NSXPCPeer peer;
  std::size_t equal = 0;
  for (const auto& connection : service->accepted.waitFor(3)) {
    if (connection->peer().processIdentifier() == other.process()) {
      EXPECT_NE(connection->peer().number(), peer.number());
      continue;
    }
    EXPECT_EQ(connection->peer().processIdentifier(), one.process());
    equal += !peer || (connection->peer() == peer && connection->peer().number() == peer.number()) ? 1 : 0;
    peer = connection->peer();
  }
  EXPECT_EQ(equal, 2U);
}

// What the kernel says of a pidfd's process; 0 once it has been waited for.
pid_t processBehind(int descriptor) {
  std::ifstream info("/proc/self/fdinfo/" + std::to_string(descriptor));
  for (std::string word; info >> word;) {
    pid_t process = 0;
    if (word == "Pid:" && info >> process) return std::max(process, 0);
  }
  return 0;
}

TEST_F(ConnectionPeers, LendADescriptorOfTheirProcessAndTellItsUser) {
  ConnectedChild child(path(), 1, firstWords());
  const NSXPCPeer peer = service->accepted.waitFor(1).front()->peer();
  EXPECT_EQ(peer.userIdentifier(), ::geteuid());
  const int descriptor = peer.processDescriptor();
  EXPECT_EQ(processBehind(descriptor), child.process());
  EXPECT_EQ(peer.processDescriptor(), descriptor) << "the same each time";
}

TEST_F(ConnectionPeers, OfThisProcessLendADescriptorToo) {
  const auto ends = NSXPCConnection::pair();
  ends.first->resume();
  const NSXPCPeer peer = ends.first->peer();
  EXPECT_EQ(peer.userIdentifier(), ::geteuid());
  EXPECT_EQ(processBehind(peer.processDescriptor()), ::getpid());
  ends.first->invalidate();
}

TEST_F(ConnectionPeers, TellOfTheDeathOfTheirProcess) {
  ConnectedChild child(path(), 1, firstWords());
  const NSXPCPeer peer = service->accepted.waitFor(1).front()->peer();
  Inbox<std::string> told;
  auto ended = peer.watch([&] { told.put("too late"); });
  const auto watch = peer.watch([&] { told.put("watched"); });
  ended.reset();
  child.dies();
  EXPECT_EQ(told.waitFor(1).front(), "watched");
  const auto late = peer.watch([&] { told.put("late"); });
  EXPECT_EQ(told.waitFor(2).back(), "late");
}

// A listener that never reads.
class DeafEnd {
 public:
  NSXPCListenerEndpoint endpoint() const {
    return NSXPCListenerEndpoint::endpointWithDescriptors(
        std::make_shared<const system::Descriptor>(::dup(made_.handle.get())),
        std::make_shared<const system::Descriptor>(::dup(made_.hangUpRead.get())));
  }
  system::Descriptor accept() const {
    return system::Descriptor(::accept4(made_.socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

 private:
  const transport::AnonymousSocket made_ = transport::makeAnonymousSocket();
};

TEST_F(ConnectionPeers, WhoDoNotReadCannotKeepAConnectionThatIsInvalidatedAtOnce) {
  const DeafEnd deaf;
  GreeterClient client(NSXPCConnection::initWithListenerEndpoint(deaf.endpoint()));
  const NSData portion(std::vector<std::uint8_t>(std::size_t{4} << 20));
  client.proxy->call<&Greeter::tell>(NSDictionary{{"portion", portion}});
  const auto accepted = deaf.accept();
  const std::size_t open = openDescriptors();
  client.connection->invalidateAtOnce();
  EXPECT_EQ(openDescriptors(), open - 1);
  EXPECT_EQ(client.events.waitFor(1), std::vector<std::string>{"invalidated"});
  client.connection->invalidateAtOnce();
  client.connection->invalidate();
}

TEST_F(ConnectionPeers, WhoReadAreToldOfAConnectionThatIsInvalidatedAtOnce) {
  GreeterClient client(NSXPCConnection::initWithServiceName(kName));
  client.greet("Ada");
  service->accepted.waitFor(1).front()->invalidateAtOnce();
  EXPECT_EQ(client.events.waitFor(1), std::vector<std::string>{"invalidated"});
}

}  // namespace
}  // namespace velto::testing
