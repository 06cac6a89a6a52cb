#include "message/PeerProtocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/logging/VeltoLogging.h"
#include "platform/xpc/NSFileDescriptor.h"

using ::testing::ElementsAre;
using velto::xpc::Requirement;
using velto::xpc::Way;

namespace {

class OnlyTheRequired final : public VeltoCommunicationMessageProtocol {
 public:
  void connectionID(NSString, NSDictionary, VeltoReplyHandler) override {}
  void connectionError(NSError) override {}
};

const velto::xpc::Protocol& table() {
  return velto::xpc::protocolOf<VeltoCommunicationMessageProtocol>();
}

}  // namespace

TEST(PeerProtocol, ListsItsMethodsInOrder) {
  std::vector<std::string> selectors;
  for (const auto& method : table().methods()) selectors.push_back(method.selector);
  EXPECT_EQ(table().name(), "VeltoCommunicationMessageProtocol");
  EXPECT_THAT(selectors, ElementsAre("connectionID:withMessage:handler:", "connectionError:",
                                     "setStrictMessageTypesRemote:", "connectionUUID:", "ping"));
}

TEST(PeerProtocol, TheFirstTwoAreRequiredAndOneWayTheOthersOptional) {
  for (std::size_t index = 0; index < table().methods().size(); ++index) {
    const auto& method = table().methods()[index];
    EXPECT_EQ(method.requirement, index < 2 ? Requirement::required : Requirement::optional) << method.selector;
    EXPECT_EQ(method.way, index < 2 ? Way::oneWay : Way::twoWay) << method.selector;
  }
}

TEST(PeerProtocol, OnlyAMessageHasAReply) {
  for (const auto& method : table().methods()) {
    EXPECT_EQ(method.hasReply(), method.selector == "connectionID:withMessage:handler:") << method.selector;
  }
}

TEST(PeerProtocol, AnOptionalMethodThatIsNotImplementedIsUnrecognized) {
  OnlyTheRequired object;
  EXPECT_THROW(object.setStrictMessageTypesRemote(true), NSXPCUnrecognizedSelector);
  EXPECT_THROW(object.connectionUUID("id"), NSXPCUnrecognizedSelector);
  try {
    object.ping();
    FAIL();
  } catch (const NSXPCUnrecognizedSelector& unrecognized) {
    EXPECT_EQ(unrecognized.selector(), "ping");
  }
}

TEST(PeerProtocol, TheDefaultSetsAdmitNoAnchor) {
  const auto interface = velto::makePeerInterface();
  const NSString message = "connectionID:withMessage:handler:";
  EXPECT_FALSE(interface->classesForSelector(message, 1, false).containsObject(VKTLogAnchor::classObject()));
  EXPECT_FALSE(interface->classesForSelector(message, 0, true).containsObject(VKTLogAnchor::classObject()));
}

// So nobody holds the descriptors that a peer puts into a message.
TEST(PeerProtocol, NoMessageAndNoReplyClaimsADescriptor) {
  NSFileDescriptor::classObject();
  const auto interface = velto::makePeerInterface();
  EXPECT_EQ(interface->claimableDescriptors(false), 0U);
  EXPECT_EQ(interface->claimableDescriptors(true), 0U);
}

TEST(PeerProtocol, EveryPlainClassIsAdmittedInMessagesAndReplies) {
  const auto interface = velto::makePeerInterface();
  const NSString message = "connectionID:withMessage:handler:";
  for (const Class& plain : {NSString::classObject(), NSNumber::classObject(), NSDictionary::classObject(),
                             NSArray::classObject(), NSData::classObject()}) {
    EXPECT_TRUE(interface->classesForSelector(message, 1, false).containsObject(plain)) << plain.name().string();
    EXPECT_TRUE(interface->classesForSelector(message, 0, true).containsObject(plain)) << plain.name().string();
  }
}
