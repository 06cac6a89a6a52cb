#include "platform/xpc/wire/Messages.h"

#include <functional>

#include <gtest/gtest.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/WireTesting.h"

namespace velto::wire {
namespace {

using namespace testing;

using Decodes = std::function<bool(const Frame&, std::string&)>;

// A whole body is taken; each of its beginnings, and the body with one item more, is not, and the reason says whose.
void expectExact(const Frame& frame, const std::string& name, const Decodes& decodes,
                 const Bytes& tooMuch = hex("00")) {
  std::string reason;
  EXPECT_TRUE(decodes(frame, reason)) << reason;
  for (std::size_t length = 0; length < frame.body.size(); ++length) {
    Frame cut = frame;
    cut.body.resize(length);
    reason.clear();
    EXPECT_FALSE(decodes(cut, reason)) << length;
    EXPECT_TRUE(contains(reason, name + ": ")) << reason;
  }
  reason.clear();
  EXPECT_FALSE(decodes(frameOfBytes(frame.body + tooMuch), reason));
  EXPECT_EQ(reason, name + ": bytes behind its last item");
}

TEST(Hello, OursStatesOurLimits) {
  const Hello hello = Hello::ours();
  EXPECT_EQ(hello.version, kProtocolVersion);
  EXPECT_EQ(hello.maximumFrameBytes, limits::kMaximumFrameBytes + limits::kMaximumRegionBytes);
  EXPECT_EQ(hello.maximumDescriptors, limits::kMaximumDescriptors);
  EXPECT_EQ(hello.undeliveredBytes, limits::kUndeliveredBytes);
  EXPECT_EQ(hello.undeliveredCalls, limits::kUndeliveredCalls);
}

TEST(Hello, HasTheBytesThatTheDocumentShows) {
  const Frame frame = Hello::ours().encode();
  EXPECT_EQ(frame.type, FrameType::hello);
  EXPECT_EQ(frame.body, hex("01 1a 41000000 18 40 1a 02000000 19 1000"));
}

TEST(Hello, ComesBackAsItWas) {
  std::string reason;
  const auto hello = Hello::decode(Hello{1, 2, 3, 4, UINT64_MAX}.encode(), reason);
  ASSERT_TRUE(hello) << reason;
  EXPECT_EQ(hello->maximumFrameBytes, 2u);
  EXPECT_EQ(hello->maximumDescriptors, 3u);
  EXPECT_EQ(hello->undeliveredBytes, 4u);
  EXPECT_EQ(hello->undeliveredCalls, UINT64_MAX);
}

TEST(Hello, MustBeExact) {
  expectExact(Hello::ours().encode(), "hello",
              [](const Frame& frame, std::string& reason) { return Hello::decode(frame, reason).has_value(); });
}

TEST(Hello, OfAnotherVersionOnlyTheVersionIsRead) {
  for (const char* body : {"02", "02 01", "02 63 616263 80", "02 ff", "1b ffffffffffffffff"}) {
    std::string reason;
    const auto hello = Hello::decode(frameOfBytes(hex(body)), reason);
    ASSERT_TRUE(hello) << body << reason;
    EXPECT_NE(hello->version, kProtocolVersion);
    EXPECT_EQ(hello->maximumFrameBytes, 0u);
  }
}

TEST(Hello, WithoutANumberForItsVersionIsBroken) {
  std::string reason;
  EXPECT_FALSE(Hello::decode(frameOfBytes(hex("61 31")), reason));
  EXPECT_EQ(reason, "hello: another item where a number is due");
}

TEST(CallHeader, ComesBackAsItWasAheadOfItsArguments) {
  ValueEncoder encoder(FrameType::call);
  encodeCallHeader(encoder, {7, "greet:reply:", true});
  encoder.add("Ada");
  encoder.add(nil);
  ASSERT_FALSE(encoder.failed());
  const Frame frame = encoder.take();
  EXPECT_EQ(frame.body, hex("07 6c 67726565743a7265706c793a f5 63 416461 f7"));

  ValueDecoder decoder(frame);
  std::string reason;
  const auto header = decodeCallHeader(decoder, reason);
  ASSERT_TRUE(header) << reason;
  EXPECT_EQ(header->identifier, 7u);
  EXPECT_EQ(header->selector, "greet:reply:");
  EXPECT_TRUE(header->wantsReply);
  NSObject value;
  EXPECT_EQ(decoder.next(everything(), value), Outcome::value);
  EXPECT_EQ(value, NSObject("Ada"));
  EXPECT_EQ(decoder.next(everything(), value), Outcome::value);
  EXPECT_TRUE(value.isNil());
  EXPECT_TRUE(decoder.atEnd());
}

TEST(CallHeader, ItemsOfOtherTypesAreBroken) {
  for (const char* body : {"", "07", "07 61 61", "61 61 61 61 f5", "07 07 f5", "07 61 61 01", "20 61 61 f5",
                           "07 41 61 f5", "07 61 61 f6", "07 61 ff f5"}) {
    const Frame frame = frameOfBytes(hex(body));
    ValueDecoder decoder(frame);
    std::string reason;
    EXPECT_FALSE(decodeCallHeader(decoder, reason)) << body;
    EXPECT_TRUE(contains(reason, "call: ")) << reason;
  }
}

TEST(CallHeader, ASelectorThatIsTooLongIsNotSent) {
  ValueEncoder longest(FrameType::call);
  encodeCallHeader(longest, {1, std::string(limits::kMaximumSelectorBytes, 's'), false});
  EXPECT_FALSE(longest.failed());
  ValueEncoder over(FrameType::call);
  encodeCallHeader(over, {1, std::string(limits::kMaximumSelectorBytes + 1, 's'), false});
  EXPECT_TRUE(over.exceededLimit());
  EXPECT_EQ(over.reason(), "exceeds a limit: bytes of a selector: 257, maximum 256");
}

TEST(CallHeader, ASelectorThatIsTooLongIsBrokenWhenItArrives) {
  for (const std::size_t length : {limits::kMaximumSelectorBytes, limits::kMaximumSelectorBytes + 1}) {
    ValueEncoder encoder(FrameType::call);
    encoder.addUnsigned(1);
    encoder.addText(std::string(length, 's'));
    encoder.addBool(false);
    const Frame frame = encoder.take();
    ValueDecoder decoder(frame);
    std::string reason;
    EXPECT_EQ(decodeCallHeader(decoder, reason).has_value(), length <= limits::kMaximumSelectorBytes);
    EXPECT_EQ(reason, length <= limits::kMaximumSelectorBytes ? "" : "call: bytes of a text: 257, maximum 256");
  }
}

TEST(ReplyDropped, ComesBackAsItWasAndMustBeExact) {
  std::string reason;
  const Frame frame = encodeReplyDropped(300);
  EXPECT_EQ(frame.type, FrameType::replyDropped);
  EXPECT_EQ(frame.body, hex("19 012c"));
  EXPECT_EQ(decodeReplyDropped(frame, reason), 300u);
  expectExact(frame, "dropped reply",
              [](const Frame& each, std::string& why) { return decodeReplyDropped(each, why).has_value(); });
}

TEST(Refusal, ComesBackAsItWasAndMustBeExact) {
  const Refusal refusal{9, kArgumentRefused, "argument 0 of wave: no"};
  std::string reason;
  for (const FrameType type : {FrameType::refusal, FrameType::replyRefusal}) {
    const Frame frame = refusal.encode(type);
    EXPECT_EQ(frame.type, type);
    const auto decoded = Refusal::decode(frame, reason);
    ASSERT_TRUE(decoded) << reason;
    EXPECT_EQ(decoded->identifier, 9u);
    EXPECT_EQ(decoded->code, kArgumentRefused);
    EXPECT_EQ(decoded->text, refusal.text);
  }
  expectExact(refusal.encode(FrameType::refusal), "refusal",
              [](const Frame& frame, std::string& why) { return Refusal::decode(frame, why).has_value(); });
}

TEST(Refusal, CodesHaveTheNumbersOfTheDocument) {
  EXPECT_EQ(kNoSuchMethod, 1u);
  EXPECT_EQ(kArgumentRefused, 2u);
  EXPECT_EQ(kReplyRefused, 3u);
  EXPECT_EQ(kLimitExceeded, 4u);
}

TEST(Refusal, ALongTextIsCutBetweenCharacters) {
  const auto arrived = [](const std::string& text) {
    std::string reason;
    const auto decoded = Refusal::decode(Refusal{1, 1, text}.encode(FrameType::refusal), reason);
    EXPECT_TRUE(decoded) << reason;
    return decoded ? decoded->text : reason;
  };
  const std::string longest(limits::kMaximumReasonBytes, 'r');
  EXPECT_EQ(arrived(longest), longest);
  EXPECT_EQ(arrived(longest + "r"), longest);
  const std::string shorter(limits::kMaximumReasonBytes - 1, 'r');
  EXPECT_EQ(arrived(shorter + "é"), shorter);
}

TEST(Refusal, ATextOverTheLimitIsBrokenWhenItArrives) {
  std::string reason;
  ValueEncoder encoder(FrameType::refusal);
  encoder.addUnsigned(1);
  encoder.addUnsigned(1);
  encoder.addText(std::string(limits::kMaximumReasonBytes + 1, 'r'));
  EXPECT_FALSE(Refusal::decode(encoder.take(), reason));
  EXPECT_EQ(reason, "refusal: bytes of a text: 1025, maximum 1024");
}

TEST(Refusal, TextThatIsNotUtf8GoesOutRepaired) {
  std::string reason;
  const auto decoded = Refusal::decode(Refusal{1, 1, "a\xff"}.encode(FrameType::refusal), reason);
  ASSERT_TRUE(decoded) << reason;
  EXPECT_EQ(decoded->text, "a\xEF\xBF\xBD");
}

TEST(Credit, OfCallsThatRanAheadComesBackToo) {
  std::string reason;
  const auto credit = Credit::decode(Credit{0, 0, 500, 3}.encode(), reason);
  ASSERT_TRUE(credit) << reason;
  EXPECT_EQ(credit->aheadBytes, 500U);
  EXPECT_EQ(credit->aheadCalls, 3U);
  // Of no calls it is not said.
  EXPECT_FALSE(Credit::decode(frameOfBytes(hex("01 01 05 00")), reason));
  EXPECT_FALSE(Credit::decode(frameOfBytes(hex("01 01 05")), reason));
}

TEST(Credit, ComesBackAsItWasAndMustBeExact) {
  std::string reason;
  const Frame frame = Credit{1000, 2}.encode();
  EXPECT_EQ(frame.type, FrameType::credit);
  EXPECT_EQ(frame.body, hex("19 03e8 02"));
  const auto credit = Credit::decode(frame, reason);
  ASSERT_TRUE(credit) << reason;
  EXPECT_EQ(credit->bytes, 1000u);
  EXPECT_EQ(credit->calls, 2u);
  expectExact(
      frame, "credit", [](const Frame& each, std::string& why) { return Credit::decode(each, why).has_value(); },
      hex("05 01 00"));
}

TEST(Goodbye, IsEmptyAndNothingElse) {
  std::string reason;
  EXPECT_EQ(encodeGoodbye().type, FrameType::goodbye);
  EXPECT_TRUE(encodeGoodbye().body.empty());
  EXPECT_TRUE(decodeGoodbye(encodeGoodbye(), reason));
  EXPECT_FALSE(decodeGoodbye(frameOfBytes(hex("00")), reason));
  EXPECT_EQ(reason, "goodbye: bytes behind its last item");
}

}  // namespace
}  // namespace velto::wire
