// Names that cannot be, messages that are too much, and objects that nobody asked for.

#include <algorithm>
#include <cctype>

#include "platform/foundation/NSCoding.h"
#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/contract/Limits.h"
#include "tests/support/BrokerLink.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/RawPeer.h"

namespace velto::testing {
namespace {

using BadInput = LibraryTest;

std::vector<NSString> namesThatNoFileCanHave() {
  return {NSString(nil),  NSString(""),      NSString(std::string(256, 'n')),      NSString("a/b"), NSString("."),
          NSString(".."), NSString("../up"), NSString(std::string_view("a\0b", 3))};
}

TEST_F(BadInput, AServiceNameThatNoFileCanHaveMakesAnInvalidConnection) {
  for (const NSString& name : namesThatNoFileCanHave()) {
    const auto connection = NSXPCConnection::initWithServiceName(name);
    ASSERT_TRUE(connection);
    std::promise<void> ended;
    ProxyErrors errors;
    connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCDaemonProtocol>());
    connection->setInterruptionHandler([] { ADD_FAILURE() << "there was nothing to interrupt"; });
    connection->setInvalidationHandler([&] { ended.set_value(); });
    connection->resume();
    connection->remoteObjectProxyWithErrorHandler<VeltoIPCDaemonProtocol>(errors.handler())
        ->call<&VeltoIPCDaemonProtocol::killListenerConnection>(NSString("any"));
    expectPlatformError(errors.waitForOne(), NSXPCConnectionInvalid);
    std::future<void> end = ended.get_future();
    finish(end);
    NSError error;
    EXPECT_FALSE(NSXPCListener::listenerWithServiceName(name, &error)) << name.description().view();
    EXPECT_FALSE(error.isNil()) << name.description().view();
  }
}

TEST_F(BadInput, AServiceNameOfTheGreatestLengthIsNoReasonToCrash) {
  const auto connection = NSXPCConnection::initWithServiceName(std::string(limits::kMaximumNameBytes, 'n'));
  std::promise<void> ended;
  connection->setInvalidationHandler([&] { ended.set_value(); });
  connection->resume();
  std::future<void> end = ended.get_future();
  finish(end);
}

TEST_F(BadInput, AListenersNameThatCannotBeKeptLeavesTheBrokerAsItWas) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  Pair pair;
  pair.server.delegate->echo();
  for (const NSString& name : {NSString(nil), NSString(""), NSString(std::string(256, 'n'))}) {
    const auto listener = VeltoListener::initWithServiceName(name, delegate);
    settle(listener->daemonConnection());
    ClientEnd client(name.string());
    client.delegate->waitForError("Listener not available");
    listener->close();
  }
  pair.roundTrip();
  EXPECT_TRUE(TestLink().find("org.velto.test.pair"));
}

TEST_F(BadInput, ANilNameIsLookedUpInVain) {
  const auto delegate = std::make_shared<RecordingDelegate>();
  const auto connection = VeltoConnection::initWithServiceName(nil, delegate);
  delegate->waitForError("Listener not available");
  EXPECT_EQ(log.count(0, "Endpoint for (null) is Nill"), 1u) << log.text();
  connection->close();
}

TEST_F(BadInput, AnyOtherTextIsAName) {
  for (const std::string& name : {std::string("a/b"), std::string(".."), std::string("Grüße ∞"), std::string(255, 'n'),
                                  std::string("broken \xff\xfe text")}) {
    ListenerEnd server(name);
    server.delegate->echo();
    ClientEnd client(name);
    client.ready();
    EXPECT_EQ(client.connection->sendMessageSync({{"to", "you"}}, 20.0), NSDictionary({{"to", "you"}})) << name;
  }
}

// The numbers in a text.
std::vector<std::size_t> numbersIn(std::string_view text) {
  std::vector<std::size_t> numbers;
  for (std::size_t at = 0; at < text.size();) {
    if (!std::isdigit(static_cast<unsigned char>(text[at]))) {
      ++at;
      continue;
    }
    std::size_t length = 0;
    numbers.push_back(std::stoull(std::string(text.substr(at)), &length));
    at += length;
  }
  return numbers;
}

// A refusal says who (the method), which limit, the value and the maximum.
void expectTooLarge(const NSError& error) {
  expectPlatformError(error, NSXPCLimitExceeded);
  const std::string text = error.localizedDescription().string();
  const auto numbers = numbersIn(text);
  EXPECT_NE(std::find(numbers.begin(), numbers.end(), limits::kMaximumFrameBytes), numbers.end()) << text;
  EXPECT_TRUE(std::any_of(numbers.begin(), numbers.end(), [](std::size_t number) {
    return number > limits::kMaximumFrameBytes && number < 2 * limits::kMaximumFrameBytes;
  })) << text;
  EXPECT_NE(text.find("bytes"), std::string::npos) << text;
}

NSDictionary tooLarge() {
  return {{"text", NSString(std::string(limits::kMaximumFrameBytes + 1, 'x'))}};
}

TEST_F(BadInput, AMessageOverTheLimitIsReportedAndTheConnectionGoesOn) {
  Pair pair;
  pair.server.delegate->echo();
  pair.client.delegate->echo();
  EXPECT_TRUE(pair.client.connection->sendMessage(tooLarge()));
  pair.client.delegate->waitForErrors(1);
  EXPECT_EQ(pair.client.delegate->errors().at(0).connectionID, pair.id);
  expectTooLarge(pair.client.delegate->errors().at(0).error);
  pair.roundTrip();
  EXPECT_TRUE(pair.server.listener->sendMessage(tooLarge(), pair.id));
  pair.server.delegate->waitForErrors(1);
  EXPECT_EQ(pair.server.delegate->errors().at(0).connectionID, pair.id);
  expectTooLarge(pair.server.delegate->errors().at(0).error);
  EXPECT_EQ(pair.server.listener->sendMessageSync({{"still", "there"}}, pair.id, 20.0),
            NSDictionary({{"still", "there"}}));
  EXPECT_EQ(pair.server.delegate->messages().size(), 1u);
  EXPECT_EQ(pair.client.delegate->messages().size(), 1u);
}

TEST_F(BadInput, AReplyOverTheLimitIsReportedToTheSenderOfTheMessage) {
  Pair pair;
  pair.server.delegate->onMessage([](const NSDictionary& message, const NSString&, const VeltoReplyHandler& reply) {
    reply(message["large"].boolValue() ? tooLarge() : message);
  });
  EXPECT_TRUE(pair.client.connection->sendMessage({{"large", true}}));
  pair.client.delegate->waitForErrors(1);
  expectTooLarge(pair.client.delegate->errors().at(0).error);
  pair.roundTrip();
}

TEST_F(BadInput, AMessageThatNestsTooDeepIsReportedAndTheConnectionGoesOn) {
  Pair pair(ListenerEnd::Types::any);
  pair.server.delegate->echo();
  NSArray nested = NSArray::array();
  for (std::size_t depth = 0; depth < limits::kMaximumDepth; ++depth) nested = NSArray{NSObject(nested)};
  EXPECT_TRUE(pair.client.connection->sendMessage({{"nested", nested}}));
  pair.client.delegate->waitForErrors(1);
  expectPlatformError(pair.client.delegate->errors().at(0).error, NSXPCLimitExceeded);
  pair.roundTrip();
}

// A class that travels, and that no interface of the library admits.
class Point : public NSObject {
 public:
  Point() noexcept = default;
  static Class classObject() {
    static const Class& made = *new Class(Class::define("Point", NSObject::classObject()));
    return made;
  }
  static Point make() { return Point(new Body()); }

 private:
  struct Body final : ObjectBody {
    const ClassBody& classBody() const override { return *classObject().classBody(); }
  };
  explicit Point(ObjectBody* body) : NSObject(body) {}
};

TEST_F(BadInput, AClassOutsideItsSetIsRefusedAndTheConnectionGoesOn) {
  registerClassCoding(Point::classObject(), {[](const NSObject&) -> NSObject { return "here"; },
                                             [](const NSObject&) -> NSObject { return Point::make(); }});
  Pair pair(ListenerEnd::Types::any);
  pair.server.delegate->echo();
  EXPECT_TRUE(pair.client.connection->sendMessage({{"deep", NSArray{NSDictionary{{"point", Point::make()}}}}}));
  pair.client.delegate->waitForErrors(1);
  const NSError error = pair.client.delegate->errors().at(0).error;
  expectPlatformError(error, NSXPCCallRefused);
  const std::string text = error.localizedDescription().string();
  EXPECT_NE(text.find("Point"), std::string::npos) << text;
  EXPECT_NE(text.find("connectionID:withMessage:handler:"), std::string::npos) << text;
  pair.roundTrip();
  EXPECT_EQ(pair.server.delegate->messages().size(), 1u);
}

// Speaks of methods that the peer protocol does not have, or has with other arguments.
class Stranger {
 public:
  virtual ~Stranger() = default;
  virtual void connectionID(NSArray notAText, NSDate notADictionary, std::function<void(NSDictionary)> reply) = 0;
  virtual void fly(NSString where) = 0;
  virtual void connectionUUID(NSString id) = 0;
};

}  // namespace
}  // namespace velto::testing

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::testing::Stranger>() {
  using velto::testing::Stranger;
  static const Protocol& table = *new Protocol(
      "Stranger", {method<&Stranger::connectionID>("connectionID:withMessage:handler:", Requirement::required),
                   method<&Stranger::fly>("fly:", Requirement::required),
                   method<&Stranger::connectionUUID>("connectionUUID:", Requirement::optional)});
  return table;
}

namespace velto::testing {
namespace {

TEST_F(BadInput, CallsThatTheListenerDoesNotHaveAreRefusedAndTheConnectionGoesOn) {
  ListenerEnd server("org.velto.test.stranger");
  const auto connection = NSXPCConnection::initWithListenerEndpoint(TestLink().find("org.velto.test.stranger"));
  connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<Stranger>());
  connection->resume();
  ProxyErrors errors;
  const auto proxy = connection->remoteObjectProxyWithErrorHandler<Stranger>(errors.handler());
  proxy->call<&Stranger::fly>(NSString("away"));
  proxy->call<&Stranger::connectionID>(
      NSArray{1}, NSDate::date(), [](const NSDictionary&) { ADD_FAILURE() << "a call that was refused has a reply"; });
  // In the protocol, but the client's only.
  proxy->call<&Stranger::connectionUUID>(NSString("mine"));
  ASSERT_TRUE(eventually([&] { return errors.all().size() >= 3; })) << errors.all().size();
  for (const NSError& error : errors.all()) expectPlatformError(error, NSXPCCallRefused);
  EXPECT_TRUE(server.delegate->messages().empty());
  const NSString id = server.delegate->readies().at(0).connectionID;
  EXPECT_EQ(server.entries(id), kAllEntries);
  connection->invalidate();
}

TEST(BadClasses, NoneOfAUsersOwnCanBeBelowAnEndpoint) {
  EXPECT_THROW(static_cast<void>(Class::define("Mine", NSXPCListenerEndpoint::classObject())), NSException);
}

}  // namespace
}  // namespace velto::testing
