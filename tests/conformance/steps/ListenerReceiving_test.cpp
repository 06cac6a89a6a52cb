// The steps of a listener with a client's message.

#include "tests/conformance/steps/ListenerSteps.h"

namespace velto::testing {
namespace {

using ::testing::IsEmpty;

class ListenerReceivingSteps : public ListenerSteps {
 protected:
  // A message from the client; its replies.
  std::shared_ptr<std::vector<NSDictionary>> deliver(ConnectionDouble& connection, const NSString& id) {
    auto replies = std::make_shared<std::vector<NSDictionary>>();
    connection.deliver<&VeltoCommunicationMessageProtocol::connectionID>(
        id, kHello, VeltoReplyHandler([replies](NSDictionary reply) { replies->push_back(reply); }));
    return replies;
  }
};

TEST_F(ListenerReceivingSteps, AMessageIsLoggedThenHandedOverAndItsReplyLoggedThenPassedOn) {
  PROVES("listener.receive.1",
         "a message is handed to the delegate with the identifier that the client stated, whatever it is");
  PROVES("listener.receive.3",
         "a received message logs \"LABEL handler sent to delegate\" at level 2, before the delegate is called");
  PROVES("listener.receive.4",
         "every call of the delegate's handler logs \"LABEL handler called by delegate\" at level 2, with the label of "
         "its message");
  PROVES("listener.receive.7", "every call of the delegate's handler is passed on");
  start();
  const auto client = accept();
  const auto replies = deliver(*client.connection, "foreign");
  const auto lines = journal().take();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].starts_with("log 2 foreign_"));
  EXPECT_TRUE(lines[0].ends_with(" handler sent to delegate"));
  EXPECT_EQ(lines[1], "delegate receivedMessage " + kHello.description().string() + " from foreign");
  EXPECT_THAT(*replies, IsEmpty());
  const std::string label = lines[0].substr(0, lines[0].find(" handler"));
  const Event event = delegate->recorded.messages().front();
  for (std::size_t count = 1; count <= 3; ++count) {
    std::size_t before = 9;
    journal().observe([&](const std::string&) { before = replies->size(); });
    event.reply(kHello);
    journal().observe({});
    EXPECT_EQ(journal().take(), (Lines{label + " handler called by delegate"}));
    EXPECT_EQ(before, count - 1) << "the line comes first";
    EXPECT_EQ(replies->size(), count);
  }
}

TEST_F(ListenerReceivingSteps, AMessageWithoutADelegateIsLoggedAndLetGoOf) {
  PROVES("listener.receive.9",
         "without a delegate a message logs its \"handler sent to delegate\" line and is dropped, its reply handler "
         "never called");
  start();
  listener->setDelegate(nullptr);
  const auto client = accept();
  const auto replies = deliver(*client.connection, client.id);
  const auto lines = journal().take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].starts_with("log 2 " + client.id.string() + "_"));
  EXPECT_TRUE(lines[0].ends_with(" handler sent to delegate"));
  EXPECT_THAT(*replies, IsEmpty());
  EXPECT_EQ(replies.use_count(), 1) << "the reply handler is let go of";
}

}  // namespace
}  // namespace velto::testing
