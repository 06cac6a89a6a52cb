// Ends of connections for tests of limits. Descriptors are counted after a first use, so that what the platform keeps
// for the life of the process does not count.

#include "tests/limits/Ends.h"

#include <utility>

#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/wire/Messages.h"
#include "tests/limits/RawEnd.h"
#include "tests/support/Census.h"

namespace velto::testing {

namespace {

constexpr char kIdentifier[] = "limits";

std::shared_ptr<NSXPCInterface> adjusted(const std::function<void(NSXPCInterface&)>& adjust) {
  auto interface = makePeerInterface();
  if (adjust) adjust(*interface);
  return interface;
}

}  // namespace

std::shared_ptr<Service> Service::start(std::function<void(NSXPCInterface&)> adjust) {
  std::shared_ptr<Service> made(new Service(std::move(adjust)));
  made->listener_ = NSXPCListener::anonymousListener();
  made->listener_->setDelegate(made);
  made->listener_->resume();
  return made;
}

Service::~Service() {
  listener_->invalidate();
  for (const auto& connection : accepted()) connection->invalidate();
}

std::vector<std::shared_ptr<NSXPCConnection>> Service::accepted() const {
  MutexLock lock(mutex_);
  return accepted_;
}

std::shared_ptr<NSXPCConnection> Service::waitForOne() const {
  if (!eventually([this] { return !accepted().empty(); })) giveUp("no connection has come");
  return accepted().front();
}

bool Service::listener(const std::shared_ptr<NSXPCListener>&,
                       const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) {
  const auto interface = adjusted(adjust_);
  shouldAcceptNewConnection->setRemoteObjectInterface(interface);
  shouldAcceptNewConnection->setExportedInterface(interface);
  shouldAcceptNewConnection->setExportedObject<VeltoCommunicationMessageProtocol>(exported);
  {
    MutexLock lock(mutex_);
    accepted_.push_back(shouldAcceptNewConnection);
  }
  shouldAcceptNewConnection->resume();
  return true;
}

Client::Client(const NSXPCListenerEndpoint& endpoint, const std::function<void(NSXPCInterface&)>& adjust)
    : connection(NSXPCConnection::initWithListenerEndpoint(endpoint)) {
  const auto interface = adjusted(adjust);
  connection->setRemoteObjectInterface(interface);
  connection->setExportedInterface(interface);
  connection->setExportedObject<VeltoCommunicationMessageProtocol>(exported);
  connection->resume();
}

Client::~Client() {
  connection->invalidate();
}

void Client::tell(const NSDictionary& message) {
  ++calls_;
  connection->remoteObjectProxyWithErrorHandler<VeltoCommunicationMessageProtocol>(errors.handler())
      ->call<&VeltoCommunicationMessageProtocol::connectionID>(NSString(kIdentifier), message, VeltoReplyHandler());
}

std::future<NSDictionary> Client::ask(const NSDictionary& message) {
  ++calls_;
  const auto answer = std::make_shared<std::promise<NSDictionary>>();
  const auto failed = [answer, report = errors.handler()](const NSError& error) {
    report(error);
    answer->set_value(nil);
  };
  connection->remoteObjectProxyWithErrorHandler<VeltoCommunicationMessageProtocol>(failed)
      ->call<&VeltoCommunicationMessageProtocol::connectionID>(
          NSString(kIdentifier), message,
          VeltoReplyHandler([answer](const NSDictionary& reply) { answer->set_value(reply); }));
  return answer->get_future();
}

bool Client::works() {
  const NSDictionary message{{"round", "trip"}};
  auto answer = ask(message);
  return finish(answer) == message;
}

NSError Client::error(std::size_t count) {
  EXPECT_TRUE(eventually([&] { return errors.all().size() >= count; })) << errors.all().size();
  const auto all = errors.all();
  return all.size() >= count ? all.at(count - 1) : nil;
}

NSDictionary Client::messageOfBodyBytes(std::size_t bytes, bool wantsReply) const {
  // The length of data takes five bytes in every size from 64 KiB.
  const std::size_t some = std::size_t{1} << 16;
  const std::size_t around = bodyBytes(calls_ + 1, dataOf(some), wantsReply) - some;
  return dataOf(bytes - around);
}

namespace {

void useOnce() {
  const auto service = Service::start();
  Client client(service->endpoint());
  EXPECT_TRUE(client.works());
}

}  // namespace

LimitTest::LimitTest() {
  useOnce();
  // What the first use still closes makes the count smaller.
  do {
    atRest_ = openDescriptors();
    useOnce();
  } while (!eventually([&] { return openDescriptors() <= atRest_; }, std::chrono::milliseconds(500)));
  atRest_ = openDescriptors();
}

LimitTest::~LimitTest() {
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= atRest_; }))
      << openDescriptors() << " descriptors, " << atRest_ << " before";
}

void expectRefusal(const NSError& error, std::int64_t code, const std::string& words) {
  expectPlatformError(error, code);
  const std::string text = error.localizedDescription().string();
  EXPECT_NE(text.find(words), std::string::npos) << text;
}

std::size_t bodyBytes(std::uint64_t identifier, const NSDictionary& message, bool wantsReply) {
  wire::ValueEncoder encoder(wire::FrameType::call);
  wire::encodeCallHeader(encoder, {identifier, kMessageSelector, wantsReply});
  encoder.add(NSString(kIdentifier));
  encoder.add(message);
  EXPECT_FALSE(encoder.failed()) << encoder.reason();
  return encoder.failed() ? 0 : encoder.take().size();
}

NSDictionary dataOf(std::size_t bytes) {
  return {{"data", NSData::dataWithVector(std::vector<std::uint8_t>(bytes))}};
}

NSDictionary asText(const NSDictionary& message) {
  return {{"text", NSString(std::string(message["data"].as<NSData>().length(), 'x'))}};
}

}  // namespace velto::testing
