// Values out of hostile bytes. Whatever decodes must be fit for everything that is done with values, and must travel
// on: encoding it gives bytes that decode to an equal value and encode to themselves. With other first bytes, the
// frames that hold no values of users.
//
// The first byte: how many descriptors the frame carries (3 bits), what it is decoded as (3 bits), which of the
// descriptors are wrong (2 bits).

#include <optional>
#include <string>
#include <vector>

#include "fuzz/support/Budget.h"
#include "fuzz/support/FakeKernel.h"
#include "fuzz/support/Input.h"
#include "fuzz/support/Quiet.h"
#include "fuzz/support/Require.h"
#include "fuzz/support/Values.h"
#include "message/TypeChecking.h"
#include "platform/foundation/UTF8.h"
#include "platform/xpc/testing/CBORJudge.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::fuzzing {
namespace {

using wire::Frame;
using wire::ValueDecoder;
using Outcome = ValueDecoder::Outcome;

// Measured on the dearest inputs that could be thought of, and about tripled.
constexpr Budget kBudget{
    // An empty array comes in one byte, and takes 165 here with all its copies.
    .heldBytes = 64 << 10,
    .heldBytesPerByte = 512,
    // A frame of nothing but empty dictionaries: each byte is a value, with a frame and a line of log of its own.
    .allocatedBytes = 256 << 10,
    .allocatedBytesPerByte = 5000,
    // Arrays as keys are compared each with each: a thousand of them fit into 4 kB, and take 140 us for each byte.
    .time = std::chrono::milliseconds(100),
    .timePerByte = std::chrono::microseconds(500),
};

Frame encoded(const NSObject& value) {
  wire::ValueEncoder encoder(wire::FrameType::call);
  encoder.add(value);
  if (encoder.failed()) reportFinding("what was decoded does not encode: " + encoder.reason());
  return encoder.take();
}

void use(const NSObject& value) {
  static_cast<void>(value.hash());
  require(isValidUTF8(value.description().view()), "a description is UTF-8");
  require(value.isNil() || value.isKindOfClass(NSObject::classObject()), "everything is an object");
  checkDictionary(value.as<NSDictionary>());
  checkArray(value.as<NSArray>());
  const NSObject copy = value;
  require(copy == value, "a value equals itself");
}

// The kinds of all numbers, in order: equality does not tell 1 from true.
std::vector<NSNumber::Kind> kindsOf(const NSObject& value) {
  std::vector<NSNumber::Kind> kinds;
  walk(value, [&kinds](const NSObject& object) {
    if (const auto number = object.as<NSNumber>()) kinds.push_back(number.kind());
  });
  return kinds;
}

void travel(const NSObject& value) {
  const Frame first = encoded(value);
  ValueDecoder decoder(first);
  NSObject again;
  if (decoder.next(everything(), again) != Outcome::value) {
    reportFinding("what was encoded does not decode: " + decoder.reason());
  }
  require(decoder.atEnd(), "a value is encoded as one item");
  require(again == value && value == again, "a value survives the journey");
  require(kindsOf(again) == kindsOf(value), "numbers keep their kinds, and containers their order");
  require(again.hash() == value.hash(), "equal values have equal hashes");
  const Frame second = encoded(again);
  require(second.body == first.body, "a value is encoded in one way");
  require(second.descriptors == first.descriptors, "descriptors keep their order");
}

// Head by head, as far as they are sound, the reader finds what libcbor does.
void judgeHeads(const Frame& frame) {
  wire::ItemReader reader(frame.body);
  for (std::size_t before = 0;; before = reader.position()) {
    const std::string difference = wire::testing::whyNotAsJudged(reader, frame.body);
    if (!difference.empty()) reportFinding("at byte " + std::to_string(before) + " the reader " + difference);
    if (reader.position() == before) return;
  }
}

void decodeValues(const Frame& frame) {
  judgeHeads(frame);
  ValueDecoder decoder(frame);
  Outcome outcome = Outcome::value;
  while (!decoder.atEnd() && outcome != Outcome::broken) {
    NSObject value;
    outcome = decoder.next(everything(), value);
    if (outcome == Outcome::value) {
      use(value);
      travel(value);
    } else {
      require(value.isNil(), "nothing is returned but a value");
      require(!decoder.reason().empty() && isValidUTF8(decoder.reason()), "a failure has a reason");
    }
  }
}

void decodeCall(const Frame& frame) {
  ValueDecoder decoder(frame);
  std::string reason;
  const auto header = wire::decodeCallHeader(decoder, reason);
  require(header || !reason.empty(), "a failure has a reason");
  if (!header) return;
  wire::ValueEncoder encoder(wire::FrameType::call);
  wire::encodeCallHeader(encoder, *header);
  const Frame again = encoder.take();
  ValueDecoder second(again);
  const auto same = wire::decodeCallHeader(second, reason);
  require(same && same->identifier == header->identifier && same->selector == header->selector &&
              same->wantsReply == header->wantsReply,
          "the head of a call survives the journey");
}

template <class Message>
void decodeMessage(const Frame& frame, const std::function<Frame(const Message&)>& encode) {
  std::string reason;
  const std::optional<Message> message = Message::decode(frame, reason);
  require(message || !reason.empty(), "a failure has a reason");
  if (!message) return;
  const Frame first = encode(*message);
  const std::optional<Message> again = Message::decode(first, reason);
  require(again && encode(*again).body == first.body, "a message survives the journey");
}

void decodeMessages(const Frame& frame) {
  std::string reason;
  decodeMessage<wire::Hello>(frame, [](const wire::Hello& hello) { return hello.encode(); });
  decodeMessage<wire::Credit>(frame, [](const wire::Credit& credit) { return credit.encode(); });
  decodeMessage<wire::Refusal>(frame,
                               [](const wire::Refusal& refusal) { return refusal.encode(wire::FrameType::refusal); });
  const auto dropped = wire::decodeReplyDropped(frame, reason);
  require(!dropped || wire::decodeReplyDropped(wire::encodeReplyDropped(*dropped), reason) == dropped,
          "a dropped reply survives the journey");
  require(wire::decodeGoodbye(frame, reason) == frame.body.empty(), "a goodbye is empty");
}

void run(Bytes bytes) {
  Input input(bytes);
  const unsigned options = input.byte();
  {
    const Frame frame = frameWith(input.rest(), options & 7u, options >> 6);
    switch (options >> 3 & 7u) {
      case 1:
        decodeCall(frame);
        break;
      case 2:
        decodeMessages(frame);
        break;
      default:
        decodeValues(frame);
        break;
    }
  }
  require(FakeKernel::shared().openDescriptors() == 0, "no descriptor stays open");
}

}  // namespace
}  // namespace velto::fuzzing

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  velto::fuzzing::FakeKernel::shared();
  velto::fuzzing::formatLogAndDropIt();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  velto::fuzzing::runWithin(velto::fuzzing::kBudget, size, [=] { velto::fuzzing::run({data, size}); });
  return 0;
}
