// What waits because the other end does not read, or gives no credit; and replies that do not come.

#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/contract/Limits.h"
#include "tests/limits/Ends.h"
#include "tests/limits/RawEnd.h"

namespace velto::testing {
namespace {

class Waiting : public LimitTest {
 protected:
  // A raw listener's peer that lets the client have only one call under way at first.
  struct Peer {
    RawEnd end;
    std::size_t callBytes;
  };
  Peer peerWithCreditForOne(RawListener& listener, Client& client) {
    auto answer = client.ask({{"hello", "heard"}});
    RawEnd end = listener.accept();
    auto hello = wire::Hello::ours();
    hello.undeliveredCalls = 1;
    end.greet(hello);
    const auto call = end.next(wire::FrameType::call);
    EXPECT_TRUE(call);
    answerCall(end, 1);
    EXPECT_TRUE(finish(answer)) << "the hello came before the reply";
    return {std::move(end), call ? call->body.size() : 0};
  }
  static void answerCall(RawEnd& end, std::uint64_t identifier) {
    wire::ValueEncoder encoder(wire::FrameType::reply);
    encoder.addUnsigned(identifier);
    encoder.add(NSDictionary{{"from", "peer"}});
    end.send(encoder.take());
  }
};

TEST_F(Waiting, AsManyBytesOfCallsAsMayWaitDoAndOneCallMoreIsRefusedUntilThereIsCredit) {
  RawListener listener;
  Client client(listener.endpoint());
  Peer peer = peerWithCreditForOne(listener, client);
  // The first call holds the credit; these have none.
  constexpr std::size_t kCalls = limits::kWaitingBytes / limits::kMaximumFrameBytes;
  for (std::size_t call = 0; call < kCalls; ++call) {
    client.tell(asText(client.messageOfBodyBytes(limits::kMaximumFrameBytes, false)));
  }
  const std::size_t small = bodyBytes(6, {{"one", "more"}}, false);
  EXPECT_TRUE(client.errors.all().empty());
  client.tell({{"one", "more"}});
  expectRefusal(client.error(), NSXPCLimitExceeded,
                "bytes that wait to be sent: " + std::to_string(limits::kWaitingBytes + small) + ", the maximum is " +
                    std::to_string(limits::kWaitingBytes));
  peer.end.send(wire::Credit{peer.callBytes, 1}.encode());
  ASSERT_TRUE(peer.end.next(wire::FrameType::call));
  client.tell({{"one", "more"}});
  for (std::size_t call = 1; call < kCalls + 1; ++call) {
    peer.end.send(wire::Credit{limits::kMaximumFrameBytes, 1}.encode());
    ASSERT_TRUE(peer.end.next(wire::FrameType::call)) << call;
  }
  EXPECT_EQ(client.errors.all().size(), 1u);
}

TEST_F(Waiting, RepliesToOneThatDoesNotReadAreBoundedAndItHearsOfThoseThatWereNotSent) {
  const auto service = Service::start();
  service->exported->onMessage([](const NSDictionary& message, const VeltoReplyHandler& reply) {
    reply(dataOf(message["bytes"].unsignedIntegerValue()));
  });
  RawEnd peer = RawEnd::connectedTo(service->endpoint());
  peer.greet();
  constexpr std::size_t kReply = std::size_t{8} << 20;
  constexpr std::size_t kCalls = limits::kWaitingBytes / kReply + 2;
  for (std::size_t call = 1; call <= kCalls; ++call) peer.send(callFrame(call, NSDictionary{{"bytes", kReply}}, true));
  ASSERT_TRUE(log.waitForContaining(0, "could not be sent: bytes that wait to be sent: "));
  const std::string line = log.containing(0, "could not be sent").front();
  EXPECT_NE(line.find(", the maximum is 67108864"), std::string::npos) << line;
  std::size_t replies = 0;
  std::size_t refusals = 0;
  while (replies + refusals < kCalls) {
    const auto frame = peer.next();
    ASSERT_TRUE(frame);
    std::string reason;
    replies += frame->type == wire::FrameType::reply ? 1u : 0u;
    if (frame->type != wire::FrameType::replyRefusal) continue;
    ++refusals;
    const auto refusal = wire::Refusal::decode(*frame, reason);
    ASSERT_TRUE(refusal) << reason;
    EXPECT_EQ(refusal->code, wire::kLimitExceeded);
    EXPECT_NE(refusal->text.find("bytes that wait to be sent"), std::string::npos) << refusal->text;
  }
  // Those under the limit came, and what the socket itself has taken besides.
  EXPECT_GE(replies, limits::kWaitingBytes / kReply - 1);
  EXPECT_GE(refusals, 1u);
  peer.send(callFrame(kCalls + 1, NSDictionary{{"bytes", 1}}, true));
  EXPECT_TRUE(peer.next(wire::FrameType::reply));
}

TEST_F(Waiting, AsManyCallsAsMayWaitForTheirRepliesDoAndOneMoreIsRefusedUntilOneIsAnswered) {
  RawListener listener;
  Client client(listener.endpoint());
  std::vector<std::future<NSDictionary>> answers;
  for (std::size_t call = 0; call < limits::kPendingReplies; ++call) answers.push_back(client.ask({}));
  EXPECT_TRUE(client.errors.all().empty());
  auto over = client.ask({});
  EXPECT_TRUE(finish(over).isNil());
  expectRefusal(client.error(), NSXPCLimitExceeded, "calls that wait for their replies: 65537, the maximum is 65536");
  RawEnd peer = listener.accept();
  peer.greet();
  ASSERT_TRUE(peer.next(wire::FrameType::call));
  answerCall(peer, 1);
  EXPECT_TRUE(finish(answers.front()));
  auto next = client.ask({});
  EXPECT_EQ(client.errors.all().size(), 1u);
  client.connection->invalidate();
  EXPECT_TRUE(finish(next).isNil());
}

// Answers are kept by the service; each peer sends at once what its credit allows and goes on as it is given back.
TEST_F(Waiting, AsManyRepliesAsMayBeOwedAreAndOneMoreCutsThePeerOff) {
  const auto service = Service::start();
  Mutex mutex;
  std::vector<VeltoReplyHandler> owed;
  service->exported->onMessage([&](const NSDictionary&, const VeltoReplyHandler& reply) {
    MutexLock lock(mutex);
    owed.push_back(reply);
  });
  const auto owes = [&] {
    MutexLock lock(mutex);
    return owed.size();
  };
  RawEnd peer = RawEnd::connectedTo(service->endpoint());
  peer.greet();
  std::uint64_t number = 0;
  while (number < limits::kOwedReplies) {
    for (std::size_t call = 0; call < limits::kUndeliveredCalls; ++call) peer.send(callFrame(++number, nil, true));
    ASSERT_TRUE(eventually([&] { return owes() == number; })) << owes();
  }
  EXPECT_TRUE(log.containing(0, "replies owed").empty());
  // One that is answered makes room for another.
  VeltoReplyHandler first;
  {
    MutexLock lock(mutex);
    std::swap(first, owed.front());
  }
  first({{"late", true}});
  ASSERT_TRUE(peer.next(wire::FrameType::reply));
  peer.send(callFrame(++number, nil, true));
  ASSERT_TRUE(eventually([&] { return owes() == number; }));
  EXPECT_TRUE(log.containing(0, "replies owed").empty());
  peer.send(callFrame(++number, nil, true));
  EXPECT_TRUE(peer.isCutOff());
  EXPECT_TRUE(log.waitForContaining(0, "replies owed: 65537, the maximum is 65536"));
  {
    MutexLock lock(mutex);
    owed.clear();
  }
  service->exported->echo();
  EXPECT_TRUE(Client(service->endpoint()).works());
}

}  // namespace
}  // namespace velto::testing
