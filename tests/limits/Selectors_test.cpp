// Selectors of the greatest length, and one byte longer.

#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/contract/Limits.h"
#include "tests/limits/Ends.h"

namespace velto::testing {

class LongWinded {
 public:
  virtual ~LongWinded() = default;
  virtual void longest(NSString text, std::function<void(NSString)> reply) = 0;
  virtual void tooLong(NSString text, std::function<void(NSString)> reply) = 0;
};

namespace {

std::string selectorOf(std::size_t bytes) {
  const std::string end = ":reply:";
  return std::string(bytes - end.size(), 's') + end;
}

}  // namespace
}  // namespace velto::testing

template <>
const velto::xpc::Protocol& velto::xpc::protocolOf<velto::testing::LongWinded>() {
  using velto::testing::LongWinded;
  using velto::testing::selectorOf;
  static const Protocol& table = *new Protocol(
      "LongWinded",
      {method<&LongWinded::longest>(selectorOf(velto::limits::kMaximumSelectorBytes), Requirement::required),
       method<&LongWinded::tooLong>(selectorOf(velto::limits::kMaximumSelectorBytes + 1), Requirement::required)});
  return table;
}

namespace velto::testing {
namespace {

class Echo final : public LongWinded, public NSXPCListenerDelegate, public std::enable_shared_from_this<Echo> {
 public:
  void longest(NSString text, std::function<void(NSString)> reply) override { reply(text); }
  void tooLong(NSString, std::function<void(NSString)>) override { ADD_FAILURE() << "it was delivered"; }
  bool listener(const std::shared_ptr<NSXPCListener>&, const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(NSXPCInterface::interfaceWithProtocol<LongWinded>());
    connection->setExportedObject<LongWinded>(shared_from_this());
    connection->resume();
    accepted = connection;
    return true;
  }

  std::shared_ptr<NSXPCConnection> accepted;
};

using Selectors = LimitTest;

TEST_F(Selectors, OfTheGreatestLengthAreCalledAndOneByteMoreIsRefused) {
  const auto echo = std::make_shared<Echo>();
  const auto listener = NSXPCListener::anonymousListener();
  listener->setDelegate(echo);
  listener->resume();
  const auto connection = NSXPCConnection::initWithListenerEndpoint(listener->endpoint());
  connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<LongWinded>());
  connection->resume();
  ProxyErrors errors;
  const auto proxy = connection->remoteObjectProxyWithErrorHandler<LongWinded>(errors.handler());
  for (int round = 0; round < 2; ++round) {
    const auto answer = std::make_shared<std::promise<NSString>>();
    proxy->call<&LongWinded::longest>(NSString("still"), [answer](const NSString& text) { answer->set_value(text); });
    auto future = answer->get_future();
    EXPECT_EQ(finish(future), NSString("still"));
    if (round > 0) break;
    proxy->call<&LongWinded::tooLong>(NSString("no"), [](const NSString&) { ADD_FAILURE() << "it was answered"; });
    expectRefusal(errors.waitForOne(), NSXPCLimitExceeded, "bytes of a selector: 257, maximum 256");
  }
  connection->invalidate();
  echo->accepted->invalidate();
  echo->accepted.reset();
}

}  // namespace
}  // namespace velto::testing
