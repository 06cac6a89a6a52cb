// One connection, used and ended by many threads: every call ends once, in its reply or in its error.
#include <atomic>
#include <future>
#include <memory>
#include <vector>

#include "tests/stress/StressTest.h"
#include "tests/support/BrokerLink.h"

namespace velto::testing {
namespace {

constexpr unsigned kSenders = 6;
constexpr int kCallsOfEach = 60;

// How often each call has ended.
class Tally {
 public:
  explicit Tally(std::size_t calls) : ends_(calls) {}

  std::size_t begin() { return begun_++; }
  void end(std::size_t call) { ++ends_.at(call); }
  bool allEnded() const {
    for (std::size_t call = 0; call < begun_; ++call) {
      if (ends_[call] == 0) return false;
    }
    return true;
  }
  bool noneEndedTwice() const {
    for (const auto& ends : ends_) {
      if (ends > 1) return false;
    }
    return true;
  }

 private:
  std::atomic<std::size_t> begun_{0};
  std::vector<std::atomic<int>> ends_;
};

// Answers at once, later from another thread, or lets the reply go.
class Answering final : public VeltoCommunicationMessageProtocol {
 public:
  void connectionID(NSString, NSDictionary withMessage, VeltoReplyHandler handler) override {
    switch (withMessage["number"].unsignedIntegerValue() % 3) {
      case 0:
        handler(withMessage);
        break;
      case 1:
        later_.push_back(inBackground([handler = std::move(handler), withMessage] { handler(withMessage); }));
        break;
      default:
        handler(withMessage);
        handler(nil);
    }
  }
  void connectionError(NSError) override {}
  void setStrictMessageTypesRemote(bool) override {}
  void connectionUUID(NSString) override {}

 private:
  // The calls of one connection come one after the other.
  std::vector<std::future<void>> later_;
};

class Accepting final : public NSXPCListenerDelegate {
 public:
  bool listener(const std::shared_ptr<NSXPCListener>&,
                const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) override {
    shouldAcceptNewConnection->setExportedInterface(
        NSXPCInterface::interfaceWithProtocol<VeltoCommunicationMessageProtocol>());
    shouldAcceptNewConnection->setExportedObject<VeltoCommunicationMessageProtocol>(std::make_shared<Answering>());
    shouldAcceptNewConnection->resume();
    return true;
  }
};

std::shared_ptr<NSXPCConnection> connectionTo(const NSXPCListenerEndpoint& endpoint, std::promise<void>& ended) {
  const auto connection = NSXPCConnection::initWithListenerEndpoint(endpoint);
  connection->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoCommunicationMessageProtocol>());
  connection->setInvalidationHandler([&ended] { ended.set_value(); });
  connection->resume();
  return connection;
}

void send(NSXPCConnection& connection, const std::shared_ptr<Tally>& tally) {
  const std::size_t call = tally->begin();
  const auto end = [tally, call] { tally->end(call); };
  const auto proxy =
      connection.remoteObjectProxyWithErrorHandler<VeltoCommunicationMessageProtocol>([end](const NSError&) { end(); });
  proxy->call<&VeltoCommunicationMessageProtocol::connectionID>("id", NSDictionary{{"number", call}},
                                                                [end](const NSDictionary&) { end(); });
}

class SharedConnection : public StressTest {
 protected:
  void SetUp() override {
    StressTest::SetUp();
    listener = NSXPCListener::anonymousListener();
    listener->setDelegate(accepting);
    listener->resume();
  }
  void TearDown() override {
    listener->invalidate();
    listener.reset();
    StressTest::TearDown();
  }

  const std::shared_ptr<Accepting> accepting = std::make_shared<Accepting>();
  std::shared_ptr<NSXPCListener> listener;
};

TEST_F(SharedConnection, EveryCallOfManyThreadsEndsOnce) {
  const auto tally = std::make_shared<Tally>(kSenders * kCallsOfEach);
  std::promise<void> ended;
  const auto connection = connectionTo(listener->endpoint(), ended);
  inThreads(kSenders, [&](Dice&) {
    for (int count = 0; count < kCallsOfEach; ++count) send(*connection, tally);
  });
  EXPECT_TRUE(eventually([&] { return tally->allEnded(); }));
  connection->invalidate();
  std::future<void> end = ended.get_future();
  finish(end);
  EXPECT_TRUE(tally->noneEndedTwice());
}

TEST_F(SharedConnection, EveryCallEndsOnceWhenThreadsInvalidateTheConnectionMeanwhile) {
  for (int round = 0; round < 12; ++round) {
    const auto tally = std::make_shared<Tally>(kSenders * kCallsOfEach);
    std::promise<void> ended;
    auto connection = connectionTo(listener->endpoint(), ended);
    inThreads(kSenders, [&](Dice& dice) {
      for (int count = 0; count < kCallsOfEach; ++count) {
        if (dice.oneIn(2 * kCallsOfEach)) connection->invalidate();
        send(*connection, tally);
      }
    });
    connection->invalidate();
    // The connection's object goes before its handlers have run.
    connection.reset();
    std::future<void> end = ended.get_future();
    finish(end);
    EXPECT_TRUE(eventually([&] { return tally->allEnded(); }));
    EXPECT_TRUE(tally->noneEndedTwice());
  }
}

}  // namespace
}  // namespace velto::testing
