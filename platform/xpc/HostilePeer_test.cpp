// A peer that speaks the protocol wrong, byte by byte over a bare socket: its connection ends and the log says why; the
// listener, and everybody else, goes on.

#include <algorithm>
#include <atomic>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/testing/Greeter.h"
#include "platform/xpc/transport/DescriptorMessage.h"
#include "platform/xpc/transport/Sockets.h"
#include "platform/xpc/wire/FrameReader.h"
#include "platform/xpc/wire/Messages.h"
#include "platform/xpc/wire/SharedMemory.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::testing {
namespace {

using wire::Frame;
using wire::FrameType;

// A socket that sends what it is told to.
class RawPeer {
 public:
  explicit RawPeer(const NSXPCListenerEndpoint& endpoint)
      : socket_(std::move(transport::connectToEndpoint(endpoint.socket()->get()).socket)) {}

  void send(std::vector<std::uint8_t> bytes, const std::vector<system::SharedDescriptor>& descriptors = {}) {
    iovec part{bytes.data(), bytes.size()};
    ssize_t sent = transport::sendWithDescriptors(socket_.get(), {&part, 1}, descriptors);
    while (sent < 0 && errno == EAGAIN) {
      pollfd entry{socket_.get(), POLLOUT, 0};
      ::poll(&entry, 1, -1);
      sent = transport::sendWithDescriptors(socket_.get(), {&part, 1}, descriptors);
    }
    // An end that has cut this one off takes nothing more.
    EXPECT_TRUE(sent < 0 || sent == static_cast<ssize_t>(bytes.size())) << sent;
  }
  void send(const Frame& frame) { sendAs(frame, frame.descriptors.size()); }
  // With a count of descriptors in the header that need not be true.
  void sendAs(const Frame& frame, std::size_t declared) {
    const auto header = wire::FrameHeader{static_cast<std::uint32_t>(frame.body.size()), frame.type,
                                          static_cast<std::uint16_t>(declared), frame.regions}
                            .encode();
    std::vector<std::uint8_t> bytes(header.begin(), header.end());
    bytes.insert(bytes.end(), frame.body.begin(), frame.body.end());
    send(std::move(bytes), frame.descriptors);
  }
  void greet() { send(wire::Hello::ours().encode()); }

  // Whether the other end closes, having read on to the end of what it sent.
  bool isCutOff() {
    std::vector<std::uint8_t> room(4096);
    const auto end = std::chrono::steady_clock::now() + kGenerous;
    while (std::chrono::steady_clock::now() < end) {
      pollfd entry{socket_.get(), POLLIN, 0};
      ::poll(&entry, 1, 1000);
      const auto received = transport::receiveWithDescriptors(socket_.get(), room);
      if (received.error == EAGAIN) continue;
      if (received.error != 0 || received.count == 0) return true;
    }
    return false;
  }
  void close() { socket_.reset(); }
  // The next frame that the other end sends; a goodbye when it sends none any more.
  Frame receive() {
    const auto end = std::chrono::steady_clock::now() + kGenerous;
    while (std::chrono::steady_clock::now() < end) {
      if (auto frame = reader_->next()) return std::move(*frame);
      pollfd entry{socket_.get(), POLLIN, 0};
      ::poll(&entry, 1, 1000);
      auto received = transport::receiveWithDescriptors(socket_.get(), reader_->prepare(4096));
      if (received.error == EAGAIN) continue;
      if (received.error != 0 || received.count == 0) break;
      reader_->received(received.count, std::move(received.descriptors));
    }
    return wire::encodeGoodbye();
  }

 private:
  system::Descriptor socket_;
  std::unique_ptr<wire::FrameReader> reader_ = std::make_unique<wire::FrameReader>();
};

Frame callFrame(const std::string& selector, bool wantsReply, const std::vector<NSObject>& arguments,
                std::uint64_t identifier = 1) {
  wire::ValueEncoder encoder(FrameType::call);
  wire::encodeCallHeader(encoder, {identifier, selector, wantsReply});
  for (const NSObject& argument : arguments) encoder.add(argument);
  return encoder.take();
}

system::SharedDescriptor openFile(const char* path, int flags) {
  return std::make_shared<const system::Descriptor>(system::Descriptor(::open(path, flags | O_CLOEXEC)));
}

system::SharedDescriptor memoryOf(std::size_t bytes, int seals) {
  const int descriptor = ::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  EXPECT_EQ(::ftruncate(descriptor, static_cast<off_t>(bytes)), 0);
  EXPECT_EQ(::fcntl(descriptor, F_ADD_SEALS, seals), 0);
  return std::make_shared<const system::Descriptor>(system::Descriptor(descriptor));
}

class HostilePeer : public ::testing::Test {
 protected:
  HostilePeer() {
    VKTLogSetSink([lines = lines_](const VKTLogAnchor&, int, const NSString& text) { lines->put(text.string()); });
    listener->setDelegate(service);
    listener->resume();
  }
  ~HostilePeer() override { VKTLogSetSink({}); }

  // The peer is cut off with these words in the log, and an honest client is served as before.
  void expectCutOff(RawPeer& peer, const std::string& words) {
    EXPECT_TRUE(peer.isCutOff());
    EXPECT_TRUE(eventually([&] { return logged(words); })) << "no line says: " << words;
    GreeterClient honest(NSXPCConnection::initWithListenerEndpoint(listener->endpoint()));
    EXPECT_EQ(honest.greet("Ada"), "hello Ada");
  }
  bool logged(const std::string& words) {
    const auto lines = lines_->soFar();
    return std::ranges::any_of(lines, [&](const std::string& line) { return line.find(words) != line.npos; });
  }

  const PrivateRuntimeDirectory directory;
  const std::shared_ptr<Inbox<std::string>> lines_ = std::make_shared<Inbox<std::string>>();
  const std::shared_ptr<GreeterService> service = std::make_shared<GreeterService>();
  const std::shared_ptr<NSXPCListener> listener = NSXPCListener::anonymousListener();
};

// Notes what the kernel is asked for when somebody is accepted. Never destroyed: threads may still be in a call.
class AcceptanceSystemCalls final : public system::SystemCalls {
 public:
  int setTimer(int timer, std::uint64_t nanoseconds) override {
    ++timersSet;
    return SystemCalls::setTimer(timer, nanoseconds);
  }
  int accept(int socket) override {
    const int accepted = SystemCalls::accept(socket);
    if (accepted >= 0) acceptor = std::this_thread::get_id();
    return accepted;
  }
  ssize_t receiveMessage(int socket, msghdr& message) override {
    const ssize_t received = SystemCalls::receiveMessage(socket, message);
    if (received > 0 && std::this_thread::get_id() == acceptor.load()) ++readByAcceptor;
    return received;
  }

  std::atomic<int> timersSet{0};
  std::atomic<int> readByAcceptor{0};
  std::atomic<std::thread::id> acceptor;
};

TEST_F(HostilePeer, RegionsThatCanStillChangeOrAreMoreThanTheyShouldBeEndTheConnection) {
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
  const auto expectEnd = [this](system::SharedDescriptor region, const std::string& words) {
    RawPeer peer(listener->endpoint());
    peer.greet();
    Frame call = callFrame("tell:", false, {NSDictionary{{"news", "none"}}});
    call.descriptors.push_back(std::move(region));
    call.regions = 18;
    peer.send(call);
    expectCutOff(peer, words);
  };
  const std::size_t least = limits::kLeastRegionBytes;
  expectEnd(memoryOf(least, F_SEAL_SHRINK | F_SEAL_GROW), "a call with a region that is not sealed");
  expectEnd(memoryOf(least + 1, kSeals), "bytes of a frame's regions: 262145, maximum 262144");
  expectEnd(memoryOf(least - 1, kSeals), "a region of 262143 bytes, fewer than 262144");
}

// Bytes that the fuzzer of connections found: a hello with small limits, then a call whose answer is over them.
TEST_F(HostilePeer, AReplyOverWhatThePeerHasStatedIsRefusedWithTheLimit) {
  RawPeer peer(listener->endpoint());
  wire::Hello hello = wire::Hello::ours();
  hello.maximumFrameBytes = 40;
  hello.maximumDescriptors = 1;
  peer.send(hello.encode());
  ASSERT_EQ(peer.receive().type, FrameType::hello);
  const auto refusalOf = [&peer](const Frame& call) {
    peer.send(call);
    const Frame answer = peer.receive();
    EXPECT_EQ(answer.type, FrameType::replyRefusal);
    EXPECT_TRUE(answer.descriptors.empty());
    std::string reason;
    const auto refusal = wire::Refusal::decode(answer, reason);
    EXPECT_TRUE(refusal && refusal->code == wire::kLimitExceeded) << reason;
    return refusal ? refusal->text : std::string();
  };
  EXPECT_EQ(refusalOf(callFrame("greet:reply:", true, {std::string(40, 'x')})),
            "bytes of a frame to this peer: 49, the maximum is 40");
  EXPECT_EQ(refusalOf(callFrame("introduce:reply:", true, {listener->endpoint()}, 2)),
            "descriptors of a frame to this peer: 2, the maximum is 1");
  peer.send(callFrame("greet:reply:", true, {"Ada"}, 3));
  EXPECT_EQ(peer.receive().type, FrameType::reply);
}

TEST_F(HostilePeer, GarbageIsCutOff) {
  RawPeer peer(listener->endpoint());
  peer.send(std::vector<std::uint8_t>(64, 0xff));
  expectCutOff(peer, "is cut off");
}

TEST_F(HostilePeer, ALengthOverTheLimitIsCutOffBeforeAnyOfItHasCome) {
  RawPeer peer(listener->endpoint());
  peer.greet();
  const auto header =
      wire::FrameHeader{static_cast<std::uint32_t>(limits::kMaximumFrameBytes + 1), FrameType::call, 0}.encode();
  peer.send(std::vector<std::uint8_t>(header.begin(), header.end()));
  expectCutOff(peer, std::to_string(limits::kMaximumFrameBytes));
}

TEST_F(HostilePeer, AnotherVersionIsCutOffNamingBoth) {
  RawPeer peer(listener->endpoint());
  auto hello = wire::Hello::ours();
  hello.version = 7;
  peer.send(hello.encode());
  expectCutOff(peer, "the other end speaks version 7 of the protocol, this one version 1");
}

TEST_F(HostilePeer, ACallBeforeTheHelloIsCutOff) {
  RawPeer peer(listener->endpoint());
  peer.send(callFrame("wave", false, {}));
  expectCutOff(peer, "the first frame is not a hello");
}

TEST_F(HostilePeer, ASecondHelloIsCutOff) {
  RawPeer peer(listener->endpoint());
  peer.greet();
  peer.greet();
  expectCutOff(peer, "a second hello");
}

TEST_F(HostilePeer, AReplyToNoCallIsCutOff) {
  RawPeer peer(listener->endpoint());
  peer.greet();
  wire::ValueEncoder encoder(FrameType::reply);
  encoder.addUnsigned(99);
  encoder.add("unasked");
  peer.send(encoder.take());
  expectCutOff(peer, "a reply to no call: 99");
}

TEST_F(HostilePeer, CreditThatWasNeverTakenIsCutOff) {
  RawPeer peer(listener->endpoint());
  peer.greet();
  peer.send(wire::Credit{1, 1}.encode());
  expectCutOff(peer, "credit for calls that were never sent");
}

TEST_F(HostilePeer, CreditForNothingIsCutOff) {
  RawPeer peer(listener->endpoint());
  peer.greet();
  peer.send(wire::Credit{0, 0}.encode());
  expectCutOff(peer, "credit for nothing");
}

TEST_F(HostilePeer, CallsWithoutRegardForCreditAreCutOffNamingTheLimit) {
  std::promise<void> release;
  auto released = release.get_future().share();
  service->greeter->onTell = [released](const NSDictionary&) { released.wait(); };
  RawPeer peer(listener->endpoint());
  peer.greet();
  const Frame frame = callFrame("tell:", false, {NSDictionary::dictionary()});
  for (std::size_t sent = 0; sent <= limits::kUndeliveredCalls; ++sent) peer.send(frame);
  EXPECT_TRUE(peer.isCutOff());
  EXPECT_TRUE(
      eventually([&] { return logged("undelivered calls: " + std::to_string(limits::kUndeliveredCalls + 1)); }));
  release.set_value();
}

TEST_F(HostilePeer, BrokenValuesEndTheConnectionOnceTheirTurnHasCome) {
  RawPeer peer(listener->endpoint());
  peer.greet();
  Frame frame = callFrame("tell:", false, {});
  frame.body.push_back(0xa1);  // a map of one pair that never comes
  peer.send(frame);
  expectCutOff(peer, "truncated");
}

TEST_F(HostilePeer, AnEndInTheMiddleOfAFrameIsAnInterruption) {
  RawPeer peer(listener->endpoint());
  peer.greet();
  peer.send(callFrame("tell:", false, {NSDictionary::dictionary()}));
  service->greeter->told.waitFor(1);
  const auto header = wire::FrameHeader{100, FrameType::call, 0}.encode();
  peer.send(std::vector<std::uint8_t>(header.begin(), header.end()));
  peer.close();
  EXPECT_EQ(service->events.waitFor(2), (std::vector<std::string>{"interrupted", "invalidated"}));
  EXPECT_TRUE(eventually([&] { return logged("in the middle of a frame"); }));
}

TEST_F(HostilePeer, DescriptorsThatAreDeclaredAndDoNotComeAreCutOff) {
  RawPeer peer(listener->endpoint());
  peer.greet();
  peer.sendAs(callFrame("tell:", false, {NSDictionary::dictionary()}), 2);
  expectCutOff(peer, "descriptors");
}

TEST_F(HostilePeer, DescriptorsThatComeUndeclaredAreCutOffAndClosed) {
  const std::size_t before = openDescriptors();
  {
    RawPeer peer(listener->endpoint());
    peer.greet();
    Frame frame = callFrame("tell:", false, {NSDictionary::dictionary()});
    for (int count = 0; count < 10; ++count) frame.descriptors.push_back(openFile("/dev/null", O_RDONLY));
    peer.sendAs(frame, 0);
    expectCutOff(peer, "descriptors");
  }
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= before + 4; })) << openDescriptors() << ", " << before;
}

// A forged endpoint: refused with the reason, and the connection goes on.
void expectForgedEndpointIsRefused(const std::shared_ptr<GreeterService>& service,
                                   const NSXPCListenerEndpoint& listener, system::SharedDescriptor socket,
                                   system::SharedDescriptor hangUp) {
  const std::size_t flags = service->greeter->flags.soFar().size();
  RawPeer peer(listener);
  peer.greet();
  peer.send(callFrame("introduce:reply:", true,
                      {NSXPCListenerEndpoint::endpointWithDescriptors(std::move(socket), std::move(hangUp))}));
  peer.send(callFrame("flag:", false, {true}, 2));
  service->greeter->flags.waitFor(flags + 1);
  EXPECT_TRUE(service->greeter->introduced.soFar().empty());
}

TEST_F(HostilePeer, AnEndpointThatIsNoSocketHandleIsRefused) {
  const auto honest = listener->endpoint();
  for (const auto& forged :
       {openFile("/dev/null", O_RDONLY), openFile("/etc", O_PATH), openFile("/dev/null", O_PATH)}) {
    expectForgedEndpointIsRefused(service, honest, forged, honest.hangUp());
  }
  auto pair = socketPair();
  expectForgedEndpointIsRefused(service, honest, std::make_shared<const system::Descriptor>(std::move(pair.first)),
                                honest.hangUp());
  expectForgedEndpointIsRefused(service, honest, honest.socket(), openFile("/dev/null", O_RDONLY));
}

// An interface that admits endpoints and no data: regions are let go of as they come, and their places are empty.
TEST_F(HostilePeer, AnEndpointInThePlaceOfARegionIsRefused) {
  service->adjustExported = [](NSXPCInterface& interface) {
    interface.setClasses(NSSet{NSString::classObject()}, "tell:", 0, false);
  };
  RawPeer peer(listener->endpoint());
  peer.greet();
  std::string problem;
  const auto region = wire::makeRegion(std::vector<std::uint8_t>(limits::kLeastRegionBytes), problem);
  ASSERT_TRUE(region) << problem;
  Frame call = callFrame("introduce:reply:", false, {NSXPCListenerEndpoint::endpointWithDescriptors(region, region)});
  call.regions = wire::sizeOfRegions(2 * limits::kLeastRegionBytes);
  peer.send(call);
  peer.send(callFrame("flag:", false, {true}, 2));
  service->greeter->flags.waitFor(1);
  EXPECT_TRUE(service->greeter->introduced.soFar().empty());
}

TEST_F(HostilePeer, WhoHasCalledByTheTimeThatHeIsAcceptedIsReadAtOnceAndTakesNoTimer) {
  const auto late = NSXPCListener::anonymousListener();
  late->setDelegate(service);
  RawPeer peer(late->endpoint());
  peer.greet();
  peer.send(callFrame("greet:reply:", true, {"Ada"}));
  static auto& calls = *new AcceptanceSystemCalls;
  system::replaceSystemCalls(&calls);
  late->resume();
  EXPECT_TRUE(eventually([&] { return calls.readByAcceptor > 0; }));
  EXPECT_EQ(peer.receive().type, FrameType::hello);
  EXPECT_EQ(peer.receive().type, FrameType::reply);
  system::replaceSystemCalls(nullptr);
  EXPECT_EQ(calls.timersSet, 0);
}

TEST_F(HostilePeer, OneThatNeverCallsMakesNoNoiseAndIsForgottenWhenItGoes) {
  const std::size_t before = openDescriptors();
  {
    std::vector<RawPeer> silent;
    for (int count = 0; count < 50; ++count) silent.emplace_back(listener->endpoint());
    GreeterClient honest(NSXPCConnection::initWithListenerEndpoint(listener->endpoint()));
    EXPECT_EQ(honest.greet("Ada"), "hello Ada");
  }
  EXPECT_EQ(service->accepted.soFar().size(), 1U) << "the silent are never handed over";
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= before + 4; })) << openDescriptors() << ", " << before;
}

TEST_F(HostilePeer, OfTooManyThatNeverCallTheOldestGoes) {
  RawPeer oldest(listener->endpoint());
  std::vector<RawPeer> silent;
  for (std::size_t count = 0; count < limits::kSilentConnections; ++count) silent.emplace_back(listener->endpoint());
  expectCutOff(oldest, "has not called is cut off");
}

}  // namespace
}  // namespace velto::testing
