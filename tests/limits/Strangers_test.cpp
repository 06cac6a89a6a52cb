// Peers that are not who they should be, or that answer what they were not asked.

#include <unistd.h>

#include "platform/xpc/NSXPCError.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/wire/ValueEncoder.h"
#include "tests/limits/Ends.h"
#include "tests/limits/RawEnd.h"

namespace velto::testing {
namespace {

// A kernel that says of whoever is at the other end of a socket that it is another user.
class StrangeKernel final : public system::SystemCalls {
  int peerUser(int socket, uid_t& user) override {
    const int result = SystemCalls::peerUser(socket, user);
    user = ::geteuid() + 1;
    return result;
  }
};

// It is in place for as long as this lives; it is never destroyed, because a thread may still be in one of its calls.
class EverybodyIsAnotherUser {
 public:
  EverybodyIsAnotherUser() {
    static StrangeKernel& kernel = *new StrangeKernel;
    system::replaceSystemCalls(&kernel);
  }
  ~EverybodyIsAnotherUser() { system::replaceSystemCalls(nullptr); }
  EverybodyIsAnotherUser(const EverybodyIsAnotherUser&) = delete;
  EverybodyIsAnotherUser& operator=(const EverybodyIsAnotherUser&) = delete;
};

wire::Frame replyFrame(std::uint64_t identifier) {
  wire::ValueEncoder encoder(wire::FrameType::reply);
  encoder.addUnsigned(identifier);
  encoder.add(NSDictionary{{"an", "answer"}});
  return encoder.take();
}

// The number that the call has on its connection.
std::uint64_t identifierOf(const std::optional<wire::Frame>& call) {
  EXPECT_TRUE(call);
  return call ? wire::ValueDecoder(*call).nextUnsigned().value_or(0) : 0;
}

using Strangers = LimitTest;

TEST_F(Strangers, OfAnotherUserAreTurnedAwayByAListenerWhichServesOthersAfterwards) {
  const auto service = Service::start();
  // It accepts only once the kernel has been silenced.
  const auto listener = NSXPCListener::anonymousListener();
  listener->setDelegate(service);
  RawEnd stranger = RawEnd::connectedTo(listener->endpoint());
  {
    const EverybodyIsAnotherUser another;
    listener->resume();
    stranger.greet();
    stranger.send(callFrame(1, NSDictionary{{"let", "me in"}}, true));
    EXPECT_TRUE(stranger.isCutOff());
    EXPECT_TRUE(log.waitForContaining(
        0, "A connection is turned away: the other end runs as user " + std::to_string(::geteuid() + 1)));
  }
  EXPECT_TRUE(service->accepted().empty());
  EXPECT_TRUE(Client(listener->endpoint()).works());
  listener->invalidate();
}

TEST_F(Strangers, OfAnotherUserAreNotTalkedToByAClient) {
  const auto service = Service::start();
  {
    const EverybodyIsAnotherUser another;
    Client client(service->endpoint());
    client.tell({{"who", "are you"}});
    expectRefusal(client.error(), NSXPCConnectionInvalid, "the other end runs as user");
  }
  EXPECT_TRUE(Client(service->endpoint()).works());
}

TEST_F(Strangers, ThatAnswerACallTwiceAreCutOff) {
  RawListener listener;
  Client client(listener.endpoint());
  auto answer = client.ask({{"a", "question"}});
  RawEnd peer = listener.accept();
  peer.greet();
  const std::uint64_t call = identifierOf(peer.next(wire::FrameType::call));
  peer.send(replyFrame(call));
  EXPECT_EQ(finish(answer), (NSDictionary{{"an", "answer"}}));
  peer.send(replyFrame(call));
  EXPECT_TRUE(peer.isCutOff());
  EXPECT_TRUE(log.waitForContaining(0, "is cut off"));
}

TEST_F(Strangers, ThatAnswerTheCallOfAnotherConnectionAreCutOffAndThatConnectionGoesOn) {
  RawListener listener;
  Client asking(listener.endpoint());
  // Some calls first: the other connection then has none of the number.
  for (int count = 0; count < 3; ++count) asking.tell({{"just", "talk"}});
  auto answer = asking.ask({{"a", "question"}});
  RawEnd asked = listener.accept();
  asked.greet();
  std::uint64_t call = 0;
  for (int count = 0; count < 4; ++count) call = identifierOf(asked.next(wire::FrameType::call));
  Client other(listener.endpoint());
  auto unanswered = other.ask({{"another", "question"}});
  RawEnd wrong = listener.accept();
  wrong.greet();
  ASSERT_NE(identifierOf(wrong.next(wire::FrameType::call)), call);
  wrong.send(replyFrame(call));
  EXPECT_TRUE(wrong.isCutOff());
  EXPECT_FALSE(finish(unanswered));
  asked.send(replyFrame(call));
  EXPECT_EQ(finish(answer), (NSDictionary{{"an", "answer"}}));
}

}  // namespace
}  // namespace velto::testing
