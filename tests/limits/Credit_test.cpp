// What a connection keeps for a receiver that is busy: its sender's credit.

#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/contract/Limits.h"
#include "tests/limits/Ends.h"
#include "tests/limits/RawEnd.h"

namespace velto::testing {
namespace {

class Credit : public LimitTest {
 protected:
  // The service's callbacks wait at the gate, then count.
  void blockService() {
    service->exported->onMessage(
        [gate = gate, delivered = delivered](const NSDictionary& message, const VeltoReplyHandler& reply) {
          gate.wait();
          ++*delivered;
          if (reply) reply(message);
        });
  }
  RawEnd peer() {
    auto made = RawEnd::connectedTo(service->endpoint());
    made.greet();
    return made;
  }
  static void expectAnswer(RawEnd& peer, std::uint64_t identifier) {
    peer.send(callFrame(identifier, NSDictionary{{"still", "there"}}, true));
    EXPECT_TRUE(peer.next(wire::FrameType::reply));
  }

  const Gate gate{};
  const std::shared_ptr<std::atomic<std::size_t>> delivered = std::make_shared<std::atomic<std::size_t>>(0);
  const std::shared_ptr<Service> service = Service::start();
};

TEST_F(Credit, AsManyCallsAsItAllowsAreKeptAndOneMoreCutsThePeerOff) {
  blockService();
  {
    RawEnd rude = peer();
    const auto frame = callFrame(1, NSDictionary::dictionary(), false);
    for (std::size_t sent = 0; sent <= limits::kUndeliveredCalls; ++sent) rude.send(frame);
    EXPECT_TRUE(rude.isCutOff());
    EXPECT_TRUE(log.waitForContaining(0, "undelivered calls: 4097, the maximum is 4096"));
  }
  RawEnd polite = peer();
  for (std::size_t sent = 0; sent < limits::kUndeliveredCalls; ++sent) {
    polite.send(callFrame(sent + 1, NSDictionary::dictionary(), false));
  }
  gate.open();
  EXPECT_TRUE(eventually([&] { return *delivered >= limits::kUndeliveredCalls; }));
  ASSERT_TRUE(polite.next(wire::FrameType::credit));
  expectAnswer(polite, limits::kUndeliveredCalls + 1);
  EXPECT_EQ(log.containing(0, "undelivered calls").size(), 1u);
}

TEST_F(Credit, AsManyBytesAsItAllowsAreKeptAndOneMoreCutsThePeerOff) {
  blockService();
  const std::size_t around = callFrame(1, dataOf(1 << 16), false).body.size() - (1 << 16);
  const auto half = callFrame(1, dataOf(limits::kUndeliveredBytes / 2 - around), false);
  ASSERT_EQ(2 * half.body.size(), limits::kUndeliveredBytes);
  const auto small = callFrame(1, NSDictionary::dictionary(), false);
  {
    RawEnd rude = peer();
    rude.send(half);
    rude.send(half);
    rude.send(small);
    EXPECT_TRUE(rude.isCutOff());
    EXPECT_TRUE(log.waitForContaining(
        0, "bytes of undelivered calls: " + std::to_string(limits::kUndeliveredBytes + small.body.size()) +
               ", the maximum is " + std::to_string(limits::kUndeliveredBytes)));
  }
  RawEnd polite = peer();
  polite.send(half);
  polite.send(half);
  gate.open();
  ASSERT_TRUE(polite.next(wire::FrameType::credit));
  expectAnswer(polite, 3);
}

TEST_F(Credit, OfAPeerIsNotExceededByTheLibrary) {
  RawListener listener;
  Client client(listener.endpoint());
  RawEnd peer = listener.accept();
  auto hello = wire::Hello::ours();
  hello.undeliveredCalls = 3;
  peer.greet(hello);
  // Once this is answered, the hello was heard.
  auto answer = client.ask({{"first", true}});
  ASSERT_TRUE(peer.next(wire::FrameType::call));
  peer.send(wire::encodeReplyDropped(1));
  EXPECT_TRUE(eventually([&] { return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  for (int number = 0; number < 5; ++number) client.tell({{"number", number}});
  client.exported->echo();
  ASSERT_TRUE(peer.next(wire::FrameType::call));
  ASSERT_TRUE(peer.next(wire::FrameType::call));
  // Three are out. The reply passes those that wait, so nothing is in the socket before it.
  peer.send(callFrame(1, NSDictionary{{"from", "peer"}}, true));
  auto next = peer.next();
  ASSERT_TRUE(next);
  EXPECT_EQ(next->type, wire::FrameType::reply);
}

TEST_F(Credit, ACallbackThatIsKeptBusyByAFloodStillGetsTheReplyToItsOwnCall) {
  std::promise<NSDictionary> inside;
  std::atomic<bool> asked{false};
  Gate flooded;
  service->exported->onMessage([&](const NSDictionary&, const VeltoReplyHandler& reply) {
    if (asked.exchange(true)) return reply ? reply({{"done", true}}) : void();
    flooded.wait();
    const auto answer = std::make_shared<std::promise<NSDictionary>>();
    service->waitForOne()
        ->remoteObjectProxyWithErrorHandler<VeltoCommunicationMessageProtocol>([](const NSError&) {})
        ->call<&VeltoCommunicationMessageProtocol::connectionID>(
            NSString("back"), NSDictionary{{"inside", true}},
            VeltoReplyHandler(
                NonBlockingReply<NSDictionary>{[answer](const NSDictionary& message) { answer->set_value(message); }}));
    auto future = answer->get_future();
    inside.set_value(finish(future));
  });
  Client client(service->endpoint());
  // More than the credit: the rest waits at the client's end.
  for (std::size_t sent = 0; sent < limits::kUndeliveredCalls + 10; ++sent) client.tell({{"flood", true}});
  flooded.open();
  auto answer = inside.get_future();
  EXPECT_EQ(finish(answer), NSDictionary({{"inside", true}}));
  auto last = client.ask({{"last", true}});
  EXPECT_TRUE(finish(last));
}

// The client's queue is blocked; a peer answers its calls with as much as may be kept, then with one reply more.
TEST_F(Credit, AsManyBytesOfRepliesAsMayBeKeptAreKeptAndOneMoreCutsThePeerOff) {
  constexpr std::size_t kReplies = limits::kUndeliveredReplyBytes / limits::kMaximumFrameBytes;
  const auto replyOf = [](std::uint64_t identifier, std::size_t bytes) {
    wire::ValueEncoder encoder(wire::FrameType::reply);
    encoder.addUnsigned(identifier);
    wire::Frame frame = encoder.take();
    // A dictionary of one string of as many bytes as are missing.
    const std::size_t text = bytes - frame.body.size() - 8;
    frame.body.append(std::array<std::uint8_t, 4>{0xa1, 0x61, 'd', 0x5a});
    for (int shift = 24; shift >= 0; shift -= 8) frame.body.push_back(static_cast<std::uint8_t>(text >> shift));
    frame.body.resize(bytes);
    return frame;
  };
  for (const bool oneMore : {false, true}) {
    RawListener listener;
    Client client(listener.endpoint());
    const Gate blocked;
    client.exported->onMessage([blocked](const NSDictionary&, const VeltoReplyHandler&) { blocked.wait(); });
    std::vector<std::future<NSDictionary>> answers;
    for (std::size_t call = 0; call < kReplies + 1; ++call) answers.push_back(client.ask({{"call", true}}));
    RawEnd peer = listener.accept();
    peer.greet();
    peer.send(callFrame(1, NSDictionary{{"block", true}}, false));
    for (std::uint64_t call = 1; call <= kReplies; ++call) peer.send(replyOf(call, limits::kMaximumFrameBytes));
    if (oneMore) {
      peer.send(replyOf(kReplies + 1, 64));
      EXPECT_TRUE(peer.isCutOff());
      EXPECT_TRUE(log.waitForContaining(0, "bytes of undelivered replies: 268435520, the maximum is 268435456"));
    }
    blocked.open();
    EXPECT_TRUE(finish(answers.front()));
    answers.erase(answers.begin());
    // One has been taken: there is room for another.
    if (!oneMore) peer.send(replyOf(kReplies + 1, 64));
    for (auto& answer : answers) EXPECT_TRUE(finish(answer)) << oneMore;
    EXPECT_EQ(log.containing(0, "undelivered replies").size(), oneMore ? 1u : 0u);
  }
}

}  // namespace
}  // namespace velto::testing
