// Calls and replies as frames and back, and what is wrong with those that cannot be used.
#include "platform/xpc/connection/CallCoding.h"

#include <gtest/gtest.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Frames.h"
#include "platform/xpc/testing/Greeter.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::xpc {
namespace {

using testing::Greeter;
using testing::inOnePiece;

class CallCoding : public ::testing::Test {
 protected:
  const std::shared_ptr<NSXPCInterface> interface = NSXPCInterface::interfaceWithProtocol<Greeter>();
  const Method& greet = *interface->protocol().methodForSelector("greet:reply:");

  wire::Frame callOf(const Method& method, const std::vector<NSObject>& arguments) {
    return inOnePiece(encodeCall(7, method, arguments, true).frame);
  }
};

TEST_F(CallCoding, ACallComesOutAsItWentIn) {
  const DecodedCall call = decodeCall(callOf(greet, {NSString("Ada")}), interface.get());
  EXPECT_EQ(call.reading, Reading::ready);
  EXPECT_EQ(call.method, &greet);
  EXPECT_EQ(call.header.identifier, 7U);
  EXPECT_TRUE(call.header.wantsReply);
  ASSERT_EQ(call.arguments.size(), 1U);
  EXPECT_EQ(call.arguments.front(), NSString("Ada"));
}

TEST_F(CallCoding, AnArgumentThatCannotTravelIsNamed) {
  const EncodedCall call = encodeCall(7, greet, {NSString("Ada"), NSString::classObject()}, true);
  EXPECT_EQ(call.failure.code(), NSXPCCallRefused);
  EXPECT_EQ(call.failure.localizedDescription().string().rfind("argument 1: ", 0), 0U);
}

TEST_F(CallCoding, ACallOverALimitIsNotEncoded) {
  const EncodedCall call = encodeCall(7, greet, {NSString(std::string(limits::kMaximumFrameBytes, 'x'))}, true);
  EXPECT_EQ(call.failure.code(), NSXPCLimitExceeded);
}

TEST_F(CallCoding, ACallOfAMethodThatIsNotThereIsRefused) {
  Method other;
  other.selector = "sing:";
  const DecodedCall call = decodeCall(callOf(other, {}), interface.get());
  EXPECT_EQ(call.reading, Reading::refused);
  EXPECT_EQ(call.code, wire::kNoSuchMethod);
  EXPECT_EQ(call.reason, "it has no such method");
  EXPECT_EQ(call.header.identifier, 7U);
}

TEST_F(CallCoding, ACallWithoutAnObjectIsRefused) {
  const DecodedCall call = decodeCall(callOf(greet, {NSString("Ada")}), nullptr);
  EXPECT_EQ(call.reading, Reading::refused);
  EXPECT_EQ(call.code, wire::kNoSuchMethod);
  EXPECT_EQ(call.reason, "it exports no object");
}

TEST_F(CallCoding, AnArgumentOutsideItsClassSetIsRefusedWithItsNumber) {
  const DecodedCall call = decodeCall(callOf(greet, {NSNumber(1)}), interface.get());
  EXPECT_EQ(call.reading, Reading::refused);
  EXPECT_EQ(call.code, wire::kArgumentRefused);
  EXPECT_EQ(call.reason.rfind("argument 0 ", 0), 0U);
}

// The class set may admit more than the method can take.
TEST_F(CallCoding, AnArgumentOfAnAdmittedButWrongClassIsRefused) {
  interface->setClasses(NSSet{NSString::classObject(), NSNumber::classObject()}, "greet:reply:", 0, false);
  const DecodedCall call = decodeCall(callOf(greet, {NSNumber(1)}), interface.get());
  EXPECT_EQ(call.reading, Reading::refused);
  EXPECT_EQ(call.reason, "argument 0 is an object of class NSNumber where one of class NSString is due");
}

TEST_F(CallCoding, BytesBehindTheArgumentsBreakTheProtocol) {
  const DecodedCall call = decodeCall(callOf(greet, {NSString("Ada"), NSString("Bob")}), interface.get());
  EXPECT_EQ(call.reading, Reading::broken);
  EXPECT_EQ(call.reason, "bytes after the arguments of greet:reply:");
}

TEST_F(CallCoding, ACallWithoutAHeaderBreaksTheProtocol) {
  const DecodedCall call = decodeCall(wire::Frame(), interface.get());
  EXPECT_EQ(call.reading, Reading::broken);
  EXPECT_EQ(call.reason.rfind("call: ", 0), 0U);
}

TEST_F(CallCoding, AReplyComesOutAsItWentIn) {
  const DecodedReply reply = decodeReply(inOnePiece(encodeReply(7, NSString("hello")).frame), *interface, greet);
  EXPECT_EQ(reply.reading, Reading::ready);
  EXPECT_EQ(reply.value, NSString("hello"));
}

TEST_F(CallCoding, AReplyThatCannotTravelSaysWhyAndWithWhichNumber) {
  EXPECT_EQ(encodeReply(7, NSString("hello")).reason, "");
  const EncodedReply uncoded = encodeReply(7, NSString::classObject());
  EXPECT_NE(uncoded.reason, "");
  EXPECT_EQ(uncoded.code, wire::kReplyRefused);
  EXPECT_EQ(encodeReply(7, NSString(std::string(limits::kMaximumFrameBytes, 'x'))).code, wire::kLimitExceeded);
}

TEST_F(CallCoding, AReplyOutsideItsClassSetOrOfAWrongClassIsRefused) {
  const wire::Frame number = inOnePiece(encodeReply(7, NSNumber(1)).frame);
  EXPECT_EQ(decodeReply(number, *interface, greet).reading, Reading::refused);
  interface->setClasses(NSSet{NSString::classObject(), NSNumber::classObject()}, "greet:reply:", 0, true);
  const DecodedReply reply = decodeReply(number, *interface, greet);
  EXPECT_EQ(reply.reading, Reading::refused);
  EXPECT_EQ(reply.reason, "is an object of class NSNumber where one of class NSString is due");
  EXPECT_TRUE(reply.value.isNil());
}

TEST_F(CallCoding, BytesBehindTheValueOfAReplyBreakTheProtocol) {
  wire::ValueEncoder encoder(wire::FrameType::reply);
  encoder.addUnsigned(7);
  encoder.add(NSString("hello"));
  encoder.addBool(true);
  const DecodedReply reply = decodeReply(inOnePiece(encoder.take()), *interface, greet);
  EXPECT_EQ(reply.reading, Reading::broken);
  EXPECT_EQ(reply.reason, "bytes after the value of a reply");
}

}  // namespace
}  // namespace velto::xpc
