// File descriptors as values: who closes them and when, what they are on the wire, and what becomes of them at the
// other end of a connection, whether it wants them or not.
#include "platform/xpc/NSFileDescriptor.h"

#include <cerrno>
#include <future>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/xpc/testing/Greeter.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::testing {

class Lender {
 public:
  virtual ~Lender() = default;
  virtual void lend(NSFileDescriptor descriptor, std::function<void(NSFileDescriptor)> reply) = 0;
};

// Of whose methods none takes a descriptor.
class Teller {
 public:
  virtual ~Teller() = default;
  virtual void tell(NSDictionary news) = 0;
};

}  // namespace velto::testing

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::testing::Lender>() {
  using velto::testing::Lender;
  static const Protocol& table = *new Protocol("Lender", {method<&Lender::lend>("lend:reply:", Requirement::required)});
  return table;
}

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::testing::Teller>() {
  using velto::testing::Teller;
  static const Protocol& table = *new Protocol("Teller", {method<&Teller::tell>("tell:", Requirement::required)});
  return table;
}

namespace velto::testing {
namespace {

using wire::ClassSet;
using wire::Frame;
using wire::testing::frameOf;
using wire::testing::hex;
using Outcome = wire::ValueDecoder::Outcome;

bool isOpen(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) >= 0;
}

// A pipe whose writing end is a value.
struct Pipe {
  Pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    reading = system::Descriptor(ends[0]);
    writing = NSFileDescriptor::fileDescriptorTaking(ends[1]);
  }

  // Waits until nobody holds the writing end any more; false after the bound.
  bool isHungUp() const {
    pollfd watched{reading.get(), POLLIN, 0};
    const int bound = static_cast<int>(std::chrono::milliseconds(kGenerous).count());
    return ::poll(&watched, 1, bound) == 1 && (watched.revents & POLLHUP) != 0;
  }
  std::string readText() const {
    char text[64];
    const ssize_t length = ::read(reading.get(), text, sizeof text);
    return {text, static_cast<std::size_t>(length < 0 ? 0 : length)};
  }

  system::Descriptor reading;
  NSFileDescriptor writing;
};

bool writeText(const NSFileDescriptor& descriptor, const std::string& text) {
  return ::write(descriptor.descriptor(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

TEST(FileDescriptor, IsClosedWithTheLastOfItsCopies) {
  int number = -1;
  {
    const Pipe pipe;
    number = pipe.writing.descriptor();
    NSDictionary message{{"end", pipe.writing}};
    NSFileDescriptor copy = pipe.writing;
    EXPECT_EQ(copy.descriptor(), number);
    copy = nil;
    message = nil;
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(FileDescriptor, ThatIsTakenIsCloseOnExec) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(::pipe(ends), 0);
  const system::Descriptor reading(ends[0]);
  const NSFileDescriptor writing = NSFileDescriptor::fileDescriptorTaking(ends[1]);
  EXPECT_EQ(writing.descriptor(), ends[1]);
  EXPECT_EQ(::fcntl(ends[1], F_GETFD), FD_CLOEXEC);
}

TEST(FileDescriptor, ADuplicateIsOneOfItsOwn) {
  const Pipe pipe;
  NSFileDescriptor second = NSFileDescriptor::fileDescriptorDuplicating(pipe.writing.descriptor());
  EXPECT_NE(second.descriptor(), pipe.writing.descriptor());
  EXPECT_EQ(::fcntl(second.descriptor(), F_GETFD), FD_CLOEXEC);
  EXPECT_TRUE(writeText(second, "second"));
  EXPECT_EQ(pipe.readText(), "second");
  const int users = second.duplicate();
  second = nil;
  EXPECT_TRUE(isOpen(users));
  EXPECT_EQ(::close(users), 0);
  EXPECT_TRUE(isOpen(pipe.writing.descriptor()));
}

TEST(FileDescriptor, IsEqualToItsCopiesOnly) {
  const Pipe pipe;
  const NSFileDescriptor copy = pipe.writing;
  const NSFileDescriptor other = NSFileDescriptor::fileDescriptorDuplicating(copy.descriptor());
  EXPECT_EQ(copy, pipe.writing);
  EXPECT_EQ(copy.hash(), pipe.writing.hash());
  EXPECT_NE(copy, other);
  EXPECT_EQ(copy.description().string(), "<NSFileDescriptor: " + std::to_string(copy.descriptor()) + ">");
}

TEST(FileDescriptor, OfWhatIsNotOpenIsNilAndSaysWhy) {
  const int closed = [] {
    const Pipe pipe;
    return pipe.writing.descriptor();
  }();
  for (const int number : {-1, closed}) {
    NSError taking, duplicating;
    EXPECT_TRUE(NSFileDescriptor::fileDescriptorTaking(number, &taking).isNil());
    EXPECT_TRUE(NSFileDescriptor::fileDescriptorDuplicating(number, &duplicating).isNil());
    EXPECT_EQ(taking.code(), EBADF);
    EXPECT_EQ(duplicating.code(), EBADF);
    EXPECT_EQ(taking.domain().string(), "org.velto.platform");
  }
  NSError error;
  EXPECT_EQ(NSFileDescriptor().descriptor(), -1);
  EXPECT_EQ(NSFileDescriptor().duplicate(&error), -1);
  EXPECT_EQ(error.code(), EBADF);
}

// What one item of a frame is decoded to.
struct Decoded {
  Outcome outcome;
  NSObject value;
  std::string reason;
};
Decoded decode(const Frame& frame, const NSSet& admitted = {NSFileDescriptor::classObject(), NSArray::classObject(),
                                                            NSDictionary::classObject(), NSSet::classObject()}) {
  wire::ValueDecoder decoder(frame);
  NSObject value;
  const Outcome outcome = decoder.next(ClassSet(admitted), value);
  return {outcome, value, decoder.reason()};
}

TEST(FileDescriptorOnTheWire, IsOneDescriptorOfItsFrame) {
  const Pipe pipe;
  const Frame frame = frameOf(NSArray{pipe.writing, pipe.writing});
  EXPECT_EQ(frame.descriptors.size(), 2u);
  const Decoded decoded = decode(frame);
  ASSERT_EQ(decoded.outcome, Outcome::value) << decoded.reason;
  EXPECT_EQ(decoded.value[1].as<NSFileDescriptor>().descriptor(), pipe.writing.descriptor());
  EXPECT_EQ(decoded.value[0], pipe.writing);
}

TEST(FileDescriptorOnTheWire, MustBeAdmitted) {
  const Pipe pipe;
  const Decoded decoded = decode(frameOf(pipe.writing), {NSArray::classObject()});
  EXPECT_EQ(decoded.outcome, Outcome::refused);
  EXPECT_EQ(decoded.reason, "holds an object of class NSFileDescriptor, which is not allowed here (allowed: NSArray)");
}

TEST(FileDescriptorOnTheWire, InAKeyOrASetIsRefused) {
  const Pipe pipe;
  const std::string reason = "holds an object of class NSFileDescriptor in a key of a dictionary or in a set";
  for (const NSObject& value :
       {NSObject(NSDictionary{{NSArray{pipe.writing}, NSArray::array()}}), NSObject(NSSet{pipe.writing})}) {
    const Decoded decoded = decode(frameOf(value));
    EXPECT_EQ(decoded.outcome, Outcome::refused);
    EXPECT_EQ(decoded.reason, reason);
  }
  EXPECT_EQ(decode(frameOf(NSDictionary{{NSArray::array(), pipe.writing}})).outcome, Outcome::value);
}

TEST(FileDescriptorOnTheWire, IsOfOneDescriptorAndNoOtherNumber) {
  NSFileDescriptor::classObject();
  const std::string head = "d8 1b 82 70 4e5346696c6544657363726970746f72";
  for (const char* indices : {"80", "82 00 01"}) {
    Frame frame = wire::testing::frameOfBytes(hex(head + indices));
    for (int count = 0; count < 2; ++count) {
      frame.descriptors.push_back(
          std::make_shared<const system::Descriptor>(system::Descriptor(Pipe().writing.duplicate())));
    }
    const Decoded decoded = decode(frame);
    EXPECT_EQ(decoded.outcome, Outcome::refused);
    EXPECT_EQ(decoded.reason.rfind("holds a file descriptor of ", 0), 0u) << decoded.reason;
  }
}

// Two ends of a connection; what it takes in a dictionary is up to the test.
class LentDescriptors : public ::testing::Test {
 protected:
  LentDescriptors() {
    service->adjustExported = [this](NSXPCInterface& interface) {
      if (!admits) return;
      auto all = NSMutableSet::initWithSet(interface.classesForSelector("tell:", 0, false));
      all.addObject(NSFileDescriptor::classObject());
      interface.setClasses(all, "tell:", 0, false);
    };
    listener->setDelegate(service);
    listener->resume();
  }

  std::unique_ptr<GreeterClient> connect() {
    return std::make_unique<GreeterClient>(NSXPCConnection::initWithListenerEndpoint(listener->endpoint()));
  }

  bool admits = true;
  const PrivateRuntimeDirectory directory;
  const std::shared_ptr<GreeterService> service = std::make_shared<GreeterService>();
  const std::shared_ptr<NSXPCListener> listener = NSXPCListener::anonymousListener();
};

TEST_F(LentDescriptors, ArriveAndWorkAndAreClosedWithTheirLastHandle) {
  const auto client = connect();
  service->greeter->onTell = [&](const NSDictionary& news) {
    EXPECT_TRUE(writeText(news["ends"][0].as<NSFileDescriptor>(), "it works"));
  };
  Pipe pipe;
  client->proxy->call<&Greeter::tell>(NSDictionary{{"ends", NSArray{pipe.writing}}});
  // Sent before its own handle is gone, whatever its sender does meanwhile.
  pipe.writing = nil;
  EXPECT_EQ(pipe.readText(), "it works");
  EXPECT_TRUE(pipe.isHungUp());
}

TEST_F(LentDescriptors, StayOpenForWhoKeepsThem) {
  const auto client = connect();
  Pipe pipe;
  client->proxy->call<&Greeter::tell>(NSDictionary{{"end", pipe.writing}});
  pipe.writing = nil;
  NSFileDescriptor kept = service->greeter->told.waitFor(1)[0]["end"].as<NSFileDescriptor>();
  EXPECT_EQ(::fcntl(kept.descriptor(), F_GETFD), FD_CLOEXEC);
  client->connection->invalidate();
  service->events.waitFor(1);
  EXPECT_TRUE(writeText(kept, "after the end"));
  EXPECT_EQ(pipe.readText(), "after the end");
}

TEST_F(LentDescriptors, MayBeOfAnyKind) {
  const auto client = connect();
  auto [here, there] = socketPair();
  const system::Descriptor memory(::memfd_create("lent", MFD_CLOEXEC));
  const system::Descriptor file(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  NSMutableArray all = NSMutableArray::array();
  for (const int each : {here.get(), memory.get(), file.get()}) {
    all.addObject(NSFileDescriptor::fileDescriptorDuplicating(each));
  }
  client->proxy->call<&Greeter::tell>(NSDictionary{{"all", all}});
  const NSObject come = service->greeter->told.waitFor(1)[0]["all"];
  ASSERT_EQ(come.count(), 3u);
  for (std::size_t index = 0; index < 3; ++index) {
    EXPECT_TRUE(writeText(come[index].as<NSFileDescriptor>(), "x")) << index;
  }
  char bytes[2];
  EXPECT_EQ(::read(there.get(), bytes, 2), 1);
  EXPECT_EQ(::pread(memory.get(), bytes, 2, 0), 1);
}

TEST_F(LentDescriptors, AsManyTravelAsAFrameHasRoomFor) {
  const auto client = connect();
  const Pipe pipe;
  NSMutableArray all = NSMutableArray::array();
  for (std::size_t count = 0; count < limits::kMaximumDescriptors; ++count) all.addObject(pipe.writing);
  client->proxy->call<&Greeter::tell>(NSDictionary{{"all", all}});
  EXPECT_EQ(service->greeter->told.waitFor(1)[0]["all"].count(), limits::kMaximumDescriptors);
  all.addObject(pipe.writing);
  client->proxy->call<&Greeter::tell>(NSDictionary{{"all", all}});
  EXPECT_EQ(client->errors.waitFor(1)[0].code(), NSXPCLimitExceeded);
  client->proxy->call<&Greeter::tell>(NSDictionary{{"one", pipe.writing}});
  EXPECT_FALSE(service->greeter->told.waitFor(2)[1]["one"].isNil());
}

// Exports one object to all who connect.
template <class P>
struct Exporting final : NSXPCListenerDelegate {
  explicit Exporting(std::shared_ptr<P> to) : object(std::move(to)) {}
  bool listener(const std::shared_ptr<NSXPCListener>&, const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<P>());
    connection->template setExportedObject<P>(object);
    connection->resume();
    accepted.put(connection);
    return true;
  }

  const std::shared_ptr<P> object;
  Inbox<std::shared_ptr<NSXPCConnection>> accepted;
};

// A connection to such a one.
template <class P>
struct Caller {
  explicit Caller(const NSXPCListenerEndpoint& endpoint)
      : connection(NSXPCConnection::initWithListenerEndpoint(endpoint)) {
    connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<P>());
    connection->resume();
    proxy = connection->remoteObjectProxyWithErrorHandler<P>(
        [kept = errors](const NSError& error) { kept->put(error.localizedDescription().string()); });
  }
  ~Caller() { connection->invalidate(); }

  const std::shared_ptr<Inbox<std::string>> errors = std::make_shared<Inbox<std::string>>();
  const std::shared_ptr<NSXPCConnection> connection;
  std::shared_ptr<NSXPCProxy<P>> proxy;
};

// Not even while the call waits for its turn.
TEST_F(LentDescriptors, AreNotHeldByWhoseInterfaceAdmitsNone) {
  struct BusyTeller final : Teller {
    void tell(NSDictionary) override { mayGoOn.get_future().wait(); }
    std::promise<void> mayGoOn;
  };
  const auto teller = std::make_shared<BusyTeller>();
  const auto delegate = std::make_shared<Exporting<Teller>>(teller);
  listener->setDelegate(delegate);
  const Caller<Teller> caller(listener->endpoint());
  caller.proxy->call<&Teller::tell>(NSDictionary{{"first", true}});
  Pipe pipe;
  caller.proxy->call<&Teller::tell>(NSDictionary{{"end", pipe.writing}});
  pipe.writing = nil;
  EXPECT_TRUE(pipe.isHungUp());
  EXPECT_TRUE(caller.errors->soFar().empty());
  teller->mayGoOn.set_value();
  const std::string text = caller.errors->waitFor(1)[0];
  EXPECT_NE(text.find("holds an object of class NSFileDescriptor, which is not allowed here"), std::string::npos)
      << text;
}

TEST_F(LentDescriptors, AreRefusedWhereOnlyAnotherMethodTakesSome) {
  admits = false;
  const auto client = connect();
  Pipe pipe;
  client->proxy->call<&Greeter::tell>(NSDictionary{{"end", pipe.writing}});
  pipe.writing = nil;
  EXPECT_EQ(client->errors.waitFor(1)[0].code(), NSXPCCallRefused);
  EXPECT_TRUE(pipe.isHungUp());
  EXPECT_TRUE(service->greeter->told.soFar().empty());
  EXPECT_EQ(client->greet("Ada"), "hello Ada");
}

TEST_F(LentDescriptors, AreTakenByAMethodThatIsDeclaredWithThem) {
  struct Returning final : Lender {
    void lend(NSFileDescriptor descriptor, std::function<void(NSFileDescriptor)> reply) override { reply(descriptor); }
  };
  EXPECT_EQ(NSXPCInterface::interfaceWithProtocol<Lender>()->claimableDescriptors(false), 1u);
  EXPECT_EQ(NSXPCInterface::interfaceWithProtocol<Lender>()->claimableDescriptors(true), 1u);
  const auto delegate = std::make_shared<Exporting<Lender>>(std::make_shared<Returning>());
  listener->setDelegate(delegate);
  const Caller<Lender> caller(listener->endpoint());
  const Pipe pipe;
  for (const NSFileDescriptor& lent : {pipe.writing, NSFileDescriptor()}) {
    std::promise<NSFileDescriptor> back;
    caller.proxy->call<&Lender::lend>(lent, [&](NSFileDescriptor descriptor) { back.set_value(descriptor); });
    const NSFileDescriptor returned = back.get_future().get();
    EXPECT_EQ(returned.isNil(), lent.isNil());
    EXPECT_NE(returned.isNil(), writeText(returned, "x"));
  }
}

}  // namespace
}  // namespace velto::testing
