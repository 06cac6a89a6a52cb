// Memory ends at each allocation in turn: of making values, of coding them, of cutting a stream into frames, of a send
// on its caller's thread. std::bad_alloc or a refusal comes of it, and nothing is kept.

#include <atomic>
#include <new>

#include <fcntl.h>

#include "broker/VeltoIPCDaemonProtocol.h"
#include "platform/foundation/NSCoding.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/wire/FrameReader.h"
#include "platform/xpc/wire/ValueDecoder.h"
#include "platform/xpc/wire/ValueEncoder.h"
#include "tests/faults/Allocations.h"
#include "tests/faults/FaultTest.h"

namespace velto::testing {
namespace {

// Does it with the first allocation failing, then with the second, and so on until none is left to fail; what it keeps
// is counted each time. Returns how many failed.
template <class Function>
std::size_t failEachAllocationOf(const Function& function) {
  function();  // what is made once for the whole process
  for (std::size_t number = 1;; ++number) {
    BodyMemory::empty();
    const std::ptrdiff_t before = liveAllocations();
    bool hasStruck = false;
    {
      const AllocationFault fault(number);
      try {
        function();
      } catch (const std::bad_alloc&) {
        EXPECT_TRUE(fault.hasStruck());
      }
      hasStruck = fault.hasStruck();
    }
    BodyMemory::empty();
    EXPECT_EQ(liveAllocations(), before) << "allocation " << number;
    if (!hasStruck || ::testing::Test::HasFailure()) return number - 1;
  }
}

// With a longer text, the bodies of what is decoded are not all in one piece.
NSDictionary richValue(std::size_t textBytes = 100) {
  return {{"text", NSString(std::string(textBytes, 't'))},
          {"numbers", NSArray{1, 2.5, true, -7}},
          {"data", NSData::dataWithVector(std::vector<std::uint8_t>(300, 7))},
          {"set", NSSet::setWithObjects({NSString("a"), NSString("b")})},
          {"nested", NSDictionary{{"error", NSError::errorWithDomain("d", 3, {{"why", "so"}})}}},
          {"when", NSDate::date()},
          {"who", NSUUID::UUID()},
          {"where", NSURL::URLWithString("velto://a.place/that/is/long")}};
}

wire::Frame encoded(const NSObject& value) {
  wire::ValueEncoder encoder(wire::FrameType::call);
  encoder.add(value);
  encoder.finish();
  return encoder.failed() ? wire::Frame{} : encoder.take();
}

TEST(Allocation, OfAValueThatFailsLeavesNothingBehind) {
  EXPECT_GT(failEachAllocationOf([] { EXPECT_EQ(richValue().count(), 8u); }), 10u);
}

TEST(Allocation, OfDataAndTextThatFailsLeavesNothingBehind) {
  EXPECT_GT(failEachAllocationOf([] {
              const NSData data = NSData::dataWithVector(std::vector<std::uint8_t>(1000, 1));
              auto changing = NSMutableData::dataWithData(data);
              const NSString text(std::string(1000, 'x'));
              EXPECT_EQ(data.length() + text.length() + changing.length(), 3000u);
            }),
            3u);
}

TEST(Allocation, WhileEncodingThatFailsLeavesNothingBehind) {
  for (const std::size_t textBytes : {100u, 5000u, 50'000u}) {
    const NSDictionary value = richValue(textBytes);
    const wire::Frame whole = encoded(value);
    EXPECT_GT(failEachAllocationOf([&] {
                const wire::Frame frame = encoded(value);
                EXPECT_TRUE(frame.body.empty() || frame.body == whole.body);
              }),
              textBytes == 100 ? 0u : 1u);
    EXPECT_EQ(encoded(value).body, whole.body);
  }
}

TEST(Allocation, WhileDecodingThatFailsIsNeverABrokenStream) {
  const wire::ClassSet everything(NSSet::setWithObjects({NSObject::classObject()}));
  for (const std::size_t textBytes : {100u, 5000u}) {
    const NSDictionary value = richValue(textBytes);
    const wire::Frame frame = encoded(value);
    EXPECT_GT(failEachAllocationOf([&] {
                wire::ValueDecoder decoder(frame);
                NSObject decoded;
                const auto outcome = decoder.next(everything, decoded);
                EXPECT_NE(outcome, wire::ValueDecoder::Outcome::broken) << decoder.reason();
                EXPECT_TRUE(outcome != wire::ValueDecoder::Outcome::value || decoded == value);
              }),
              textBytes == 100 ? 0u : 8u);
  }
}

// The one object of a class whose coding brings back what is there already.
class OnlyBody final : public ObjectBody {
 public:
  ~OnlyBody() override { isAlive = false; }
  const ClassBody& classBody() const override;

  static bool isAlive;
};
bool OnlyBody::isAlive = true;

struct Only : NSObject {
  static const NSObject& object() {
    static const NSObject& made = *new Only;
    return made;
  }
  static Class classObject() {
    static const Class& made = *new Class([] {
      const Class only = Class::define("Only", NSObject::classObject());
      registerClassCoding(
          only, {[](const NSObject&) -> NSObject { return 1; }, [](const NSObject&) -> NSObject { return object(); }});
      return only;
    }());
    return made;
  }

 private:
  Only() : NSObject(new OnlyBody) {}
};
const ClassBody& OnlyBody::classBody() const {
  return *Only::classObject().classBody();
}

TEST(Allocation, WhileAnObjectOfAClassOfOnesOwnIsTakenThatFailsLetsGoOfItOnce) {
  const wire::ClassSet everything(NSSet::setWithObjects({NSObject::classObject()}));
  const wire::Frame frame = encoded(Only::object());
  EXPECT_GT(failEachAllocationOf([&] {
              wire::ValueDecoder decoder(frame);
              NSObject decoded;
              EXPECT_NE(decoder.next(everything, decoded), wire::ValueDecoder::Outcome::broken) << decoder.reason();
            }),
            1u);
  // Nobody but itself holds it.
  EXPECT_TRUE(OnlyBody::isAlive);
}

TEST(Allocation, WhileFramesAreCutThatFailsLosesNoDescriptorAndNoMemory) {
  const wire::Frame sent = encoded(richValue());
  const auto header =
      wire::FrameHeader{static_cast<std::uint32_t>(sent.body.size()), wire::FrameType::call, 1}.encode();
  const auto descriptor = std::make_shared<const system::Descriptor>();
  EXPECT_GT(failEachAllocationOf([&] {
              wire::FrameReader reader;
              const auto room = reader.prepare(header.size() + sent.body.size());
              const auto body = std::copy(header.begin(), header.end(), room.begin());
              std::copy(sent.body.begin(), sent.body.end(), body);
              reader.received(header.size() + sent.body.size(), {descriptor});
              const auto frame = reader.next();
              ASSERT_TRUE(frame);
              EXPECT_EQ(frame->body, sent.body);
              EXPECT_EQ(frame->descriptors.size(), 1u);
            }),
            1u);
  EXPECT_EQ(descriptor.use_count(), 1);
}

TEST(Allocation, IsNotNeededToOwnADescriptor) {
  // The list of open ones is made with the first.
  EXPECT_TRUE(system::Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)));
  const AllocationFault fault(1);
  {
    system::Descriptor descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(descriptor);
    const system::Descriptor moved(std::move(descriptor));
    EXPECT_TRUE(moved);
  }
  EXPECT_FALSE(fault.hasStruck());
}

// A service that finds nothing, and its client.
class Finder final : public NSXPCListenerDelegate, public VeltoIPCDaemonProtocol {
 public:
  bool listener(const std::shared_ptr<NSXPCListener>&, const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>());
    connection->setExportedObject<VeltoIPCDaemonProtocol>(std::shared_ptr<Finder>(std::shared_ptr<void>(), this));
    connection->resume();
    const std::lock_guard lock(mutex_);
    accepted_.push_back(connection);
    return true;
  }
  void sendListenerConnection(NSXPCListenerEndpoint, NSString) override {}
  void findListenerEndpointForName(NSString, std::function<void(NSXPCListenerEndpoint)> handle) override {
    handle(nil);
  }
  void killListenerConnection(NSString) override {}

  void forgetAll() {
    std::vector<std::shared_ptr<NSXPCConnection>> forgotten;
    const std::lock_guard lock(mutex_);
    forgotten.swap(accepted_);
  }

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<NSXPCConnection>> accepted_;
};

struct Ends {
  std::atomic<int> replies{0};
  std::atomic<int> errors{0};
  int all() const { return replies + errors; }
};

class AllocationOfASend : public FaultTest {
 protected:
  using Proxy = NSXPCProxy<VeltoIPCDaemonProtocol>;

  std::shared_ptr<NSXPCConnection> connect() {
    const auto connection = NSXPCConnection::initWithListenerEndpoint(listener->endpoint());
    connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>());
    connection->setInvalidationHandler([this] { ++invalidated; });
    connection->resume();
    return connection;
  }
  static std::shared_ptr<Proxy> proxyTo(NSXPCConnection& connection, const std::shared_ptr<Ends>& ends) {
    return connection.remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>(
        [ends](const NSError&) { ++ends->errors; });
  }
  static void find(const Proxy& proxy, const std::shared_ptr<Ends>& ends) {
    proxy.call<&VeltoIPCDaemonProtocol::findListenerEndpointForName>(
        NSString("a name that is long enough to need memory of its own"),
        [ends](const NSXPCListenerEndpoint&) { ++ends->replies; });
  }

  std::atomic<int> invalidated{0};
  const std::shared_ptr<Finder> finder = std::make_shared<Finder>();
  const std::shared_ptr<NSXPCListener> listener = [this] {
    auto made = NSXPCListener::anonymousListener();
    made->setDelegate(finder);
    made->resume();
    return made;
  }();
};

TEST_F(AllocationOfASend, ThatFailsMeansThatItWasNotMadeOrHasItsEnd) {
  int connections = 0;
  bool anyLeft = true;
  std::size_t raised = 0;
  for (std::size_t number = 1; anyLeft; ++number) {
    const auto connection = connect();
    ++connections;
    const auto ends = std::make_shared<Ends>();
    const auto proxy = proxyTo(*connection, ends);
    bool isRaised = false;
    {
      const AllocationFault fault(number);
      try {
        find(*proxy, ends);
      } catch (const std::bad_alloc&) {
        isRaised = true;
      }
      anyLeft = fault.hasStruck();
    }
    raised += isRaised ? 1u : 0u;
    // What comes next is answered, or told that the connection is over.
    const auto next = std::make_shared<Ends>();
    find(*proxyTo(*connection, next), next);
    EXPECT_TRUE(eventually([&] { return next->all() == 1; })) << "allocation " << number;
    EXPECT_TRUE(eventually([&] { return ends->all() == (isRaised ? 0 : 1); })) << "allocation " << number;
    connection->invalidate();
    EXPECT_TRUE(eventually([&] { return invalidated == connections; })) << "allocation " << number;
    EXPECT_EQ(ends->all(), isRaised ? 0 : 1) << "allocation " << number;
    EXPECT_EQ(next->all(), 1) << "allocation " << number;
    if (HasFailure()) return;
  }
  EXPECT_GT(raised, 5u);
  expectWhole("afterwards");
}

// Whoever lets go of a connection or a listener cannot be told of anything: its socket is closed all the same.
TEST_F(AllocationOfASend, WhileTheLastReferencesGoThatFailsEndsTheConnectionAllTheSame) {
  bool anyLeft = true;
  for (std::size_t number = 1; anyLeft; ++number) {
    auto connection = connect();
    const auto ends = std::make_shared<Ends>();
    find(*proxyTo(*connection, ends), ends);
    ASSERT_TRUE(eventually([&] { return ends->all() == 1; }));
    auto other = NSXPCListener::listenerWithServiceName("short-lived");
    ASSERT_TRUE(other) << number;
    {
      const AllocationFault fault(number);
      connection.reset();
      other.reset();
      anyLeft = fault.hasStruck();
    }
    finder->forgetAll();
    constexpr std::size_t kOfTheListener = 4;
    expectAtRest("allocation " + std::to_string(number), kOfTheListener);
  }
  expectWhole("afterwards");
}

}  // namespace
}  // namespace velto::testing
