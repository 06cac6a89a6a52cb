// The tables of the peer protocol, and how each end sets its connection up with it.

#include "broker/VeltoIPCDaemonProtocol.h"
#include "message/PeerProtocol.h"
#include "platform/logging/VeltoLogging.h"
#include "tests/conformance/Statements.h"
#include "tests/conformance/double/StepsTest.h"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xpc::Method;
using xpc::Requirement;
using xpc::Way;

using MessageProtocol = StepsTest;

const xpc::Protocol& peerProtocol() {
  return xpc::protocolOf<VeltoCommunicationMessageProtocol>();
}

std::string describe(const std::vector<xpc::Parameter>& parameters) {
  std::string text;
  for (const xpc::Parameter& parameter : parameters) text += " " + parameter.classObject.name().string();
  return text;
}

// "required|optional oneway|void SELECTOR CLASS… reply CLASS…".
std::string describe(const Method& method) {
  return std::string(method.requirement == Requirement::required ? "required" : "optional") +
         (method.way == Way::oneWay ? " oneway " : " void ") + method.selector + describe(method.parameters) +
         (method.hasReply() ? " reply" : "") + describe(method.replyParameters);
}

Journal::Lines describe(const xpc::Protocol& protocol) {
  Journal::Lines lines;
  for (const Method& method : protocol.methods()) lines.push_back(describe(method));
  return lines;
}

// An object that is an end, but does nothing.
class Nobody final : public VeltoCommunicationMessageProtocol {
 public:
  void connectionID(NSString, NSDictionary, VeltoReplyHandler) override {}
  void connectionError(NSError) override {}
};

TEST_F(MessageProtocol, HasFiveMethodsInItsOrder) {
  PROVES("peer.protocol.1",
         "the peer protocol has these methods, required ones first, with these arguments, one-way or not");
  EXPECT_EQ(peerProtocol().name(), "VeltoCommunicationMessageProtocol");
  EXPECT_THAT(
      describe(peerProtocol()),
      ElementsAre("required oneway connectionID:withMessage:handler: NSString NSDictionary reply NSDictionary",
                  "required oneway connectionError: NSError", "optional void setStrictMessageTypesRemote: NSNumber",
                  "optional void connectionUUID: NSString", "optional void ping"));
}

TEST_F(MessageProtocol, LeavesOptionalMethodsToTheEndThatHasThem) {
  PROVES("peer.protocol.2",
         "ping is the listener's alone, setStrictMessageTypesRemote: and connectionUUID: the client's");
  const std::shared_ptr<VeltoCommunicationMessageProtocol> client = VeltoConnection::init();
  const std::shared_ptr<VeltoCommunicationMessageProtocol> listener = VeltoListener::init();
  EXPECT_THROW(client->ping(), NSXPCUnrecognizedSelector);
  EXPECT_NO_THROW(listener->ping());
  EXPECT_THROW(listener->setStrictMessageTypesRemote(true), NSXPCUnrecognizedSelector);
  EXPECT_NO_THROW(client->setStrictMessageTypesRemote(true));
  EXPECT_THROW(listener->connectionUUID("id"), NSXPCUnrecognizedSelector);
  EXPECT_NO_THROW(client->connectionUUID("id"));
}

TEST_F(MessageProtocol, BothEndsAreObjectsAndPeers) {
  PROVES("peer.protocol.3",
         "both ends are objects of the root class that speak the peer protocol; the listener also decides about "
         "connections");
  static_assert(std::is_base_of_v<NSObject, VeltoConnection>);
  static_assert(std::is_base_of_v<VeltoCommunicationMessageProtocol, VeltoConnection>);
  static_assert(!std::is_base_of_v<NSXPCListenerDelegate, VeltoConnection>);
  static_assert(std::is_base_of_v<NSObject, VeltoListener>);
  static_assert(std::is_base_of_v<VeltoCommunicationMessageProtocol, VeltoListener>);
  static_assert(std::is_base_of_v<NSXPCListenerDelegate, VeltoListener>);
  EXPECT_EQ(VeltoConnection::classObject().name(), NSString("VeltoConnection"));
  EXPECT_EQ(VeltoConnection::classObject().superclass(), NSObject::classObject());
  EXPECT_EQ(VeltoListener::classObject().name(), NSString("VeltoListener"));
  EXPECT_EQ(VeltoListener::classObject().superclass(), NSObject::classObject());
  EXPECT_TRUE(VeltoConnection::init()->isKindOfClass(VeltoConnection::classObject()));
}

TEST_F(MessageProtocol, ClientEndHasOneInterfaceForBothRoles) {
  PROVES("peer.client.1",
         "a client's connection gets the remote interface, then the same one as exported interface, then the object");
  const auto connection = NSXPCConnection::initWithListenerEndpoint(makeEndpoint());
  const auto object = std::make_shared<Nobody>();
  journal().take();
  const auto interface = makePeerInterface();
  configureClientEnd(*connection, interface, object);
  EXPECT_THAT(journal().take(),
              ElementsAre("interface#1 interfaceWithProtocol VeltoCommunicationMessageProtocol",
                          "connection#1 setRemoteObjectInterface interface#1",
                          "connection#1 setExportedInterface interface#1", "connection#1 setExportedObject"));
  EXPECT_EQ(platform.connection(1).exportedObject(), static_cast<VeltoCommunicationMessageProtocol*>(object.get()));
}

TEST_F(MessageProtocol, ClientEndChangesNoClassSet) {
  PROVES("peer.client.2", "on the client every argument and every reply keeps its default class set");
  const auto connection = NSXPCConnection::initWithListenerEndpoint(makeEndpoint());
  configureClientEnd(*connection, makePeerInterface(), std::make_shared<Nobody>());
  EXPECT_EQ(platform.interface(1).classes, defaultClasses(peerProtocol()));
  for (const std::string& line : journal().take()) EXPECT_EQ(line.find("setClasses"), std::string::npos) << line;
}

TEST_F(MessageProtocol, ListenerEndExportsBeforeItMakesItsRemoteInterface) {
  PROVES("peer.listener.1",
         "an accepted connection is set up in this order: exported interface made, message's class set read and "
         "replaced, exported interface and object set, a second interface made and set as the remote one");
  const auto connection = NSXPCConnection::initWithListenerEndpoint(makeEndpoint());
  const auto object = std::make_shared<Nobody>();
  journal().take();
  configureListenerEnd(*connection, object);
  EXPECT_THAT(journal().take(),
              ElementsAre("interface#1 interfaceWithProtocol VeltoCommunicationMessageProtocol",
                          "interface#1 classesForSelector connectionID:withMessage:handler: 1 NO",
                          "interface#1 setClasses connectionID:withMessage:handler: 1 NO",
                          "connection#1 setExportedInterface interface#1", "connection#1 setExportedObject",
                          "interface#2 interfaceWithProtocol VeltoCommunicationMessageProtocol",
                          "connection#1 setRemoteObjectInterface interface#2"));
  EXPECT_EQ(platform.connection(1).exportedObject(), static_cast<VeltoCommunicationMessageProtocol*>(object.get()));
}

TEST_F(MessageProtocol, ListenerEndAdmitsALogAnchorInMessagesAndNothingElse) {
  PROVES("peer.listener.2",
         "the one class set that is changed is that of the message from a client: its former classes and VKTLogAnchor");
  const auto connection = NSXPCConnection::initWithListenerEndpoint(makeEndpoint());
  configureListenerEnd(*connection, std::make_shared<Nobody>());
  auto expected = defaultClasses(peerProtocol());
  NSSet& ofMessage = expected.at({"connectionID:withMessage:handler:", 1, false});
  const std::size_t before = ofMessage.count();
  const NSMutableSet extended = NSMutableSet::initWithSet(ofMessage);
  NSMutableSet(extended).addObject(VKTLogAnchor::classObject());
  ofMessage = extended;
  EXPECT_EQ(extended.count(), before + 1);
  EXPECT_EQ(platform.interface(1).classes, expected);
}

TEST_F(MessageProtocol, ListenerEndLeavesItsRemoteInterfaceAsItIs) {
  PROVES("peer.listener.3", "the remote interface of an accepted connection has nothing but default class sets");
  const auto connection = NSXPCConnection::initWithListenerEndpoint(makeEndpoint());
  configureListenerEnd(*connection, std::make_shared<Nobody>());
  EXPECT_EQ(platform.interface(2).classes, defaultClasses(peerProtocol()));
}

TEST_F(MessageProtocol, ListenerEndReplacesTheClassSetByANewOne) {
  PROVES("peer.listener.4", "the extended class set is a new set: the one that was read is left as it was");
  const auto connection = NSXPCConnection::initWithListenerEndpoint(makeEndpoint());
  NSSet read;
  journal().observe([&](const std::string& line) {
    if (line.starts_with("interface#1 classesForSelector")) {
      read = platform.interface(1).classes.at({"connectionID:withMessage:handler:", 1, false});
    }
  });
  configureListenerEnd(*connection, std::make_shared<Nobody>());
  journal().observe({});
  ASSERT_FALSE(read.isNil());
  EXPECT_FALSE(read.containsObject(VKTLogAnchor::classObject()));
  const NSSet stored = platform.interface(1).classes.at({"connectionID:withMessage:handler:", 1, false});
  EXPECT_FALSE(stored.isIdenticalTo(read));
  EXPECT_TRUE(stored.containsObject(VKTLogAnchor::classObject()));
}

TEST_F(MessageProtocol, EveryConnectionHasInterfacesOfItsOwn) {
  PROVES("peer.listener.5", "each accepted connection gets interfaces of its own");
  const auto object = std::make_shared<Nobody>();
  const auto first = NSXPCConnection::initWithListenerEndpoint(makeEndpoint());
  const auto second = NSXPCConnection::initWithListenerEndpoint(makeEndpoint());
  configureListenerEnd(*first, object);
  configureListenerEnd(*second, object);
  EXPECT_EQ(platform.interfaceCount(), 4u);
  EXPECT_NE(platform.connection(1).exportedInterface(), platform.connection(2).exportedInterface());
  EXPECT_NE(platform.connection(1).remoteInterface(), platform.connection(2).remoteInterface());
  EXPECT_EQ(platform.connection(1).exportedObject(), platform.connection(2).exportedObject());
}

TEST_F(MessageProtocol, TheBrokerSpeaksThreeMethods) {
  PROVES("broker.protocol.1",
         "the broker protocol has three required methods, none of them one-way; only the lookup has a reply, one "
         "endpoint");
  const auto& protocol = xpc::protocolOf<VeltoIPCDaemonProtocol>();
  EXPECT_EQ(protocol.name(), "VeltoIPCDaemonProtocol");
  EXPECT_THAT(describe(protocol),
              ElementsAre("required void sendListenerConnection:withName: NSXPCListenerEndpoint NSString",
                          "required void findListenerEndpointForName:handle: NSString reply NSXPCListenerEndpoint",
                          "required void killListenerConnection: NSString"));
}

}  // namespace
}  // namespace velto::testing
