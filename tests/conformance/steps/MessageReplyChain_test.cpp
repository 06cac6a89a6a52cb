// The reply chain: what the delegate is given to answer with, and what is written about it.

#include <set>

#include "message/ReplyChain.h"
#include "tests/conformance/steps/ClientSteps.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class MessageReplyChain : public ClientSteps {
 protected:
  // The label in a line of level 2 that ends like this; a failure of the test for any other line.
  static std::string labelOf(const std::string& line, const std::string& ending) {
    const std::string start = "log 2 ";
    if (!line.starts_with(start) || !line.ends_with(ending)) {
      ADD_FAILURE() << "'" << line << "' is no line of level 2 that ends with '" << ending << "'";
      return "";
    }
    return line.substr(start.size(), line.size() - start.size() - ending.size());
  }

  static constexpr const char* kSent = " handler sent to delegate";
  static constexpr const char* kCalled = " handler called by delegate";
  const NSDictionary answer{{"answer", 42}};
  CountedReply incoming;
};

TEST_F(MessageReplyChain, WrapsBeforeTheDelegateIsCalled) {
  PROVES("peer.chain.1",
         "that the handler goes to the delegate is logged at level 2, under a label, before it is called");
  becomeReady("id");
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionID>("id", NSDictionary{{"a", 1}}, incoming.handler());
  const Lines lines = journal().take();
  ASSERT_THAT(lines, SizeIs(2));
  labelOf(lines[0], kSent);
  EXPECT_TRUE(lines[1].starts_with("delegate receivedMessage")) << lines[1];
}

TEST_F(MessageReplyChain, MakesTheLabelOfTheIdentifierAndAFreshUUID) {
  PROVES("peer.chain.2", "the label is the connection's identifier, \"_\" and the text of a fresh UUID");
  becomeReady("some id");
  std::set<std::string> labels;
  for (int message = 0; message < 3; ++message) {
    peer().deliver<&VeltoCommunicationMessageProtocol::connectionID>("some id", answer, incoming.handler());
    const std::string label = labelOf(journal().take().at(0), kSent);
    ASSERT_TRUE(label.starts_with("some id_")) << label;
    const NSUUID identifier = NSUUID::UUIDWithString(label.substr(8));
    EXPECT_EQ(identifier.UUIDString().string(), label.substr(8));
    labels.insert(label);
  }
  EXPECT_THAT(labels, SizeIs(3));
}

TEST_F(MessageReplyChain, HandsTheDelegateAnotherHandlerThanTheOneThatCame) {
  PROVES("peer.chain.3", "what the delegate gets is a wrapper: calling it logs first, then calls the one that came");
  becomeReady("id");
  VeltoReplyHandler direct = [this](const NSDictionary& reply) {
    journal().write("the sender's handler " + reply.description().string());
  };
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionID>("id", NSDictionary{{"a", 1}}, direct);
  const std::string label = labelOf(journal().take().at(0), kSent);
  delegate->recorded.messages().at(0).reply(answer);
  EXPECT_THAT(journal().take(),
              ElementsAre("log 2 " + label + kCalled, "the sender's handler " + answer.description().string()));
}

TEST_F(MessageReplyChain, PassesEveryCallOn) {
  PROVES("peer.chain.4", "every call of the wrapper is logged under the message's label and passed on: nobody counts");
  becomeReady("id");
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionID>("id", answer, incoming.handler());
  const std::string label = labelOf(journal().take().at(0), kSent);
  const VeltoReplyHandler wrapper = delegate->recorded.messages().at(0).reply;
  wrapper(NSDictionary{{"n", 1}});
  wrapper(nil);
  wrapper(NSDictionary{{"n", 3}});
  EXPECT_THAT(journal().take(),
              ElementsAre("log 2 " + label + kCalled, "log 2 " + label + kCalled, "log 2 " + label + kCalled));
  ASSERT_THAT(incoming.replies(), SizeIs(3));
  EXPECT_EQ(incoming.replies()[0], (NSDictionary{{"n", 1}}));
  EXPECT_TRUE(incoming.replies()[1].isNil());
  EXPECT_EQ(incoming.replies()[2], (NSDictionary{{"n", 3}}));
}

TEST_F(MessageReplyChain, WithoutAHandlerOnlyLogs) {
  PROVES("peer.chain.5", "a message that came without a handler still gives the delegate a wrapper, which only logs");
  becomeReady("id");
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionID>("id", answer, VeltoReplyHandler());
  const std::string label = labelOf(journal().take().at(0), kSent);
  const VeltoReplyHandler wrapper = delegate->recorded.messages().at(0).reply;
  ASSERT_TRUE(wrapper);
  wrapper(answer);
  EXPECT_THAT(journal().take(), ElementsAre("log 2 " + label + kCalled));
}

TEST_F(MessageReplyChain, NeverAnswersByItself) {
  PROVES("peer.chain.6", "a delegate that never answers leaves the sender without a reply");
  becomeReady("id");
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionID>("id", answer, incoming.handler());
  EXPECT_TRUE(incoming.isHeld());
  delegate = nullptr;
  EXPECT_FALSE(incoming.isHeld());
  EXPECT_THAT(incoming.replies(), IsEmpty());
  EXPECT_THAT(peer().calls(), SizeIs(1)) << "nothing but the ping was sent";
}

TEST_F(MessageReplyChain, DoesNotCheckTheReply) {
  PROVES("types.where.4", "a reply given to a handler is not checked, whatever it holds");
  becomeReady("id");
  peer().deliver<&VeltoCommunicationMessageProtocol::connectionID>("id", answer, incoming.handler());
  const NSDictionary reply{{"when", NSDate::date()}, {"nothing", NSNull::null()}};
  delegate->recorded.messages().at(0).reply(reply);
  ASSERT_THAT(incoming.replies(), SizeIs(1));
  EXPECT_TRUE(incoming.replies()[0].isIdenticalTo(reply));
  for (const std::string& line : journal().take()) EXPECT_FALSE(line.starts_with("log 0")) << line;
}

TEST_F(MessageReplyChain, TheEmptyHandlerIsOneForAllAndDoesNothing) {
  PROVES("peer.chain.7", "the handler of a sender that wants no reply is one shared handler that does nothing");
  EXPECT_EQ(&emptyReplyHandler(), &emptyReplyHandler());
  ASSERT_TRUE(emptyReplyHandler());
  emptyReplyHandler()(answer);
  emptyReplyHandler()(nil);
  EXPECT_THAT(journal().take(), IsEmpty());
}

}  // namespace
}  // namespace velto::testing
